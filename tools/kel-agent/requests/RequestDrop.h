#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "OwnDirectory.h"
#include "requests/Request.h"

namespace kel {
namespace agent {

/// One of the directories in which applications leave request files. Anybody may leave one there,
/// and nobody but the agent can list, replace or remove another's.
///
/// A request is moved, in one step, into a subdirectory of the agent's own before it is read: one
/// that is filed again under the same name meanwhile is another one.
///
/// Threads: one at a time.
class TCRequestDrop
{
public:
    /// @param path     absolute, without a slash at its end.
    /// @param cutSize  of the path of a request file, at which the library cuts.
    TCRequestDrop(const std::string& path, bool reboot, size_t cutSize);

    /// Makes the directory and makes it safe, unless it is so. Only one agent at a time has it.
    ///
    /// @return true on success, otherwise false with a line in the log when the reason is a new
    ///         one.
    bool Open();

    /// The requests there are, those that were taken before first, and then the oldest first.
    /// What is no request stays where it is, with a line in the log the first time.
    ///
    /// @param unfinished  set when there is one that is still being written.
    std::vector<std::string> List(bool& unfinished);

    /// Takes and reads a request of the list.
    ///
    /// @param reason  replaced by one line when it could not be read for now; untouched otherwise.
    /// @return true on success; false then, and when it is gone or was replaced by what is none
    ///         (with a line in the log).
    bool Take(const std::string& name, TSRequest& request, std::string& reason);

    /// Removes one that was taken.
    ///
    /// @param reason  replaced by one line on failure; untouched otherwise.
    bool Remove(const TSRequest& request, std::string& reason);

    const std::string& Path() const { return m_path; }

private:
    bool m_IsRequest(const std::string& name, bool& unfinished, timespec& filed);
    bool m_IsTaken(const std::string& name);
    bool m_Read(const std::string& name, TSRequest& request, std::string& reason);
    void m_Ignore(const std::string& name, const std::string& reason);

    const std::string m_path;
    const bool m_reboot;
    const size_t m_cutSize;              // of the name
    std::chrono::nanoseconds m_patience; // left for the writers of the list under way
    TCOwnDirectory m_drop;
    TCOwnDirectory m_taken;
    std::string m_unusable; // why, when it is
    std::map<std::string, std::string> m_ignored;
    std::map<std::string, std::string> m_stillIgnored; // of the list under way
};

} // namespace agent
} // namespace kel
