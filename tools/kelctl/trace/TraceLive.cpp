#include "trace/Trace.h"

#include <unistd.h>

#include <cstdio>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <glib-unix.h>

#include <kel/KELLocks.h>

#include "Bus.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kInterface[] = "com.norvale.kel.IControl";
constexpr size_t kMostWaiting = 64U << 20; // bytes of messages that are not shown yet
constexpr size_t kHead = 2048;             // of a message, about: what it takes beside its body
constexpr unsigned int kLookEvery = 1;     // seconds
constexpr int kAtOnce = 64;                // messages, before signals and the like have their turn

// A message on its way from the connection's thread to the main one.
struct TSSeen
{
    TMicroseconds m_time = 0;
    TGlibPtr<GDBusMessage> m_message;
    size_t m_size = 0;
};

class TCLive;

// What the two threads have in common. It lives as long as either.
class TCInbox
{
public:
    /// @return whether it was empty: what is in it is then to be looked for.
    bool Put(TSSeen seen) KEL_EXCLUDES(m_mutex)
    {
        const TCLock lock(m_mutex);
        if (m_size > kMostWaiting) {
            ++m_lost;
            return false;
        }
        m_size += seen.m_size;
        m_waiting.push_back(std::move(seen));
        return m_waiting.size() == 1;
    }

    /// @return false when it is empty.
    bool Next(TSSeen& seen) KEL_EXCLUDES(m_mutex)
    {
        const TCLock lock(m_mutex);
        if (m_waiting.empty()) {
            return false;
        }
        seen = std::move(m_waiting.front());
        m_waiting.pop_front();
        m_size -= seen.m_size;
        return true;
    }

    size_t Count() KEL_EXCLUDES(m_mutex)
    {
        const TCLock lock(m_mutex);
        return m_waiting.size();
    }

    /// How many had no room since the last time.
    unsigned int TakeLost() KEL_EXCLUDES(m_mutex)
    {
        const TCLock lock(m_mutex);
        return std::exchange(m_lost, 0);
    }

    std::string m_ownName;
    TCLive* m_pLive = nullptr; // of the main thread alone

private:
    TCMutex m_mutex;
    std::deque<TSSeen> m_waiting KEL_GUARDED_BY(m_mutex);
    size_t m_size KEL_GUARDED_BY(m_mutex) = 0;
    unsigned int m_lost KEL_GUARDED_BY(m_mutex) = 0;
};
typedef std::shared_ptr<TCInbox> TInbox;

// Made, run and destroyed on one thread, which iterates the default main context.
class TCLive
{
public:
    TCLive(TCTrace& trace, bool test);
    TCLive(const TCLive&) = delete;
    TCLive& operator=(const TCLive&) = delete;

    EStatus Run();

private:
    bool m_Connect();
    std::string m_FindAgent();
    bool m_Watch();
    void m_End(EStatus status);

    static GDBusMessage* m_OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                     int incoming, void* inbox);
    static int m_OnSeen(void* inbox);
    static int m_OnSecond(void* live);
    static int m_OnSignal(int descriptor, GIOCondition condition, void* live);
    static int m_OnOutputGone(int descriptor, GIOCondition condition, void* live);
    static void m_OnBusGone(GDBusConnection* connection, int remote, GError* error, void* live);

    TCTrace& m_trace;
    const TSChannel& m_channel;
    const TInbox m_inbox;
    TGlibPtr<GDBusConnection> m_connection;
    const TGlibPtr<GMainLoop> m_loop;
    EStatus m_status;
};

TCLive::TCLive(TCTrace& trace, bool test)
    : m_trace(trace), m_channel(test ? kTestChannel : kChannel),
      m_inbox(std::make_shared<TCInbox>()), m_loop(g_main_loop_new(nullptr, FALSE)),
      m_status(EStatus::Success)
{
    m_inbox->m_pLive = this;
}

// The main context is iterated here and nowhere else in the program: what it holds for this object
// need not be taken back.
EStatus TCLive::Run()
{
    if (!m_Connect()) {
        return EStatus::NoAnswer;
    }
    const std::string agent = m_FindAgent();
    if (!m_Watch()) {
        return EStatus::NoAnswer;
    }
    m_trace.Begin(agent);
    g_unix_fd_add(m_trace.Output().Signals(), G_IO_IN, &TCLive::m_OnSignal, this);
    g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, &TCLive::m_OnOutputGone, this);
    g_timeout_add_seconds(kLookEvery, &TCLive::m_OnSecond, this);
    g_signal_connect(m_connection.get(), "closed", G_CALLBACK(&TCLive::m_OnBusGone), this);
    if (g_dbus_connection_is_closed(m_connection.get())) {
        m_OnBusGone(m_connection.get(), 0, nullptr, this); // before anybody listened for that
    } else {
        g_main_loop_run(m_loop.get());
    }
    TSSeen seen;
    for (size_t left = m_inbox->Count(); left > 0 && m_inbox->Next(seen); --left) {
        m_trace.Take(seen.m_time, *seen.m_message);
    }
    return m_trace.End(NowInMicroseconds(), m_status);
}

