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
    enum class EMode { Given, Kept };

    /// @param mode     of a directory that is made, and with EMode::Given also of one that exists.
    TCOwnDirectory(std::string path, mode_t mode, EMode existing);

    /// Opens the directory, unless it is open: makes a missing one, and takes one that belongs to
    /// somebody else over, if the agent may. A link in its place is not followed.
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
    const EMode m_existing;
    tools::TCDescriptor m_descriptor;
    bool m_locked;
};

} // namespace agent
} // namespace kel
