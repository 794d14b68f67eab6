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
constexpr int kAnswerTimeout = 3000; // ms; who is busy may be so for long
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
    constexpr auto flags
        = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                            | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GError* failure = nullptr;
    TGlibPtr<GDBusConnection> connection;
    char* const address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &failure);
    if (address != nullptr) {
        connection.reset(
            g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, &failure));
        g_free(address);
    }
    const TGlibPtr<GError> error(failure);
    if (!connection) {
        std::fprintf(stderr, "kelctl: no system bus: %s\n", TextOf(*error).c_str());
    }
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
    const std::string version = Answer(answer.get()).value_or("");
    return version.size() < kLongestVersion
                   && std::all_of(version.begin(), version.end(), IsOfAVersion)
               ? version
               : "";
}

std::optional<std::string> AskAgent(GDBusConnection* connection, const TSChannel& channel,
                                    const char* agent, int type, TGlibPtr<GError>& error)
{
    GError* failure = nullptr;
    const TGlibPtr<GVariant> answer(g_dbus_connection_call_sync(
        connection, agent, channel.m_object, kInterface, "Send", Request(type), nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kAnswerTimeout, nullptr, &failure));
    error.reset(failure);
    return Answer(answer.get());
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
