// What the agent's end does with the calls that arrive, regular and not.

#include <atomic>
#include <cstring>
#include <stdexcept>

#include <boost/function.hpp>

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

class ServerDispatch : public ServerTest
{
protected:
    std::string CurrentSender()
    {
        const TCReadLock state(m_server.m_stateMutex);
        return m_server.m_currentSender;
    }

    unsigned char CurrentAsync()
    {
        const TCReadLock state(m_server.m_stateMutex);
        unsigned char byte;
        std::memcpy(&byte, &m_server.m_currentAsync, 1);
        return byte;
    }

    /// Sends, and returns when the callback has run and what it wrote may be read here.
    TSReply Send(const TBytes& bytes)
    {
        const TSReply reply = m_peer.Send(bytes);
        m_loop.Settle();
        return reply;
    }

    RawPeer m_peer{m_bus};
};

TEST_F(ServerDispatch, SendRunsTheCallbackOfItsTypeAndReturnsResultAndResponse)
{
    TBytes request;
    std::thread::id thread;
    m_server.SetCallback(4, [&](const TBytes& bytes, TBytes& response) {
        request = bytes;
        thread = std::this_thread::get_id();
        response = {0x43, 0x00, 0x44};
        return true;
    });

    const TSReply reply = Send({0x04, 0x00, 0x00, 0x00, 0x00, 0x41, 0x42});

    EXPECT_EQ(reply.m_signature, "ay");
    EXPECT_EQ(reply.m_bytes, (TBytes{0x01, 0x43, 0x00, 0x44}));
    EXPECT_EQ(request, (TBytes{0x41, 0x42}));
    EXPECT_EQ(thread, m_loop.ThreadId());
    EXPECT_TRUE(m_log.Has(kDebug, "->Invoke message handler Send"));
}

TEST_F(ServerDispatch, ACallbackThatRefusesGivesResultZeroWithItsResponse)
{
    m_server.SetCallback(4, [](const TBytes&, TBytes& response) {
        response = {0x07};
        return false;
    });

    EXPECT_EQ(Send(SendBytes(4, 0)).m_bytes, (TBytes{0x00, 0x07}));
}

TEST_F(ServerDispatch, ATypeWithoutCallbackIsAnsweredWithTheByteZeroAlone)
{
    const TSReply reply = Send(SendBytes(-9, 0, {1, 2, 3}));

    EXPECT_EQ(reply.m_bytes, TBytes{0x00});
    EXPECT_TRUE(m_log.Has(kDebug, "Callback for type -9 is not registered"));
}

TEST_F(ServerDispatch, TheSenderAndItsFlagAreKnownWhileItsMessageIsHandled)
{
    std::vector<std::pair<std::string, unsigned char>> seen;
    m_server.SetCallback(1, [&](const TBytes&, TBytes&) {
        seen.emplace_back(CurrentSender(), CurrentAsync());
        return true;
    });

    Send(SendBytes(1, 0));
    Send(SendBytes(1, 1));

    EXPECT_THAT(seen, testing::ElementsAre(std::make_pair(m_peer.Name(), 0),
                                           std::make_pair(m_peer.Name(), 1)));
    EXPECT_EQ(CurrentSender(), "");
    EXPECT_EQ(CurrentAsync(), 1) << "the flag keeps its last value";
}

class ServerDispatchFlag : public ServerDispatch, public testing::WithParamInterface<int>
{
};

TEST_P(ServerDispatchFlag, AnyFlagByteButZeroMeansAsynchronousAndIsKeptAsATrueBool)
{
    Send(SendBytes(1, static_cast<unsigned char>(GetParam())));

    EXPECT_EQ(CurrentAsync(), GetParam() == 0 ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(Bytes, ServerDispatchFlag, testing::Values(0, 1, 2, 255));

class ServerDispatchShort : public ServerDispatch, public testing::WithParamInterface<size_t>
{
};

TEST_P(ServerDispatchShort, ASendWithoutAWholeHeaderIsReportedAndHandledAsAnEmptyOneOfTypeZero)
{
    std::vector<TBytes> requests;
    m_server.SetCallback(0, [&](const TBytes& bytes, TBytes&) {
        requests.push_back(bytes);
        return true;
    });

    const TSReply reply = Send(TBytes(GetParam(), 0x09));

    EXPECT_EQ(reply.m_bytes, TBytes{0x01});
    EXPECT_THAT(requests, testing::ElementsAre(TBytes()));
    EXPECT_EQ(CurrentAsync(), 0);
    EXPECT_TRUE(m_log.Has(kError, FailedCheck("KELDbus", 283)));
}

INSTANTIATE_TEST_SUITE_P(Sizes, ServerDispatchShort, testing::Range<size_t>(0, 5));

TEST_F(ServerDispatch, EightMebibytesTravelBothWays)
{
    TBytes data(8 * 1024 * 1024);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(i * 31 >> 3);
    }
    bool same = false;
    m_server.SetCallback(1, [&](const TBytes& request, TBytes& response) {
        same = request == data;
        response = request;
        return true;
    });

    const TSReply reply = Send(SendBytes(1, 0, data));

    ASSERT_EQ(reply.m_bytes.size(), data.size() + 1);
    EXPECT_TRUE(same);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), reply.m_bytes.begin() + 1));
}

