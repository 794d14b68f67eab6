#include <kel/KELDbusServer.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "KELFailureNote.h"
#include "KELFanOut.h"
#include "KELGlib.h"
#include "KELGlibEntry.h"
#include "KELHandlerGate.h"
#include "KELLog.h"
#include "KELPayload.h"
#include "KELSharedFunction.h"

KEL_LOG_SOURCE("KELDbusServer", "kel::TCDbusServer")

namespace kel {

namespace {

constexpr unsigned int kNameLost = 233;
constexpr unsigned int kUnknownClientVanished = 256;

// A client has no properties and no signals. Not to ask for signals saves one of the two match
// rules that a client would cost, of which the bus grants a connection so many (512 on a stock
// system bus); the other is the watch's.
constexpr GDBusProxyFlags kClientProxyFlags = static_cast<GDBusProxyFlags>(
    G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES | G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS);

constexpr char kBus[] = "org.freedesktop.DBus"; // its name and its interface
constexpr char kBusPath[] = "/org/freedesktop/DBus";

// When a client was registered, in microseconds of the time of day. It is kept with the proxy,
// which lives as long as the client: the place of each member of a client is an interface.
constexpr char kRegistered[] = "kel-registered";

void SetRegistered(GDBusProxy* proxy)
{
    gint64* const pTime = g_new(gint64, 1);
    *pTime = g_get_real_time();
    g_object_set_data_full(G_OBJECT(proxy), kRegistered, pTime, &g_free);
}

std::chrono::system_clock::time_point Registered(GDBusProxy* proxy)
{
    const void* const pTime = g_object_get_data(G_OBJECT(proxy), kRegistered);
    return std::chrono::system_clock::time_point(
        std::chrono::microseconds(*static_cast<const gint64*>(pTime)));
}

gboolean QuitLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

// Calls a method of the bus itself, whose one argument is a string. With no callback there is no
// reply.
void CallBus(GDBusConnection* connection, const char* method, const char* argument, int timeout,
             GAsyncReadyCallback callback, gpointer data)
{
    g_dbus_connection_call(connection, kBus, kBusPath, kBus, method, g_variant_new("(s)", argument),
                           nullptr, G_DBUS_CALL_FLAGS_NONE, timeout, nullptr, callback, data);
}

// Whether the answer to a "NameHasOwner" says that there is no such name.
bool SaysNoOwner(GObject* connection, GAsyncResult* result)
{
    const TGlibPtr<GVariant> reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr));
    gboolean isOwned = TRUE;
    if (reply != nullptr && g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(b)"))) {
        g_variant_get(reply.get(), "(b)", &isOwned);
    }
    return isOwned == FALSE;
}

// Whether the bus has no room for a call. It has one error for all its limits, and every bus daemon
// words it differently; an application that answers with the same error has been called.
bool IsRefusal(GDBusMessage* reply, const TCGlibError& error)
{
    return reply != nullptr && error.Is(G_DBUS_ERROR_LIMITS_EXCEEDED)
           && g_strcmp0(g_dbus_message_get_sender(reply), kBus) == 0;
}

// Each time that the registry has doubled: soon enough, and next to nothing.
bool IsTimeToProbe(size_t clients)
{
    constexpr size_t kFirst = 16;
    return clients >= kFirst && (clients & (clients - 1)) == 0;
}

} // namespace

// One call to one client. It belongs to the sending thread, which reads how it went when the
// fan-out is over; the private thread borrows it from m_SendMessage until then.
struct TCDbusServer::TSAsyncMessage
{
    TSAsyncMessage(TCDbusServer* pServer, GDBusProxy* pProxy)
        : m_pServer(pServer), m_pProxy(static_cast<GDBusProxy*>(g_object_ref(pProxy))),
          m_pParameters(nullptr), m_timeout(-1), m_pFanOut(nullptr)
    {}

    static void Start(void* message, int timeout)
    {
        static_cast<TSAsyncMessage*>(message)->m_timeout = timeout;
        m_SendMessage(message);
    }

    // The last that the private thread does with it.
    void End(EFailure kind)
    {
        m_kind = kind;
        m_end = g_get_monotonic_time();
        m_pFanOut->Ended();
    }

