#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/thread/thread.hpp>

#include <kel/IDbusServer.h>
#include <kel/KELClients.h>
#include <kel/KELDbus.h>

namespace kel {

/// The agent's end of the channel: owns the bus name, remembers which client asked for which
/// message types, and sends to all of them at once.
///
/// Threads: the public operations from any thread. Calls from clients and bus-name events arrive
/// on the thread that iterates the main context the server was created in; the host iterates it.
/// A private thread carries the outgoing calls and takes none of our locks.
///
/// Locks: the state mutex before the callbacks mutex, never the reverse.
///
/// @snippet class-examples.cpp TCDbusServer
class KEL_EXPORT TCDbusServer : public TCDbus, public IDbusServer
{
public:
    /// Starts the server. One that could not start exists, and never becomes ready.
    ///
    /// @param test  serve the test channel.
    /// @throws boost::thread_resource_error when the private thread cannot be created.
    explicit TCDbusServer(bool test);

    ~TCDbusServer() override;

    /// Registers the callback for a message type: see IDbus::SetCallback().
    ///
    /// @return true when it was added; false when the type has one already, which stays.
    bool SetCallback(int type, const TMessageCallback& callback) override;
    bool UnSetCallback(int type) override;
    size_t NumberOfClients() override;
    std::pair<size_t, size_t> SendMessage(int type, const std::vector<unsigned char>& data,
                                          int timeout) override;

    /// Sends one message like SendMessage(), and tells what has become of it for each client that
    /// subscribed to its type, in the order of their names. Nothing while the server is not ready.
    std::vector<TSClientOutcome> SendToEach(int type, const std::vector<unsigned char>& data,
                                            int timeout);

    /// The clients that have introduced themselves and are still on the bus, in the order of their
    /// names. Thread-safe.
    ///
    /// @param mostTypes  of each client no more types are told: a "Hello" may have millions.
    std::vector<TSRegisteredClient> Clients(unsigned int mostTypes);

protected:
    /// Starts the base, asks for the bus name and starts the private thread.
    bool t_Start();

    /// Ends the private thread, forgets the clients, gives up the name and stops the base. Runs
    /// once, from the destructor; on the private thread it throws boost::thread_resource_error.
    void t_Stop();

private:
    /// A client that introduced itself.
    struct TSClient
    {
        TSClient();

        std::set<int> m_types;  // what it asked for in its latest "Hello"
        GDBusProxy* m_pProxy;   // one reference, released by m_DestroyClient
        unsigned int m_watchId; // on its bus name, ended by m_DestroyClient; 0 when none
    };

    struct KEL_HIDDEN TSAsyncMessage; // one outgoing call; defined in the source file
    struct KEL_HIDDEN TSRuleProbe;    // of the bus's limit; the same
    struct KEL_HIDDEN TSFanOut;       // a message to all clients; the same

    void m_NameAcquired(GDBusConnection* connection, const char* name);
    void m_ClientNameVanished(GDBusConnection* connection, const char* name);
    void m_HandleHelloMessage(const char* sender, GVariant* parameters,
                              GDBusMethodInvocation* invocation);
    void m_DestroyClient(TSClient& client);
    void m_StartMainLoop();
    void m_AsyncReadyCallback(GObject* source, GAsyncResult* result, TSAsyncMessage* message);

    static void m_NameAcquired(GDBusConnection* connection, const char* name, void* userData);
    static void m_NameLost(GDBusConnection* connection, const char* name, void* userData);
    static void m_ClientNameVanished(GDBusConnection* connection, const char* name, void* userData);
    static int m_SendMessage(void* message);
    static void m_AsyncReadyCallback(GObject* source, GAsyncResult* result, void* message);

    // The peer that waits for the answer to the message being handled; empty when there is none.
    KEL_HIDDEN std::string m_BlockedSender() KEL_EXCLUDES(m_messageMutex);
    // What keeps a message from being sent to a client; None when nothing does.
    KEL_HIDDEN EFailure m_Obstacle(const char* name, size_t size, int timeout) const;
    // A client's name is no more: tells of it and forgets the client; false when that is done.
    KEL_HIDDEN bool m_ClientNameVanished(const char* name) KEL_EXCLUDES(m_stateMutex);
    KEL_HIDDEN static void m_ClientHasGone(GDBusConnection* connection, const char* name,
                                           void* userData);

    unsigned int m_ownerId; // of the bus name; 0 when none
    typedef std::map<std::string, TSClient> TClients;
    TClients m_clients KEL_GUARDED_BY(m_stateMutex); // by unique name

    // The private loop. Made once by t_Start, released by t_Stop.
    boost::thread m_loopThread;
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;
};

} // namespace kel
