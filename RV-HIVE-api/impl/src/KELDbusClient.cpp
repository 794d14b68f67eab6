#include <kel/KELDbusClient.h>

#include "KELGlib.h"
#include "KELHandlerGate.h"
#include "KELLog.h"
#include "KELPayload.h"
#include "KELSharedFunction.h"

KEL_LOG_SOURCE("KELDbusClient", "kel::TCDbusClient")

namespace kel {

namespace {

constexpr int kAnswerTimeout = 10000; // milliseconds

} // namespace

// GLib's way in: resolves the ticket that GLib was given in place of the client.
struct TCDbusClient::TSGlibEntry
{
    static TCDbusClient* ClientOf(const TCHandlerStay& stay)
    {
        return static_cast<TCDbusClient*>(stay.End());
    }

    static void NameAppeared(GDBusConnection* connection, const char* name, const char* owner,
                             void* ticket)
    {
        const TCHandlerStay stay(ticket);
        if (stay.End() != nullptr) {
            m_NameAppeared(connection, name, owner, ClientOf(stay));
        }
    }

    static void NameVanished(GDBusConnection* connection, const char* name, void* ticket)
    {
        const TCHandlerStay stay(ticket);
        if (stay.End() != nullptr) {
            m_NameVanished(connection, name, ClientOf(stay));
        }
    }
};

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
    const TCReadLock state(m_stateMutex);
    const TCWriteLock callbacks(m_callbacksMutex);
    const bool inserted = m_callbacks.emplace(type, ShareState(handler)).second;
    KEL_DEBUG("Type %d, result %d", type, inserted);
    if (inserted && m_ready) {
        m_SendHello();
    }
    return inserted;
}

bool TCDbusClient::UnSetCallback(int type)
{
    const TCReadLock state(m_stateMutex);
    const TCWriteLock callbacks(m_callbacksMutex);
    const bool erased = m_callbacks.erase(type) != 0;
    if (erased && m_ready) {
        m_SendHello();
    }
    return erased;
}

bool TCDbusClient::SendMessage(int type, const std::vector<unsigned char>& data,
                               std::vector<unsigned char>& response, bool async)
{
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
        return false;
    }
    if (reply == nullptr) {
        KEL_ERROR("pResult is NULL");
        return false;
    }
    if (!g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(ay)"))) {
        // A stranger that is no agent of ours has the name.
        KEL_ERROR("Sending message error, errno %d", G_DBUS_ERROR_INVALID_SIGNATURE);
        return false;
    }
    bool result = true; // what an empty reply array leaves, on purpose: it was an answer
    t_ConvertBytes(reply.get(), result, response);
    return Truth(result);
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
            return false;
        }
    }
    const TCWriteLock startStop(m_startStopMutex);
    m_watcherId = g_bus_watch_name_on_connection(
        m_pConnection, m_busName, G_BUS_NAME_WATCHER_FLAGS_NONE, &TSGlibEntry::NameAppeared,
        &TSGlibEntry::NameVanished, AsUserData(TicketOf(*this)), nullptr);
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

bool TCDbusClient::m_WakeServer() KEL_NO_THREAD_SAFETY_ANALYSIS
{
    // Inside a message callback this thread holds the mutex already, and taking it once more
    // would wait for ever behind a thread that wants to register a callback.
    if (TCCallbackHold::IsHeldHere(*this)) {
        return m_SendHello();
    }
    const TCReadLock callbacks(m_callbacksMutex);
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

boost::shared_ptr<IDbusClient> TCDbusClientProvider::Get(bool test)
{
    const boost::lock_guard<boost::mutex> creation(*m_pMutex);
    boost::shared_ptr<IDbusClient> client = m_pDbusClient->lock();
    if (!client) {
        client.reset(new TCDbusClient(test));
        *m_pDbusClient = client;
    }
    return client;
}

} // namespace kel
