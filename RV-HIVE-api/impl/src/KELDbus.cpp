#include <kel/KELDbus.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "KELFailureNote.h"
#include "KELGlib.h"
#include "KELGlibEntry.h"
#include "KELHandlerGate.h"
#include "KELLog.h"
#include "KELPayload.h"
#include "KELSharedFunction.h"

KEL_LOG_SOURCE("KELDbus", "kel::TCDbus")

namespace kel {

namespace {

constexpr unsigned int kShortRequest = 283;
constexpr unsigned int kEmptyReply = 304;

// The block of the last payload of a middle size, kept for the next one: fresh memory costs a page
// fault for every 4 KiB, which is most of what packing costs there.
constexpr size_t kSmallBlock = 32'768;
constexpr size_t kSpareBlock = 131'072;
TCMutex spareMutex;
void* pSpare KEL_GUARDED_BY(spareMutex) = nullptr;

bool IsMiddleSize(size_t size) { return size > kSmallBlock && size <= kSpareBlock; }

// Throws std::bad_alloc, where g_malloc() would end the process for a payload of any size.
void* TakeBlock(size_t size)
{
    void* pBlock = nullptr;
    if (IsMiddleSize(size)) {
        const TCLock spare(spareMutex);
        std::swap(pBlock, pSpare);
        size = kSpareBlock;
    }
    if (pBlock == nullptr) {
        pBlock = g_try_malloc(size);
    }
    if (pBlock == nullptr && size != 0) {
        throw std::bad_alloc();
    }
    return pBlock;
}

void KeepBlock(void* pBlock)
{
    {
        const TCLock spare(spareMutex);
        std::swap(pBlock, pSpare);
    }
    g_free(pBlock); // the one that was kept before, if any
}

// A floating "(ay)" of a header and data, in one buffer that the value adopts. Adding the elements
// one by one gives the same value, a hundred times slower.
GVariant* Pack(const unsigned char* header, size_t headerSize,
               const std::vector<unsigned char>& data)
{
    const size_t size = headerSize + data.size();
    unsigned char* const buffer = static_cast<unsigned char*>(TakeBlock(size));
    if (headerSize != 0) {
        std::memcpy(buffer, header, headerSize);
    }
    if (!data.empty()) {
        std::memcpy(buffer + headerSize, data.data(), data.size());
    }
    GVariant* array = g_variant_new_from_data(G_VARIANT_TYPE("ay"), buffer, size, TRUE,
                                              IsMiddleSize(size) ? &KeepBlock : &g_free, buffer);
    return g_variant_new_tuple(&array, 1);
}

GVariant* PackReply(bool result, const std::vector<unsigned char>& data)
{
    const unsigned char header[kReplyHeaderSize] = {static_cast<unsigned char>(result ? 1 : 0)};
    return Pack(header, sizeof(header), data);
}

// The application's code, which is called from C frames: nothing may be thrown through them.
bool RunCallback(const TCDbus::TMessageCallback& callback, int type,
                 const std::vector<unsigned char>& request, std::vector<unsigned char>& response)
{
    char what[sizeof("Callback for type -2147483648")];
    snprintf(what, sizeof(what), "Callback for type %d", type);
    bool result = false;
    if (!RunGuarded(what, [&] { result = callback(request, response); })) {
        response.clear();
    }
    return result;
}

} // namespace

void ReportException(const char* what)
{
    try {
        throw;
    } catch (const std::exception& error) {
        KEL_ERROR("%s has thrown: %s", what, error.what());
    } catch (...) {
        if (std::current_exception() == nullptr) {
            throw;
        }
        KEL_ERROR("%s has thrown", what);
    }
}

// Notes for a scope whose message is being handled. A callback that iterates the main context
// handles another peer's message inside; its own is the current one again after that.
struct TCDbus::TSCurrentMessage
{
    // The last one tells whether the end is gone, and its fields with it, when the scope is left.
    TSCurrentMessage(TCDbus& end, const char* sender, bool async, const bool& ended)
        : m_end(end), m_ended(ended), m_sender(sender != nullptr ? sender : "")
    {
        const TCLock message(m_messageMutex);
        m_end.m_currentSender.swap(m_sender); // and keeps the outer one
        m_outerAsync = std::exchange(m_end.m_currentAsync, async);
    }
    ~TSCurrentMessage()
    {
        if (m_ended) {
            return;
        }
        const TCLock message(m_messageMutex);
        m_end.m_currentSender.swap(m_sender);
        if (!m_end.m_currentSender.empty()) {
            m_end.m_currentAsync = m_outerAsync;
        }
    }
    TSCurrentMessage(const TSCurrentMessage&) = delete;
    TSCurrentMessage& operator=(const TSCurrentMessage&) = delete;

private:
    TCDbus& m_end;
    const bool& m_ended;
    std::string m_sender;
    bool m_outerAsync;
};

// GLib's way in: resolves the ticket that GLib was given in place of the object.
struct TCDbus::TSGlibEntry
{
    static void MethodCall(GDBusConnection* connection, const char* sender, const char* objectPath,
                           const char* interfaceName, const char* methodName, GVariant* parameters,
                           GDBusMethodInvocation* invocation, void* ticket);
};

TCMutex TCDbus::m_messageMutex;

const char* const TCDbus::t_interfaceName = "com.norvale.kel.IControl";
const char* const TCDbus::t_dbusSendMethod = "Send";
const char* const TCDbus::t_dbusHelloMethod = "Hello";

const char* const TCDbus::m_interfaceXml = "<node>"
                                           "  <interface name='com.norvale.kel.IControl'>"
                                           "    <method name='Send'>"
                                           "      <arg type='ay' name='data' direction='in'/>"
                                           "      <arg type='ay' name='response' direction='out'/>"
                                           "    </method>"
                                           "\t <method name='Hello'>"
                                           "\t   <arg type='ay' name='events' direction='in'/>"
                                           "\t </method>"
                                           "  </interface>"
                                           "</node>";

const GDBusInterfaceVTable TCDbus::m_interfaceVtable = {m_HandleMethodCall, nullptr, nullptr, {}};

TCDbus::TCDbus(bool test)
    : m_test(test), m_pConnection(nullptr),
      m_busName(test ? "com.norvale.kel.IControlTest" : "com.norvale.kel.IControl"),
      m_objectPath(test ? "/com/norvale/kel/CommunicationChannelTest"
                        : "/com/norvale/kel/CommunicationChannel"),
      m_ready(false), m_currentAsync(false), m_pNodeInfo(nullptr), m_registrationId(0)
{}

TCDbus::~TCDbus() = default;

bool TCDbus::IsReady()
{
    const TCReadLock state(m_stateMutex);
    return m_ready;
}

std::string TCDbus::GetUniqueName()
{
    const TCReadLock state(m_stateMutex);
    return m_uniqueName;
}

bool TCDbus::t_Start()
{
    ClearFailure();
    t_SetDbusCallback(t_dbusSendMethod, [this](const char* sender, GVariant* parameters,
                                               GDBusMethodInvocation* invocation) {
        m_HandleMessage(sender, parameters, invocation);
    });
    m_pNodeInfo = g_dbus_node_info_new_for_xml(m_interfaceXml, nullptr);

    TCGlibError error;
    m_pConnection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.Out());
    if (error.IsSet()) {
        KEL_ERROR("Connecting to system bus error, errno %d", error.Code());
        NoteFailure(EFailure::NoBus, error);
        KeepFailedStart();
        return false;
    }
    m_uniqueName = g_dbus_connection_get_unique_name(m_pConnection);
    KEL_DEBUG("Working with unique name %s", m_uniqueName.c_str());

