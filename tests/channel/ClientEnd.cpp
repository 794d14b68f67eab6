// The application's end: readiness, what it tells the agent, what it sends and what it receives.

#include <atomic>
#include <future>

#include "channel/ChannelTest.h"
#include "channel/FailingCalls.h"

namespace kel::test {

namespace {

typedef RawPeer::TSAnswer TSAnswer;

const auto accept = [](const TBytes&, TBytes&) { return true; };

class ClientEnd : public ClientTest
{
protected:
    /// The bytes of the "Hello"s that the agent has received.
    std::vector<TBytes> Hellos()
    {
        std::vector<TBytes> hellos;
        for (const TSCall& call : m_agent.Calls("Hello")) {
            hellos.push_back(call.m_bytes);
        }
        return hellos;
    }

    /// Sends synchronously; the response holds a mark beforehand.
    bool Send(int type, const TBytes& data = {})
    {
        m_response = {0xee};
        return m_client->SendMessage(type, data, m_response, false);
    }

    std::future<bool> SendInBackground(int type)
    {
        return std::async(std::launch::async, [this, type] { return Send(type); });
    }

    TBytes m_response;
    const TBytes m_untouched{0xee};
};

class ClientReadiness : public ClientEnd
{
};

TEST_F(ClientReadiness, ThereIsNoneWithoutAnAgent)
{
    m_loop.Settle();

    EXPECT_FALSE(m_client->IsReady());
    EXPECT_NE(m_client->GetUniqueName(), "");
}

TEST_F(ClientReadiness, TheAgentHearsTheTypesInAscendingOrderAsSoonAsItAppears)
{
    for (const int type : {7, 2, 5}) {
        EXPECT_TRUE(m_client->SetCallback(type, accept));
    }

    ASSERT_TRUE(m_agent.OwnName());
    ASSERT_TRUE(m_agent.WaitForCalls("Hello", 1));

    const TSCall hello = m_agent.Calls().at(0);
    EXPECT_EQ(hello.m_bytes, (TBytes{2, 0, 0, 0, 5, 0, 0, 0, 7, 0, 0, 0}));
    EXPECT_EQ(hello.m_signature, "ay");
    EXPECT_EQ(hello.m_path, kObjectPath);
    EXPECT_EQ(hello.m_interface, kInterface);
    EXPECT_EQ(hello.m_sender, m_client->GetUniqueName());
    EXPECT_TRUE(hello.m_noReply) << "nobody waits for it";
    EXPECT_TRUE(WaitUntil([this] { return m_client->IsReady(); }));
    EXPECT_TRUE(m_log.Has(kDebug, std::string("Name appeared - name ") + kBusName));
    EXPECT_TRUE(m_log.Has(kDebug, "Send hello " + m_client->GetUniqueName()));
}

TEST_F(ClientReadiness, AnApplicationWithoutCallbacksSaysHelloWithAnEmptyArray)
{
    ASSERT_TRUE(m_agent.OwnName());

    ASSERT_TRUE(m_agent.WaitForCalls("Hello", 1));
    EXPECT_EQ(m_agent.Calls("Hello")[0].m_signature, "ay");
    EXPECT_THAT(Hellos(), testing::ElementsAre(TBytes()));
}

TEST_F(ClientReadiness, AnAgentThatComesBackHearsEverythingThatWasRegisteredMeanwhile)
{
    m_client->SetCallback(5, accept);
    StartAgent();

    m_agent.ReleaseName();
    EXPECT_TRUE(WaitUntil([this] { return !m_client->IsReady(); }));
    EXPECT_TRUE(m_log.Has(kDebug, std::string("Name vanished - name ") + kBusName));
    m_client->SetCallback(3, accept);
    EXPECT_TRUE(Hellos().empty());
    RawPeer next(m_bus);
    ASSERT_TRUE(next.OwnName());

    ASSERT_TRUE(next.WaitForCalls("Hello", 1));
    EXPECT_EQ(next.Calls("Hello")[0].m_bytes, HelloBytes({3, 5}));
    EXPECT_TRUE(WaitUntil([this] { return m_client->IsReady(); }));
}

TEST_F(ClientReadiness, AnAgentThatDiesIsNoticed)
{
    RawPeer agent(m_bus);
    ASSERT_TRUE(agent.OwnName());
    ASSERT_TRUE(WaitUntil([this] { return m_client->IsReady(); }));

    agent.Vanish();

    EXPECT_TRUE(WaitUntil([this] { return !m_client->IsReady(); }));
}

TEST_F(ClientReadiness, NameEventsWithoutAClientAreOnlyLogged)
{
    TCDbusClient::m_NameAppeared(nullptr, "a.name", ":1.1", nullptr);
    TCDbusClient::m_NameVanished(nullptr, "a.name", nullptr);

    EXPECT_EQ(m_log.Text(), "3 KELDbusClient: Name appeared - name a.name\n"
                            "3 KELDbusClient: Name vanished - name a.name\n");
}

class ClientCallbacks : public ClientEnd
{
};

TEST_F(ClientCallbacks, EveryChangeTellsAReadyAgentTheWholeSet)
{
    StartAgent();

    EXPECT_TRUE(m_client->SetCallback(7, accept));
    EXPECT_TRUE(m_client->SetCallback(-1, accept));
    EXPECT_TRUE(m_client->UnSetCallback(7));
    EXPECT_TRUE(m_client->UnSetCallback(-1));

    ASSERT_TRUE(m_agent.WaitForCalls("Hello", 4));
    EXPECT_THAT(Hellos(), testing::ElementsAre(HelloBytes({7}), HelloBytes({-1, 7}),
                                               HelloBytes({-1}), TBytes()));
}

TEST_F(ClientCallbacks, ASecondOneForATypeIsRefusedAndToldToNobody)
{
    StartAgent();
    m_client->SetCallback(4, [](const TBytes&, TBytes& response) {
        response = {1};
        return true;
    });
    ASSERT_TRUE(m_agent.WaitForCalls("Hello", 1));

    EXPECT_FALSE(m_client->SetCallback(4, accept));

    EXPECT_TRUE(m_log.Has(kDebug, "Type 4, result 1"));
    EXPECT_TRUE(m_log.Has(kDebug, "Type 4, result 0"));
    EXPECT_TRUE(Send(9)) << "comes behind any Hello";
    EXPECT_EQ(Hellos().size(), 1u);
    EXPECT_EQ(m_agent.Send(SendBytes(4, 0)).m_bytes, (TBytes{1, 1})) << "the first one stays";
}

TEST_F(ClientCallbacks, RemovingAnUnknownOneIsToldToNobody)
{
    StartAgent();

    EXPECT_FALSE(m_client->UnSetCallback(4));

    EXPECT_TRUE(Send(9));
    EXPECT_TRUE(Hellos().empty());
}

TEST_F(ClientCallbacks, AMessageOfTheAgentRunsThem)
{
    TBytes request;
    m_client->SetCallback(2, [&](const TBytes& bytes, TBytes& response) {
        request = bytes;
        response = {9};
        return true;
    });

    EXPECT_EQ(m_agent.Send({2, 0, 0, 0, 0, 0x41}).m_bytes, (TBytes{1, 9}));
    m_loop.Settle();
    EXPECT_EQ(request, TBytes{0x41});
}

TEST_F(ClientCallbacks, AnApplicationThatIsGreetedAnswersWithNothing)
{
    const TSReply reply = m_agent.Hello({1});

    EXPECT_TRUE(reply.IsOk());
    EXPECT_EQ(reply.m_signature, "");
    EXPECT_TRUE(m_log.Has(kDebug, "No message handler for Hello"));
}

TEST_F(ClientCallbacks, OneMaySendWhileOtherThreadsRegister)
{
    // The agent is away: each synchronous send greets it, for which it wants the callbacks.
    std::atomic<bool> stop(false);
    std::atomic<int> sent(0);
    m_client->SetCallback(2, [&](const TBytes&, TBytes& response) {
        m_client->SendMessage(1, {}, response, false);
        m_client->SendMessage(1, {}, response, true);
        ++sent;
        return true;
    });
    std::vector<std::thread> threads;
    for (int type = 10; type < 12; ++type) {
        threads.emplace_back([&, type] {
            while (!stop) {
                m_client->SetCallback(type, accept);
                m_client->UnSetCallback(type);
            }
        });
    }

    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(m_agent.Send(SendBytes(2, 1)).m_arrived);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(sent, 50);
}

class ClientSend : public ClientEnd
{
};

TEST_F(ClientSend, ASynchronousOneReturnsTheAgentsResultAndResponse)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Bytes({1, 0x43, 0x00}));