    // Instead of End(), for a client that is not there, as it seems: an application may hand on
    // such an error of a call of its own, but the bus knows.
    void EndWhenTheBusHasBeenAsked(EFailure kind)
    {
        m_kind = kind;
        const auto answered = [](GObject* connection, GAsyncResult* result, gpointer message) {
            TSAsyncMessage* const pMessage = static_cast<TSAsyncMessage*>(message);
            pMessage->m_isGone = SaysNoOwner(connection, result);
            pMessage->End(pMessage->m_isGone ? pMessage->m_kind : EFailure::Other);
        };
        CallBus(g_dbus_proxy_get_connection(m_pProxy.get()), "NameHasOwner",
                g_dbus_proxy_get_name(m_pProxy.get()), m_pFanOut->TimeLeft(), answered, this);
    }

    TCDbusServer* m_pServer;
    TGlibPtr<GDBusProxy> m_pProxy; // keeps the call valid when the client is forgotten meanwhile
    GVariant* m_pParameters;       // the sender's request, one value for all its calls
    int m_timeout;                 // in milliseconds; -1 for the D-Bus library's default
    TCFanOut* m_pFanOut;           // the send that it is part of
    bool m_isGone = false;         // the bus says that the client's name is no more
    size_t m_place = 0;            // of the outcome, where outcomes are asked for
    EFailure m_kind = EFailure::None;
    TCGlibError m_error; // what has ended the call, if anything
    gint64 m_end = 0;    // monotonic
};

// What both kinds of a send do. Its function is named for them in the log.
struct TCDbusServer::TSFanOut
{
    static std::pair<size_t, size_t> SendMessage(TCDbusServer& server, int type,
                                                 const std::vector<unsigned char>& data,
                                                 int timeout,
                                                 std::vector<TSClientOutcome>* outcomes);
};

// Finds out whether the bus grants this connection one more match rule: it has so many for each
// (512 on a stock system bus: max_match_rules_per_connection in dbus-daemon(1)), and neither a name
// watch nor a proxy of GLib's tells when theirs, which they share, has been refused. Clients beyond
// are forgotten when a send to them fails.
struct TCDbusServer::TSRuleProbe
{
    static void Ask(GDBusConnection* connection)
    {
        CallBus(connection, "AddMatch", kRule, -1, &TSRuleProbe::Answered, nullptr);
        // At once, whether or not it was granted: the bus takes the two in order, so that the rule
        // is nobody's loss.
        CallBus(connection, "RemoveMatch", kRule, -1, nullptr, nullptr);
    }

private:
    static void Answered(GObject* connection, GAsyncResult* result, void*)
    {
        static std::atomic<bool> isTold(false);
        TCGlibError error;
        const TGlibPtr<GVariant> reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, error.Out()));
        if (error.Is(G_DBUS_ERROR_LIMITS_EXCEEDED) && !isTold.exchange(true)) {
            KEL_ERROR("Not told of the end of clients any more, errno %d: %s", error.Code(),
                      error.Message());
        }
    }

    static constexpr char kRule[]
        = "type='signal',interface='com.norvale.kel.IControl'"; // nobody sends such a signal
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
    // What the application's function holds is its own business: it is copied and destroyed when
    // no lock is held.
    const TMessageCallback shared = ShareState(callback);
    const TCWriteLock callbacks(m_callbacksMutex);
    const bool inserted = m_callbacks.emplace(type, shared).second;
    KEL_DEBUG("Type %d, result %d", type, inserted);
    return inserted;
}

bool TCDbusServer::UnSetCallback(int type)
{
    TCallbacks::node_type removed; // destroyed when no lock is held, like a refused one
    const TCWriteLock callbacks(m_callbacksMutex);
    removed = m_callbacks.extract(type);
    return !removed.empty();
}

size_t TCDbusServer::NumberOfClients()
{
    const TCReadLock state(m_stateMutex);
    KEL_DEBUG("Number of clients %zu", m_clients.size());
    return m_clients.size();
}

