#pragma once

#include <map>
#include <string>
#include <vector>

#include <boost/function.hpp>

#include <kel/IDbus.h>
#include <kel/KELExport.h>
#include <kel/KELGlibTypes.h>
#include <kel/KELLocks.h>

namespace kel {

/// What both ends of the channel share: connects to the D-Bus system bus, exports one object with
/// one interface, routes incoming calls by method name, and "Send" messages by message type to
/// the callbacks that the owner registered.
///
/// Threads: the public operations from any thread. Incoming calls arrive on the thread that
/// iterates the main context that was the thread default where t_Start() ran; the host iterates
/// it. An end may be destroyed on any thread: handlers that run on other threads are waited for,
/// queued ones find it gone, and a handler that drops its own end does not wait for itself.
///
/// Locks: the state mutex before the callbacks mutex or the start/stop mutex, never the reverse.
///
/// Nobody makes one: see TCDbusClient and TCDbusServer. What they have in common for a program:
/// @snippet class-examples.cpp TCDbus
class KEL_EXPORT TCDbus : public virtual IDbus
{
public:
    /// Returns whether the message was handled, and may fill the response.
    typedef boost::function<bool(const std::vector<unsigned char>& request,
                                 std::vector<unsigned char>& response)>
        TMessageCallback;

    /// Answers one D-Bus method call; it owns the invocation.
    typedef boost::function<void(const char* sender, GVariant* parameters,
                                 GDBusMethodInvocation* invocation)>
        TMethodHandler;

    /// Chooses the bus name and object path; neither connects nor registers.
    ///
    /// @param test  use the names of the test channel.
    explicit TCDbus(bool test);

    /// Releases the tables only; the derived class has stopped the channel by then.
    virtual ~TCDbus();

    bool IsReady() override;

    /// The unique bus name of this process's connection; empty before the channel has started and
    /// when it could not connect. Thread-safe.
    std::string GetUniqueName();

protected:
    /// Connects to the system bus, exports the object and installs the "Send" handler. Call it
    /// with the state mutex held exclusively; what a failed start holds, t_Stop() releases.
    ///
    /// @return true on success, otherwise false with an error line.
    bool t_Start() KEL_REQUIRES(m_stateMutex);

    /// Undoes t_Start(). Runs once per start, after t_EndHandlers().
    void t_Stop() KEL_REQUIRES(m_stateMutex);

    /// Gives up the object path, turns away the handlers still queued, and waits for the ones that
    /// other threads run. The first step of every stop, without any lock: the handlers it waits
    /// for take them.
    void t_EndHandlers() KEL_EXCLUDES(m_stateMutex, m_callbacksMutex);

    /// Sets the handler of a D-Bus method, in place of the one it had. Takes no lock: call it
    /// before the object is exported.
    void t_SetDbusCallback(const char* method, const TMethodHandler& handler);

    // Payloads. Every message body is a "(ay)" tuple; integers in it are the memory image of a
    // 32-bit int in host order. Values are returned floating (GVariant): whoever passes one to a
    // D-Bus call hands it over there.

    /// Bytes to tuple.
    void t_ConvertBytes(const std::vector<unsigned char>& bytes, GVariant*& out) const;

    /// Builds a "Send" request: type (4 bytes), flag (1 byte), data.
    void t_ConvertBytes(int type, bool flag, const std::vector<unsigned char>& data,
                        GVariant*& out) const;

    /// Builds a "Send" reply: result (1 byte), data.
    void t_ConvertBytes(const std::vector<unsigned char>& data, bool result, GVariant*& out) const;

    /// Tuple to bytes, appended to what the vector holds. The tuple is not consumed.
    void t_ConvertBytes(GVariant* in, std::vector<unsigned char>& bytes) const;

    /// Reads a "Send" request. One of 4 bytes or fewer is reported as a failed check and leaves
    /// every output untouched. The flag gets the byte as it came: one of 2 is neither true nor
    /// false to the language, so look at the byte (memcpy) when it comes from the wire.
    void t_ConvertBytes(GVariant* in, int& type, bool& flag,
                        std::vector<unsigned char>& data) const;

    /// Reads a "Send" reply. An empty one is reported as a failed check and leaves every output
    /// untouched. The result gets the byte as it came, like the flag of a request.
    void t_ConvertBytes(GVariant* in, bool& result, std::vector<unsigned char>& data) const;

    static const char* const t_interfaceName;   ///< The one interface of both ends.
    static const char* const t_dbusSendMethod;  ///< "Send": a message.
    static const char* const t_dbusHelloMethod; ///< "Hello": the types that a client wants.

    /// Whether this is an end of the test channel; set by the constructor, as are the next two.
    bool m_test;

    /// The process's shared connection; one reference, taken by t_Start(), released by t_Stop().
    GDBusConnection* m_pConnection;

    const char* m_busName;    ///< The agent's bus name. Set by the constructor.
    const char* m_objectPath; ///< The object of both ends. Set by the constructor.

    /// This process's unique name on the bus; empty while there is no connection.
    std::string m_uniqueName KEL_GUARDED_BY(m_stateMutex);
    /// Whether the channel can carry messages; what IsReady() tells.
    bool m_ready KEL_GUARDED_BY(m_stateMutex);

    /// Message type to callback.
    typedef std::map<int, TMessageCallback> TCallbacks;
    /// Held shared while a callback runs; comes after the state mutex.
    TCSharedMutex m_callbacksMutex;
    /// What the owner of this end has registered.
    TCallbacks m_callbacks KEL_GUARDED_BY(m_callbacksMutex);

    /// Comes before the callbacks mutex and the start/stop mutex.
    TCSharedMutex m_stateMutex;
    /// For the client's start and stop.
    TCSharedMutex m_startStopMutex;

    /// The peer whose "Send" is being handled; empty otherwise.
    std::string m_currentSender KEL_GUARDED_BY(m_messageMutex);
    /// Whether that peer waits for no answer.
    bool m_currentAsync KEL_GUARDED_BY(m_messageMutex);

    /// One for all ends, held for a swap or a copy. It is not the state mutex: a synchronous send
    /// holds that one for as long as it waits, and an event would wait behind it. Not exported.
    KEL_HIDDEN static TCMutex m_messageMutex;

    /// What the object looks like to the bus; taken by t_Start(), released by t_Stop().
    GDBusNodeInfo* m_pNodeInfo;
    /// Of the object; 0 when its path has been given up.
    unsigned int m_registrationId;

    /// D-Bus method to handler. Filled before the object is exported, constant from then on.
    std::map<std::string, TMethodHandler> m_methodHandlers;

private:
    TCDbus(const TCDbus&) = delete;
    TCDbus& operator=(const TCDbus&) = delete;

    friend class TCDbusClientProvider;

    struct KEL_HIDDEN TSGlibEntry;      // defined in the source file
    struct KEL_HIDDEN TSCurrentMessage; // the same

    // Takes the object from the bus, once; calls that are queued find it gone.
    KEL_HIDDEN void m_LeavePath();

    void m_HandleMessage(const char* sender, GVariant* parameters,
                         GDBusMethodInvocation* invocation);

    static void m_HandleMethodCall(GDBusConnection* connection, const char* sender,
                                   const char* objectPath, const char* interfaceName,
                                   const char* methodName, GVariant* parameters,
                                   GDBusMethodInvocation* invocation, void* userData);

    static const char* const m_interfaceXml;
    static const GDBusInterfaceVTable m_interfaceVtable;
};

} // namespace kel
