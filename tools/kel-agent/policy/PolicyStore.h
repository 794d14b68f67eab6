#pragma once

#include <string>

namespace kel {
namespace agent {

/// The agent's directory of state, and the policy in it.
class TCPolicyStore
{
public:
    /// @param directory  looked at when something is stored, not before; never created.
    explicit TCPolicyStore(const std::string& directory);

    /// Replaces the stored policy, in one step: whoever looks, and whatever fails, finds the old
    /// one or the new one, whole. On success the new one has reached the disk.
    ///
    /// @param reason  replaced by one line on failure; untouched otherwise.
    bool Store(const std::string& policy, std::string& reason) const;

private:
    std::string m_directory;
};

} // namespace agent
} // namespace kel
