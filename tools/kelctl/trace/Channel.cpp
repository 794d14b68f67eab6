#include "trace/Channel.h"

#include <cstring>
#include <memory>

#include "common/AgentMessages.h"
#include "common/Archive.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kInterface[] = "com.norvale.kel.IControl";
constexpr char kBus[] = "org.freedesktop.DBus";
constexpr TMicroseconds kPatience = 10'000'000;     // for as long the library waits for an agent
constexpr TMicroseconds kEventPatience = 5'000'000; // and kel-agent for an application
constexpr size_t kMostPending = 4096;
constexpr size_t kMostAgents = 4096;

TMicroseconds Deadline(const TSChannelCall& call)
{
    return call.m_time + (call.m_toAgent ? kPatience : kEventPatience);
}

std::string Text(const char* text) { return text == nullptr ? "" : text; }

// An int of the machine on which the message was sent.
int IntAt(const TBytes& bytes, size_t at, bool swapped)
{
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof(number));
    return static_cast<int>(swapped ? GUINT32_SWAP_LE_BE(number) : number);
}

bool IsSwapped(GDBusMessage& message)
{
    constexpr auto own = G_BYTE_ORDER == G_LITTLE_ENDIAN ? G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN
                                                         : G_DBUS_MESSAGE_BYTE_ORDER_BIG_ENDIAN;
    return g_dbus_message_get_byte_order(&message) != own;
}

// The one array of bytes that a body of the channel is.
bool TakeBytes(GDBusMessage& message, TBytes& bytes)
{
    GVariant* const body = g_dbus_message_get_body(&message);
    if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE("(ay)"))) {
        return false;
    }
    const TGlibPtr<GVariant> array(g_variant_get_child_value(body, 0));
    gsize size = 0;
    const auto* const first
        = static_cast<const unsigned char*>(g_variant_get_fixed_array(array.get(), &size, 1));
    bytes.assign(first, first + size);
    return true;
}

void DecodeSend(TBytes& bytes, bool swapped, TSChannelCall& call)
{
    constexpr size_t kHead = sizeof(int) + 1;
    call.m_kind = TSChannelCall::EKind::Send;
    if (bytes.size() < kHead) {
        call.m_what = std::to_string(bytes.size()) + " bytes, which are too few";
        return; // it is taken for type 0 without data
    }
    call.m_type = IntAt(bytes, 0, swapped);
    call.m_flag = bytes[sizeof(int)];
    bytes.erase(bytes.begin(), bytes.begin() + kHead);
    call.m_data.swap(bytes);
}

void DecodeHello(const TBytes& bytes, bool swapped, TSChannelCall& call)
{
    call.m_kind = TSChannelCall::EKind::Hello;
    for (size_t at = 0; bytes.size() - at >= sizeof(int); at += sizeof(int)) {
        call.m_types.push_back(IntAt(bytes, at, swapped));
    }
}

// Whether it can be none of an agent's own.
bool IsForAgents(const TSChannelCall& call)
{
    return call.m_kind == TSChannelCall::EKind::Hello
           || (call.m_kind == TSChannelCall::EKind::Send
               && (call.m_type == tools::AskVersion
                   || tools::TCArchiveView(call.m_data).IsArchive()));
}

const char* NameOf(int type, bool toAgent)
{
    if (toAgent) {
        switch (type) {
        case 4:
            return "set-policy";
        case tools::AskVersion:
            return "version";
        case tools::AskClients:
            return "clients";
        case tools::AskArchive:
            return "archive";
        default:
            return "message";
        }
    }
    return type == 2 ? "policy-update" : type == 4 ? "process-info-request" : "event";
}

} // namespace

TGlibPtr<GDBusMessage> MessageOf(const TSPcapRecord& record)
{
    constexpr size_t kFixed = 16;  // of the head, which tells the size of all
    TBytes bytes = record.m_bytes; // which the parser takes as writable ones
    if (!record.m_whole || bytes.size() < kFixed
        || g_dbus_message_bytes_needed(bytes.data(), bytes.size(), nullptr)
               != static_cast<gssize>(bytes.size())) {
        return nullptr;
    }
    return TGlibPtr<GDBusMessage>(g_dbus_message_new_from_blob(
        bytes.data(), bytes.size(), G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr));
}

TCChannel::TCChannel(bool test, IChannelListener& listener)
    : m_listener(listener), m_name((test ? kTestChannel : kChannel).m_agent),
      m_object((test ? kChannel : kTestChannel).m_object)
{}

void TCChannel::SetAgent(const std::string& agent)
{
    if (!agent.empty() && m_agents.size() < kMostAgents) {
        m_agents.insert(agent); // for good: the bus gives no such name again
    }
}

bool TCChannel::Take(TMicroseconds time, GDBusMessage& message)
{
    Look(time);
    switch (g_dbus_message_get_message_type(&message)) {
    case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
        return m_TakeCall(time, message);
    case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case G_DBUS_MESSAGE_TYPE_ERROR:
        return m_TakeAnswer(time, message);
    case G_DBUS_MESSAGE_TYPE_SIGNAL:
        return m_TakeOwner(time, message);
    default:
        return false;
    }
}

void TCChannel::Look(TMicroseconds time)
{
    m_Tell(time, m_rates.Look(time));
    while (!m_due.empty() && m_due.begin()->first <= time) {
        const TSChannelCall& call = m_pending.at(m_due.begin()->second);
        m_due.erase(m_due.begin());
        m_listener.OnUnanswered(call, time);
    }
}

void TCChannel::End(TMicroseconds time)
{
    while (!m_pending.empty()) {
        m_GiveUp(m_pending.begin(), time);
    }
    m_Tell(time, m_rates.End());
}