    const GDBusInterfaceVTable gated = {TSGlibEntry::MethodCall, nullptr, nullptr, {}};
    m_registrationId = g_dbus_connection_register_object(
        m_pConnection, m_objectPath, m_pNodeInfo->interfaces[0], &gated,
        AsUserData(OpenGate(*this)), nullptr, error.Out());
    if (error.IsSet()) {
        KEL_ERROR("Registering object error, errno %d", error.Code());
        NoteFailure(error);
        KeepFailedStart();
        return false;
    }
    return true;
}

void TCDbus::t_Stop()
{
    m_LeavePath();
    ReleaseMember(m_pNodeInfo);
    ReleaseMember(m_pConnection);
}

void TCDbus::t_EndHandlers()
{
    m_LeavePath(); // before the wait, so that nobody who makes the next end waits for it
    CloseGate(*this);
}

void TCDbus::m_LeavePath()
{
    const unsigned int registrationId = std::exchange(m_registrationId, 0);
    if (registrationId != 0) {
        g_dbus_connection_unregister_object(m_pConnection, registrationId);
    }
}

void TCDbus::t_SetDbusCallback(const char* method, const TMethodHandler& handler)
{
    m_methodHandlers[method] = ShareState(handler);
}

void TCDbus::t_ConvertBytes(const std::vector<unsigned char>& bytes, GVariant*& out) const
{
    out = Pack(nullptr, 0, bytes);
}

void TCDbus::t_ConvertBytes(int type, bool flag, const std::vector<unsigned char>& data,
                            GVariant*& out) const
{
    unsigned char header[kRequestHeaderSize];
    std::memcpy(header, &type, kTypeSize);
    header[kTypeSize] = flag ? 1 : 0;
    out = Pack(header, sizeof(header), data);
}

