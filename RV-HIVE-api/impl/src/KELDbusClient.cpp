#include <kel/KELDbusClient.h>

#include "KELFailureNote.h"
#include "KELGlib.h"
#include "KELGlibEntry.h"
#include "KELHandlerGate.h"
#include "KELLog.h"
#include "KELPayload.h"
#include "KELSharedFunction.h"

KEL_LOG_SOURCE("KELDbusClient", "kel::TCDbusClient")

namespace kel {

namespace {

constexpr int kAnswerTimeout = 10000; // milliseconds

} // namespace

TCDbusClient::TCDbusClient(bool test) : TCDbus(test), m_watcherId(0), m_pProxy(nullptr)
{
    try {
        t_Start();
    } catch (...) {
        t_Stop(); // no destructor will run
        throw;
    }
}

TCDbusClient::~TCDbusClient() { t_Stop(); }

bool TCDbusClient::SetCallback(int type, const TMessageCallback& handler)
{
    // What the application's function holds is its own business: it is copied and destroyed when
    // no lock is held.
    const TMessageCallback shared = ShareState(handler);
    const TCReadLock state(m_stateMutex);
    const TCWriteLock callbacks(m_callbacksMutex);
    const bool inserted = m_callbacks.emplace(type, shared).second;
    try {
        KEL_DEBUG("Type %d, result %d", type, inserted);
        if (inserted && m_ready) {
            m_SendHello();
        }
    } catch (...) {
        if (inserted) {
            m_callbacks.erase(type); // all of it or nothing
        }
        throw;
    }
    return inserted;
}

bool TCDbusClient::UnSetCallback(int type)
{
    TCallbacks::node_type removed; // destroyed when no lock is held, like a refused one
    const TCReadLock state(m_stateMutex);
    const TCWriteLock callbacks(m_callbacksMutex);
    removed = m_callbacks.extract(type);
    const bool found = !removed.empty();
    if (found && m_ready) {
        try {
            m_SendHello();
        } catch (...) {
            m_callbacks.insert(std::move(removed)); // all of it or nothing
            throw;
        }
    }
    return found;
}

bool TCDbusClient::SendMessage(int type, const std::vector<unsigned char>& data,
                               std::vector<unsigned char>& response, bool async)
{
    ClearFailure();
    const size_t size = MessageSize({m_busName, m_objectPath, t_interfaceName, t_dbusSendMethod},
                                    false, kRequestHeaderSize + data.size());
    if (size > kBusMessageLimit) {
        KEL_ERROR("Unable to send %zu bytes, the bus takes %zu", size, kBusMessageLimit);
        NoteFailure(EFailure::TooLarge);
        return false;
    }
    const TCReadLock state(m_stateMutex);
    if (!m_ready) {
        KEL_DEBUG("Connection is not ready");
        if (!async && !m_WakeServer()) {
            KEL_DEBUG("Unable to wake-up server");
            return false;
        }
        // Sent all the same, on purpose: the call itself may have the bus start the server.
    }

    GVariant* request = nullptr;
    t_ConvertBytes(type, async, data, request);
    const TGlibPtr<GVariant> parameters = SinkVariant(request);
    if (m_pProxy == nullptr) {
        NoteFailedStart();
    }
    if (async) {
        if (m_pProxy != nullptr) {
            g_dbus_proxy_call(m_pProxy, t_dbusSendMethod, parameters.get(), G_DBUS_CALL_FLAGS_NONE,
                              -1, nullptr, nullptr, nullptr);
        }
        return true;
    }

    TCGlibError error;
    TGlibPtr<GVariant> reply;
    if (m_pProxy != nullptr) {
        reply.reset(g_dbus_proxy_call_sync(m_pProxy, t_dbusSendMethod, parameters.get(),
                                           G_DBUS_CALL_FLAGS_NONE, kAnswerTimeout, nullptr,
                                           error.Out()));
    }
    if (error.IsSet()) {
        KEL_ERROR("Sending message error, errno %d", error.Code());
        NoteFailure(error);
        return false;
    }
    if (reply == nullptr) {
        KEL_ERROR("pResult is NULL");
        return false;
    }
    if (!g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(ay)"))) {
        // A stranger that is no agent of ours has the name.
        KEL_ERROR("Sending message error, errno %d", G_DBUS_ERROR_INVALID_SIGNATURE);
        NoteFailure(EFailure::Unreadable);
        return false;
    }
    bool result = true; // what an empty reply array leaves, on purpose: it was an answer
    t_ConvertBytes(reply.get(), result, response);
    const bool handled = Truth(result);
    if (!handled) {
        NoteFailure(EFailure::NotHandled);
    }
    return handled;
}

bool TCDbusClient::t_Start()
{
    {
        const TCWriteLock state(m_stateMutex);
        if (!TCDbus::t_Start()) {
            return false;
        }
        // Calls may have the bus start the server; making the proxy must not.
        TCGlibError error;
        m_pProxy = g_dbus_proxy_new_sync(
            m_pConnection,
            static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES
                                         | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION),
            nullptr, m_busName, m_objectPath, t_interfaceName, nullptr, error.Out());
        if (error.IsSet()) {
            KEL_ERROR("Registering proxy error, errno %d", error.Code());
            NoteFailure(error);
            KeepFailedStart();
            return false;
        }
    }
    const TCWriteLock startStop(m_startStopMutex);
    m_watcherId = g_bus_watch_name_on_connection(
        m_pConnection, m_busName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        &TSGlibEvent<TCDbusClient, GDBusConnection*, const char*,
                     const char*>::Enter<&TCDbusClient::m_NameAppeared>,
        &TSGlibEvent<TCDbusClient, GDBusConnection*,
                     const char*>::Enter<&TCDbusClient::m_NameVanished>,
        AsUserData(TicketOf(*this)), nullptr);
    return true;
}