void TCChannel::m_GiveUp(TPending::iterator pending, TMicroseconds time)
{
    const TSChannelCall& call = pending->second;
    if (m_due.count({Deadline(call), call.m_number}) > 0) {
        m_listener.OnUnanswered(call, time);
    }
    m_Forget(pending);
}

void TCChannel::m_Forget(TPending::iterator pending)
{
    const TSChannelCall& call = pending->second;
    m_due.erase({Deadline(call), call.m_number});
    m_numbers.erase({call.m_from, call.m_serial});
    m_pending.erase(pending);
}

void TCChannel::m_Tell(TMicroseconds time, const std::vector<TSFlood>& floods)
{
    for (const TSFlood& flood : floods) {
        m_listener.OnFlood(time, flood);
    }
}

bool TCChannel::m_TakeCall(TMicroseconds time, GDBusMessage& message)
{
    if (Text(g_dbus_message_get_interface(&message)) != kInterface
        || Text(g_dbus_message_get_path(&message)) == m_object) {
        return false;
    }
    TSChannelCall call;
    call.m_number = m_calls++;
    call.m_serial = g_dbus_message_get_serial(&message);
    call.m_time = time;
    call.m_from = Text(g_dbus_message_get_sender(&message));
    call.m_to = Text(g_dbus_message_get_destination(&message));
    call.m_isAnswered
        = (g_dbus_message_get_flags(&message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
    const std::string method = Text(g_dbus_message_get_member(&message));
    TBytes bytes;
    const bool isOfBytes = TakeBytes(message, bytes);
    if (isOfBytes && method == "Send") {
        DecodeSend(bytes, IsSwapped(message), call);
    } else if (isOfBytes && method == "Hello") {
        DecodeHello(bytes, IsSwapped(message), call);
    } else {
        call.m_what = method + "(" + Text(g_dbus_message_get_signature(&message)) + ")";
    }
    if (!m_IsAgent(call.m_to) && !m_IsAgent(call.m_from) && IsForAgents(call)) {
        SetAgent(call.m_to); // who was there before the first message
    }
    call.m_toAgent = m_IsAgent(call.m_to);
    m_listener.OnCall(call);
    m_rates.Add(call.m_from, call.m_to);

    if (m_pending.size() >= kMostPending) {
        m_GiveUp(m_pending.begin(), time);
    }
    const auto same = m_numbers.find({call.m_from, call.m_serial});
    if (same != m_numbers.end()) {
        m_Forget(m_pending.find(same->second));
    }
    // Who wants no answer may get a refusal, and waits for none.
    if (call.m_isAnswered) {
        m_due.emplace(Deadline(call), call.m_number);
    }
    call.m_data = {};
    m_numbers.emplace(TKey(call.m_from, call.m_serial), call.m_number);
    m_pending.emplace(call.m_number, std::move(call));
    return true;
}

bool TCChannel::m_TakeAnswer(TMicroseconds time, GDBusMessage& message)
{
    const auto number = m_numbers.find({Text(g_dbus_message_get_destination(&message)),
                                        g_dbus_message_get_reply_serial(&message)});
    if (number == m_numbers.end()) {
        return false;
    }
    const auto found = m_pending.find(number->second);
    const TSChannelCall& call = found->second;
    TSChannelAnswer answer;
    answer.m_time = time;
    answer.m_from = Text(g_dbus_message_get_sender(&message));
    if (!m_MayAnswer(answer.m_from, call)) {
        return false;
    }
    answer.m_isOfBus = answer.m_from == kBus;
    answer.m_isLate = time >= Deadline(call);
    if (g_dbus_message_get_message_type(&message) == G_DBUS_MESSAGE_TYPE_ERROR) {
        answer.m_error = Text(g_dbus_message_get_error_name(&message));
        answer.m_errorText = Text(g_dbus_message_get_arg0(&message));
    } else {
        if (call.m_to == m_name) {
            SetAgent(answer.m_from);
        }
        answer.m_readable = TakeBytes(message, answer.m_data) && !answer.m_data.empty();
        if (answer.m_readable) {
            answer.m_handled = answer.m_data[0] != 0;
            answer.m_data.erase(answer.m_data.begin());
        }
    }
    m_listener.OnAnswer(call, answer);
    m_Forget(found);
    return true;
}

bool TCChannel::m_TakeOwner(TMicroseconds time, GDBusMessage& message)
{
    GVariant* const body = g_dbus_message_get_body(&message);
    if (Text(g_dbus_message_get_sender(&message)) != kBus
        || Text(g_dbus_message_get_member(&message)) != "NameOwnerChanged" || body == nullptr
        || !g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)"))) {
        return false;
    }
    const char* name = nullptr;
    const char* owner = nullptr;
    g_variant_get(body, "(&s&s&s)", &name, nullptr, &owner);
    if (name != m_name) {
        return false;
    }
    SetAgent(owner);
    m_listener.OnAgent(time, owner);
    return true;
}

bool TCChannel::m_IsAgent(const std::string& name) const
{
    return name == m_name || m_agents.count(name) > 0;
}

// The bus hands on no other's answer, and shows it to who watches.
bool TCChannel::m_MayAnswer(const std::string& name, const TSChannelCall& call) const
{
    return name == kBus || name == call.m_to || (call.m_to == m_name && name != call.m_from);
}

std::string NameOf(const TSChannelCall& call)
{
    if (call.m_kind == TSChannelCall::EKind::Hello) {
        return "hello";
    }
    if (call.m_kind == TSChannelCall::EKind::Other) {
        return "call of " + call.m_what;
    }
    return NameOf(call.m_type, call.m_toAgent) + (" (" + std::to_string(call.m_type) + ")");
}

} // namespace ctl
} // namespace kel