    EXPECT_TRUE(Send(4, {0x41, 0x42}));

    EXPECT_EQ(m_response, (TBytes{0x43, 0x00}));
    const TSCall call = m_agent.Calls().at(0);
    EXPECT_EQ(call.m_method, "Send");
    EXPECT_EQ(call.m_path, kObjectPath);
    EXPECT_EQ(call.m_interface, kInterface);
    EXPECT_EQ(call.m_bytes, (TBytes{0x04, 0, 0, 0, 0x00, 0x41, 0x42}));
    EXPECT_FALSE(call.m_noReply);
    EXPECT_EQ(m_log.Count("Connection is not ready"), 0u);
}

TEST_F(ClientSend, ARefusalStillReplacesTheResponse)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Bytes({0, 7}));

    EXPECT_FALSE(Send(4));
    EXPECT_EQ(m_response, TBytes{7});
}

TEST_F(ClientSend, AnyResultByteButZeroIsASuccess)
{
    StartAgent();
    for (const unsigned char byte : {2, 128, 255}) {
        m_agent.SetAnswer("Send", TSAnswer::Bytes({byte}));

        EXPECT_TRUE(Send(4)) << int(byte);
        EXPECT_EQ(m_response, TBytes());
    }
}

TEST_F(ClientSend, AnEmptyArrayAsAnswerIsReportedAndCountsAsHandled)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Bytes({}));

    EXPECT_TRUE(Send(4));

    EXPECT_EQ(m_response, m_untouched);
    EXPECT_TRUE(m_log.Has(kError, FailedCheck("KELDbus", 304)));
}

