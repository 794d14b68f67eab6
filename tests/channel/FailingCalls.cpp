#include "channel/FailingCalls.h"

#include <dlfcn.h>

#include <atomic>

namespace kel::test {

namespace {

std::atomic<int> failure(0); // the error's code; 0 for none
std::atomic<bool> dropped(false);

} // namespace

void FailNextProxy(int code) { failure = code; }

void DropNextReply() { dropped = true; }

} // namespace kel::test

// In place of GIO's functions of these names.

extern "C" __attribute__((visibility("default"))) GDBusProxy*
g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags, GDBusInterfaceInfo* info,
                      const gchar* name, const gchar* path, const gchar* interface,
                      GCancellable* cancellable, GError** error)
{
    const int code = kel::test::failure.exchange(0);
    if (code != 0) {
        g_set_error_literal(error, G_IO_ERROR, code, "the test wants it to fail");
        return nullptr;
    }
    static const auto next
        = reinterpret_cast<decltype(&g_dbus_proxy_new_sync)>(dlsym(RTLD_NEXT, __func__));
    return next(connection, flags, info, name, path, interface, cancellable, error);
}

extern "C" __attribute__((visibility("default"))) GDBusMessage*
g_dbus_connection_send_message_with_reply_finish(GDBusConnection* connection, GAsyncResult* result,
                                                 GError** error)
{
    static const auto next
        = reinterpret_cast<decltype(&g_dbus_connection_send_message_with_reply_finish)>(
            dlsym(RTLD_NEXT, __func__));
    GDBusMessage* const reply = next(connection, result, error);
    if (reply != nullptr && kel::test::dropped.exchange(false)) {
        g_object_unref(reply);
        return nullptr;
    }
    return reply;
}