TEST_F(ServerDispatch, ACallbackThatThrowsCountsAsNotHandledAndIsNamed)
{
    m_server.SetCallback(4, [](const TBytes&, TBytes& response) -> bool {
        response = {1, 2, 3};
        throw std::runtime_error("no policy today");
    });
    m_server.SetCallback(5, [](const TBytes&, TBytes&) -> bool { throw 5; });

    EXPECT_EQ(Send(SendBytes(4, 0)).m_bytes, TBytes{0x00});
    EXPECT_EQ(Send(SendBytes(5, 0)).m_bytes, TBytes{0x00});

    EXPECT_TRUE(m_log.Has(kError, "Callback for type 4 has thrown: no policy today"));
    EXPECT_TRUE(m_log.Has(kError, "Callback for type 5 has thrown"));
    EXPECT_EQ(CurrentSender(), "");
    EXPECT_TRUE(m_server.UnSetCallback(4)) << "its lock is free again";
}

TEST_F(ServerDispatch, ACallThatWantsNoReplyIsHandledAllTheSame)
{
    std::atomic<int> handled(0);
    m_server.SetCallback(4, [&](const TBytes&, TBytes&) {
        ++handled;
        return true;
    });

    m_peer.Post("Send", Body(SendBytes(4, 1)), true);
    m_peer.Settle();

    EXPECT_EQ(handled, 1);
}

TEST_F(ServerDispatch, AWrongSignatureNeverReachesAHandler)
{
    for (const char* const body : {"", "('text',)", "(@ay [], 1)", "(@ai [],)", "(uint64 1,)"}) {
        for (const char* const method : {"Send", "Hello"}) {
            EXPECT_EQ(m_peer.Call(method, ParseBody(body)).m_error,
                      "org.freedesktop.DBus.Error.InvalidArgs")
                << method << body;
        }
    }

    EXPECT_FALSE(m_log.Mentions("->Invoke message handler"));
    EXPECT_EQ(m_server.NumberOfClients(), 0u);
}

