// What the agent sends, to whom, and what it counts.

#include <atomic>
#include <future>

#include "channel/ChannelTest.h"
#include "channel/FailingCalls.h"

namespace kel::test {

namespace {

class ServerSend : public ServerTest
{
protected:
    typedef RawPeer::TSAnswer TSAnswer;

    std::future<TCounts> SendInBackground(int type, int timeout = 20'000)
    {
        return std::async(std::launch::async,
                          [=] { return m_server.SendMessage(type, {}, timeout); });
    }

    RawPeer m_first{m_bus};
    RawPeer m_second{m_bus};
    RawPeer m_third{m_bus};
};

TEST_F(ServerSend, CountsWhoHandledAndWhoDidNotAmongTheSubscribers)
{
    m_second.SetAnswer("Send", TSAnswer::Bytes({0}));
    Subscribe(m_first, {5});
    Subscribe(m_second, {5});
    Subscribe(m_third, {6});
    m_log.Clear();

    EXPECT_EQ(m_server.SendMessage(5, {0x41, 0x00}, 1000), TCounts(1, 1));

    for (RawPeer* const peer : {&m_first, &m_second}) {
        const std::vector<TSCall> calls = peer->Calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].m_sender, m_server.GetUniqueName());
        EXPECT_EQ(calls[0].m_path, kObjectPath);
        EXPECT_EQ(calls[0].m_interface, kInterface);
        EXPECT_EQ(calls[0].m_method, "Send");
        EXPECT_EQ(calls[0].m_signature, "ay");
        EXPECT_EQ(calls[0].m_bytes, (TBytes{0x05, 0, 0, 0, 0x00, 0x41, 0x00}));
        EXPECT_FALSE(calls[0].m_noReply);
    }
    EXPECT_TRUE(m_third.Calls().empty());
    EXPECT_TRUE(m_log.Has(kDebug, "Client " + m_third.Name() + " is not registered for event 5"));
    EXPECT_TRUE(m_log.Has(kDebug, "Sending message to " + m_second.Name() + " failed"));
    EXPECT_TRUE(m_log.Has(kDebug, "Callback result: success 1, fails 1"));
}

TEST_F(ServerSend, WithoutClientsNothingIsSent)
{
    EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(0, 0));
    EXPECT_TRUE(m_log.Has(kDebug, "Connection is ready 1, number of clients 0"));
}

TEST_F(ServerSend, AllCallsAreUnderWayTogether)
{
    const std::vector<RawPeer*> peers{&m_first, &m_second, &m_third};
    for (RawPeer* const peer : peers) {
        peer->SetAnswer("Send", TSAnswer::Nothing());
        Subscribe(*peer, {5});
    }

    std::future<TCounts> sent = SendInBackground(5);
    for (RawPeer* const peer : peers) {
        EXPECT_TRUE(peer->WaitForCalls("Send", 1)) << "before anybody has answered";
    }
    for (RawPeer* const peer : peers) {
        peer->Answer(peer->Calls("Send").at(0), TSAnswer::Bytes({1}));
    }

    EXPECT_EQ(sent.get(), TCounts(3, 0));
}

TEST_F(ServerSend, HellosAreServedWhileASenderWaits)
{
    m_first.SetAnswer("Send", TSAnswer::Nothing());
    Subscribe(m_first, {5});
    std::future<TCounts> sent = SendInBackground(5);
    ASSERT_TRUE(m_first.WaitForCalls("Send", 1));

    Subscribe(m_second, {5});

    EXPECT_EQ(m_server.NumberOfClients(), 2u);
    m_first.Answer(m_first.Calls("Send").at(0), TSAnswer::Bytes({1}));
    EXPECT_EQ(sent.get(), TCounts(1, 0));
}

TEST_F(ServerSend, AClientThatWaitsForItsOwnAnswerIsRefused)
{
    TCounts counts;
    m_server.SetCallback(4, [&](const TBytes&, TBytes&) {
        counts = m_server.SendMessage(2, {}, 1000);
        return true;
    });
    Subscribe(m_first, {2});
    Subscribe(m_second, {2});

    m_first.Send(SendBytes(4, 0));
    m_loop.Settle();

    EXPECT_EQ(counts, TCounts(1, 1));
    EXPECT_TRUE(m_first.Calls("Send").empty());
    EXPECT_EQ(m_second.Calls("Send").size(), 1u);
    EXPECT_TRUE(m_log.Has(kError, "Unable to send message to " + m_first.Name()
                                      + ", type 2, waiting for sync replay"));
}

