#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "doctor/DoctorChannel.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kInterface[] = "com.norvale.kel.IControl";

std::string Conf(const TSChannelSight& sight)
{
    return std::string(sight.m_channel.m_agent) + ".conf";
}

// What this user may do on the bus, found out by doing it.
enum class ETried { Allowed, Forbidden, NotTried };

// An event of root's goes to a unique name, and this connection's is one. Nobody else hears of it.
ETried TryEvent(const TSChannelSight& sight)
{
    if (geteuid() != 0) {
        return ETried::NotTried; // to others it is forbidden, which is as it should be
    }
    const TSMethod event = {g_dbus_connection_get_unique_name(sight.m_connection.get()),
                            sight.m_channel.m_object, kInterface, "Try"};
    TGlibPtr<GError> error;
    Call(sight.m_connection.get(), event, nullptr, nullptr, kDoctorPatience, error);
    return IsDenied(error) ? ETried::Forbidden : ETried::Allowed;
}

// A message to a name that nobody has is judged when somebody takes it.
ETried TryMessage(const TSChannelSight& sight)
{
    if (!sight.HasAgent()) {
        return ETried::NotTried;
    }
    return sight.m_agent.m_denied ? ETried::Forbidden : ETried::Allowed;
}

TSFinding Judge(const TSChannelSight& sight, const std::string& installed, ETried message,
                ETried event)
{
    const std::string reload = "systemctl reload dbus, or kill -HUP the bus's process";
    const std::string install = "install " + Conf(sight)
                                + " in /usr/share/dbus-1/system.d or /etc/dbus-1/system.d; "
                                + reload;
    if (message == ETried::Forbidden || event == ETried::Forbidden) {
        const std::string what = message == ETried::Forbidden
                                     ? "the bus forbids this user's messages to the agent"
                                     : "the bus forbids the agent's events to the applications";
        return installed.empty()
                   ? TSFinding{"bus policy", EHealth::Fault,
                               what + ", and none of its files that are seen allows them", install}
                   : TSFinding{"bus policy", EHealth::Fault,
                               what + ": it has not read " + installed
                                   + ", or another file takes back what that allows",
                               reload};
    }
    if (message == ETried::NotTried && event == ETried::NotTried) {
        if (!installed.empty()) {
            return {"bus policy", EHealth::Good,
                    installed
                        + " is installed; whether the bus has read it is seen when an agent runs",
                    ""};
        }
        return {"bus policy", sight.m_unread.empty() ? EHealth::Fault : EHealth::Warning,
                "no file of the bus that is seen allows messages to the agent", install};
    }
    if (installed.empty() && sight.m_unread.empty()) {
        return {"bus policy", EHealth::Warning,
                "the bus allows the channel, but no file that it reads does so any more: it ends "
                "when the bus reads them again",
                install};
    }
    const std::string what = message == ETried::Allowed ? "this user's messages may go to the agent"
                                                        : "events may go to the applications";
    return {"bus policy", EHealth::Good,
            (installed.empty() ? "loaded" : installed + " is installed, and loaded") + ": " + what,
            ""};
}

} // namespace

void CheckBus(const TSChannelSight& sight, TFindings& findings)
{
    if (sight.m_connection) {
        findings.push_back(
            {"bus", EHealth::Good,
             "the bus answers this user"
                 + (sight.m_busProgram.empty() ? ""
                                               : ": " + sight.m_busProgram + ", process "
                                                     + std::to_string(sight.m_busProcess)),
             ""});
        return;
    }
    const char* const address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    findings.push_back({"bus", EHealth::Fault, "there is no system bus: " + sight.m_noBus,
                        address != nullptr
                            ? "is DBUS_SYSTEM_BUS_ADDRESS right? It is " + std::string(address)
                            : "does it run (systemctl status dbus), and, in a container, is "
                              "/run/dbus/system_bus_socket there?"});
}

void CheckBusPolicy(const TSChannelSight& sight, TFindings& findings)
{
    const std::vector<std::string>& rules = sight.m_configuration.Rules();
    findings.push_back(Judge(sight, rules.empty() ? "" : rules.front(), TryMessage(sight),
                             sight.m_connection ? TryEvent(sight) : ETried::NotTried));
}

} // namespace ctl
} // namespace kel