TEST_F(ClientSend, AnAnswerOfAnotherTypeIsAFailure)
{
    StartAgent();
    for (const char* const body : {"", "('yes',)", "(true,)", "(@ay [1], 1)", "(@au [1],)"}) {
        m_agent.SetAnswer("Send", TSAnswer::Other(body));
        m_log.Clear();

        EXPECT_FALSE(Send(4)) << body;
        EXPECT_EQ(m_response, m_untouched);
        EXPECT_TRUE(m_log.Has(kError, "Sending message error, errno "
                                          + std::to_string(G_DBUS_ERROR_INVALID_SIGNATURE)))
            << m_log.Text();
    }
}

TEST_F(ClientSend, AnErrorAsAnswerIsAFailure)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Error("org.freedesktop.DBus.Error.NoMemory"));

    EXPECT_FALSE(Send(4));

    EXPECT_EQ(m_response, m_untouched);
    EXPECT_TRUE(
        m_log.Has(kError, "Sending message error, errno " + std::to_string(G_DBUS_ERROR_NO_MEMORY)))
        << m_log.Text();
}

TEST_F(ClientSend, AnAgentThatDiesBeforeItAnswersIsAFailureAtOnce)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Nothing());
    std::future<bool> sent = SendInBackground(4);
    ASSERT_TRUE(m_agent.WaitForCalls("Send", 1));

    const auto start = std::chrono::steady_clock::now();
    m_agent.Vanish();

    EXPECT_FALSE(sent.get());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    EXPECT_EQ(m_response, m_untouched);
    EXPECT_TRUE(
        m_log.Has(kError, "Sending message error, errno " + std::to_string(G_DBUS_ERROR_NO_REPLY)))
        << m_log.Text();
}

