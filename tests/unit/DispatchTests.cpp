#include <pthread.h>
#include <sys/socket.h>

#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELDbus.h>

#include "KELGlib.h"
#include "Messages.h"
#include "support/WaitUntil.h"

using kel::TCDbus;
using kel::TGlibPtr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

typedef std::vector<unsigned char> TBytes;

class TCEnd : public TCDbus
{
public:
    explicit TCEnd(bool test = false) : TCDbus(test) {}
    bool SetCallback(int type, const TMessageCallback& callback) override
    {
        return m_callbacks.emplace(type, callback).second;
    }
    bool UnSetCallback(int type) override { return m_callbacks.erase(type) != 0; }
};

// What a handler was called with.
struct TSHandled
{
    std::string m_sender;
    GVariant* m_parameters;
};

class Dispatch : public testing::Test
{
protected:
    // As GDBus calls it, but with handles that the dispatch itself must not touch.
    void Call(const char* method, const char* path = "/com/norvale/kel/CommunicationChannel")
    {
        TCDbus::m_HandleMethodCall(AnyConnection(), ":1.7", path, "any.interface", method,
                                   AnyParameters(), nullptr, &m_end);
    }

    static GDBusConnection* AnyConnection() { return reinterpret_cast<GDBusConnection*>(0x10); }
    static GVariant* AnyParameters() { return reinterpret_cast<GVariant*>(0x20); }

    TCDbus::TMethodHandler Recorder()
    {
        return [this](const char* sender, GVariant* parameters, GDBusMethodInvocation*) {
            m_handled.push_back({sender, parameters});
        };
    }

    kel::test::LogRecorder m_log;
    TCEnd m_end;
    std::vector<TSHandled> m_handled;
};

TEST_F(Dispatch, AnEndIsNotReadyAndHasNoNameBeforeItsStart)
{
    EXPECT_FALSE(m_end.IsReady());
    EXPECT_EQ(m_end.GetUniqueName(), "");
    EXPECT_EQ(m_end.m_pConnection, nullptr);
    EXPECT_EQ(m_end.m_pNodeInfo, nullptr);
    EXPECT_EQ(m_end.m_registrationId, 0u);
    EXPECT_EQ(m_end.m_currentSender, "");
    EXPECT_FALSE(m_end.m_currentAsync);
    EXPECT_THAT(m_end.m_methodHandlers, IsEmpty());
}

TEST_F(Dispatch, ConstructionChoosesTheNames)
{
    const TCEnd test(true);

    EXPECT_FALSE(m_end.m_test);
    EXPECT_STREQ(m_end.m_busName, "com.norvale.kel.IControl");
    EXPECT_STREQ(m_end.m_objectPath, "/com/norvale/kel/CommunicationChannel");
    EXPECT_TRUE(test.m_test);
    EXPECT_STREQ(test.m_busName, "com.norvale.kel.IControlTest");
    EXPECT_STREQ(test.m_objectPath, "/com/norvale/kel/CommunicationChannelTest");
}

TEST_F(Dispatch, ConstantsAreWhatPeersExpect)
{
    EXPECT_STREQ(TCDbus::t_interfaceName, "com.norvale.kel.IControl");
    EXPECT_STREQ(TCDbus::t_dbusSendMethod, "Send");
    EXPECT_STREQ(TCDbus::t_dbusHelloMethod, "Hello");
    EXPECT_STREQ(
        TCDbus::m_interfaceXml,
        "<node>  <interface name='com.norvale.kel.IControl'>    <method name='Send'>      <arg "
        "type='ay' name='data' direction='in'/>      <arg type='ay' name='response' "
        "direction='out'/>    </method>\t <method name='Hello'>\t   <arg type='ay' name='events' "
        "direction='in'/>\t </method>  </interface></node>");
}

TEST_F(Dispatch, InterfaceTableHasTheMethodCallAlone)
{
    EXPECT_EQ(TCDbus::m_interfaceVtable.method_call, &TCDbus::m_HandleMethodCall);
    EXPECT_EQ(TCDbus::m_interfaceVtable.get_property, nullptr);
    EXPECT_EQ(TCDbus::m_interfaceVtable.set_property, nullptr);
    for (const gpointer padding : TCDbus::m_interfaceVtable.padding) {
        EXPECT_EQ(padding, nullptr);
    }
}

