#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace kel::test {

typedef std::vector<unsigned char> TBytes;
typedef std::shared_ptr<GVariant> TBody;

constexpr char kBusName[] = "com.norvale.kel.IControl";
constexpr char kTestBusName[] = "com.norvale.kel.IControlTest";
constexpr char kObjectPath[] = "/com/norvale/kel/CommunicationChannel";
constexpr char kTestObjectPath[] = "/com/norvale/kel/CommunicationChannelTest";
constexpr char kInterface[] = "com.norvale.kel.IControl";

/// A message body of type "(ay)".
TBody Body(const TBytes& bytes);

/// A message body in GVariant's text form, such as "(1, 'two')"; empty for none.
TBody ParseBody(const std::string& text);

/// The bytes of a "(ay)" body; nothing when it is of another type.
std::optional<TBytes> BytesOf(const TBody& body);

/// The bytes of a "Send" request and of a "Hello", for a little-endian or big-endian host alike.
TBytes SendBytes(int type, unsigned char flag, const TBytes& data = {});
TBytes HelloBytes(const std::vector<int>& types);

/// A method call that a raw peer has received.
struct TSCall
{
    std::string m_sender;
    std::string m_path;
    std::string m_interface;
    std::string m_method;
    std::string m_signature;
    TBytes m_bytes; // of a "(ay)" body
    bool m_noReply; // the caller wants none
    std::shared_ptr<GDBusMessage> m_message;
};

/// What came back for a call that a raw peer has made.
struct TSReply
{
    bool m_arrived = false; // anything at all
    std::string m_error;    // the D-Bus error's name; empty for a regular reply
    std::string m_signature;
    TBody m_body;
    TBytes m_bytes; // of a "(ay)" body

    bool IsOk() const { return m_arrived && m_error.empty(); }
};

/// A peer on the bus that uses none of our code: it sends exact bytes and answers with exact
/// bytes, over a connection of its own. All operations from any thread.
class RawPeer
{
public:
    /// What to answer to a call.
    struct TSAnswer
    {
        static TSAnswer Bytes(const TBytes& bytes) { return {true, Body(bytes), {}}; }
        static TSAnswer Other(const std::string& body) { return {true, ParseBody(body), {}}; }
        static TSAnswer Error(const std::string& name) { return {true, {}, name}; }
        static TSAnswer Nothing() { return {false, {}, {}}; } // or later: Answer()

        bool m_now;
        TBody m_body;
        std::string m_error;
    };

    /// Chooses the answer to one call. Runs on the connection's own thread: it must not wait.
    typedef std::function<TSAnswer(const TSCall&)> TAnswerer;

    explicit RawPeer(const PrivateBus& bus);
    explicit RawPeer(const std::string& busAddress);
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    const std::string& Name() const { return m_name; }

    // As a caller. The destination is the agent's name on the real channel unless it is set.

    void SetTarget(const std::string& busName, const std::string& path = kObjectPath);

    /// Sends a call and returns its number at once.
    guint32 Post(const std::string& method, const TBody& body, bool noReply = false,
                 const std::string& interface = kInterface);

    /// Waits for the reply to a call that Post() has sent; not arrived at the deadline otherwise.
    TSReply WaitReply(guint32 serial, std::chrono::milliseconds deadline = kDeadline);

    /// Both in one.
    TSReply Call(const std::string& method, const TBody& body,
                 std::chrono::milliseconds deadline = kDeadline);

    /// Calls "Send" with these bytes; calls "Hello" with these types, in this order.
    TSReply Send(const TBytes& bytes) { return Call("Send", Body(bytes)); }
    TSReply Hello(const std::vector<int>& types) { return Call("Hello", Body(HelloBytes(types))); }

    /// Returns when the target has handled every call sent before: a "Send" without a callback
    /// takes its turn behind them.
    void Settle();

    // As a callee.

    /// Takes a bus name; false when another has it or the bus refuses.
    bool OwnName(const std::string& name = kBusName);
    void ReleaseName(const std::string& name = kBusName);

    /// Sets the answers to calls of a method. Until then: "Send" gets the bytes 01, "Hello" an
    /// empty reply, everything else an error.
    void SetAnswer(const std::string& method, const TAnswerer& answerer);
    void SetAnswer(const std::string& method, const TSAnswer& answer);

    /// Answers a call that got nothing so far.
    void Answer(const TSCall& call, const TSAnswer& answer);

    /// The calls of the channel's interface received so far, those of one method, and waiting for
    /// so many of them.
    std::vector<TSCall> Calls() const;
    std::vector<TSCall> Calls(const std::string& method) const;
    bool WaitForCalls(const std::string& method, size_t count,
                      std::chrono::milliseconds deadline = kDeadline);
    void ForgetCalls();

    /// Leaves the bus without a word.
    void Vanish();

private:
    static GDBusMessage* m_Filter(GDBusConnection* connection, GDBusMessage* message,
                                  gboolean incoming, gpointer peer);
    bool m_Take(GDBusMessage* message);
    void m_TakeReply(GDBusMessage* message);
    void m_TakeCall(GDBusMessage* message);
    void m_Send(GDBusMessage* message);

    GDBusConnection* m_pConnection; // one reference, released by the destructor
    std::string m_name;
    guint m_filter;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // All guarded by m_mutex.
    std::string m_target = kBusName;
    std::string m_path = kObjectPath;
    std::map<guint32, TSReply> m_replies; // of the calls that are under way
    std::map<std::string, TAnswerer> m_answerers;
    std::vector<TSCall> m_calls;
};

} // namespace kel::test
