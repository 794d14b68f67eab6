#include "Agent.h"

#include <cstdio>

namespace kel {
namespace ctl {

namespace {

void KeepResult(GObject*, GAsyncResult* result, void* kept)
{
    *static_cast<GAsyncResult**>(kept) = G_ASYNC_RESULT(g_object_ref(result));
}

} // namespace

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
    GAsyncResult* result = nullptr;
    AskVersion(connection, channel, m_uniqueName.c_str(), &KeepResult, &result);
    while (result == nullptr) {
        g_main_context_iteration(nullptr, TRUE);
    }
    TGlibPtr<GError> error;
    m_version = TakeVersion(G_OBJECT(connection), result, error);
    g_object_unref(result);
    m_denied = IsDenied(error);
    m_answers = !error;
}

} // namespace ctl
} // namespace kel
