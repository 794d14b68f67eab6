#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <utility>

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
    void operator()(GDBusMessage* handle) const { g_object_unref(handle); }
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
    const GError& Get() const { return *m_pError; }
    const GError* Peek() const { return m_pError; }
    /// Hands the error over.
    GError* Release() { return std::exchange(m_pError, nullptr); }

    /// Whether the bus, or the peer, answered with this error (GDBusError).
    bool Is(GDBusError code) const
    {
        return g_error_matches(m_pError, G_DBUS_ERROR, code) != FALSE;
    }

private:
    GError* m_pError = nullptr;
};

/// Owns a method call that waits for its answer. One that goes unanswered is dropped; one that an
/// exception carries away is answered with NoMemory, for nothing but a shortage throws where calls
/// are handled.
class TCPendingCall
{
public:
    explicit TCPendingCall(GDBusMethodInvocation* invocation)
        : m_call(invocation), m_exceptions(std::uncaught_exceptions())
    {}
    ~TCPendingCall()
    {
        if (m_call != nullptr && std::uncaught_exceptions() > m_exceptions) {
            Fail(G_DBUS_ERROR_NO_MEMORY, "No memory to handle the call");
        }
    }
    TCPendingCall(const TCPendingCall&) = delete;
    TCPendingCall& operator=(const TCPendingCall&) = delete;

    /// Hands the call over to whoever answers it.
    GDBusMethodInvocation* Release() { return m_call.release(); }
    /// Drops the call unanswered.
    void Drop() { m_call.reset(); }
    /// Answers with a floating value, or with none.
    void Return(GVariant* floating)
    {
        g_dbus_method_invocation_return_value(m_call.release(), floating);
    }
    /// Answers with an error of D-Bus's.
    void Fail(GDBusError code, const char* message)
    {
        g_dbus_method_invocation_return_error_literal(m_call.release(), G_DBUS_ERROR, code,
                                                      message);
    }

private:
    TGlibPtr<GDBusMethodInvocation> m_call;
    const int m_exceptions;
};

/// The bytes of a "(ay)" value where they are, as long as the value lives; none when it is of
/// another type.
inline std::pair<const unsigned char*, size_t> BytesOf(GVariant* value)
{
    if (value == nullptr || !g_variant_is_of_type(value, G_VARIANT_TYPE("(ay)"))) {
        return {nullptr, 0};
    }
    // The tuple keeps the array's memory alive.
    const TGlibPtr<GVariant> array(g_variant_get_child_value(value, 0));
    gsize size = 0;
    const void* bytes = g_variant_get_fixed_array(array.get(), &size, 1);
    return {static_cast<const unsigned char*>(bytes), size};
}

/// Attaches a source to a context, with the priority of events.
inline void Attach(GSource* source, GMainContext* context, GSourceFunc function, gpointer data)
{
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, function, data, nullptr);
    g_source_attach(source, context);
}

/// Runs a function once in a context, always on the thread that iterates it:
/// g_main_context_invoke() would run it here while nobody does.
inline void Post(GMainContext* context, GSourceFunc function, gpointer data)
{
    const TGlibPtr<GSource> source(g_idle_source_new());
    Attach(source.get(), context, function, data);
}

} // namespace kel
