#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "common/Outcome.h"
#include "common/RequestFormat.h"
#include "requests/Request.h"

namespace kel {
namespace agent {

/// The key in which applications leave a request, each in place of the one before.
///
/// A request is written into the state directory before the key is emptied: an agent that is
/// killed has it. The key-value store has no exchange, so a request that comes in the moment
/// between its reading and its emptying is lost; the one before it is not.
///
/// Threads: one at a time.
class TCRequestSlot
{
public:
    explicit TCRequestSlot(const std::string& stateDirectory);

    /// The value that waits, in the state directory or in the key; empty when there is none. It
    /// looks the key up, and nothing else, as long as there is none.
    std::string Waiting();

    /// How long the next look may wait: nothing tells of a change of the key.
    std::chrono::milliseconds Pause() const { return PauseAfter(TClock::now() - m_used); }

    /// The same, of a key in which no request was left for so long.
    static std::chrono::milliseconds PauseAfter(std::chrono::steady_clock::duration unused);

    /// Takes and reads what waits.
    ///
    /// @param request  replaced by what was taken; untouched when it is no request and was removed,
    ///                 with a line in the log.
    /// @return failed when it could not be taken.
    tools::TCOutcome Take(std::optional<TSRequest>& request);

    /// Removes the one that was taken.
    tools::TCOutcome Remove();

private:
    typedef std::chrono::steady_clock TClock;

    bool m_ReadTaken(std::string& value, struct stat& status) const;
    tools::TCOutcome m_WriteTaken(const std::string& value) const;

    const std::string m_stateDirectory;
    bool m_resumed; // what a killed agent has left was compared with the key
    bool m_isTaken; // there may be one in the state directory
    TClock::time_point m_used;
    std::string m_stuck; // the value that could not be emptied: it was served
};

} // namespace agent
} // namespace kel
