#include "Bus.h"

#include <cstdio>

namespace kel {
namespace ctl {

TGlibPtr<GDBusConnection> ConnectToBus()
{
    GError* failure = nullptr;
    TGlibPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &failure));
    const TGlibPtr<GError> error(failure);
    if (!connection) {
        std::fprintf(stderr, "kelctl: no system bus: %s\n", error->message);
        return connection;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    return connection;
}

TGlibPtr<GVariant> AskBus(GDBusConnection* connection, const char* question, const char* name,
                          const char* type, TGlibPtr<GError>& error)
{
    GError* failure = nullptr;
    TGlibPtr<GVariant> answer(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        question, g_variant_new("(s)", name), G_VARIANT_TYPE(type), G_DBUS_CALL_FLAGS_NO_AUTO_START,
        -1, nullptr, &failure));
    error.reset(failure);
    return answer;
}

} // namespace ctl
} // namespace kel
