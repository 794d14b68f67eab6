#include <kel/KELDbusServer.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <future>
#include <iterator>
#include <memory>

#include <boost/bind/bind.hpp>

#include "KELGlib.h"
#include "KELHandlerGate.h"
#include "KELLog.h"
#include "KELPayload.h"
#include "KELSharedFunction.h"

KEL_LOG_SOURCE("KELDbusServer", "kel::TCDbusServer")

using namespace boost::placeholders;

namespace kel {

namespace {

constexpr unsigned int kNameLost = 233;
constexpr unsigned int kUnknownClientVanished = 256;

// A client has no properties and no signals. Not to ask for signals saves one of the two match
// rules that a client would cost, of which the bus grants a connection so many (512 on a stock
// system bus); the other is the watch's.
constexpr GDBusProxyFlags kClientProxyFlags = static_cast<GDBusProxyFlags>(
    G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES | G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS);

gboolean QuitLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

void Attach(GSource* source, GMainContext* context, GSourceFunc function, gpointer data)
{
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, function, data, nullptr);
    g_source_attach(source, context);
}

// Runs a function once in a context, always on the thread that iterates it:
// g_main_context_invoke() would run it here while nobody does.
void Post(GMainContext* context, GSourceFunc function, gpointer data)
{
    const TGlibPtr<GSource> source(g_idle_source_new());
    Attach(source.get(), context, function, data);
}

// Whether the bus has refused a call because too many wait for their replies. It has one error for
// all its limits, and an application may answer that, too: only the text tells.
bool IsForPendingReplies(const TCGlibError& error)
{
    return error.Is(G_DBUS_ERROR_LIMITS_EXCEEDED)
           && std::strstr(error.Message(), "maximum number of pending replies") != nullptr;
}

// False when the bus says that it knows no such name.
bool IsOnBus(GDBusConnection* connection, const char* name)
{
    const TGlibPtr<GVariant> reply(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE,
        -1, nullptr, nullptr));
    gboolean isOwned = TRUE;
    if (reply != nullptr) {
        g_variant_get(reply.get(), "(b)", &isOwned);
    }
    return isOwned != FALSE;
}

} // namespace

// One call to one client. It belongs to the sending thread, which waits on the future; the private
// thread borrows it from m_SendMessage until the promise is fulfilled.
struct TCDbusServer::TSAsyncMessage
{
    TSAsyncMessage(TCDbusServer* pServer, GDBusProxy* pProxy)
        : m_pServer(pServer), m_future(m_promise.get_future()),
          m_pProxy(static_cast<GDBusProxy*>(g_object_ref(pProxy))), m_pParameters(nullptr),
          m_timeout(-1), m_pFanOut(nullptr)
    {}

    TCDbusServer* m_pServer;
    std::promise<bool> m_promise;
    std::future<bool> m_future;
    TGlibPtr<GDBusProxy> m_pProxy; // keeps the call valid when the client is forgotten meanwhile
    GVariant* m_pParameters;       // the sender's request, one value for all its calls
    int m_timeout;                 // in milliseconds; -1 for the D-Bus library's default
    TSFanOut* m_pFanOut;           // the send that it is part of
};

// The calls of one send. It lives on the stack of the sending thread and is the private thread's
// alone from the post until the last promise is fulfilled, which is the last it does with it.
//
// The bus lets a connection wait for so many replies at once (128 on a stock system bus) and
// refuses the calls beyond. A call of this send that ends makes room for one of those. Room that
// others make (another send, peers of older calls) is found by a timer that tries a few: twice as
// many after an attempt that the bus has not turned down, and less often after one that it has.
struct TCDbusServer::TSFanOut
{
    void Add(TCDbusServer& server, GDBusProxy* pProxy, GVariant* pParameters, int timeout)
    {
        m_messages.push_back(std::make_unique<TSAsyncMessage>(&server, pProxy));
        TSAsyncMessage& message = *m_messages.back();
        message.m_pParameters = pParameters;
        message.m_timeout = timeout;
        message.m_pFanOut = this;
    }

