#pragma once

#include <atomic>

#include <gio/gio.h>
#include <gtest/gtest.h>

#include "support/TsanHandover.h"

namespace kel::test {

/// Counts messages of a kind on this process's connection to the bus.
template <bool (*isCounted)(GDBusMessage*)> class Traffic
{
public:
    Traffic() : m_pConnection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr))
    {
        HandOver(this);
        m_filter = g_dbus_connection_add_filter(m_pConnection, &Traffic::Filter, this, nullptr);
    }
    ~Traffic()
    {
        g_dbus_connection_remove_filter(m_pConnection, m_filter);
        g_object_unref(m_pConnection);
    }
    Traffic(const Traffic&) = delete;
    Traffic& operator=(const Traffic&) = delete;

    int Count() const { return m_count; }

    /// Those of all calls so far: the filter sees a message only when its turn to be written comes,
    /// so one more call is made and its reply waited for.
    int CountAll() const
    {
        GVariant* const reply = g_dbus_connection_call_sync(
            m_pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        EXPECT_NE(reply, nullptr);
        if (reply != nullptr) {
            g_variant_unref(reply);
        }
        return m_count;
    }

private:
    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean, gpointer traffic)
    {
        TakeOver(traffic);
        if (isCounted(message)) {
            ++static_cast<Traffic*>(traffic)->m_count;
        }
        return message;
    }

    GDBusConnection* m_pConnection; // one reference, released by the destructor
    guint m_filter;
    std::atomic<int> m_count{0};
};

/// Whether a message is a call of this method.
inline bool IsCall(GDBusMessage* message, const char* method)
{
    return g_strcmp0(g_dbus_message_get_member(message), method) == 0;
}

} // namespace kel::test
