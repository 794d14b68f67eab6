#include "support/RawPeer.h"

#include <climits>
#include <cstring>
#include <stdexcept>

#include "support/TsanHandover.h"

namespace kel::test {

namespace {

constexpr int kSettleType = INT_MAX;

TBody Own(GVariant* body)
{
    return body != nullptr ? TBody(g_variant_ref_sink(body), &g_variant_unref) : TBody();
}

std::string Text(const char* text) { return text != nullptr ? text : ""; }

TBody CopyBody(GDBusMessage* message) { return Own(g_dbus_message_get_body(message)); }

} // namespace

TBody Body(const TBytes& bytes)
{
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return Own(g_variant_new_tuple(&array, 1));
}

TBody ParseBody(const std::string& text)
{
    if (text.empty()) {
        return {};
    }
    GVariant* const body = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, nullptr);
    if (body == nullptr) {
        throw std::runtime_error("not a GVariant: " + text);
    }
    return TBody(body, &g_variant_unref); // not floating, unlike what the constructors give
}

std::optional<TBytes> BytesOf(const TBody& body)
{
    if (!body || !g_variant_is_of_type(body.get(), G_VARIANT_TYPE("(ay)"))) {
        return std::nullopt;
    }
    const TBody array(g_variant_get_child_value(body.get(), 0), &g_variant_unref);
    gsize size = 0;
    const void* const bytes = g_variant_get_fixed_array(array.get(), &size, 1);
    const auto* const first = static_cast<const unsigned char*>(bytes);
    return TBytes(first, first + size);
}

TBytes SendBytes(int type, unsigned char flag, const TBytes& data)
{
    TBytes bytes(sizeof(type));
    std::memcpy(bytes.data(), &type, sizeof(type));
    bytes.push_back(flag);
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

TBytes HelloBytes(const std::vector<int>& types)
{
    TBytes bytes(types.size() * sizeof(int));
    if (!types.empty()) { // memcpy takes no null pointer, not even for nothing
        std::memcpy(bytes.data(), types.data(), bytes.size());
    }
    return bytes;
}

RawPeer::RawPeer(const PrivateBus& bus) : RawPeer(bus.Address()) {}

RawPeer::RawPeer(const std::string& busAddress) : m_pConnection(nullptr), m_filter(0)
{
    GError* error = nullptr;
    m_pConnection = g_dbus_connection_new_for_address_sync(
        busAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (error != nullptr) {
        const std::string reason = error->message;
        g_error_free(error);
        throw std::runtime_error("a raw peer cannot connect: " + reason);
    }
    m_name = g_dbus_connection_get_unique_name(m_pConnection);
    SetAnswer("Send", TSAnswer::Bytes({1}));
    SetAnswer("Hello", TSAnswer::Other(""));
    // Nobody knows the unique name before this constructor returns, so no call comes too early.
    HandOver(this);
    m_filter = g_dbus_connection_add_filter(m_pConnection, &RawPeer::m_Filter, this, nullptr);
}

RawPeer::~RawPeer()
{
    Vanish(); // which returns when no filter runs any more
    TakeOver(this);
    g_dbus_connection_remove_filter(m_pConnection, m_filter);
    g_object_unref(m_pConnection);
}

void RawPeer::SetTarget(const std::string& busName, const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_target = busName;
    m_path = path;
}

guint32 RawPeer::Post(const std::string& method, const TBody& body, bool noReply,
                      const std::string& interface)
{
    // Held while sending: the reply must not come before the call is known.
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::unique_ptr<GDBusMessage, void (*)(gpointer)> message(
        g_dbus_message_new_method_call(m_target.c_str(), m_path.c_str(), interface.c_str(),
                                       method.c_str()),
        &g_object_unref);
    if (body) {
        g_dbus_message_set_body(message.get(), body.get());
    }
    if (noReply) {
        g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    }
    guint32 serial = 0;
    g_dbus_connection_send_message(m_pConnection, message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   &serial, nullptr);
    if (!noReply) {
        m_replies[serial];
    }
    return serial;
}

TSReply RawPeer::WaitReply(guint32 serial, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, deadline, [&] { return m_replies[serial].m_arrived; });
    TSReply reply = m_replies[serial];
    m_replies.erase(serial);
    return reply;
}

TSReply RawPeer::Call(const std::string& method, const TBody& body,
                      std::chrono::milliseconds deadline)
{
    return WaitReply(Post(method, body), deadline);
}

void RawPeer::Settle()
{
    if (!Send(SendBytes(kSettleType, 1)).m_arrived) {
        throw std::runtime_error("the channel end does not answer");
    }
}

bool RawPeer::OwnName(const std::string& name)
{
    const TBody reply(
        g_dbus_connection_call_sync(m_pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "RequestName",
                                    g_variant_new("(su)", name.c_str(), 4u /* do not queue */),
                                    nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr),
        [](GVariant* value) { g_clear_pointer(&value, g_variant_unref); });
    guint32 result = 0;
    if (reply) {
        g_variant_get(reply.get(), "(u)", &result);
    }
    return result == 1 || result == 4; // the owner now, or already
}

void RawPeer::ReleaseName(const std::string& name)
{
    GVariant* const reply = g_dbus_connection_call_sync(
        m_pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "ReleaseName", g_variant_new("(s)", name.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, nullptr);
    if (reply != nullptr) {
        g_variant_unref(reply);
    }
}

void RawPeer::SetAnswer(const std::string& method, const TAnswerer& answerer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answerers[method] = answerer;
}

void RawPeer::SetAnswer(const std::string& method, const TSAnswer& answer)
{
    SetAnswer(method, [answer](const TSCall&) { return answer; });
}

void RawPeer::Answer(const TSCall& call, const TSAnswer& answer)
{
    GDBusMessage* const message
        = answer.m_error.empty() ? g_dbus_message_new_method_reply(call.m_message.get())
                                 : g_dbus_message_new_method_error_literal(call.m_message.get(),
                                                                           answer.m_error.c_str(),
                                                                           "a raw peer says so");
    if (answer.m_body) {
        g_dbus_message_set_body(message, answer.m_body.get());
    }
    m_Send(message);
}

std::vector<TSCall> RawPeer::Calls() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

std::vector<TSCall> RawPeer::Calls(const std::string& method) const
{
    std::vector<TSCall> found;
    for (TSCall& call : Calls()) {
        if (call.m_method == method) {
            found.push_back(std::move(call));
        }
    }
    return found;
}

bool RawPeer::WaitForCalls(const std::string& method, size_t count,
                           std::chrono::milliseconds deadline)
{
    return WaitUntil([&] { return Calls(method).size() >= count; }, deadline);
}

void RawPeer::ForgetCalls()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.clear();
}

void RawPeer::Vanish() { g_dbus_connection_close_sync(m_pConnection, nullptr, nullptr); }

GDBusMessage* RawPeer::m_Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                gpointer peer)
{
    TakeOver(peer);
    const bool taken = incoming && static_cast<RawPeer*>(peer)->m_Take(message);
    HandOver(peer);
    if (taken) {
        g_object_unref(message);
        return nullptr;
    }
    return message;
}

