#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace kel {
namespace tools {

/// Looks into a binary archive of Boost.Serialization that holds one value, where it is: of a
/// machine of any word size and byte order. Its bytes may be a stranger's, and every length in it
/// is held against what is there.
class TCArchiveView
{
public:
    /// @param bytes  stay where they are while this object is used.
    explicit TCArchiveView(const std::vector<unsigned char>& bytes);

    /// Whether it begins like an archive.
    bool IsArchive() const { return m_word != 0; }

    /// The bytes of a size_t of the machine that has written it; 0 for what is no archive.
    std::size_t Word() const { return m_word; }

    /// The version of its writer's archive library; 0 for what is no archive.
    unsigned int Version() const;

    /// The string in an archive of one, which fills it to the end.
    std::optional<std::string_view> String() const;

    /// The number in an archive of an int, which fills it to the end.
    std::optional<int> Int() const;

private:
    bool m_HasHead(std::size_t word, bool bigEndian) const;
    unsigned long long m_Number(std::size_t at, std::size_t size, bool bigEndian) const;

    const std::vector<unsigned char>& m_bytes;
    std::size_t m_word = 0;
    bool m_bigEndian = false;
};

} // namespace tools
} // namespace kel
