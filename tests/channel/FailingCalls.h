#pragma once

#include <gio/gio.h>

namespace kel::test {

/// Makes the next g_dbus_proxy_new_sync() of this program, the library's calls included, fail with
/// this GIO error code. Later ones work again.
void FailNextProxy(int code);

/// Makes the next g_dbus_connection_send_message_with_reply_finish() of this program return no
/// message, and no error either.
void DropNextReply();

} // namespace kel::test
