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

} // namespace ctl
} // namespace kel
