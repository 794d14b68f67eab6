// One message to many clients at once: what each gets, and what becomes of it when the bus has no
// room for all the calls.

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <climits>

#include "channel/FanOutTest.h"
#include "channel/Traffic.h"

namespace kel::test {

namespace {

typedef std::chrono::steady_clock TClock;

using std::chrono::milliseconds;

bool IsAddMatch(GDBusMessage* message) { return IsCall(message, "AddMatch"); }

std::atomic<bool> noTimers(false); // those that are made now fire in an hour

TEST_F(FanOut, ATimeOutThatNobodyCanWaitForFailsEachCallAtOnce)
{
    const TPeers peers = MakeClients(3);
    const TPeers others = MakeClients(1, {6});
    for (const int timeout : {-2, -1000, INT_MIN}) {
        m_log.Clear();

        EXPECT_EQ(m_server.SendMessage(5, {}, timeout), TCounts(0, 3)) << timeout;

        EXPECT_EQ(CountErrors(peers, G_IO_ERROR_INVALID_ARGUMENT), 3u) << m_log.Text();
        EXPECT_EQ(CountErrors(others, G_IO_ERROR_INVALID_ARGUMENT), 0u);
        EXPECT_TRUE(m_log.Has(kDebug, "Callback result: success 0, fails 3"));
    }
    EXPECT_EQ(CountCalls(peers), 0u);
}

TEST_F(FanOut, TheDefaultAndTheLongestTimeOutWork)
{
    const TPeers peers = MakeClients(3);

    EXPECT_EQ(m_server.SendMessage(5, {}, -1), TCounts(3, 0));
    EXPECT_EQ(m_server.SendMessage(5, {}, INT_MAX), TCounts(3, 0));
    EXPECT_EQ(m_server.SendMessage(5, {}, INT_MAX - 1), TCounts(3, 0));
}

TEST_F(FanOut, ALateAnswerIsNotTakenForTheOneToTheNextMessage)
{
    const TPeers peers = MakeSilentClients(1);
    EXPECT_EQ(m_server.SendMessage(5, {}, 100), TCounts(0, 1));
    const TSCall late = peers[0]->Calls("Send").at(0);
    peers[0]->ForgetCalls();

    std::future<TCounts> sent = SendInBackground(5, 20'000);
    ASSERT_TRUE(peers[0]->WaitForCalls("Send", 1));
    peers[0]->Answer(late, TSAnswer::Bytes({1}));
    peers[0]->Answer(peers[0]->Calls("Send").at(0), TSAnswer::Bytes({0}));

    EXPECT_EQ(sent.get(), TCounts(0, 1));
}

TEST_F(FanOut, AThousandHellosInARowCostOneClientAndOneMatchRule)
{
    RawPeer peer(m_bus);
    const Traffic<IsAddMatch> rules;
    for (int i = 0; i < 1000; ++i) {
        peer.Post("Hello", Body(HelloBytes({i, 5})), true); // more than it may wait for
    }
    peer.Settle();

    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_EQ(rules.CountAll(), 1);
    EXPECT_EQ(m_server.SendMessage(998, {}, 10'000), TCounts(0, 0));
    EXPECT_EQ(m_server.SendMessage(999, {}, 10'000), TCounts(1, 0));
}

TEST_F(FanOut, EveryClientCostsOneMatchRule)
{
    const Traffic<IsAddMatch> rules;

    const TPeers peers = MakeClients(10);

    EXPECT_EQ(rules.CountAll(), 10);
}

TEST_F(FanOut, AClientThatIsGoneBeforeItsHelloIsReadIsForgotten)
{
    auto peer = std::make_unique<RawPeer>(m_bus);
    RawPeer asker(m_bus);
    m_loop.Run([&] { // so that nothing is handled meanwhile
        peer->Post("Hello", Body(HelloBytes({5})));
        EXPECT_TRUE(IsOnBus(*peer, peer->Name())) << "the bus has read the message before";
        peer->Vanish();
        EXPECT_TRUE(WaitUntil([&] { return !IsOnBus(asker, peer->Name()); }));
    });

    asker.Settle(); // the "Hello" came before

    EXPECT_TRUE(m_log.Has(kDebug, "A new client " + peer->Name())) << m_log.Text();
    EXPECT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == 0; }));
    EXPECT_EQ(m_server.SendMessage(5, {}, 10'000), TCounts(0, 0));
}

TEST_F(FullConnection, EveryClientIsCalledOnceFourAtATime)
{
    const TPeers peers = MakeSilentClients(12);
    noTimers = true; // a call that ends makes room for the next by itself

    std::future<TCounts> sent = SendInBackground(5, 60'000);
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(WaitForWaiting(peers, kRoom)) << "all that the bus has room for";
        EXPECT_EQ(Waiting(peers).size(), kRoom);
        AnswerAll(peers);
    }

    EXPECT_EQ(sent.get(), TCounts(12, 0));
    noTimers = false;
    EXPECT_EQ(CountCalls(peers), 0u) << "nobody is called twice";
    EXPECT_FALSE(m_log.Mentions("error, errno"));
}

TEST_F(FullConnection, ACallThatMayTakeForEverIsStartedAgainLikeAnyOther)
{
    const TPeers peers = MakeSilentClients(kRoom + 2);

    std::future<TCounts> sent = SendInBackground(5, G_MAXINT);
    EXPECT_TRUE(WaitForWaiting(peers, kRoom));
    AnswerAll(peers);
    EXPECT_TRUE(WaitForWaiting(peers, 2));
    AnswerAll(peers);

    EXPECT_EQ(sent.get(), TCounts(kRoom + 2, 0));
}

TEST_F(FullConnection, ClientsThatNeverAnswerAreFailuresInTime)
{
    const TPeers peers = MakeSilentClients(12);

    const TClock::time_point begin = TClock::now();
    EXPECT_EQ(m_server.SendMessage(5, {}, 500), TCounts(0, 12));
    const TClock::duration taken = TClock::now() - begin;

    EXPECT_GE(taken, milliseconds(490));
    EXPECT_LT(taken, milliseconds(4'000));
    EXPECT_EQ(CountErrors(peers, G_IO_ERROR_TIMED_OUT)
                  + CountErrors(peers, G_DBUS_ERROR_LIMITS_EXCEEDED),
              12u)
        << m_log.Text();
}

TEST_F(FullConnection, ACallThatNeverFindsRoomIsAFailureInTime)
{
    const TPeers older = FillConnection();
    const TPeers peers = MakeClients(2);

    const TClock::time_point begin = TClock::now();
    EXPECT_EQ(m_server.SendMessage(5, {}, 300), TCounts(0, 2));
    const TClock::duration taken = TClock::now() - begin;

    EXPECT_GE(taken, milliseconds(290));
    EXPECT_LT(taken, milliseconds(4'000));
    EXPECT_EQ(CountCalls(peers), 0u);
    EXPECT_EQ(CountErrors(peers, G_IO_ERROR_TIMED_OUT)
                  + CountErrors(peers, G_DBUS_ERROR_LIMITS_EXCEEDED),
              2u)
        << "whichever the last attempt has met first\n"
        << m_log.Text();
}

TEST_F(FullConnection, SeveralThreadsSendAtOnceAndLoseNothing)
{
    const TPeers peers = MakeClients(12, {1, 2, 3, 4});

    std::atomic<int> wrong(0);
    std::vector<std::thread> threads;
    for (int type = 1; type <= 4; ++type) {
        threads.emplace_back([&, type] {
            for (int i = 0; i < 5; ++i) {
                wrong += m_server.SendMessage(type, {}, 60'000) == TCounts(12, 0) ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(wrong, 0) << m_log.Text();
    EXPECT_EQ(CountCalls(peers), 240u);
}

TEST_F(FullConnection, AClientThatDiesBeforeThereIsRoomIsAFailureAndForgotten)
{
    TPeers peers = MakeSilentClients(kRoom);
    TPeers late = MakeClients(1); // the last in the registry's order, or nearly
    std::future<TCounts> sent = SendInBackground(5, 60'000);
    ASSERT_TRUE(WaitUntil([&] { return CountCalls(peers) + CountCalls(late) >= kRoom; }));

    late.clear();
    EXPECT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == kRoom; }));
    const auto answer = [&] {
        AnswerAll(peers);
        return sent.wait_for(milliseconds(1)) == std::future_status::ready;
    };
    EXPECT_TRUE(WaitUntil(answer));

    const TCounts counts = sent.get();
    EXPECT_EQ(counts.first + counts.second, kRoom + 1);
    EXPECT_GE(counts.first, kRoom);
    EXPECT_EQ(m_server.NumberOfClients(), kRoom);
}

} // namespace

} // namespace kel::test

// In place of GLib's function of this name.
extern "C" __attribute__((visibility("default"))) GSource* g_timeout_source_new(guint interval)
{
    static const auto next = reinterpret_cast<decltype(&g_timeout_source_new)>(
        dlsym(RTLD_NEXT, "g_timeout_source_new"));
    return next(kel::test::noTimers ? 3'600'000 : interval);
}
