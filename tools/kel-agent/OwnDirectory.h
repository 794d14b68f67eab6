#pragma once

#include <sys/types.h>

#include <string>

#include "common/Files.h"

namespace kel {
namespace agent {

/// A directory that belongs to the agent, for as long as it is at its path.
class TCOwnDirectory
{
public:
    /// @param mode  of a directory that is made; one that exists keeps its own.
    TCOwnDirectory(std::string path, mode_t mode);

    /// Opens the directory, unless it is open, and makes a missing one. One that belongs to
    /// somebody else is refused, and a link in its place is not followed.
    ///
    /// @param reason  replaced by one line on failure; untouched otherwise.
    bool Open(std::string& reason);

    /// Has it, until Unlock() or its end, for this process alone. It is open.
    ///
    /// @param reason  as above.
    bool Lock(std::string& reason);
    void Unlock();

    int Get() const { return m_descriptor.Get(); }
    const std::string& Path() const { return m_path; }

private:
    const std::string m_path;
    const mode_t m_mode;
    tools::TCDescriptor m_descriptor;
    bool m_locked;
};

} // namespace agent
} // namespace kel
