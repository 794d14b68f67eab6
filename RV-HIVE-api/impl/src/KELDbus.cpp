#include <kel/KELDbus.h>

#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include <boost/bind/bind.hpp>

#include "KELGlib.h"
#include "KELHandlerGate.h"
#include "KELLog.h"
#include "KELPayload.h"
#include "KELSharedFunction.h"

KEL_LOG_SOURCE("KELDbus", "kel::TCDbus")

using namespace boost::placeholders;

namespace kel {

namespace {

constexpr unsigned int kShortRequest = 283;
constexpr unsigned int kEmptyReply = 304;

// The value's bytes where they are; none when it is not a "(ay)".
std::pair<const unsigned char*, size_t> BytesOf(GVariant* value)
{
    if (value == nullptr || !g_variant_is_of_type(value, G_VARIANT_TYPE("(ay)"))) {
        return {nullptr, 0};
    }
    // The tuple keeps the array's memory alive.
    const TGlibPtr<GVariant> array(g_variant_get_child_value(value, 0));
    gsize size = 0;
    const void* bytes = g_variant_get_fixed_array(array.get(), &size, 1);
    return {static_cast<const unsigned char*>(bytes), size};
}

// A floating "(ay)" of a header and data, in one buffer that the value adopts. Adding the elements
// one by one gives the same value, a hundred times slower.
GVariant* Pack(const unsigned char* header, size_t headerSize,
               const std::vector<unsigned char>& data)
{
    const size_t size = headerSize + data.size();
    unsigned char* const buffer = static_cast<unsigned char*>(g_try_malloc(size));
    if (buffer == nullptr && size != 0) {
        throw std::bad_alloc(); // g_malloc would end the process, for a payload of any size
    }
    if (headerSize != 0) {
        std::memcpy(buffer, header, headerSize);
    }
    if (!data.empty()) {
        std::memcpy(buffer + headerSize, data.data(), data.size());
    }
    GVariant* array
        = g_variant_new_from_data(G_VARIANT_TYPE("ay"), buffer, size, TRUE, g_free, buffer);
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
    try {
        return callback(request, response);
    } catch (const std::exception& error) {
        KEL_ERROR("Callback for type %d has thrown: %s", type, error.what());
    } catch (...) {
        if (std::current_exception() == nullptr) {
            throw; // not C++'s: the thread is being cancelled, which must go on
        }
        KEL_ERROR("Callback for type %d has thrown", type);
    }
    response.clear();
    return false;
}

} // namespace

// GLib's way in: resolves the ticket that GLib was given in place of the object.
struct TCDbus::TSGlibEntry
{
    static void MethodCall(GDBusConnection* connection, const char* sender, const char* objectPath,
                           const char* interfaceName, const char* methodName, GVariant* parameters,
                           GDBusMethodInvocation* invocation, void* ticket);
};

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
    t_SetDbusCallback(t_dbusSendMethod, boost::bind(&TCDbus::m_HandleMessage, this, _1, _2, _3));
    m_pNodeInfo = g_dbus_node_info_new_for_xml(m_interfaceXml, nullptr);

    TCGlibError error;
    m_pConnection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.Out());
    if (error.IsSet()) {
        KEL_ERROR("Connecting to system bus error, errno %d", error.Code());
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
        return false;
    }
    return true;
}

void TCDbus::t_Stop()
{
    if (m_registrationId != 0) {
        g_dbus_connection_unregister_object(m_pConnection, m_registrationId);
    }
    ReleaseMember(m_pNodeInfo);
    ReleaseMember(m_pConnection);
}

void TCDbus::t_EndHandlers() { CloseGate(*this); }

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
    int type = 0;
    bool flag = false;
    std::vector<unsigned char> request;
    t_ConvertBytes(parameters, type, flag, request);
    {
        const TCWriteLock state(m_stateMutex);
        m_currentAsync = Truth(flag);
        m_currentSender = sender != nullptr ? sender : "";
    }

    TMessageCallback callback; // a copy, which outlives the table when it drops this end
    std::vector<unsigned char> response;
    bool result = false;
    bool ended = false;
    {
        const TCCallbackHold callbacks(*this, m_callbacksMutex);
        const auto found = m_callbacks.find(type);
        if (found != m_callbacks.end()) {
            callback = found->second;
            result = RunCallback(callback, type, request, response);
        } else {
            KEL_DEBUG("Callback for type %d is not registered", type);
        }
        ended = callbacks.HasEnded();
        if (!ended) {
            callback.clear(); // while it is in the table: whoever removes it there destroys it
        }
    }
    g_dbus_method_invocation_return_value(invocation, PackReply(result, response));

    if (!ended) {
        const TCWriteLock state(m_stateMutex);
        m_currentSender.clear();
    }
}

void TCDbus::m_HandleMethodCall(GDBusConnection* connection, const char* sender,
                                const char* objectPath, const char*, const char* methodName,
                                GVariant* parameters, GDBusMethodInvocation* invocation,
                                void* userData)
{
    TGlibPtr<GDBusMethodInvocation> call(invocation); // dropped unanswered unless passed on
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
        g_dbus_method_invocation_return_value(call.release(), nullptr);
        return;
    }
    KEL_DEBUG("->Invoke message handler %s", methodName);

    const TMethodHandler run = handler->second; // a copy: the handler may drop this end
    run(sender, parameters, run.empty() ? call.get() : call.release()); // an empty one throws
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
    m_interfaceVtable.method_call(connection, sender, objectPath, interfaceName, methodName,
                                  parameters, invocation, stay.End());
}

} // namespace kel