TEST_F(ClientSend, AnAgentThatNeverAnswersIsWaitedForTenSeconds)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Nothing());

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Send(4));
    const auto waited = std::chrono::steady_clock::now() - start;

    EXPECT_GT(waited, std::chrono::milliseconds(9'900));
    EXPECT_LT(waited, std::chrono::seconds(20));
    EXPECT_TRUE(
        m_log.Has(kError, "Sending message error, errno " + std::to_string(G_IO_ERROR_TIMED_OUT)))
        << m_log.Text();
}

TEST_F(ClientSend, AnAsynchronousOneReturnsBeforeTheAnswerAndDiscardsIt)
{
    StartAgent();
    m_agent.SetAnswer("Send", TSAnswer::Nothing());
    m_response = m_untouched;

    EXPECT_TRUE(m_client->SendMessage(4, {0x41}, m_response, true));

    ASSERT_TRUE(m_agent.WaitForCalls("Send", 1));
    const TSCall call = m_agent.Calls("Send")[0];
    EXPECT_EQ(call.m_bytes, (TBytes{0x04, 0, 0, 0, 0x01, 0x41}));
    EXPECT_TRUE(call.m_noReply);
    EXPECT_EQ(m_response, m_untouched);
}

TEST_F(ClientSend, ASynchronousOneWithoutAgentGreetsThenSendsThenFails)
{
    EXPECT_FALSE(Send(4));

    EXPECT_EQ(m_response, m_untouched);
    EXPECT_EQ(m_log.Text(), "3 KELDbusClient: Connection is not ready\n"
                            "3 KELDbusClient: Send hello "
                                + m_client->GetUniqueName()
                                + "\n"
                                  "6 KELDbusClient: Sending message error, errno "
                                + std::to_string(G_DBUS_ERROR_SERVICE_UNKNOWN) + "\n");
}

TEST_F(ClientSend, AnAsynchronousOneWithoutAgentIsSentWithoutAGreeting)
{
    m_response = m_untouched;

    EXPECT_TRUE(m_client->SendMessage(4, {}, m_response, true));

    EXPECT_EQ(m_log.Text(), "3 KELDbusClient: Connection is not ready\n");
    EXPECT_EQ(m_response, m_untouched);
}

TEST_F(ClientSend, OneThatIsNotReadyYetReachesTheAgentBehindAHello)
{
    m_client->SetCallback(3, accept);
    m_loop.Run([this] {
        // The loop is busy here, so the client cannot see the name appear.
        ASSERT_TRUE(m_agent.OwnName());
        EXPECT_TRUE(Send(4));
    });

    const std::vector<TSCall> calls = m_agent.Calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[0].m_method, "Hello");
    EXPECT_EQ(calls[0].m_bytes, HelloBytes({3}));
    EXPECT_EQ(calls[1].m_method, "Send");
}

TEST_F(ClientSend, EightMebibytesTravelBothWays)
{
    StartAgent();
    const TBytes data(8 * 1024 * 1024, 0xa5);
    m_agent.SetAnswer("Send", [](const TSCall& call) {
        return TSAnswer::Bytes(TBytes(call.m_bytes.begin() + 4, call.m_bytes.end()));
    });

    EXPECT_FALSE(Send(4, data)) << "the flag byte, which the agent sends back, is 0";
    EXPECT_EQ(m_response, data);
}

TEST_F(ClientSend, ManyThreadsSendAndRegisterAtOnceAcrossRestartsOfTheAgent)
{
    std::atomic<bool> stop(false);
    std::atomic<int> sent(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            TBytes response;
            while (!stop) {
                m_client->SetCallback(i, accept);
                m_client->SendMessage(i, {}, response, false);
                m_client->SendMessage(i, {}, response, true);
                m_client->UnSetCallback(i);
                ++sent;
            }
        });
    }

    for (int i = 0; i < 20; ++i) {
        const int before = sent;
        ASSERT_TRUE(m_agent.OwnName());
        EXPECT_TRUE(WaitUntil([&] { return sent > before + 5; }));
        m_agent.ReleaseName();
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    m_agent.ForgetCalls();
    ASSERT_TRUE(m_agent.OwnName());
    EXPECT_TRUE(WaitUntil([this] { return m_client->IsReady(); }));
}

