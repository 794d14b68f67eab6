#pragma once

#include <sys/types.h>

#include <climits>
#include <cstddef>
#include <cstdint>

namespace kel {
namespace agent {

/// With whose rights a file is read. The groups are those of the user database: what a group of a
/// file may read is not for whom has just put a file there.
struct TSRights
{
    static constexpr int kMostGroups = 1024; // the rest lends nothing

    uid_t m_user;
    gid_t m_group;
    int m_count; // of the supplementary groups
    gid_t m_groups[kMostGroups];
};

/// The rights of a user. One whom the user database does not know has no groups.
TSRights RightsOf(uid_t user);

/// What a reader is to do; it is sent as it is.
struct TSReading
{
    char m_path[PATH_MAX];
    TSRights m_rights;
    uint64_t m_room;     // how many bytes there may be, without the holes
    uint64_t m_longest;  // and with them
    unsigned int m_time; // in seconds: then it ends itself
};

/// What a reader says, in its socket: each time one of these, and behind Data so many bytes.
struct TSFrame
{
    enum EKind : uint32_t { Data, End, Failed, Foreign, NoFile, TooLarge };

    uint32_t m_kind;
    uint32_t m_size;   // of the data; an error number with Failed
    uint64_t m_number; // where the data belong; the file's length with End; bytes with TooLarge
};

constexpr size_t kMostOfAFrame = 64U << 10;

constexpr int kReadersSocket = 0; // the one descriptor that a reader has

/// Reads one regular file, and ends the process. That has become the user who asks before, for
/// good: it opens and reads with the rights of the user, and with no capability, none of the
/// agent's files, and little time and memory. It takes no lock and reserves no memory.
///
/// @param parent  with whom it ends.
[[noreturn]] void BeReader(const TSReading& reading, pid_t parent);

} // namespace agent
} // namespace kel