TEST_F(ServerDispatch, AnUnknownMethodIsAnError)
{
    EXPECT_EQ(m_peer.Call("Bye", Body({})).m_error, "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(ServerDispatch, AnotherObjectPathIsAnError)
{
    for (const char* const path : {kTestObjectPath, "/", "/com/norvale/kel",
                                   "/com/norvale/kel/CommunicationChannel/below"}) {
        m_peer.SetTarget(kBusName, path);
        EXPECT_EQ(Send(SendBytes(1, 0)).m_error, "org.freedesktop.DBus.Error.UnknownMethod")
            << path;
    }
}

TEST_F(ServerDispatch, ACallThatGdbusDeliversForAnotherPathStaysUnanswered)
{
    const char* const path = "/somewhere/else";
    m_loop.Run([&] {
        g_dbus_connection_register_object(m_server.m_pConnection, path,
                                          m_server.m_pNodeInfo->interfaces[0],
                                          &TCDbus::m_interfaceVtable, &m_server, nullptr, nullptr);
    });
    m_peer.SetTarget(m_server.GetUniqueName(), path);
    const guint32 other = m_peer.Post("Send", Body(SendBytes(1, 0)));

    m_peer.SetTarget(m_server.GetUniqueName());
    m_peer.Settle();

    EXPECT_FALSE(m_peer.WaitReply(other, std::chrono::milliseconds(0)).m_arrived);
}

TEST_F(ServerDispatch, WithoutAConnectionOrAnEndTheCallIsLoggedAndDropped)
{
    char text[64];

    TCDbus::m_HandleMethodCall(nullptr, ":1.1", kObjectPath, kInterface, "Send", nullptr, nullptr,
                               &m_server);
    snprintf(text, sizeof(text), "Connection %p, user_data %p", nullptr,
             static_cast<void*>(&m_server));
    EXPECT_TRUE(m_log.Has(kError, text)) << m_log.Text();

    TCDbus::m_HandleMethodCall(m_server.m_pConnection, ":1.1", kObjectPath, kInterface, "Send",
                               nullptr, nullptr, nullptr);
    snprintf(text, sizeof(text), "Connection %p, user_data %p",
             static_cast<void*>(m_server.m_pConnection), nullptr);
    EXPECT_TRUE(m_log.Has(kError, text)) << m_log.Text();
}

TEST_F(ServerDispatch, AMethodWithoutHandlerGetsAnEmptyReply)
{
    m_loop.Run([this] { m_server.m_methodHandlers.erase("Hello"); });

    const TSReply reply = m_peer.Hello({1});

    EXPECT_TRUE(reply.IsOk());
    EXPECT_EQ(reply.m_signature, "");
    EXPECT_TRUE(m_log.Has(kDebug, "No message handler for Hello"));
}

TEST_F(ServerDispatch, AHandlerThatIsSetAgainReplacesTheOneBefore)
{
    m_loop.Run([this] {
        m_server.t_SetDbusCallback("Send", [](const char*, GVariant*, GDBusMethodInvocation* call) {
            g_dbus_method_invocation_return_value(call, g_variant_new_parsed("([byte 9],)"));
        });
    });

    EXPECT_EQ(Send(SendBytes(1, 0)).m_bytes, TBytes{0x09});
}

TEST_F(ServerDispatch, AnEmptyHandlerRaisesTheFunctionLibrarysException)
{
    m_loop.Run([this] {
        m_server.t_SetDbusCallback("Send", TCDbus::TMethodHandler());
        EXPECT_THROW(TCDbus::m_HandleMethodCall(m_server.m_pConnection, ":1.1", kObjectPath,
                                                kInterface, "Send", nullptr, nullptr, &m_server),
                     boost::bad_function_call);
    });
}

TEST_F(ServerDispatch, AForeignToolSeesTheTwoMethodsAndNothingElse)
{
    const TSFinished seen = RunProgram({"gdbus", "introspect", "--address", m_bus.Address(),
                                        "--dest", kBusName, "--object-path", kObjectPath, "--xml"});

    ASSERT_EQ(seen.m_exit, 0) << seen.m_errorOutput;
    const size_t begin = seen.m_output.find("  <interface name=\"com.norvale.kel.IControl\">");
    ASSERT_NE(begin, std::string::npos) << seen.m_output;
    const std::string end = "</interface>\n";
    EXPECT_EQ(seen.m_output.substr(begin, seen.m_output.find(end, begin) + end.size() - begin),
              "  <interface name=\"com.norvale.kel.IControl\">\n"
              "    <method name=\"Send\">\n"
              "      <arg type=\"ay\" name=\"data\" direction=\"in\">\n"
              "      </arg>\n"
              "      <arg type=\"ay\" name=\"response\" direction=\"out\">\n"
              "      </arg>\n"
              "    </method>\n"
              "    <method name=\"Hello\">\n"
              "      <arg type=\"ay\" name=\"events\" direction=\"in\">\n"
              "      </arg>\n"
              "    </method>\n"
              "  </interface>\n");
}

TEST(ChannelNames, TheIntrospectionTextAndTheNamesAreFixed)
{
    EXPECT_STREQ(TCDbus::m_interfaceXml,
                 "<node>  <interface name='com.norvale.kel.IControl'>    <method name='Send'>      "
                 "<arg type='ay' name='data' direction='in'/>      <arg type='ay' name='response' "
                 "direction='out'/>    </method>\t <method name='Hello'>\t   <arg type='ay' "
                 "name='events' direction='in'/>\t </method>  </interface></node>");
    EXPECT_STREQ(TCDbus::t_interfaceName, "com.norvale.kel.IControl");
    EXPECT_STREQ(TCDbus::t_dbusSendMethod, "Send");
    EXPECT_STREQ(TCDbus::t_dbusHelloMethod, "Hello");
    EXPECT_NE(TCDbus::m_interfaceVtable.method_call, nullptr);
    EXPECT_EQ(TCDbus::m_interfaceVtable.get_property, nullptr);
    EXPECT_EQ(TCDbus::m_interfaceVtable.set_property, nullptr);
}

} // namespace

} // namespace kel::test
