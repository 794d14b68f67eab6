#pragma once

#include <string>

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

    /// The value that waits, in the state directory or in the key; empty when there is none.
    std::string Waiting();

    /// Takes and reads what waits.
    ///
    /// @param reason  replaced by one line when it could not be taken, untouched otherwise.
    /// @return true on success; false when it could not be taken, or is no request and was removed
    ///         with a line in the log.
    bool Take(TSRequest& request, std::string& reason);

    /// Removes the one that was taken.
    ///
    /// @param reason  replaced by one line on failure; untouched otherwise.
    bool Remove(std::string& reason);

    static constexpr char kKey[] = "memory/kel/ndf_one";

private:
    bool m_ReadTaken(std::string& value, struct stat& status) const;
    bool m_WriteTaken(const std::string& value, std::string& reason) const;

    const std::string m_stateDirectory;
    bool m_resumed;      // what a killed agent has left was compared with the key
    std::string m_stuck; // the value that could not be emptied: it was served
};

} // namespace agent
} // namespace kel