void TCDbus::t_ConvertBytes(const std::vector<unsigned char>& data, bool result,
                            GVariant*& out) const
{
    out = PackReply(result, data);
}

void TCDbus::t_ConvertBytes(GVariant* in, std::vector<unsigned char>& bytes) const
{
    const auto [pBytes, size] = BytesOf(in);
    bytes.insert(bytes.end(), pBytes, pBytes + size);
}

void TCDbus::t_ConvertBytes(GVariant* in, int& type, bool& flag,
                            std::vector<unsigned char>& data) const
{
    const auto [pBytes, size] = BytesOf(in);
    if (size < kRequestHeaderSize) {
        KEL_REPORT(kShortRequest);
        return;
    }
    std::memcpy(&type, pBytes, kTypeSize);
    std::memcpy(&flag, pBytes + kTypeSize, 1);
    data.assign(pBytes + kRequestHeaderSize, pBytes + size);
}

void TCDbus::t_ConvertBytes(GVariant* in, bool& result, std::vector<unsigned char>& data) const
{
    const auto [pBytes, size] = BytesOf(in);
    if (size < kReplyHeaderSize) {
        KEL_REPORT(kEmptyReply);
        return;
    }
    std::memcpy(&result, pBytes, 1);
    data.assign(pBytes + kReplyHeaderSize, pBytes + size);
}

void TCDbus::m_HandleMessage(const char* sender, GVariant* parameters,
                             GDBusMethodInvocation* invocation)
{
    TCPendingCall call(invocation);
    int type = 0;
    bool flag = false;
    std::vector<unsigned char> request;
    t_ConvertBytes(parameters, type, flag, request);

    TMessageCallback callback; // a copy, which outlives the table when it drops this end
    std::vector<unsigned char> response;
    bool result = false;
    bool ended = false;
    const TSCurrentMessage current(*this, sender, Truth(flag), ended);
    {
        const TCCallbackHold callbacks(*this, m_callbacksMutex, ended);
        const auto found = m_callbacks.find(type);
        if (found != m_callbacks.end()) {
            callback = found->second;
            result = RunCallback(callback, type, request, response);
        } else {
            KEL_DEBUG("Callback for type %d is not registered", type);
        }
        if (!ended) {
            callback.clear(); // while it is in the table: whoever removes it there destroys it
        }
    }

    const size_t size
        = MessageSize({sender != nullptr ? sender : ""}, true, kReplyHeaderSize + response.size());
    if (size > kBusMessageLimit) {
        KEL_ERROR("Unable to answer with %zu bytes, the bus takes %zu", size, kBusMessageLimit);
        call.Fail(G_DBUS_ERROR_LIMITS_EXCEEDED, "The answer is larger than the bus takes");
        return;
    }
    call.Return(PackReply(result, response));
}

void TCDbus::m_HandleMethodCall(GDBusConnection* connection, const char* sender,
                                const char* objectPath, const char*, const char* methodName,
                                GVariant* parameters, GDBusMethodInvocation* invocation,
                                void* userData)
{
    TCPendingCall call(invocation); // dropped unanswered unless passed on
    TCDbus* const pEnd = static_cast<TCDbus*>(userData);

    if (connection == nullptr || pEnd == nullptr) {
        KEL_ERROR("Connection %p, user_data %p", static_cast<void*>(connection), userData);
        return;
    }
    if (std::strcmp(objectPath, pEnd->m_objectPath) != 0) {
        return;
    }

    const auto handler = pEnd->m_methodHandlers.find(methodName);
    if (handler == pEnd->m_methodHandlers.end()) {
        KEL_DEBUG("No message handler for %s", methodName);
        call.Return(nullptr);
        return;
    }
    KEL_DEBUG("->Invoke message handler %s", methodName);

    const TMethodHandler run = handler->second; // a copy: the handler may drop this end
    if (run.empty()) {
        call.Drop(); // calling it throws, and nobody takes the call
    }
    run(sender, parameters, call.Release());
}

void TCDbus::TSGlibEntry::MethodCall(GDBusConnection* connection, const char* sender,
                                     const char* objectPath, const char* interfaceName,
                                     const char* methodName, GVariant* parameters,
                                     GDBusMethodInvocation* invocation, void* ticket)
{
    const TCHandlerStay stay(ticket);
    if (stay.End() == nullptr) {
        // What GDBus itself answers for an object that it knows to be gone.
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                              "No such object %s", objectPath);
        return;
    }
    RunGuarded("A call's handler", [&] {
        m_interfaceVtable.method_call(connection, sender, objectPath, interfaceName, methodName,
                                      parameters, invocation, stay.End());
    });
}

} // namespace kel