    // Private thread: starts all calls.
    void Start()
    {
        const int timeout = m_messages.front()->m_timeout;
        const gint64 span = timeout == -1 ? kDefaultTimeout : timeout;
        m_deadline = timeout == G_MAXINT ? G_MAXINT64 : g_get_monotonic_time() + span * 1000;
        m_left = m_messages.size();
        for (const auto& message : m_messages) {
            m_SendMessage(message.get());
        }
    }

    // Private thread: a call has ended for good.
    void Ended()
    {
        if (--m_left == 0) {
            Disarm();
        } else if (!m_refused.empty()) {
            Restart();
        }
    }

    // Private thread: the bus has refused a call.
    void Refused(TSAsyncMessage& message)
    {
        m_refused.push_back(&message);
        m_turnedDown = true;
        if (m_timer == nullptr) {
            Arm(message.m_pServer->m_pContext);
        }
    }

    // Private thread: whether there is time for another attempt.
    bool HasTime() const { return g_get_monotonic_time() < m_deadline; }

    std::vector<std::unique_ptr<TSAsyncMessage>> m_messages;
    std::vector<GDBusProxy*> m_gone; // clients whose names the bus no longer knows

private:
    static constexpr int kDefaultTimeout = 25000; // the D-Bus library's, in milliseconds
    static constexpr gint64 kFirstInterval = 10;  // milliseconds, like the next
    static constexpr gint64 kLastInterval = 320;

    // The time left, in milliseconds; at least 1.
    gint64 Left() const
    {
        return std::max<gint64>((m_deadline - g_get_monotonic_time()) / 1000, 1);
    }

    void Restart()
    {
        TSAsyncMessage* const pMessage = m_refused.front();
        m_refused.pop_front();
        if (m_deadline != G_MAXINT64) {
            // At least 1 ms: the call's own time-out ends it, and reports it, like any other.
            pMessage->m_timeout = static_cast<int>(Left());
        }
        m_SendMessage(pMessage);
    }

    void Arm(GMainContext* context)
    {
        const gint64 interval = std::min(m_interval, Left());
        m_timer.reset(g_timeout_source_new(static_cast<unsigned int>(interval)));
        Attach(m_timer.get(), context, &TSFanOut::Tick, this);
    }

    void Disarm()
    {
        if (m_timer != nullptr) {
            g_source_destroy(m_timer.get());
            m_timer.reset();
        }
    }

    static gboolean Tick(void* fanOut)
    {
        static_cast<TSFanOut*>(fanOut)->LookForRoom();
        return G_SOURCE_REMOVE;
    }

    void LookForRoom()
    {
        GMainContext* const context = g_source_get_context(m_timer.get());
        m_timer.reset();
        if (m_turnedDown) {
            m_batch = 1;
            m_interval = std::min(2 * m_interval, kLastInterval);
        } else {
            m_batch *= 2;
            m_interval = kFirstInterval;
        }
        m_turnedDown = false;
        // Out of time they all go, to fail.
        size_t count = HasTime() ? std::min(m_batch, m_refused.size()) : m_refused.size();
        for (; count != 0; --count) {
            Restart();
        }
        if (!m_refused.empty()) {
            Arm(context);
        }
    }

    std::deque<TSAsyncMessage*> m_refused;
    size_t m_left = 0;     // calls that have not ended
    gint64 m_deadline = 0; // monotonic, in microseconds

    TGlibPtr<GSource> m_timer; // null when none is under way
    gint64 m_interval = kFirstInterval;
    size_t m_batch = 1;        // how many calls the timer starts again
    bool m_turnedDown = false; // whether the bus has refused one since the timer last looked
};

// GLib's way in: resolves the ticket that GLib was given in place of the server, and starts the
// calls of a whole fan-out.
struct TCDbusServer::TSGlibEntry
{
    static TCDbusServer* ServerOf(const TCHandlerStay& stay)
    {
        return static_cast<TCDbusServer*>(stay.End());
    }