TEST_F(ChannelTest, AClientWhoseProxyFailsIsNeverReadyAndSendsNothing)
{
    FailNextProxy(17);
    TCDbusClient client(false);
    RawPeer agent(m_bus);
    ASSERT_TRUE(agent.OwnName());
    TBytes response{0xee};

    EXPECT_TRUE(m_log.Has(kError, "Registering proxy error, errno 17"));
    EXPECT_EQ(client.m_watcherId, 0u) << "nobody watches the name";
    EXPECT_FALSE(client.SendMessage(4, {}, response, false));
    EXPECT_TRUE(m_log.Has(kError, "pResult is NULL"));
    EXPECT_TRUE(client.SendMessage(4, {}, response, true));
    EXPECT_TRUE(client.SetCallback(1, accept));
    m_loop.Settle();
    EXPECT_FALSE(client.IsReady());
    EXPECT_EQ(response, TBytes{0xee});
    EXPECT_TRUE(agent.Calls().empty());
}

TEST_F(ChannelTest, ATestClientUsesTheTestChannel)
{
    RawPeer agent(m_bus);
    ASSERT_TRUE(agent.OwnName(kTestBusName));
    TCDbusClient client(true);

    EXPECT_TRUE(WaitUntil([&] { return client.IsReady(); }));
    ASSERT_TRUE(agent.WaitForCalls("Hello", 1));
    EXPECT_EQ(agent.Calls("Hello")[0].m_path, kTestObjectPath);
    EXPECT_EQ(agent.Calls("Hello")[0].m_interface, kInterface);
    agent.SetTarget(client.GetUniqueName(), kTestObjectPath);
    EXPECT_EQ(agent.Send(SendBytes(1, 0)).m_bytes, TBytes{0});
    agent.SetTarget(client.GetUniqueName(), kObjectPath);
    EXPECT_EQ(agent.Send(SendBytes(1, 0)).m_error, "org.freedesktop.DBus.Error.UnknownMethod");
}

class ClientProvider : public ChannelTest
{
protected:
    static TCDbusClient& Concrete(const boost::shared_ptr<IDbusClient>& client)
    {
        return dynamic_cast<TCDbusClient&>(*client);
    }
};

TEST_F(ClientProvider, HandsOutOneClientWhileSomebodyHoldsIt)
{
    const auto first = TCDbusClientProvider::Get(false);
    const auto second = TCDbusClientProvider::Get(false);

    EXPECT_EQ(first, second);
    EXPECT_EQ(first.use_count(), 2);
}

TEST_F(ClientProvider, TheFlagOfWhoeverMadeTheClientWins)
{
    const auto first = TCDbusClientProvider::Get(false);
    const auto second = TCDbusClientProvider::Get(true);

    EXPECT_EQ(first, second);
    EXPECT_FALSE(Concrete(second).m_test);
}

TEST_F(ClientProvider, MakesANewClientWhenTheLastHolderHasLetGo)
{
    RawPeer agent(m_bus);
    ASSERT_TRUE(agent.OwnName());
    auto client = TCDbusClientProvider::Get(false);
    ASSERT_TRUE(agent.WaitForCalls("Hello", 1));

    client.reset();
    client = TCDbusClientProvider::Get(true);
    EXPECT_TRUE(Concrete(client).m_test);
    client.reset();
    client = TCDbusClientProvider::Get(false);

    EXPECT_FALSE(Concrete(client).m_test);
    EXPECT_TRUE(agent.WaitForCalls("Hello", 2));
}

TEST_F(ClientProvider, RacingFirstRequestsGetTheSameClient)
{
    for (int round = 0; round < 50; ++round) {
        std::vector<std::future<boost::shared_ptr<IDbusClient>>> requests;
        for (int i = 0; i < 4; ++i) {
            requests.push_back(
                std::async(std::launch::async, [] { return TCDbusClientProvider::Get(false); }));
        }
        std::vector<boost::shared_ptr<IDbusClient>> clients;
        for (auto& request : requests) {
            clients.push_back(request.get());
        }

        EXPECT_THAT(clients, testing::Each(clients[0]));
    }
}

} // namespace

} // namespace kel::test