void TCDbusClient::t_Stop()
{
    t_EndHandlers();

    const TCWriteLock state(m_stateMutex);
    const TCWriteLock startStop(m_startStopMutex);
    if (m_watcherId != 0) {
        g_bus_unwatch_name(m_watcherId);
    }
    ReleaseMember(m_pProxy);
    TCDbus::t_Stop();
}

void TCDbusClient::m_NameAppeared(GDBusConnection*, const char*, const char*)
{
    const TCWriteLock state(m_stateMutex);
    const TCReadLock callbacks(m_callbacksMutex);
    m_SendHello();
    m_ready = true;
}

void TCDbusClient::m_NameVanished(GDBusConnection*, const char*)
{
    const TCWriteLock state(m_stateMutex);
    m_ready = false;
}

bool TCDbusClient::m_SendHello()
{
    KEL_DEBUG("Send hello %s", m_uniqueName.c_str());

    std::vector<unsigned char> types(m_callbacks.size() * kTypeSize);
    size_t offset = 0;
    for (const auto& [type, callback] : m_callbacks) {
        std::memcpy(types.data() + offset, &type, kTypeSize);
        offset += kTypeSize;
    }

    GVariant* events = nullptr;
    t_ConvertBytes(types, events);
    const TGlibPtr<GVariant> parameters = SinkVariant(events);
    if (m_pProxy != nullptr) {
        g_dbus_proxy_call(m_pProxy, t_dbusHelloMethod, parameters.get(), G_DBUS_CALL_FLAGS_NONE, -1,
                          nullptr, nullptr, nullptr);
    }
    return true;
}

bool TCDbusClient::m_WakeServer()
{
    // A message callback that sends holds the mutex already, on this thread.
    bool ended = false; // not by a "Hello"
    const TCCallbackHold callbacks(*this, m_callbacksMutex, ended);
    return m_SendHello();
}

void TCDbusClient::m_NameAppeared(GDBusConnection* connection, const char* name, const char* owner,
                                  void* userData)
{
    KEL_DEBUG("Name appeared - name %s", name);
    if (userData != nullptr) {
        static_cast<TCDbusClient*>(userData)->m_NameAppeared(connection, name, owner);
    }
}

void TCDbusClient::m_NameVanished(GDBusConnection* connection, const char* name, void* userData)
{
    KEL_DEBUG("Name vanished - name %s", name);
    if (userData != nullptr) {
        static_cast<TCDbusClient*>(userData)->m_NameVanished(connection, name);
    }
}

namespace {

// The provider's client that has the object path.
TCMutex pathMutex;
TCDbusClient* pPathHolder KEL_GUARDED_BY(pathMutex) = nullptr;

} // namespace

// The weak pointer expires before the client's destructor has begun, which may then wait for a
// running callback; a client that starts meanwhile would find its object path taken, and be dead.
// So whoever comes first, the end of the last client or the start of the next, takes the path away
// from the last. Nobody waits for it: a callback of the last client may be who asks for the next.
struct TCDbusClientProvider::TSClientLife
{
    explicit TSClientLife(bool test) : m_client(test)
    {
        const TCLock path(pathMutex);
        pPathHolder = &m_client;
    }
    ~TSClientLife()
    {
        const TCLock path(pathMutex);
        if (pPathHolder == &m_client) {
            LeavePath();
        }
    }

    static void LeavePath() KEL_REQUIRES(pathMutex)
    {
        if (pPathHolder != nullptr) {
            pPathHolder->m_LeavePath();
            pPathHolder = nullptr;
        }
    }

    TCDbusClient m_client;
};

boost::shared_ptr<IDbusClient> TCDbusClientProvider::Get(bool test)
{
    const TCLock creation(*m_pMutex);
    boost::shared_ptr<IDbusClient> client = m_pDbusClient->lock();
    if (!client) {
        {
            const TCLock path(pathMutex);
            TSClientLife::LeavePath();
        }
        const boost::shared_ptr<TSClientLife> life(new TSClientLife(test));
        client = boost::shared_ptr<IDbusClient>(life, &life->m_client);
        *m_pDbusClient = client;
    }
    return client;
}

} // namespace kel
