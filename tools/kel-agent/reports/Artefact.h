#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "common/Files.h"
#include "common/Outcome.h"
#include "reports/ReaderServer.h"

namespace kel {
namespace agent {

/// What was copied.
struct TSArtefact
{
    uint64_t m_size;    // its length
    uint64_t m_written; // without the holes, which the copy has, too
};

/// Copies the files that applications want in their reports. Each is read by a process that has
/// become the user who asks, so that nobody gets at another's file by way of the agent, and that
/// may wait for a file system that never answers, so that the agent does not.
///
/// Threads: one at a time.
class TCArtefactCopier
{
public:
    /// @param longest       the length that no artefact may exceed, whatever its holes.
    /// @param readerServer  outlives this object.
    TCArtefactCopier(uint64_t longest, TCReaderServer& readerServer)
        : m_longest(longest), m_readerServer(readerServer)
    {}

    /// Copies a regular file.
    ///
    /// @param user         must be the agent's own, unless the agent is privileged.
    /// @param destination  a path at which nothing is; there is nothing on failure either.
    /// @param room         in bytes; holes take none.
    /// @param copied       set on success; untouched otherwise.
    tools::TCOutcome Copy(const std::string& path, uid_t user, const std::string& destination,
                          uint64_t room, TSArtefact& copied);

private:
    typedef std::chrono::steady_clock TClock;

    /// The time that the agent has waited for a user's files; some of it is forgotten each second.
    struct TSWaited
    {
        TClock::duration m_time;
        TClock::time_point m_at;
    };

    TClock::duration m_TimeFor(uid_t user);
    bool m_HasEnded(uid_t user);

    const uint64_t m_longest;
    TCReaderServer& m_readerServer;
    std::map<uid_t, TSWaited> m_waited;
    std::map<uid_t, tools::TCDescriptor> m_readers; // that are not wanted, and may not be gone
};

} // namespace agent
} // namespace kel
