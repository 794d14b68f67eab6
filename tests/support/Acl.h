#pragma once

#include <sys/types.h>
#include <sys/xattr.h>

#include <cstdint>
#include <filesystem>

namespace kel::test {

constexpr char kAccessAcl[] = "system.posix_acl_access";
constexpr char kDefaultAcl[] = "system.posix_acl_default"; // leaves the mode as it is

/// An ACL as the kernel takes it (linux/posix_acl_xattr.h): everybody may do everything, and one
/// user by his number.
struct TSAcl
{
    struct TSEntry
    {
        uint16_t m_tag;
        uint16_t m_rights;
        uint32_t m_id;
    };

    explicit TSAcl(uid_t user)
        : m_entries{{0x01, 7, ~0U},
                    {0x02, 7, user},
                    {0x04, 7, ~0U},
                    {0x10, 7, ~0U}, // the mask
                    {0x20, 7, ~0U}}
    {}

    /// @return true on success, otherwise false with errno set.
    bool Set(const std::filesystem::path& path, const char* kind) const
    {
        return setxattr(path.c_str(), kind, this, sizeof(*this), 0) == 0;
    }

    uint32_t m_version = 2;
    TSEntry m_entries[5];
};

} // namespace kel::test
