#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Family.h"

namespace kel {
namespace testbus {

/// The agent's name on the bus.
const char* AgentName(bool test);

/// A private bus of the system type, which denies what a device's denies, with the channel's
/// policy: what that lets root do, this user may.
class TCBus
{
public:
    /// Starts it. The directory gets its files.
    ///
    /// @param log       an open file, for what the bus and the agents that it starts have to say.
    /// @param agent     what the bus starts when somebody calls the agent; empty for nobody.
    /// @throws std::runtime_error when it does not start.
    TCBus(TCFamily& family, const std::string& directory, int log, bool test,
          const std::vector<std::string>& agent);

    pid_t Process() const { return m_process; }

    /// Its address, which DBUS_SYSTEM_BUS_ADDRESS also has from here on.
    const std::string& Address() const { return m_address; }

    /// Has the bus start the agent, and returns when it is there.
    ///
    /// @throws std::runtime_error when it does not come.
    void StartAgent(TCFamily& family, int log, bool test) const;

private:
    pid_t m_process;
    std::string m_address;
};

/// A pipe, of which nobody but this process and those it forks have the ends.
struct TSPipe
{
    /// @throws std::system_error
    TSPipe();

    tools::TCDescriptor m_output;
    tools::TCDescriptor m_input;
};

} // namespace testbus
} // namespace kel