    static void NameAcquired(GDBusConnection* connection, const char* name, void* ticket)
    {
        const TCHandlerStay stay(ticket);
        if (stay.End() != nullptr) {
            m_NameAcquired(connection, name, ServerOf(stay));
        }
    }

    static void NameLost(GDBusConnection* connection, const char* name, void* ticket)
    {
        const TCHandlerStay stay(ticket);
        if (stay.End() != nullptr) {
            m_NameLost(connection, name, ServerOf(stay));
        }
    }

    static void ClientNameVanished(GDBusConnection* connection, const char* name, void* ticket)
    {
        const TCHandlerStay stay(ticket);
        if (stay.End() != nullptr) {
            m_ClientNameVanished(connection, name, ServerOf(stay));
        }
    }

    static gboolean StartFanOut(void* fanOut)
    {
        static_cast<TSFanOut*>(fanOut)->Start();
        return G_SOURCE_REMOVE;
    }
};

TCDbusServer::TSClient::TSClient() : m_pProxy(nullptr), m_watchId(0) {}

TCDbusServer::TCDbusServer(bool test)
    : TCDbus(test), m_ownerId(0), m_pContext(nullptr), m_pLoop(nullptr)
{
    try {
        t_Start();
    } catch (...) {
        t_Stop(); // no destructor will run
        throw;
    }
}

TCDbusServer::~TCDbusServer() { t_Stop(); }

bool TCDbusServer::SetCallback(int type, const TMessageCallback& callback)
{
    const TCWriteLock callbacks(m_callbacksMutex);
    const bool inserted = m_callbacks.emplace(type, ShareState(callback)).second;
    KEL_DEBUG("Type %d, result %d", type, inserted);
    return inserted;
}

bool TCDbusServer::UnSetCallback(int type)
{
    const TCWriteLock callbacks(m_callbacksMutex);
    return m_callbacks.erase(type) != 0;
}

size_t TCDbusServer::NumberOfClients()
{
    const TCReadLock state(m_stateMutex);
    KEL_DEBUG("Number of clients %zu", m_clients.size());
    return m_clients.size();
}

std::pair<size_t, size_t>
TCDbusServer::SendMessage(int type, const std::vector<unsigned char>& data, int timeout)
{
    size_t successes = 0;
    size_t failures = 0;
    TGlibPtr<GVariant> parameters;
    TSFanOut fanOut;
    {
        const TCReadLock state(m_stateMutex);
        if (!m_ready || m_clients.empty()) {
            KEL_DEBUG("Connection is ready %d, number of clients %zu", m_ready, m_clients.size());
            return {0, 0};
        }
        for (const auto& [uniqueName, client] : m_clients) {
            const char* const name = g_dbus_proxy_get_name(client.m_pProxy);
            if (client.m_types.count(type) == 0) {
                KEL_DEBUG("Client %s is not registered for event %d", name, type);
                continue;
            }
            if (uniqueName == m_currentSender && !m_currentAsync) {
                KEL_ERROR("Unable to send message to %s, type %d, waiting for sync replay", name,
                          type);
                ++failures;
                continue;
            }
            if (timeout < -1) {
                // GDBus would not even start such a call, and nobody would be told.
                KEL_ERROR("Sending message from %s error, errno %d", name,
                          G_IO_ERROR_INVALID_ARGUMENT);
                ++failures;
                continue;
            }
            if (parameters == nullptr) {
                GVariant* request = nullptr;
                t_ConvertBytes(type, false, data, request);
                parameters = SinkVariant(request);
            }
            fanOut.Add(*this, client.m_pProxy, parameters.get(), timeout);
        }
        if (!fanOut.m_messages.empty()) {
            Post(m_pContext, &TSGlibEntry::StartFanOut, &fanOut);
        }
    }
    for (const auto& message : fanOut.m_messages) {
        ++(message->m_future.get() ? successes : failures);
    }
    m_Forget(fanOut.m_gone);
    KEL_DEBUG("Callback result: success %zu, fails %zu", successes, failures);
    return {successes, failures};
}

