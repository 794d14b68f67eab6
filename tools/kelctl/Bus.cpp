#include "Bus.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/AgentMessages.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kInterface[] = "com.norvale.kel.IControl";
constexpr size_t kLongestVersion = 64;

bool IsOfAVersion(char letter) { return g_ascii_isalnum(letter) || std::strchr(".+~-", letter); }

// The body of a message without data, by a caller who waits.
GVariant* Request(int type)
{
    unsigned char request[sizeof(type) + 1] = {};
    std::memcpy(request, &type, sizeof(type));
    GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, request, sizeof(request), 1);
    return g_variant_new_tuple(&bytes, 1);
}

// What follows the byte that tells that the message was handled; nothing when it was not.
std::optional<std::string> Answer(GVariant* body)
{
    if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE("(ay)"))) {
        return std::nullopt;
    }
    const TGlibPtr<GVariant> array(g_variant_get_child_value(body, 0));
    gsize size = 0;
    const char* const bytes
        = static_cast<const char*>(g_variant_get_fixed_array(array.get(), &size, 1));
    if (size == 0 || bytes[0] == 0) {
        return std::nullopt;
    }
    return std::string(bytes + 1, size - 1);
}

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

TGlibPtr<GDBusConnection> ConnectAlone()
{
    TGlibPtr<GError> error;
    TGlibPtr<GDBusConnection> connection = ConnectAlone(nullptr, error);
    if (!connection) {
        std::fprintf(stderr, "kelctl: no system bus: %s\n", TextOf(*error).c_str());
    }
    return connection;
}

TGlibPtr<GDBusConnection> ConnectAlone(GCancellable* cancellable, TGlibPtr<GError>& error)
{
    constexpr auto flags
        = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                            | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GError* failure = nullptr;
    TGlibPtr<GDBusConnection> connection;
    char* const address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &failure);
    if (address != nullptr) {
        connection.reset(
            g_dbus_connection_new_for_address_sync(address, flags, nullptr, cancellable, &failure));
        g_free(address);
    }
    error.reset(failure);
    return connection;
}

TGlibPtr<GVariant> Call(GDBusConnection* connection, const TSMethod& method, GVariant* arguments,
                        const char* type, int timeout, TGlibPtr<GError>& error)
{
    GError* failure = nullptr;
    TGlibPtr<GVariant> answer(g_dbus_connection_call_sync(
        connection, method.m_owner, method.m_object, method.m_interface, method.m_name, arguments,
        type != nullptr ? G_VARIANT_TYPE(type) : nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, timeout,
        nullptr, &failure));
    error.reset(failure);
    return answer;
}

TGlibPtr<GVariant> AskBus(GDBusConnection* connection, const char* question, const char* name,
                          const char* type, TGlibPtr<GError>& error)
{
    const TSMethod method
        = {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", question};
    return Call(connection, method, g_variant_new("(s)", name), type, -1, error);
}

void AskVersion(GDBusConnection* connection, const TSChannel& channel, const char* agent,
                GAsyncReadyCallback answered, void* user)
{
    g_dbus_connection_call(connection, agent, channel.m_object, kInterface, "Send",
                           Request(tools::AskVersion), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                           kAnswerTimeout, nullptr, answered, user);
}

std::string TakeVersion(GObject* connection, GAsyncResult* result, TGlibPtr<GError>& error)
{
    GError* failure = nullptr;
    const TGlibPtr<GVariant> answer(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &failure));
    error.reset(failure);
    return VersionIn(Answer(answer.get()));
}

std::optional<std::string> AskAgent(GDBusConnection* connection, const TSChannel& channel,
                                    const char* agent, int type, TGlibPtr<GError>& error,
                                    int timeout)
{
    const TSMethod send = {agent, channel.m_object, kInterface, "Send"};
    return Answer(Call(connection, send, Request(type), nullptr, timeout, error).get());
}

std::string VersionIn(const std::optional<std::string>& answer)
{
    const std::string version = answer.value_or("");
    return version.size() < kLongestVersion
                   && std::all_of(version.begin(), version.end(), IsOfAVersion)
               ? version
               : "";
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