TEST_F(Dispatch, StartWithoutABusFailsAndKeepsWhatStopReleases)
{
    {
        const kel::TCWriteLock state(m_end.m_stateMutex);
        EXPECT_FALSE(m_end.t_Start());
    }

    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre(testing::StartsWith("6 Connecting to system bus error, errno ")));
    EXPECT_EQ(m_end.GetUniqueName(), "");
    EXPECT_FALSE(m_end.IsReady());
    EXPECT_EQ(m_end.m_pConnection, nullptr);
    ASSERT_NE(m_end.m_pNodeInfo, nullptr);
    EXPECT_STREQ(m_end.m_pNodeInfo->interfaces[0]->name, "com.norvale.kel.IControl");
    EXPECT_EQ(m_end.m_registrationId, 0u);
    EXPECT_THAT(m_end.m_methodHandlers, ElementsAre(Pair("Send", testing::_)));

    m_end.t_EndHandlers();
    const kel::TCWriteLock state(m_end.m_stateMutex);
    m_end.t_Stop();
}

TEST_F(Dispatch, CallIsHandledByTheMethodsHandler)
{
    m_end.t_SetDbusCallback("Some", Recorder());

    Call("Some");

    ASSERT_EQ(m_handled.size(), 1u);
    EXPECT_EQ(m_handled[0].m_sender, ":1.7");
    EXPECT_EQ(m_handled[0].m_parameters, AnyParameters());
    EXPECT_THAT(TakeMessages(m_log), ElementsAre("3 ->Invoke message handler Some"));
}

TEST_F(Dispatch, ALaterHandlerReplacesTheEarlierOne)
{
    m_end.t_SetDbusCallback("Some", [](const char*, GVariant*, GDBusMethodInvocation*) {
        FAIL() << "the replaced handler";
    });
    m_end.t_SetDbusCallback("Some", Recorder());

    Call("Some");

    EXPECT_EQ(m_handled.size(), 1u);
    EXPECT_EQ(m_end.m_methodHandlers.size(), 1u);
}

TEST_F(Dispatch, AnEmptyHandlerThrowsTheFunctionLibrarysException)
{
    m_end.t_SetDbusCallback("Some", TCDbus::TMethodHandler());

    EXPECT_THROW(Call("Some"), boost::bad_function_call);
}

TEST_F(Dispatch, ACallThatNoHandlerHasTakenIsDropped)
{
    m_end.t_SetDbusCallback("Some", TCDbus::TMethodHandler());
    for (const char* const path : {"/com/norvale/kel/CommunicationChannel", "/"}) {
        GObject* const call = static_cast<GObject*>(g_object_new(G_TYPE_OBJECT, nullptr));
        bool dropped = false;
        g_object_weak_ref(
            call, [](gpointer flag, GObject*) { *static_cast<bool*>(flag) = true; }, &dropped);

        try {
            TCDbus::m_HandleMethodCall(AnyConnection(), ":1.7", path, "any.interface", "Some",
                                       AnyParameters(),
                                       reinterpret_cast<GDBusMethodInvocation*>(call), &m_end);
        } catch (const boost::bad_function_call&) {
        }

        EXPECT_TRUE(dropped) << path;
    }
}

TEST_F(Dispatch, AnotherPathIsNotHandled)
{
    m_end.t_SetDbusCallback("Some", Recorder());

    Call("Some", "/com/norvale/kel/CommunicationChannelTest");
    Call("Some", "/com/norvale/kel/CommunicationChanne");
    Call("Some", "/");

    EXPECT_THAT(m_handled, IsEmpty());
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

TEST_F(Dispatch, MissingConnectionOrUserDataIsAnErrorLine)
{
    m_end.t_SetDbusCallback("Some", Recorder());
    const char* const path = m_end.m_objectPath;
    char end[32];
    snprintf(end, sizeof(end), "%p", static_cast<void*>(static_cast<TCDbus*>(&m_end)));

    TCDbus::m_HandleMethodCall(nullptr, ":1.7", path, "i", "Some", nullptr, nullptr,
                               static_cast<TCDbus*>(&m_end));
    TCDbus::m_HandleMethodCall(AnyConnection(), ":1.7", path, "i", "Some", nullptr, nullptr,
                               nullptr);

    EXPECT_THAT(m_handled, IsEmpty());
    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Connection (nil), user_data " + std::string(end),
                            "6 Connection 0x10, user_data (nil)"));
}

