#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "Bus.h"
#include "trace/CallRates.h"
#include "trace/Pcap.h"

namespace kel {
namespace ctl {

typedef std::vector<unsigned char> TBytes;

/// A call of the channel, as it was seen on the bus.
struct TSChannelCall
{
    enum class EKind {
        Send,
        Hello,
        Other // a method that the channel has not, or a body that is none of its
    };

    size_t m_number = 0;        // among the calls that were seen
    std::uint32_t m_serial = 0; // among those of its sender's connection
    TMicroseconds m_time = 0;
    std::string m_from;
    std::string m_to;
    EKind m_kind = EKind::Other;
    bool m_toAgent = false;
    bool m_isAnswered = true; // otherwise the caller wants no answer of the bus
    std::string m_what;       // the method and the form of what is Other; what is wrong with a Send

    int m_type = 0;           // of a Send
    unsigned char m_flag = 0; // 0 where its sender waits
    TBytes m_data;
    std::vector<int> m_types; // of a Hello
};

/// What has come back for it.
struct TSChannelAnswer
{
    TMicroseconds m_time = 0;
    std::string m_from;
    bool m_isOfBus = false; // the bus has answered, in place of who was called
    bool m_isLate = false;  // the caller may have stopped waiting for it
    std::string m_error;    // the name of the D-Bus error; empty when there is none
    std::string m_errorText;
    bool m_readable = false; // as an answer to a Send
    bool m_handled = false;
    TBytes m_data;
};

/// The message in a record; none where it is cut, or no message that fills it.
TGlibPtr<GDBusMessage> MessageOf(const TSPcapRecord& record);

/// Hears what happens in the channel.
class IChannelListener
{
public:
    virtual ~IChannelListener() = default;

    virtual void OnCall(const TSChannelCall& call) = 0;

    /// The call has no data any more.
    virtual void OnAnswer(const TSChannelCall& call, const TSChannelAnswer& answer) = 0;

    /// The call has waited until this time, and has no data any more. An answer may still come.
    virtual void OnUnanswered(const TSChannelCall& call, TMicroseconds time) = 0;

    /// @param agent  the unique name of the agent from now on; empty for none.
    virtual void OnAgent(TMicroseconds time, const std::string& agent) = 0;

    /// @param time  when the second was over.
    virtual void OnFlood(TMicroseconds time, const TSFlood& flood) = 0;
};

/// Finds the messages of the channel among those of a bus, and which answer is whose. They may be
/// a stranger's inventions.
class TCChannel
{
public:
    /// @param test  whether the test channel is meant.
    TCChannel(bool test, IChannelListener& listener);

    /// Tells it who owns the agent's name before the first message. A file has no such beginning:
    /// there the agent is known from what is sent to it alone.
    void SetAgent(const std::string& agent);

    /// @return whether the message is one of the channel.
    bool Take(TMicroseconds time, GDBusMessage& message);

    /// Tells of the calls that have waited for too long at this time, and of too many in a second.
    void Look(TMicroseconds time);

    /// Tells of all that wait.
    void End(TMicroseconds time);

private:
    typedef std::pair<std::string, std::uint32_t> TKey; // the caller, and his number for the call
    typedef std::map<size_t, TSChannelCall> TPending;   // by number: the oldest first

    void m_GiveUp(TPending::iterator pending, TMicroseconds time);
    void m_Forget(TPending::iterator pending);
    void m_Tell(TMicroseconds time, const std::vector<TSFlood>& floods);
    bool m_TakeCall(TMicroseconds time, GDBusMessage& message);
    bool m_TakeAnswer(TMicroseconds time, GDBusMessage& message);
    bool m_TakeOwner(TMicroseconds time, GDBusMessage& message);
    bool m_IsAgent(const std::string& name) const;
    bool m_MayAnswer(const std::string& name, const TSChannelCall& call) const;

    IChannelListener& m_listener;
    const std::string m_name;       // of the agent on the bus
    const std::string m_object;     // of the other channel, whose calls are left out
    std::set<std::string> m_agents; // unique names of agents, as far as they are known
    size_t m_calls = 0;
    TPending m_pending;                               // that an answer may come for
    std::map<TKey, size_t> m_numbers;                 // of those that are pending
    std::set<std::pair<TMicroseconds, size_t>> m_due; // when which is late, until that is told
    TCCallRates m_rates;
};

/// What a call is about: "set-policy (4)".
std::string NameOf(const TSChannelCall& call);

} // namespace ctl
} // namespace kel