bool TCDbusServer::t_Start()
{
    const TCWriteLock state(m_stateMutex);

    // Before the base exports the object: a client's "Hello" may be there at once, and one that
    // finds no handler would be answered and lost.
    t_SetDbusCallback(t_dbusHelloMethod,
                      boost::bind(&TCDbusServer::m_HandleHelloMessage, this, _1, _2, _3));
    if (!TCDbus::t_Start()) {
        return false;
    }
    m_ownerId = g_bus_own_name_on_connection(m_pConnection, m_busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                             &TSGlibEntry::NameAcquired, &TSGlibEntry::NameLost,
                                             AsUserData(TicketOf(*this)), nullptr);

    m_pContext = g_main_context_new();
    m_pLoop = g_main_loop_new(m_pContext, FALSE);
    m_loopThread = boost::thread(&TCDbusServer::m_StartMainLoop, this);

    KEL_DEBUG("Server started. Own name id %d", m_ownerId);
    return true;
}

void TCDbusServer::t_Stop()
{
    t_EndHandlers();

    const TCWriteLock state(m_stateMutex);
    if (m_loopThread.joinable()) {
        // On the loop's own thread: quitting a loop that does not run yet is lost, and the join
        // would wait for ever.
        Post(m_pContext, &QuitLoop, m_pLoop);
        m_loopThread.join();
    }
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        m_DestroyClient(client->second);
        client = m_clients.erase(client);
    }
    if (m_ownerId != 0) {
        g_bus_unown_name(m_ownerId);
    }
    TCDbus::t_Stop();
    ReleaseMember(m_pLoop);
    ReleaseMember(m_pContext);
}

void TCDbusServer::m_NameAcquired(GDBusConnection*, const char*)
{
    const TCWriteLock state(m_stateMutex);
    m_ready = true;
}

void TCDbusServer::m_ClientNameVanished(GDBusConnection*, const char* name)
{
    const TCWriteLock state(m_stateMutex);
    const auto client = m_clients.find(name);
    if (client == m_clients.end()) {
        KEL_REPORT(kUnknownClientVanished);
        return;
    }
    m_DestroyClient(client->second);
    m_clients.erase(client);
}

void TCDbusServer::m_HandleHelloMessage(const char* sender, GVariant* parameters,
                                        GDBusMethodInvocation* invocation)
{
    std::vector<unsigned char> bytes;
    t_ConvertBytes(parameters, bytes);
    std::set<int> types = ReadTypes(bytes);
    g_dbus_method_invocation_return_value(invocation, nullptr);

    const TCWriteLock state(m_stateMutex);
    auto client = m_clients.find(sender);
    if (client == m_clients.end()) {
        KEL_DEBUG("A new client %s", sender);

        TCGlibError error;
        TSClient fresh;
        fresh.m_pProxy = g_dbus_proxy_new_sync(m_pConnection, kClientProxyFlags, nullptr, sender,
                                               m_objectPath, t_interfaceName, nullptr, error.Out());
        if (error.IsSet()) {
            KEL_ERROR("Registering proxy error, errno %d", error.Code());
            return;
        }
        fresh.m_watchId = g_bus_watch_name_on_connection(
            m_pConnection, sender, G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
            &TSGlibEntry::ClientNameVanished, AsUserData(TicketOf(*this)), nullptr);
        client = m_clients.emplace(sender, std::move(fresh)).first;
    }
    client->second.m_types = std::move(types);
}

void TCDbusServer::m_DestroyClient(TSClient& client)
{
    if (client.m_watchId != 0) {
        g_bus_unwatch_name(client.m_watchId);
    }
    ReleaseMember(client.m_pProxy);
}

void TCDbusServer::m_StartMainLoop()
{
    g_main_context_push_thread_default(m_pContext);
    g_main_loop_run(m_pLoop);
}

