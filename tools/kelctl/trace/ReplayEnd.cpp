#include "trace/ReplayEnd.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

namespace kel {
namespace ctl {

namespace {

constexpr char kInterface[] = "com.norvale.kel.IControl";
constexpr int kPatience = 10000; // ms, for as long the library waits for an agent
constexpr unsigned int kIsOwner = 1;
constexpr unsigned int kDoNotQueue = 4;
constexpr char kForm[] = "<node><interface name='com.norvale.kel.IControl'>"
                         "<method name='Send'><arg type='ay' direction='in'/>"
                         "<arg type='ay' direction='out'/></method>"
                         "<method name='Hello'><arg type='ay' direction='in'/></method>"
                         "</interface></node>";

GVariant* Body(const TBytes& bytes)
{
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return g_variant_new_tuple(&array, 1);
}

void Append(TBytes& bytes, int number)
{
    const auto* const first = reinterpret_cast<const unsigned char*>(&number);
    bytes.insert(bytes.end(), first, first + sizeof(number));
}

// In this machine's byte order, whatever that of the recording.
TBytes BytesOf(const TSChannelCall& call)
{
    TBytes bytes;
    if (call.m_kind == TSChannelCall::EKind::Hello) {
        for (const int type : call.m_types) {
            Append(bytes, type);
        }
    } else {
        Append(bytes, call.m_type);
        bytes.push_back(call.m_flag);
        bytes.insert(bytes.end(), call.m_data.begin(), call.m_data.end());
    }
    return bytes;
}

TBytes BytesOf(GVariant* body)
{
    const TGlibPtr<GVariant> array(g_variant_get_child_value(body, 0));
    gsize size = 0;
    const auto* const first
        = static_cast<const unsigned char*>(g_variant_get_fixed_array(array.get(), &size, 1));
    return TBytes(first, first + size);
}

TSChannelAnswer AnswerOf(GDBusMessage& message)
{
    TSChannelAnswer answer;
    GVariant* const body = g_dbus_message_get_body(&message);
    if (g_dbus_message_get_message_type(&message) == G_DBUS_MESSAGE_TYPE_ERROR) {
        const char* const name = g_dbus_message_get_error_name(&message);
        const char* const text = g_dbus_message_get_arg0(&message);
        answer.m_error = name == nullptr ? "" : name;
        answer.m_errorText = text == nullptr ? "" : text;
    } else if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(ay)"))) {
        answer.m_data = BytesOf(body);
        answer.m_readable = !answer.m_data.empty();
        if (answer.m_readable) {
            answer.m_handled = answer.m_data[0] != 0;
            answer.m_data.erase(answer.m_data.begin());
        }
    }
    return answer;
}

void OnAnswer(GObject* connection, GAsyncResult* result, void* answered)
{
    const std::unique_ptr<TCReplayEnd::TAnswered> function(
        static_cast<TCReplayEnd::TAnswered*>(answered));
    GError* failure = nullptr;
    const TGlibPtr<GDBusMessage> message(g_dbus_connection_send_message_with_reply_finish(
        G_DBUS_CONNECTION(connection), result, &failure));
    const TGlibPtr<GError> error(failure);
    (*function)(message ? std::optional<TSChannelAnswer>(AnswerOf(*message)) : std::nullopt);
}

} // namespace

TCReplayEnd::TCReplayEnd(const TSChannel& channel, TAnswerer answerer, TGreeted greeted)
    : m_channel(channel), m_answerer(std::move(answerer)), m_greeted(std::move(greeted))
{}

TCReplayEnd::~TCReplayEnd()
{
    if (m_object != 0) {
        g_dbus_connection_unregister_object(m_connection.get(), m_object);
    }
    if (m_connection) {
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    }
}

bool TCReplayEnd::Connect()
{
    static const GDBusInterfaceVTable kMethods = {&TCReplayEnd::m_OnCall, nullptr, nullptr, {}};
    m_connection = ConnectAlone();
    if (!m_connection) {
        return false;
    }
    const TGlibPtr<GDBusNodeInfo> form(g_dbus_node_info_new_for_xml(kForm, nullptr));
    m_object
        = g_dbus_connection_register_object(m_connection.get(), m_channel.m_object,
                                            form->interfaces[0], &kMethods, this, nullptr, nullptr);
    return true;
}

bool TCReplayEnd::OwnName()
{
    GError* failure = nullptr;
    const TGlibPtr<GVariant> answer(g_dbus_connection_call_sync(
        m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", m_channel.m_agent, kDoNotQueue), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &failure));
    const TGlibPtr<GError> error(failure);
    unsigned int result = 0;
    if (answer) {
        g_variant_get(answer.get(), "(u)", &result);
    }
    if (result != kIsOwner) {
        std::fprintf(stderr, "kelctl: cannot be the agent: %s\n",
                     error ? TextOf(*error).c_str() : "another one is");
    }
    return result == kIsOwner;
}

void TCReplayEnd::Send(const TSChannelCall& call, const std::string& to, const TAnswered& answered)
{
    const bool isHello = call.m_kind == TSChannelCall::EKind::Hello;
    const TGlibPtr<GDBusMessage> message(g_dbus_message_new_method_call(
        to.c_str(), m_channel.m_object, kInterface, isHello ? "Hello" : "Send"));
    g_dbus_message_set_body(message.get(), Body(BytesOf(call)));
    if (!call.m_isAnswered) {
        g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        g_dbus_connection_send_message(m_connection.get(), message.get(),
                                       G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        return;
    }
    g_dbus_connection_send_message_with_reply(m_connection.get(), message.get(),
                                              G_DBUS_SEND_MESSAGE_FLAGS_NONE, kPatience, nullptr,
                                              nullptr, &OnAnswer, new TAnswered(answered));
}

void TCReplayEnd::m_OnCall(GDBusConnection*, const char* sender, const char*, const char*,
                           const char* method, GVariant* arguments, GDBusMethodInvocation* call,
                           void* end)
{
    const TCReplayEnd& own = *static_cast<TCReplayEnd*>(end);
    TBytes bytes = BytesOf(arguments);
    if (std::strcmp(method, "Hello") == 0) {
        g_dbus_method_invocation_return_value(call, nullptr);
        if (own.m_greeted && bytes.size() >= sizeof(int)) {
            own.m_greeted(sender);
        }
        return;
    }
    int type = 0;
    if (bytes.size() > sizeof(type)) {
        std::memcpy(&type, bytes.data(), sizeof(type));
        bytes.erase(bytes.begin(), bytes.begin() + sizeof(type) + 1);
    }
    const TSChannelAnswer* const answer = own.m_answerer(type, bytes);
    if (answer != nullptr && g_dbus_is_interface_name(answer->m_error.c_str())) {
        g_dbus_method_invocation_return_dbus_error(call, answer->m_error.c_str(),
                                                   answer->m_errorText.c_str());
        return;
    }
    TBytes response(1, answer != nullptr && answer->m_handled ? 1 : 0);
    if (answer != nullptr) {
        response.insert(response.end(), answer->m_data.begin(), answer->m_data.end());
    }
    g_dbus_method_invocation_return_value(call, Body(response));
}

} // namespace ctl
} // namespace kel