std::vector<TSRegisteredClient> TCDbusServer::Clients(unsigned int mostTypes)
{
    const TCReadLock state(m_stateMutex);
    std::vector<TSRegisteredClient> clients(m_clients.size()); // one that grows is more code
    auto next = clients.begin();
    for (const auto& [uniqueName, client] : m_clients) {
        TSRegisteredClient& told = *next++;
        told.m_uniqueName = uniqueName;
        told.m_numberOfTypes = client.m_types.size();
        told.m_types = std::vector<int>(std::min<size_t>(mostTypes, told.m_numberOfTypes));
        std::copy_n(client.m_types.begin(), told.m_types.size(), told.m_types.begin());
        told.m_registered = Registered(client.m_pProxy);
    }
    return clients;
}

std::pair<size_t, size_t>
TCDbusServer::SendMessage(int type, const std::vector<unsigned char>& data, int timeout)
{
    return TSFanOut::SendMessage(*this, type, data, timeout, nullptr);
}

std::vector<TSClientOutcome>
TCDbusServer::SendToEach(int type, const std::vector<unsigned char>& data, int timeout)
{
    std::vector<TSClientOutcome> outcomes;
    TSFanOut::SendMessage(*this, type, data, timeout, &outcomes);
    return outcomes;
}

std::pair<size_t, size_t>
TCDbusServer::TSFanOut::SendMessage(TCDbusServer& server, int type,
                                    const std::vector<unsigned char>& data, int timeout,
                                    std::vector<TSClientOutcome>* outcomes)
{
    const gint64 begin = g_get_monotonic_time();
    size_t successes = 0;
    size_t failures = 0;
    size_t told = 0; // of the outcomes
    TGlibPtr<GVariant> parameters;
    std::vector<std::unique_ptr<TSAsyncMessage>> messages;
    TCFanOut fanOut(server.m_pContext, timeout, &TSAsyncMessage::Start);
    {
        const TCReadLock state(server.m_stateMutex);
        if (!server.m_ready || server.m_clients.empty()) {
            KEL_DEBUG("Connection is ready %d, number of clients %zu", server.m_ready,
                      server.m_clients.size());
            return {0, 0};
        }
        if (outcomes != nullptr) {
            *outcomes = std::vector<TSClientOutcome>(server.m_clients.size());
        }
        const std::string blocked = server.m_BlockedSender();
        for (const auto& [uniqueName, client] : server.m_clients) {
            const char* const name = g_dbus_proxy_get_name(client.m_pProxy);
            if (client.m_types.count(type) == 0) {
                KEL_DEBUG("Client %s is not registered for event %d", name, type);
                continue;
            }
            EFailure obstacle = EFailure::Waiting;
            if (uniqueName == blocked) {
                KEL_ERROR("Unable to send message to %s, type %d, waiting for sync replay", name,
                          type);
            } else {
                obstacle = server.m_Obstacle(name, data.size(), timeout);
            }
            if (outcomes != nullptr) {
                (*outcomes)[told].m_uniqueName = uniqueName;
                (*outcomes)[told].m_failure.m_kind = obstacle;
            }
            const size_t place = told++;
            if (obstacle != EFailure::None) {
                ++failures;
                continue;
            }
            if (parameters == nullptr) {
                GVariant* request = nullptr;
                server.t_ConvertBytes(type, false, data, request);
                parameters = SinkVariant(request);
            }
            messages.push_back(std::make_unique<TSAsyncMessage>(&server, client.m_pProxy));
            messages.back()->m_pParameters = parameters.get();
            messages.back()->m_pFanOut = &fanOut;
            messages.back()->m_place = place;
            fanOut.Add(messages.back().get());
        }
        if (!messages.empty()) {
            fanOut.Start();
        }
    }
    if (!messages.empty()) {
        fanOut.Wait();
    }
    for (const auto& message : messages) {
        ++(message->m_kind == EFailure::None ? successes : failures);
        if (outcomes != nullptr) {
            TSClientOutcome& outcome = (*outcomes)[message->m_place];
            outcome.m_failure = Describe(message->m_kind, message->m_error.Peek());
            outcome.m_latency = std::chrono::microseconds(message->m_end - begin);
        }
    }
    while (outcomes != nullptr && outcomes->size() > told) {
        outcomes->pop_back(); // of those that have not asked for this type
    }
    bool isUntold = false;
    for (const auto& message : messages) {
        isUntold |= message->m_isGone
                    && server.m_ClientNameVanished(g_dbus_proxy_get_name(message->m_pProxy.get()));
    }
    if (isUntold) {
        TSRuleProbe::Ask(server.m_pConnection); // why has the bus not told of it?
    }
    KEL_DEBUG("Callback result: success %zu, fails %zu", successes, failures);
    return {successes, failures};
}