TEST_F(ServerSend, AClientThatDoesNotWaitIsCalledFromWithinItsOwnMessage)
{
    TCounts counts;
    m_server.SetCallback(4, [&](const TBytes&, TBytes&) {
        counts = m_server.SendMessage(2, {}, 10'000);
        return true;
    });
    Subscribe(m_first, {2});
    Subscribe(m_second, {2});

    m_first.Send(SendBytes(4, 1));
    m_loop.Settle();

    EXPECT_EQ(counts, TCounts(2, 0));
    EXPECT_EQ(m_first.Calls("Send").size(), 1u);
}

TEST_F(ServerSend, AnAnswerAfterTheTimeOutIsAFailure)
{
    m_first.SetAnswer("Send", TSAnswer::Nothing());
    Subscribe(m_first, {5});

    EXPECT_EQ(m_server.SendMessage(5, {}, 100), TCounts(0, 1));
    m_first.Answer(m_first.Calls("Send").at(0), TSAnswer::Bytes({1}));

    EXPECT_TRUE(m_log.Has(kError, "Sending message from " + m_first.Name() + " error, errno "
                                      + std::to_string(G_IO_ERROR_TIMED_OUT)))
        << m_log.Text();
}

TEST_F(ServerSend, AClientThatDiesWhileItsCallIsPendingIsAFailureAlone)
{
    m_first.SetAnswer("Send", TSAnswer::Nothing());
    Subscribe(m_first, {5});
    Subscribe(m_second, {5});
    std::future<TCounts> sent = SendInBackground(5);
    ASSERT_TRUE(m_first.WaitForCalls("Send", 1));

    m_first.Vanish();

    EXPECT_EQ(sent.get(), TCounts(1, 1));
    EXPECT_TRUE(m_log.Has(kError, "Sending message from " + m_first.Name() + " error, errno "
                                      + std::to_string(G_DBUS_ERROR_NO_REPLY)))
        << m_log.Text();
    EXPECT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == 1; }));
}

TEST_F(ServerSend, AnErrorAsAnswerIsAFailure)
{
    m_first.SetAnswer("Send", TSAnswer::Error("org.freedesktop.DBus.Error.AccessDenied"));
    Subscribe(m_first, {5});

    EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(0, 1));
    EXPECT_TRUE(m_log.Has(kError, "Sending message from " + m_first.Name() + " error, errno "
                                      + std::to_string(G_DBUS_ERROR_ACCESS_DENIED)));
}

TEST_F(ServerSend, AnAnswerWithoutAValueIsAFailure)
{
    Subscribe(m_first, {5});
    DropNextReply();

    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(0, 1));
    EXPECT_TRUE(m_log.Has(kDebug, "Result is null"));
    EXPECT_TRUE(m_log.Has(kDebug, "Sending message to " + m_first.Name() + " failed"));
    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, 0)) << "the next one is not affected";
}

TEST_F(ServerSend, AnEmptyArrayAsAnswerIsReportedAndAFailure)
{
    m_first.SetAnswer("Send", TSAnswer::Bytes({}));
    Subscribe(m_first, {5});

    EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(0, 1));
    EXPECT_TRUE(m_log.Has(kError, FailedCheck("KELDbus", 304)));
    EXPECT_TRUE(m_log.Has(kDebug, "Sending message to " + m_first.Name() + " failed"));
}

TEST_F(ServerSend, AnAnswerOfAnotherTypeIsAFailure)
{
    for (const char* const body : {"", "('yes',)", "(true,)", "(@ay [1], 1)", "(@au [1],)"}) {
        m_first.SetAnswer("Send", TSAnswer::Other(body));
        Subscribe(m_first, {5});

        EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(0, 1)) << body;
    }
}

TEST_F(ServerSend, AnyResultByteButZeroIsASuccess)
{
    for (const unsigned char byte : {0x01, 0x02, 0x80, 0xff}) {
        m_first.SetAnswer("Send", TSAnswer::Bytes({byte, 0x00}));
        Subscribe(m_first, {5});

        EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(1, 0)) << int(byte);
    }
}

TEST_F(ServerSend, SeveralThreadsSendAtOnceAndEachCountsItsOwn)
{
    m_second.SetAnswer("Send", [](const TSCall& call) {
        return TSAnswer::Bytes({static_cast<unsigned char>(call.m_bytes.at(0) % 2)});
    });
    Subscribe(m_first, {1, 2, 3, 4});
    Subscribe(m_second, {1, 2, 3, 4});

    std::atomic<int> wrong(0);
    std::vector<std::thread> threads;
    for (int type = 1; type <= 4; ++type) {
        threads.emplace_back([&, type] {
            const TCounts expected = type % 2 == 1 ? TCounts(2, 0) : TCounts(1, 1);
            for (int i = 0; i < 50; ++i) {
                wrong += m_server.SendMessage(type, {}, 20'000) == expected ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(m_first.Calls("Send").size(), 200u);
}

TEST_F(ServerSend, AMessageWithoutAServerStartsNoCall)
{
    // A message begins with its server.
    TCDbusServer* const noServer[16] = {};
    void* const message = const_cast<TCDbusServer**>(noServer);

    EXPECT_EQ(TCDbusServer::m_SendMessage(message), 0);
    TCDbusServer::m_AsyncReadyCallback(nullptr, nullptr, message);

    EXPECT_EQ(m_log.Count("Dbus server equals NULL"), 2u);
    EXPECT_TRUE(m_log.Has(kError, "Dbus server equals NULL"));
}

} // namespace

} // namespace kel::test
