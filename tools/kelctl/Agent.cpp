#include "Agent.h"

#include <cstdio>

#include "common/AgentMessages.h"

namespace kel {
namespace ctl {

EStatus TSAgent::Find(const TSChannel& channel)
{
    const TGlibPtr<GDBusConnection> connection = ConnectToBus();
    if (!connection) {
        return EStatus::NoAnswer;
    }
    std::string reason;
    const EStatus found = Find(connection.get(), channel, reason);
    if (found != EStatus::Success) {
        std::fprintf(stderr, "kelctl: %s\n", reason.c_str());
    }
    return found;
}

EStatus TSAgent::Find(GDBusConnection* connection, const TSChannel& channel, std::string& reason)
{
    TGlibPtr<GError> error;
    if (m_FindOwner(connection, channel.m_agent, error)) {
        m_Ask(connection, channel);
        return EStatus::Success;
    }
    if (g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        reason = "no agent runs";
        return EStatus::Negative;
    }
    reason = IsDenied(error) ? "the bus forbids it: " : "no answer from the bus: ";
    reason += TextOf(*error);
    return EStatus::NoAnswer;
}

// True on success, otherwise false with the error.
bool TSAgent::m_FindOwner(GDBusConnection* connection, const char* name, TGlibPtr<GError>& error)
{
    const TGlibPtr<GVariant> owner = AskBus(connection, "GetNameOwner", name, "(s)", error);
    if (!owner) {
        return false;
    }
    const char* uniqueName = nullptr;
    g_variant_get(owner.get(), "(&s)", &uniqueName);
    m_uniqueName = uniqueName;

    const TGlibPtr<GVariant> id
        = AskBus(connection, "GetConnectionUnixProcessID", uniqueName, "(u)", error);
    if (!id) {
        return false;
    }
    g_variant_get(id.get(), "(u)", &m_process);
    return true;
}

void TSAgent::m_Ask(GDBusConnection* connection, const TSChannel& channel)
{
    using std::chrono::steady_clock;
    const steady_clock::time_point asked = steady_clock::now();
    TGlibPtr<GError> error;
    m_version = VersionIn(
        AskAgent(connection, channel, m_uniqueName.c_str(), tools::AskVersion, error, m_timeout));
    m_took = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - asked);
    m_denied = IsDenied(error);
    m_answers = !error;
}

} // namespace ctl
} // namespace kel