// A connection of its own: one that watches can do nothing else.
bool TCLive::m_Connect()
{
    m_connection = ConnectAlone();
    if (!m_connection) {
        return false;
    }
    m_inbox->m_ownName = g_dbus_connection_get_unique_name(m_connection.get());
    return true;
}

std::string TCLive::m_FindAgent()
{
    TGlibPtr<GError> error;
    const TGlibPtr<GVariant> owner
        = AskBus(m_connection.get(), "GetNameOwner", m_channel.m_agent, "(s)", error);
    const char* name = "";
    if (owner) {
        g_variant_get(owner.get(), "(&s)", &name);
    }
    return name;
}

// Answers tell of no interface: which are those of the channel, their calls tell.
bool TCLive::m_Watch()
{
    g_dbus_connection_add_filter(m_connection.get(), &TCLive::m_OnMessage, new TInbox(m_inbox),
                                 [](void* pointer) { delete static_cast<TInbox*>(pointer); });
    const std::string calls = std::string("type='method_call',interface='") + kInterface + "'";
    const std::string owner
        = "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='"
          + std::string(m_channel.m_agent) + "'";
    const char* const rules[]
        = {calls.c_str(), "type='method_return'", "type='error'", owner.c_str(), nullptr};
    GError* failure = nullptr;
    const TGlibPtr<GVariant> done(g_dbus_connection_call_sync(
        m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Monitoring", "BecomeMonitor", g_variant_new("(^asu)", rules, 0),
        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &failure));
    const TGlibPtr<GError> error(failure);
    if (!done) {
        std::fprintf(stderr, "kelctl: %s: %s\n",
                     IsDenied(error) ? "the bus lets this user not watch it; root may"
                                     : "the bus cannot be watched",
                     TextOf(*error).c_str());
    }
    return done != nullptr;
}

void TCLive::m_End(EStatus status)
{
    if (m_status == EStatus::Success) {
        m_status = status;
    }
    g_main_loop_quit(m_loop.get());
}

// On the connection's thread. Nothing is left to it: it would answer what is not for us, and the
// bus ends who watches and speaks.
GDBusMessage* TCLive::m_OnMessage(GDBusConnection*, GDBusMessage* message, int incoming,
                                  void* inbox)
{
    const TInbox& all = *static_cast<TInbox*>(inbox);
    const char* const to = g_dbus_message_get_destination(message);
    if (!incoming || (to != nullptr && to == all->m_ownName)) {
        return message;
    }
    TGlibPtr<GDBusMessage> taken(message);
    GVariant* const body = g_dbus_message_get_body(message);
    const size_t size = kHead + (body == nullptr ? 0 : g_variant_get_size(body));
    if (all->Put({NowInMicroseconds(), std::move(taken), size})) {
        g_idle_add_full(G_PRIORITY_DEFAULT, &TCLive::m_OnSeen, new TInbox(all),
                        [](void* pointer) { delete static_cast<TInbox*>(pointer); });
    }
    return nullptr;
}

int TCLive::m_OnSeen(void* inbox)
{
    TCInbox& all = **static_cast<TInbox*>(inbox);
    TCLive& live = *all.m_pLive;
    const std::optional<EStatus>& ended = live.m_trace.Output().Status();
    TSSeen seen;
    for (int count = 0; count < kAtOnce && !ended; ++count) {
        if (!all.Next(seen)) {
            return G_SOURCE_REMOVE; // the next one comes with a source of its own
        }
        live.m_trace.Take(seen.m_time, *seen.m_message);
    }
    if (ended) {
        live.m_End(*ended);
    }
    return ended ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

int TCLive::m_OnSecond(void* live)
{
    TCLive* const pLive = static_cast<TCLive*>(live);
    const unsigned int lost = pLive->m_inbox->TakeLost();
    if (lost > 0) {
        pLive->m_trace.Tell(IsoTime(NowInMicroseconds())
                            + " messages that came too fast: " + std::to_string(lost) + "\n");
    }
    pLive->m_trace.Look(NowInMicroseconds());
    return G_SOURCE_CONTINUE;
}

int TCLive::m_OnSignal(int, GIOCondition, void* live)
{
    static_cast<TCLive*>(live)->m_End(EStatus::Success);
    return G_SOURCE_REMOVE;
}

int TCLive::m_OnOutputGone(int, GIOCondition, void* live)
{
    static_cast<TCLive*>(live)->m_End(EStatus::NoOutput); // without a word, as everywhere
    return G_SOURCE_REMOVE;
}

void TCLive::m_OnBusGone(GDBusConnection*, int, GError*, void* live)
{
    std::fprintf(stderr, "kelctl: the system bus is gone\n");
    static_cast<TCLive*>(live)->m_End(EStatus::NoAnswer);
}

} // namespace

EStatus TraceBus(TCTrace& trace, bool test) { return TCLive(trace, test).Run(); }

} // namespace ctl
} // namespace kel