// The same with real calls, over a connection of two ends in this process: there is no bus.
class DispatchOfRealCalls : public Dispatch
{
protected:
    DispatchOfRealCalls()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        auto server = std::async(std::launch::async, [&] {
            gchar* const guid = g_dbus_generate_guid();
            TGlibPtr<GDBusConnection> made
                = Connect(ends[0],
                          static_cast<GDBusConnectionFlags>(
                              G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER
                              | G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_ALLOW_ANONYMOUS),
                          guid);
            g_free(guid);
            return made;
        });
        m_caller = Connect(ends[1], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr);
        m_callee = server.get();
        m_pInfo = g_dbus_node_info_new_for_xml(TCDbus::m_interfaceXml, nullptr);
        m_end.t_SetDbusCallback("Send", [this](const char* sender, GVariant* parameters,
                                               GDBusMethodInvocation* invocation) {
            m_end.m_HandleMessage(sender, parameters, invocation);
        });
    }

    ~DispatchOfRealCalls() override
    {
        for (const guint id : m_registrations) {
            g_dbus_connection_unregister_object(m_callee.get(), id);
        }
        g_dbus_connection_close_sync(m_caller.get(), nullptr, nullptr);
        g_dbus_connection_close_sync(m_callee.get(), nullptr, nullptr);
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        g_dbus_node_info_unref(m_pInfo);
    }

    static TGlibPtr<GDBusConnection> Connect(int socket, GDBusConnectionFlags flags,
                                             const char* guid)
    {
        kel::TCGlibError error;
        GSocket* const gsocket = g_socket_new_from_fd(socket, error.Out());
        GSocketConnection* const stream = g_socket_connection_factory_create_connection(gsocket);
        TGlibPtr<GDBusConnection> connection(g_dbus_connection_new_sync(
            G_IO_STREAM(stream), guid, flags, nullptr, nullptr, error.Out()));
        g_object_unref(stream);
        g_object_unref(gsocket);
        EXPECT_FALSE(error.IsSet());
        return connection;
    }

    void Export(const char* path)
    {
        kel::TCGlibError error;
        m_registrations.push_back(g_dbus_connection_register_object(
            m_callee.get(), path, m_pInfo->interfaces[0], &TCDbus::m_interfaceVtable,
            static_cast<TCDbus*>(&m_end), nullptr, error.Out()));
        ASSERT_FALSE(error.IsSet());
    }

    // The reply to one call. It is still "pending" while there is none.
    struct TSReply
    {
        std::string m_text = "pending";
    };

    // The type, and the bytes of a "(ay)".
    static std::string Show(GVariant* value)
    {
        std::string text = g_variant_get_type_string(value);
        if (text == "(ay)") {
            TBytes bytes;
            TCEnd().t_ConvertBytes(value, bytes);
            for (const unsigned char byte : bytes) {
                text += " " + std::to_string(byte);
            }
        }
        return text;
    }

    void Post(const char* path, const char* method, const TBytes& bytes, TSReply& reply)
    {
        GVariant* body = nullptr;
        m_end.t_ConvertBytes(bytes, body);
        g_dbus_connection_call(
            m_caller.get(), nullptr, path, "com.norvale.kel.IControl", method, body, nullptr,
            G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer user) {
                kel::TCGlibError error;
                const TGlibPtr<GVariant> value(
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error.Out()));
                std::string& text = static_cast<TSReply*>(user)->m_text;
                if (error.IsSet()) {
                    text = "error";
                    return;
                }
                text = Show(value.get());
            },
            &reply);
    }

    std::string Reply(const char* path, const char* method, const TBytes& bytes)
    {
        TSReply reply;
        Post(path, method, bytes, reply);
        EXPECT_TRUE(kel::test::WaitUntil([&] {
            while (g_main_context_iteration(nullptr, FALSE)) {
            }
            return reply.m_text != "pending";
        }));
        return reply.m_text;
    }

    TGlibPtr<GDBusConnection> m_caller;
    TGlibPtr<GDBusConnection> m_callee;
    GDBusNodeInfo* m_pInfo;
    std::vector<guint> m_registrations;
};

const char* const kPath = "/com/norvale/kel/CommunicationChannel";

TEST_F(DispatchOfRealCalls, MethodWithoutHandlerGetsAnEmptyReply)
{
    Export(kPath);

    EXPECT_EQ(Reply(kPath, "Hello", {1, 2, 3}), "()");

    EXPECT_THAT(TakeMessages(m_log), ElementsAre("3 No message handler for Hello"));
}

