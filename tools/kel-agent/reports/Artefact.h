#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "common/Files.h"
#include "common/Outcome.h"
#include "reports/LateResult.h"
#include "reports/ReaderServer.h"

namespace kel {
namespace agent {

/// What has become of a copy.
struct TSArtefact
{
    tools::TCOutcome m_outcome;
    uint64_t m_size = 0;    // its length
    uint64_t m_written = 0; // without the holes, which the copy has, too
};

/// Why there is none.
std::string NoRoom(uint64_t bytes, uint64_t room);

/// Copies the files that applications want in their reports. Each is read by a process that has
/// become the user who asks, so that nobody gets at another's file by way of the agent, and copied
/// on a thread of its own, so that a file system that never answers keeps nobody else waiting.
///
/// Threads: one at a time.
class TCArtefactCopier
{
public:
    /// @param longest       the length that no artefact may exceed, whatever its holes.
    /// @param readerServer  outlives this object.
    TCArtefactCopier(uint64_t longest, TCReaderServer& readerServer);

    /// Gives up what is being copied.
    ~TCArtefactCopier();
    TCArtefactCopier(const TCArtefactCopier&) = delete;
    TCArtefactCopier& operator=(const TCArtefactCopier&) = delete;

    /// Begins to copy a regular file. Of the last one of the same user the end was taken, or it was
    /// given up.
    ///
    /// @param user         must be the agent's own, unless the agent is privileged.
    /// @param destination  a path at which nothing is; there is nothing on failure either.
    /// @param room         in bytes; holes take none.
    void Begin(const std::string& path, uid_t user, const std::string& destination, uint64_t room);

    /// Readable when the end of one can be taken, until ReadEnds().
    int Ends() const { return m_ends->Get(); }
    void ReadEnds();

    /// What has become of a user's copy, once; nothing when it is not done until so long after its
    /// begin. That takes at most 10 s, and the time in which a disk takes the copy.
    std::optional<TSArtefact> Take(uid_t user, std::chrono::steady_clock::duration patience);

    /// Ends what is being copied for a user.
    void GiveUp(uid_t user);

private:
    struct TSCopying
    {
        tools::TCDescriptor m_reader;
        TCLateResult<TSArtefact> m_copy;
    };

    tools::TCOutcome m_Start(const std::string& path, const TSReading& reading,
                             tools::TCDescriptor& reader);
    bool m_HasEnded(uid_t user);

    const uint64_t m_longest;
    TCReaderServer& m_readerServer;
    const std::shared_ptr<const tools::TCDescriptor> m_ends; // shared with the threads
    std::map<uid_t, TSCopying> m_copyings; // one that is done stays until its reader is gone
};

} // namespace agent
} // namespace kel
