#pragma once

#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <kel/IDbusClient.h>
#include <kel/KELDbus.h>

namespace kel {

/// The application's end of the channel: watches the agent's bus name, tells the agent which
/// message types this process wants, and sends messages to it.
///
/// Threads: the public operations from any thread. Messages and bus-name events arrive on the
/// thread that iterates the main context the client was created in; the host iterates it, or the
/// client never becomes ready (it can send all the same).
///
/// Locks: the state mutex before the callbacks mutex or the start/stop mutex, never the reverse.
///
/// An application seldom makes one: GetControl() and TCCallbacksProxy share the process's own.
/// @snippet class-examples.cpp TCDbusClient
class KEL_EXPORT TCDbusClient : public TCDbus, public IDbusClient
{
public:
    /// Starts the client. One that could not start exists, and never becomes ready.
    ///
    /// @param test  use the test channel.
    explicit TCDbusClient(bool test);

    ~TCDbusClient() override;

    /// Registers the handler for a message type: see IDbus::SetCallback().
    /// The agent is told of the new set of types at once, or when it appears.
    ///
    /// @return true when it was added; false when the type has one already, which stays.
    bool SetCallback(int type, const TMessageCallback& handler) override;
    bool UnSetCallback(int type) override;
    bool SendMessage(int type, const std::vector<unsigned char>& data,
                     std::vector<unsigned char>& response, bool async) override;

protected:
    /// Starts the base, makes the agent's proxy and watches the agent's name.
    bool t_Start();

    /// Ends the watch, drops the proxy and stops the base. Runs once, from the destructor.
    void t_Stop();

private:
    void m_NameAppeared(GDBusConnection* connection, const char* name, const char* owner);
    void m_NameVanished(GDBusConnection* connection, const char* name);
    bool m_SendHello() KEL_REQUIRES_SHARED(m_stateMutex, m_callbacksMutex);
    KEL_HIDDEN bool m_WakeServer() KEL_REQUIRES_SHARED(m_stateMutex);

    static void m_NameAppeared(GDBusConnection* connection, const char* name, const char* owner,
                               void* userData);
    static void m_NameVanished(GDBusConnection* connection, const char* name, void* userData);

    // Of the agent's name; 0 when none.
    unsigned int m_watcherId KEL_GUARDED_BY(m_startStopMutex);
    // The agent; one reference, taken by t_Start, released by t_Stop.
    GDBusProxy* m_pProxy KEL_GUARDED_BY(m_stateMutex);
};

/// Hands out the process's one client, which lives as long as somebody holds it. For messages of
/// types of your own, beside those of IControl and ICallbacks.
/// @snippet class-examples.cpp TCDbusClientProvider
class KEL_EXPORT TCDbusClientProvider
{
public:
    /// The process's client; creates it when there is none alive. Thread-safe, and allowed inside
    /// a callback of a client that is just ending: it does not wait for that end.
    ///
    /// @param test  the channel of a client that has to be created; without effect while there is
    ///              one alive.
    static boost::shared_ptr<IDbusClient> Get(bool test);

private:
    struct KEL_HIDDEN TSClientLife; // defined in the source file

    // Never freed: singletons may let go of the client, or ask for it, after the library's other
    // static objects are gone.
    static TCMutex* m_pMutex;
    static boost::weak_ptr<IDbusClient>* m_pDbusClient KEL_PT_GUARDED_BY(*m_pMutex);
};

} // namespace kel