TEST_F(DispatchOfRealCalls, CallToAnotherPathIsLeftUnanswered)
{
    Export("/elsewhere");
    Export(kPath);
    TSReply elsewhere;

    Post("/elsewhere", "Hello", {}, elsewhere);
    EXPECT_EQ(Reply(kPath, "Hello", {}), "()"); // comes behind the other one's, if that had any

    EXPECT_EQ(elsewhere.m_text, "pending");
    EXPECT_THAT(TakeMessages(m_log), ElementsAre("3 No message handler for Hello"));
    g_dbus_connection_close_sync(m_caller.get(), nullptr, nullptr);
    EXPECT_TRUE(kel::test::WaitUntil([&] {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        return elsewhere.m_text == "error";
    }));
}

TEST_F(DispatchOfRealCalls, SendRunsTheCallbackOfItsType)
{
    Export(kPath);
    TBytes received;
    m_end.SetCallback(4, [&](const TBytes& request, TBytes& response) {
        received = request;
        response = {7, 8};
        EXPECT_TRUE(m_end.m_currentAsync);
        return true;
    });

    EXPECT_EQ(Reply(kPath, "Send", {4, 0, 0, 0, 1, 0x41, 0x42}), "(ay) 1 7 8");

    EXPECT_THAT(received, ElementsAre(0x41, 0x42));
    EXPECT_EQ(m_end.m_currentSender, "");
    EXPECT_TRUE(m_end.m_currentAsync) << "keeps its last value";
}

TEST_F(DispatchOfRealCalls, SendAnswersWhatTheCallbackReturns)
{
    Export(kPath);
    m_end.SetCallback(4, [](const TBytes&, TBytes& response) {
        response = {9};
        return false;
    });

    EXPECT_EQ(Reply(kPath, "Send", {4, 0, 0, 0, 0}), "(ay) 0 9");
}

TEST_F(DispatchOfRealCalls, SendWithoutCallbackIsAnsweredWithResultZero)
{
    Export(kPath);

    EXPECT_EQ(Reply(kPath, "Send", {0xff, 0xff, 0xff, 0xff, 0}), "(ay) 0");

    EXPECT_THAT(TakeMessages(m_log), ElementsAre("3 ->Invoke message handler Send",
                                                 "3 Callback for type -1 is not registered"));
}

TEST_F(DispatchOfRealCalls, ShortSendIsHandledAsTypeZero)
{
    Export(kPath);
    int calls = 0;
    m_end.SetCallback(0, [&](const TBytes& request, TBytes&) {
        EXPECT_THAT(request, IsEmpty());
        return ++calls > 0;
    });

    for (size_t size = 0; size <= 4; ++size) {
        m_log.Clear();
        EXPECT_EQ(Reply(kPath, "Send", TBytes(size, 0xff)), "(ay) 1");
        EXPECT_THAT(TakeMessages(m_log),
                    ElementsAre("3 ->Invoke message handler Send",
                                "6 Error for RV-HIVE-api/impl/src/KELDbus file in line 283."));
    }
    EXPECT_EQ(calls, 5);
}

TEST_F(DispatchOfRealCalls, FlagByteOfTwoCountsAsTrue)
{
    Export(kPath);

    for (const unsigned char byte : {2, 255, 0, 1}) {
        Reply(kPath, "Send", {4, 0, 0, 0, byte});
        EXPECT_EQ(m_end.m_currentAsync, byte != 0);
    }
}

TEST_F(Dispatch, ACallbackMayEndItsThread)
{
    struct TSCalled
    {
        TCEnd& m_end;
        TGlibPtr<GVariant> m_request;
        bool m_wentOn;
    };
    GVariant* request = nullptr;
    m_end.t_ConvertBytes(4, false, {}, request);
    TSCalled called{m_end, kel::SinkVariant(request), false};
    bool handled = false;
    m_end.SetCallback(4, [&](const TBytes&, TBytes&) -> bool {
        handled = true;
        pthread_exit(&handled);
    });

    pthread_t thread{};
    const auto run = [](void* data) -> void* {
        auto& its = *static_cast<TSCalled*>(data);
        its.m_end.m_HandleMessage(":1.7", its.m_request.get(), nullptr);
        its.m_wentOn = true;
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &called), 0);
    void* result = nullptr;
    pthread_join(thread, &result);

    EXPECT_EQ(result, &handled) << "not held up on the way";
    EXPECT_TRUE(handled);
    EXPECT_FALSE(called.m_wentOn);
    EXPECT_THAT(TakeMessages(m_log), IsEmpty()) << "which is no failure of the callback";
    ASSERT_TRUE(m_end.m_callbacksMutex.try_lock()) << "nothing stays locked";
    m_end.m_callbacksMutex.unlock();
}

} // namespace
