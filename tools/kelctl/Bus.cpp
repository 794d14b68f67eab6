#include "Bus.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/AgentMessages.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr int kVersionTimeout = 3000; // ms; who is busy may be so for long
constexpr size_t kLongestVersion = 64;

bool IsOfAVersion(char letter) { return g_ascii_isalnum(letter) || std::strchr(".+~-", letter); }

} // namespace

TGlibPtr<GDBusConnection> ConnectToBus()
{
    GError* failure = nullptr;
    TGlibPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &failure));
    const TGlibPtr<GError> error(failure);
    if (!connection) {
        std::fprintf(stderr, "kelctl: no system bus: %s\n", TextOf(*error).c_str());
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

void AskVersion(GDBusConnection* connection, const TSChannel& channel, const char* agent,
                GAsyncReadyCallback answered, void* user)
{
    const int type = tools::AskVersion;
    unsigned char request[sizeof(type) + 1] = {}; // and the flag of a caller who waits
    std::memcpy(request, &type, sizeof(type));
    GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, request, sizeof(request), 1);
    g_dbus_connection_call(connection, agent, channel.m_object, "com.norvale.kel.IControl", "Send",
                           g_variant_new_tuple(&bytes, 1), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                           kVersionTimeout, nullptr, answered, user);
}

std::string TakeVersion(GObject* connection, GAsyncResult* result, TGlibPtr<GError>& error)
{
    GError* failure = nullptr;
    const TGlibPtr<GVariant> answer(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &failure));
    error.reset(failure);
    if (!answer || !g_variant_is_of_type(answer.get(), G_VARIANT_TYPE("(ay)"))) {
        return {};
    }
    const TGlibPtr<GVariant> array(g_variant_get_child_value(answer.get(), 0));
    gsize size = 0;
    const char* const bytes
        = static_cast<const char*>(g_variant_get_fixed_array(array.get(), &size, 1));
    if (size < 2 || bytes[0] == 0 || size > kLongestVersion) {
        return {};
    }
    const std::string version(bytes + 1, size - 1);
    return std::all_of(version.begin(), version.end(), IsOfAVersion) ? version : "";
}

bool IsDenied(const TGlibPtr<GError>& error)
{
    return g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) != FALSE;
}

std::string TextOf(const GError& error)
{
    const TGlibPtr<GError> plain(g_error_copy(&error));
    g_dbus_error_strip_remote_error(plain.get());
    return tools::Printable(plain->message);
}

} // namespace ctl
} // namespace kel
