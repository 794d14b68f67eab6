#pragma once

#include <memory>

#include <gio/gio.h>

namespace kel {
namespace ctl {

struct TSRelease
{
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    void operator()(GVariant* value) const { g_variant_unref(value); }
};

/// Owns one reference to a GLib handle.
template <typename Handle> using TGlibPtr = std::unique_ptr<Handle, TSRelease>;

/// This process's connection to the system bus, which the library shares. When the bus goes, the
/// process stays.
///
/// @return empty, with one line on standard error, when there is no bus.
TGlibPtr<GDBusConnection> ConnectToBus();

/// Asks the bus itself, which starts nobody for that. The answer holds one value of the type.
///
/// @return empty, with the error, when there is none.
TGlibPtr<GVariant> AskBus(GDBusConnection* connection, const char* question, const char* name,
                          const char* type, TGlibPtr<GError>& error);

constexpr char kAgentName[] = "com.norvale.kel.IControl";

} // namespace ctl
} // namespace kel
