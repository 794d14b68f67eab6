#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>

namespace kel {
namespace ctl {

/// The policy that somebody has set, in the agent's directory of state.
struct TSStoredPolicy
{
    enum class EState { Stored, None, Unreadable };

    explicit TSStoredPolicy(const std::string& directory);

    const std::string m_path;
    EState m_state = EState::Unreadable;
    std::string m_reason; // it cannot be read
    std::string m_text;
    timespec m_since = {}; // it is stored

private:
    void m_Read();
};

constexpr char kDefaultStateDirectory[] = "/var/lib/kel-agent";

} // namespace ctl
} // namespace kel