bool TCDbusServer::t_Start()
{
    const TCWriteLock state(m_stateMutex);

    // Before the base exports the object: a client's "Hello" may be there at once, and one that
    // finds no handler would be answered and lost.
    t_SetDbusCallback(t_dbusHelloMethod, [this](const char* sender, GVariant* parameters,
                                                GDBusMethodInvocation* invocation) {
        m_HandleHelloMessage(sender, parameters, invocation);
    });
    if (!TCDbus::t_Start()) {
        return false;
    }
    typedef TSGlibEvent<TCDbusServer, GDBusConnection*, const char*> TNameEvent;
    m_ownerId = g_bus_own_name_on_connection(m_pConnection, m_busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                             &TNameEvent::Enter<&TCDbusServer::m_NameAcquired>,
                                             &TNameEvent::Enter<&TCDbusServer::m_NameLost>,
                                             AsUserData(TicketOf(*this)), nullptr);

    m_pContext = g_main_context_new();
    m_pLoop = g_main_loop_new(m_pContext, FALSE);
    m_loopThread = boost::thread([this] { m_StartMainLoop(); });

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
        // The join is an interruption point of Boost's; an end is not to be interrupted.
        const boost::this_thread::disable_interruption uninterrupted;
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
    TClients::node_type client;
    {
        const TCWriteLock state(m_stateMutex);
        client = m_clients.extract(name);
    }
    if (client.empty()) {
        KEL_REPORT(kUnknownClientVanished);
        return;
    }
    m_DestroyClient(client.mapped());
}