bool RawPeer::m_Take(GDBusMessage* message)
{
    switch (g_dbus_message_get_message_type(message)) {
    case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case G_DBUS_MESSAGE_TYPE_ERROR:
        m_TakeReply(message);
        return false; // replies to the calls of GDBus itself go on to it
    case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
        m_TakeCall(message);
        return true;
    default:
        return false;
    }
}

void RawPeer::m_TakeReply(GDBusMessage* message)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_replies.find(g_dbus_message_get_reply_serial(message));
    if (found == m_replies.end()) {
        return;
    }
    TSReply& reply = found->second;
    reply.m_arrived = true;
    reply.m_error = Text(g_dbus_message_get_error_name(message));
    reply.m_signature = Text(g_dbus_message_get_signature(message));
    reply.m_body = CopyBody(message);
    reply.m_bytes = BytesOf(reply.m_body).value_or(TBytes());
    m_changed.notify_all();
}

void RawPeer::m_TakeCall(GDBusMessage* message)
{
    TSCall call;
    call.m_sender = Text(g_dbus_message_get_sender(message));
    call.m_path = Text(g_dbus_message_get_path(message));
    call.m_interface = Text(g_dbus_message_get_interface(message));
    call.m_method = Text(g_dbus_message_get_member(message));
    call.m_signature = Text(g_dbus_message_get_signature(message));
    call.m_bytes = BytesOf(CopyBody(message)).value_or(TBytes());
    call.m_noReply
        = (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0;
    call.m_message.reset(static_cast<GDBusMessage*>(g_object_ref(message)), &g_object_unref);

    TAnswerer answerer;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_answerers.find(call.m_method);
        if (found != m_answerers.end()) {
            answerer = found->second;
        }
        m_calls.push_back(call);
    }
    const TSAnswer answer
        = answerer ? answerer(call) : TSAnswer::Error("org.freedesktop.DBus.Error.UnknownMethod");
    if (answer.m_now && !call.m_noReply) {
        Answer(call, answer);
    }
}

void RawPeer::m_Send(GDBusMessage* message)
{
    const std::unique_ptr<GDBusMessage, void (*)(gpointer)> owned(message, &g_object_unref);
    g_dbus_connection_send_message(m_pConnection, owned.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
}

} // namespace kel::test
