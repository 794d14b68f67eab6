#include "common/BusPeer.h"

#include <unistd.h>

#include <climits>
#include <fstream>
#include <memory>

#include <gio/gio.h>

namespace kel {
namespace tools {

namespace {

constexpr int kAnswerTimeout = 1000; // of the bus, in ms

std::string ProgramOf(unsigned int process)
{
    const std::string directory = "/proc/" + std::to_string(process);
    char path[PATH_MAX];
    const ssize_t size = readlink((directory + "/exe").c_str(), path, sizeof(path));
    if (size > 0) {
        return std::string(path, static_cast<size_t>(size));
    }
    std::string name;
    std::getline(std::ifstream(directory + "/comm"), name, '\0');
    if (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    return name;
}

} // namespace

TSBusPeer TSBusPeer::Of(GDBusConnection* connection, const std::string& uniqueName)
{
    TSBusPeer peer;
    const std::unique_ptr<GVariant, decltype(&g_variant_unref)> answer(
        g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "GetConnectionCredentials",
                                    g_variant_new("(s)", uniqueName.c_str()),
                                    G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                    kAnswerTimeout, nullptr, nullptr),
        &g_variant_unref);
    if (!answer) {
        return peer;
    }
    const std::unique_ptr<GVariant, decltype(&g_variant_unref)> credentials(
        g_variant_get_child_value(answer.get(), 0), &g_variant_unref);
    guint32 number = 0;
    if (g_variant_lookup(credentials.get(), "UnixUserID", "u", &number) != FALSE) {
        peer.m_user = number;
    }
    if (g_variant_lookup(credentials.get(), "ProcessID", "u", &number) != FALSE) {
        peer.m_process = number;
        peer.m_program = ProgramOf(number);
    }
    return peer;
}

} // namespace tools
} // namespace kel