void TCDbusServer::m_HandleHelloMessage(const char* sender, GVariant* parameters,
                                        GDBusMethodInvocation* invocation)
{
    TCPendingCall call(invocation);
    std::vector<unsigned char> bytes;
    t_ConvertBytes(parameters, bytes);
    std::set<int> types = ReadTypes(bytes); // takes the old ones, and destroys them behind the lock
    call.Return(nullptr);

    const TCWriteLock state(m_stateMutex);
    auto client = m_clients.find(sender);
    if (client == m_clients.end()) {
        KEL_DEBUG("A new client %s", sender);

        TClients fresh;
        TSClient& made = fresh[sender]; // from here on nothing throws that would leave it half made
        TCGlibError error;
        made.m_pProxy = g_dbus_proxy_new_sync(m_pConnection, kClientProxyFlags, nullptr, sender,
                                              m_objectPath, t_interfaceName, nullptr, error.Out());
        if (error.IsSet()) {
            KEL_ERROR("Registering proxy error, errno %d", error.Code());
            return;
        }
        SetRegistered(made.m_pProxy);
        made.m_watchId = g_bus_watch_name_on_connection(
            m_pConnection, sender, G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
            &TSGlibEvent<TCDbusServer, GDBusConnection*,
                         const char*>::Enter<&TCDbusServer::m_ClientHasGone>,
            AsUserData(TicketOf(*this)), nullptr);
        client = m_clients.insert(fresh.extract(fresh.begin())).position;
        if (IsTimeToProbe(m_clients.size())) {
            TSRuleProbe::Ask(m_pConnection);
        }
    }
    client->second.m_types.swap(types);
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

std::string TCDbusServer::m_BlockedSender()
{
    const TCLock message(m_messageMutex);
    return m_currentAsync ? std::string() : m_currentSender;
}

EFailure TCDbusServer::m_Obstacle(const char* name, size_t size, int timeout) const
{
    if (timeout < -1) {
        // GDBus would not even start such a call, and nobody would be told.
        KEL_ERROR("Sending message from %s error, errno %d", name, G_IO_ERROR_INVALID_ARGUMENT);
        return EFailure::Other;
    }
    const size_t whole = MessageSize({name, m_objectPath, t_interfaceName, t_dbusSendMethod}, false,
                                     kRequestHeaderSize + size);
    if (whole > kBusMessageLimit) {
        KEL_ERROR("Unable to send %zu bytes to %s, the bus takes %zu", whole, name,
                  kBusMessageLimit);
        return EFailure::TooLarge;
    }
    return EFailure::None;
}

// The bus's event and a send that fails may learn of the same end on two threads: who takes the
// client out of the registry is the one to tell.
bool TCDbusServer::m_ClientNameVanished(const char* name)
{
    TClients::node_type client; // destroyed behind the lock: it may hold millions of types
    {
        const TCWriteLock state(m_stateMutex);
        client = m_clients.extract(name);
        if (client.empty()) {
            return false;
        }
        KEL_DEBUG("Client name %s has vanished, user_data %p", name, static_cast<void*>(this));
    }
    m_DestroyClient(client.mapped());
    return true;
}

void TCDbusServer::m_ClientHasGone(GDBusConnection*, const char* name, void* userData)
{
    static_cast<TCDbusServer*>(userData)->m_ClientNameVanished(name);
}

void TCDbusServer::m_AsyncReadyCallback(GObject* source, GAsyncResult* result,
                                        TSAsyncMessage* message)
{
    const char* const name = g_dbus_proxy_get_name(message->m_pProxy.get());

    TCGlibError error;
    const TGlibPtr<GDBusMessage> reply(g_dbus_connection_send_message_with_reply_finish(
        G_DBUS_CONNECTION(source), result, error.Out()));
    if (reply != nullptr) {
        g_dbus_message_to_gerror(reply.get(), error.Out());
    }
    if (IsRefusal(reply.get(), error) && message->m_pFanOut->HasTime()) {
        message->m_pFanOut->Refused(message);
        return;
    }
    if (error.IsSet()) {
        KEL_ERROR("Sending message from %s error, errno %d", name, error.Code());
        const bool isGone = error.Is(G_DBUS_ERROR_SERVICE_UNKNOWN)
                            || error.Is(G_DBUS_ERROR_NAME_HAS_NO_OWNER)
                            || error.Is(G_DBUS_ERROR_NO_REPLY);
        // There was no room until the time was over.
        const EFailure kind
            = IsRefusal(reply.get(), error) ? EFailure::TimedOut : KindOf(error.Get());
        *message->m_error.Out() = error.Release();
        isGone ? message->EndWhenTheBusHasBeenAsked(kind) : message->End(kind);
        return;
    }

    bool handled = false;
    EFailure kind = EFailure::Unreadable;
    if (reply != nullptr) {
        GVariant* const body = g_dbus_message_get_body(reply.get());
        const auto [pBytes, size] = BytesOf(body); // one byte of them matters
        if (size != 0) {
            handled = *pBytes != 0;
            kind = handled ? EFailure::None : EFailure::NotHandled;
        } else {
            std::vector<unsigned char> none;
            t_ConvertBytes(body, handled, none); // reports the failed check
        }
    } else {
        KEL_DEBUG("Result is null");
    }
    if (!handled) {
        KEL_DEBUG("Sending message to %s failed", name);
    }
    message->End(kind);
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
        // As g_dbus_proxy_call() does it, which would not tell who has answered.
        GDBusProxy* const proxy = pMessage->m_pProxy.get();
        const TGlibPtr<GDBusMessage> call(g_dbus_message_new_method_call(
            g_dbus_proxy_get_name(proxy), g_dbus_proxy_get_object_path(proxy),
            g_dbus_proxy_get_interface_name(proxy), t_dbusSendMethod));
        g_dbus_message_set_body(call.get(), pMessage->m_pParameters);
        g_dbus_connection_send_message_with_reply(
            g_dbus_proxy_get_connection(proxy), call.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
            pMessage->m_timeout, nullptr, nullptr, &TCDbusServer::m_AsyncReadyCallback, pMessage);
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
