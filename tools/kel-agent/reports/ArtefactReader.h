#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/Files.h"

namespace kel {
namespace agent {

/// With whose rights a file is read. The groups are those of the user database: what a group of a
/// file may read is not for whom has just put a file there.
struct TSRights
{
    uid_t m_user;
    gid_t m_group;
    std::vector<gid_t> m_groups; // the supplementary ones
};

/// The rights of a user. One whom the user database does not know has no groups.
TSRights RightsOf(uid_t user);

/// What a reader is to do.
struct TSReading
{
    std::string m_path;
    TSRights m_rights;
    uint64_t m_room;     // how many bytes there may be, without the holes
    uint64_t m_longest;  // and with them
    unsigned int m_time; // in seconds: then it ends itself
};

/// What a reader says, in its pipe: each time one of these, and behind Data so many bytes.
struct TSFrame
{
    enum EKind : uint32_t { Data, End, Failed, Foreign, NoFile, TooLarge };

    uint32_t m_kind;
    uint32_t m_size;   // of the data; an error number with Failed
    uint64_t m_number; // where the data belong; the file's length with End; bytes with TooLarge
};

constexpr size_t kMostOfAFrame = 64U << 10;

/// A process that reads one regular file. It has become the user who asks, for good: it opens and
/// reads with the rights of the user, and with no capability, none of the agent's files, and little
/// time and memory.
///
/// Threads: any.
class TCArtefactReader
{
public:
    /// Starts it; there is none when that fails, with errno set.
    explicit TCArtefactReader(const TSReading& reading);

    /// Ends it, if it has not ended.
    ~TCArtefactReader();
    TCArtefactReader(const TCArtefactReader&) = delete;
    TCArtefactReader& operator=(const TCArtefactReader&) = delete;

    pid_t Id() const { return m_id; }

    /// What it says.
    const tools::TCDescriptor& Pipe() const { return m_pipe; }

private:
    pid_t m_id = -1;
    tools::TCDescriptor m_pipe;
};

} // namespace agent
} // namespace kel