void TCDbusServer::m_Forget(const std::vector<GDBusProxy*>& gone)
{
    // An application may answer such an error itself, of a call of its own: the bus knows.
    std::vector<GDBusProxy*> unknown;
    std::copy_if(gone.begin(), gone.end(), std::back_inserter(unknown), [](GDBusProxy* proxy) {
        return !IsOnBus(g_dbus_proxy_get_connection(proxy), g_dbus_proxy_get_name(proxy));
    });
    if (unknown.empty()) {
        return;
    }
    const TCWriteLock state(m_stateMutex);
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        if (std::find(unknown.begin(), unknown.end(), client->second.m_pProxy) != unknown.end()) {
            m_DestroyClient(client->second);
            client = m_clients.erase(client);
        } else {
            ++client;
        }
    }
}

void TCDbusServer::m_AsyncReadyCallback(GObject* source, GAsyncResult* result,
                                        TSAsyncMessage* message)
{
    GDBusProxy* const proxy = G_DBUS_PROXY(source);
    const char* const name = g_dbus_proxy_get_name(proxy);
    TSFanOut& fanOut = *message->m_pFanOut;

    TCGlibError error;
    const TGlibPtr<GVariant> reply(g_dbus_proxy_call_finish(proxy, result, error.Out()));
    if (IsForPendingReplies(error) && fanOut.HasTime()) {
        fanOut.Refused(*message);
        return;
    }
    bool handled = false;
    if (error.IsSet()) {
        KEL_ERROR("Sending message from %s error, errno %d", name, error.Code());
        if (error.Is(G_DBUS_ERROR_SERVICE_UNKNOWN) || error.Is(G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
            fanOut.m_gone.push_back(proxy);
        }
    } else {
        if (reply != nullptr) {
            std::vector<unsigned char> discarded;
            t_ConvertBytes(reply.get(), handled, discarded);
        } else {
            KEL_DEBUG("Result is null");
        }
        if (!Truth(handled)) {
            KEL_DEBUG("Sending message to %s failed", name);
        }
    }
    fanOut.Ended();

    // Last, and out of the message first: the sender destroys everything once it sees the value.
    std::promise<bool> promise = std::move(message->m_promise);
    promise.set_value(Truth(handled));
}

void TCDbusServer::m_NameAcquired(GDBusConnection* connection, const char* name, void* userData)
{
    KEL_DEBUG("Name %s has been acquired, user_data %p", name, userData);
    if (userData != nullptr) {
        static_cast<TCDbusServer*>(userData)->m_NameAcquired(connection, name);
    }
}

void TCDbusServer::m_NameLost(GDBusConnection*, const char* name, void* userData)
{
    KEL_DEBUG("Name %s has been lost, user_data %p", name, userData);
    KEL_REPORT(kNameLost);
}

void TCDbusServer::m_ClientNameVanished(GDBusConnection* connection, const char* name,
                                        void* userData)
{
    KEL_DEBUG("Client name %s has vanished, user_data %p", name, userData);
    if (userData != nullptr) {
        static_cast<TCDbusServer*>(userData)->m_ClientNameVanished(connection, name);
    }
}

int TCDbusServer::m_SendMessage(void* message)
{
    TSAsyncMessage* const pMessage = static_cast<TSAsyncMessage*>(message);
    if (pMessage->m_pServer == nullptr) {
        KEL_ERROR("Dbus server equals NULL");
    } else {
        g_dbus_proxy_call(pMessage->m_pProxy.get(), t_dbusSendMethod, pMessage->m_pParameters,
                          G_DBUS_CALL_FLAGS_NONE, pMessage->m_timeout, nullptr,
                          &TCDbusServer::m_AsyncReadyCallback, pMessage);
    }
    return G_SOURCE_REMOVE;
}

void TCDbusServer::m_AsyncReadyCallback(GObject* source, GAsyncResult* result, void* message)
{
    TSAsyncMessage* const pMessage = static_cast<TSAsyncMessage*>(message);
    if (pMessage->m_pServer == nullptr) {
        KEL_ERROR("Dbus server equals NULL");
        return;
    }
    pMessage->m_pServer->m_AsyncReadyCallback(source, result, pMessage);
}

} // namespace kel
