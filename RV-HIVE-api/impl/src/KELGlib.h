#pragma once

#include <memory>

#include <gio/gio.h>

namespace kel {

/// Releases one reference to any GLib handle that the library holds.
struct TSGlibRelease
{
    void operator()(GVariant* handle) const { g_variant_unref(handle); }
    void operator()(GMainContext* handle) const { g_main_context_unref(handle); }
    void operator()(GMainLoop* handle) const { g_main_loop_unref(handle); }
    void operator()(GSource* handle) const { g_source_unref(handle); }
    void operator()(GDBusNodeInfo* handle) const { g_dbus_node_info_unref(handle); }
    void operator()(GDBusConnection* handle) const { g_object_unref(handle); }
    void operator()(GDBusProxy* handle) const { g_object_unref(handle); }
    void operator()(GDBusMethodInvocation* handle) const { g_object_unref(handle); }
};

/// Owns one reference to a GLib handle. The same size as the bare pointer.
template <typename Handle> using TGlibPtr = std::unique_ptr<Handle, TSGlibRelease>;

/// Releases, if there is one, the reference that a plain pointer member of an exported class
/// owns. For the one place that the member's comment names.
template <typename Handle> void ReleaseMember(Handle* handle) { TGlibPtr<Handle>{handle}; }

/// Takes over a floating value, so that it is freed here unless a call takes it first.
inline TGlibPtr<GVariant> SinkVariant(GVariant* floating)
{
    return TGlibPtr<GVariant>(g_variant_ref_sink(floating));
}

/// Receives and frees the error of one GLib call.
class TCGlibError
{
public:
    TCGlibError() = default;
    ~TCGlibError() { g_clear_error(&m_pError); }
    TCGlibError(const TCGlibError&) = delete;
    TCGlibError& operator=(const TCGlibError&) = delete;

    GError** Out() { return &m_pError; }
    bool IsSet() const { return m_pError != nullptr; }
    int Code() const { return m_pError->code; }
    const char* Message() const { return m_pError->message; }

    /// Whether the bus, or the peer, answered with this error (GDBusError).
    bool Is(GDBusError code) const
    {
        return g_error_matches(m_pError, G_DBUS_ERROR, code) != FALSE;
    }

private:
    GError* m_pError = nullptr;
};

} // namespace kel
