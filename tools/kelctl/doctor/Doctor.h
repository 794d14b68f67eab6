#pragma once

#include <string>
#include <vector>

namespace kel {
namespace ctl {

/// What a check has found.
enum class EHealth { Good, Warning, Fault };

/// One point of the machine, and how it stands.
struct TSFinding
{
    std::string m_check; // its name, the same in every run: "bus", "policy", "drop"
    EHealth m_health;
    std::string m_what;   // in a sentence; a stranger's text in it is made plain by the printer
    std::string m_advice; // what to do; empty for what is good
};

typedef std::vector<TSFinding> TFindings;

/// Where the machine's things are.
struct TSDoctorOptions
{
    std::string m_stateDirectory = "/var/lib/kel-agent";
    bool m_json = false;
    bool m_test = false; // the channel of "kel-agent --test" is meant
};

/// The checks of what is on this machine without an agent's help: the drops, tmpfiles.d, the
/// directory of state, the kernel log, the idle class, the policy files, and the clocks.
void CheckFiles(const TSDoctorOptions& options, TFindings& findings);

/// The checks of the bus, of what is installed for it, of the agent and of its unit.
void CheckChannel(const TSDoctorOptions& options, TFindings& findings);

} // namespace ctl
} // namespace kel
