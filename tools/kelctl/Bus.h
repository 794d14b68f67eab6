#pragma once

#include <memory>
#include <optional>
#include <string>

#include <gio/gio.h>

namespace kel {
namespace ctl {

struct TSRelease
{
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
    void operator()(GDBusMessage* message) const { g_object_unref(message); }
    void operator()(GDBusNodeInfo* node) const { g_dbus_node_info_unref(node); }
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

/// A connection of its own, which nobody shares.
///
/// @return empty, with one line on standard error, when there is no bus.
TGlibPtr<GDBusConnection> ConnectAlone();

/// The same, for who tells of a failure himself, and may not wait for ever.
///
/// @return empty, with the error, when there is no bus.
TGlibPtr<GDBusConnection> ConnectAlone(GCancellable* cancellable, TGlibPtr<GError>& error);

/// A method of an object.
struct TSMethod
{
    const char* m_owner; // on the bus
    const char* m_object;
    const char* m_interface;
    const char* m_name;
};

/// Calls a method and waits for its answer, and starts nobody for that.
///
/// @param arguments  a tuple, whose reference is taken when it is floating; null for none.
/// @param type       of the answer; null for any.
/// @param timeout    in ms; -1 for the D-Bus library's own.
/// @return empty, with the error, when there is none.
TGlibPtr<GVariant> Call(GDBusConnection* connection, const TSMethod& method, GVariant* arguments,
                        const char* type, int timeout, TGlibPtr<GError>& error);

/// Asks the bus itself, which starts nobody for that. The answer holds one value of the type.
///
/// @return empty, with the error, when there is none.
TGlibPtr<GVariant> AskBus(GDBusConnection* connection, const char* question, const char* name,
                          const char* type, TGlibPtr<GError>& error);

constexpr int kAnswerTimeout = 3000; // of an agent, in ms; who is busy may be so for long

/// The names of a channel.
struct TSChannel
{
    const char* m_agent; // on the bus
    const char* m_object;
};
constexpr TSChannel kChannel
    = {"com.norvale.kel.IControl", "/com/norvale/kel/CommunicationChannel"};
constexpr TSChannel kTestChannel
    = {"com.norvale.kel.IControlTest", "/com/norvale/kel/CommunicationChannelTest"};

/// Asks the owner of the agent's name for its version, which starts nobody.
///
/// @param agent  its unique name.
void AskVersion(GDBusConnection* connection, const TSChannel& channel, const char* agent,
                GAsyncReadyCallback answered, void* user);

/// The version, in what AskVersion() has got; empty, with the error, when there was no answer, and
/// without one when the agent does not tell its version.
std::string TakeVersion(GObject* connection, GAsyncResult* result, TGlibPtr<GError>& error);

/// Asks the owner of the agent's name for what a message without data is answered with, and waits.
///
/// @param type     the message's: see tools::EAgentMessage.
/// @param agent    its unique name.
/// @param timeout  in ms.
/// @return the bytes of the answer; nothing, with the error, when there was none, and without one
///         when the agent has declined.
std::optional<std::string> AskAgent(GDBusConnection* connection, const TSChannel& channel,
                                    const char* agent, int type, TGlibPtr<GError>& error,
                                    int timeout = kAnswerTimeout);

/// The version in an answer to AskVersion; empty when it tells none.
std::string VersionIn(const std::optional<std::string>& answer);

/// Whether it is the bus that forbids something to this user.
bool IsDenied(const TGlibPtr<GError>& error);

/// What an error says, without its name, for a terminal.
std::string TextOf(const GError& error);

} // namespace ctl
} // namespace kel
