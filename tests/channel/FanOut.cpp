// One message to many clients at once: what is shared, how long it takes, and what becomes of it
// when the bus has no room for all the calls.

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <future>
#include <set>

#include "channel/ChannelTest.h"
#include "support/TsanHandover.h"

namespace kel::test {

namespace {

typedef RawPeer::TSAnswer TSAnswer;
typedef std::chrono::steady_clock TClock;

using std::chrono::milliseconds;

/// The parameters of every call that goes out through a proxy of GIO's.
class Parameters
{
public:
    void Add(GVariant* parameters)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_parameters.push_back(parameters);
    }

    std::vector<GVariant*> Take()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::move(m_parameters);
    }

private:
    std::mutex m_mutex;
    std::vector<GVariant*> m_parameters; // guarded by m_mutex
};

Parameters sentParameters;

/// Counts the match rules that this process asks the bus for.
class MatchRules
{
public:
    MatchRules() : m_pConnection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr))
    {
        HandOver(this);
        m_filter = g_dbus_connection_add_filter(m_pConnection, &MatchRules::Filter, this, nullptr);
    }
    ~MatchRules()
    {
        g_dbus_connection_remove_filter(m_pConnection, m_filter);
        g_object_unref(m_pConnection);
    }

    /// Those of all calls so far: the filter sees a message only when its turn to be written comes,
    /// so one more call is made and its reply waited for.
    int Count() const
    {
        GVariant* const reply = g_dbus_connection_call_sync(
            m_pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        EXPECT_NE(reply, nullptr);
        if (reply != nullptr) {
            g_variant_unref(reply);
        }
        return m_count;
    }

private:
    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean, gpointer rules)
    {
        TakeOver(rules);
        const char* const method = g_dbus_message_get_member(message);
        if (method != nullptr && std::strcmp(method, "AddMatch") == 0) {
            ++static_cast<MatchRules*>(rules)->m_count;
        }
        return message;
    }

    GDBusConnection* m_pConnection; // one reference, released by the destructor
    guint m_filter;
    std::atomic<int> m_count{0};
};

/// An agent, and as many clients as a test wants.
class FanOut : public ServerTest
{
protected:
    typedef std::vector<std::unique_ptr<RawPeer>> TPeers;

    FanOut() = default;
    explicit FanOut(const PrivateBus::TSOptions& options) : ServerTest(options) {}

    /// Clients that asked for these types and are known.
    TPeers MakeClients(size_t count, const std::vector<int>& types = {5})
    {
        const size_t before = m_server.NumberOfClients();
        TPeers peers;
        for (size_t i = 0; i < count; ++i) {
            peers.push_back(std::make_unique<RawPeer>(m_bus));
            peers.back()->Hello(types);
        }
        EXPECT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == before + count; }));
        return peers;
    }

    /// The same, but they keep what they are asked to themselves.
    TPeers MakeSilentClients(size_t count, const std::vector<int>& types = {5})
    {
        TPeers peers = MakeClients(count, types);
        for (const auto& peer : peers) {
            peer->SetAnswer("Send", TSAnswer::Nothing());
        }
        return peers;
    }

    std::future<TCounts> SendInBackground(int type, int timeout)
    {
        return std::async(std::launch::async,
                          [=] { return m_server.SendMessage(type, {}, timeout); });
    }

    /// Whether the bus knows this name.
    static bool IsOnBus(RawPeer& asker, const std::string& name)
    {
        asker.SetTarget("org.freedesktop.DBus", "/org/freedesktop/DBus");
        const TBody body(g_variant_ref_sink(g_variant_new("(s)", name.c_str())), &g_variant_unref);
        const TSReply reply
            = asker.WaitReply(asker.Post("NameHasOwner", body, false, "org.freedesktop.DBus"));
        asker.SetTarget(kBusName);
        gboolean owned = TRUE;
        if (reply.IsOk()) {
            g_variant_get(reply.m_body.get(), "(b)", &owned);
        }
        return owned != FALSE;
    }

    static size_t CountCalls(const TPeers& peers)
    {
        size_t count = 0;
        for (const auto& peer : peers) {
            count += peer->Calls("Send").size();
        }
        return count;
    }

    /// How many of these lines there are.
    size_t CountErrors(const TPeers& peers, int code) const
    {
        size_t count = 0;
        for (const auto& peer : peers) {
            const std::string line
                = "Sending message from " + peer->Name() + " error, errno " + std::to_string(code);
            count += m_log.Has(kError, line) ? m_log.Count(line) : 0;
        }
        return count;
    }
};

TEST_F(FanOut, AllCallsShareOneRequestOfTheSameBytes)
{
    const TPeers peers = MakeClients(8);
    for (const TBytes& data : {TBytes(), TBytes(70'000, 0xa5)}) {
        sentParameters.Take();

        EXPECT_EQ(m_server.SendMessage(5, data, 20'000), TCounts(8, 0));

        const std::vector<GVariant*> parameters = sentParameters.Take();
        EXPECT_EQ(parameters.size(), 8u);
        EXPECT_EQ(std::set<GVariant*>(parameters.begin(), parameters.end()).size(), 1u);
        for (const auto& peer : peers) {
            EXPECT_EQ(peer->Calls("Send").at(0).m_bytes, SendBytes(5, 0, data));
            peer->ForgetCalls();
        }
    }
}

TEST_F(FanOut, TwentyClientsThatTakeATenthOfASecondEachTakeItTogether)
{
    const TPeers peers = MakeSilentClients(20);
    const auto send = [&] {
        const TClock::time_point begin = TClock::now();
        std::future<TCounts> sent = SendInBackground(5, 20'000);
        for (const auto& peer : peers) {
            peer->WaitForCalls("Send", 1);
        }
        // All have been called by now, the last one last: nobody answers before its time.
        std::this_thread::sleep_for(milliseconds(100));
        for (const auto& peer : peers) {
            peer->Answer(peer->Calls("Send").at(0), TSAnswer::Bytes({1}));
            peer->ForgetCalls();
        }
        EXPECT_EQ(sent.get(), TCounts(20, 0));
        return TClock::now() - begin;
    };

    TClock::duration fastest = send();
    for (int i = 0; i < 9 && fastest >= milliseconds(400); ++i) { // the machine may be busy
        fastest = std::min(fastest, send());
    }

    EXPECT_GE(fastest, milliseconds(100));
    EXPECT_LT(fastest, milliseconds(400));
}

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

TEST_F(FanOut, SilenceRefusalErrorsAndNonsenseAreFailuresAloneAmongOthers)
{
    const TPeers peers = MakeClients(6);
    peers[0]->SetAnswer("Send", TSAnswer::Nothing());
    peers[1]->SetAnswer("Send", TSAnswer::Bytes({0}));
    peers[2]->SetAnswer("Send", TSAnswer::Error("com.example.Error.Unheard"));
    peers[3]->SetAnswer("Send", TSAnswer::Bytes({}));
    peers[4]->SetAnswer("Send", TSAnswer::Other("('yes',)"));

    EXPECT_EQ(m_server.SendMessage(5, {}, 500), TCounts(1, 5));
    EXPECT_EQ(m_server.SendMessage(5, {}, 500), TCounts(1, 5)) << "and once more";

    EXPECT_EQ(m_server.NumberOfClients(), 6u) << "nobody has left";
}

TEST_F(FanOut, AThousandHellosInARowCostOneClientAndOneMatchRule)
{
    RawPeer peer(m_bus);
    const MatchRules rules;
    for (int i = 0; i < 1000; ++i) {
        peer.Post("Hello", Body(HelloBytes({i, 5})), true); // more than it may wait for
    }
    peer.Settle();

    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_EQ(rules.Count(), 1);
    EXPECT_EQ(m_server.SendMessage(998, {}, 10'000), TCounts(0, 0));
    EXPECT_EQ(m_server.SendMessage(999, {}, 10'000), TCounts(1, 0));
}

TEST_F(FanOut, EveryClientCostsOneMatchRule)
{
    const MatchRules rules;

    const TPeers peers = MakeClients(10);

    EXPECT_EQ(rules.Count(), 10);
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

PrivateBus::TSOptions Limit(const std::string& name, int value)
{
    PrivateBus::TSOptions options;
    options.m_config = "<limit name=\"" + name + "\">" + std::to_string(value) + "</limit>";
    return options;
}

/// A bus that lets a connection wait for four replies at once.
class FullConnection : public FanOut
{
protected:
    static constexpr size_t kRoom = 4;

    FullConnection() : FanOut(Limit("max_replies_per_connection", kRoom)) {}

    /// Clients that fill the agent's connection with calls they never answer, as long as they live.
    TPeers FillConnection(size_t count = kRoom)
    {
        TPeers peers = MakeSilentClients(count, {99});
        EXPECT_EQ(m_server.SendMessage(99, {}, 50), TCounts(0, count));
        EXPECT_TRUE(WaitUntil([&] { return CountCalls(peers) == count; }));
        return peers;
    }

    /// The calls that wait for an answer.
    static std::vector<std::pair<RawPeer*, TSCall>> Waiting(const TPeers& peers)
    {
        std::vector<std::pair<RawPeer*, TSCall>> waiting;
        for (const auto& peer : peers) {
            for (const TSCall& call : peer->Calls("Send")) {
                waiting.emplace_back(peer.get(), call);
            }
        }
        return waiting;
    }

    static void AnswerAll(const TPeers& peers)
    {
        for (const auto& [peer, call] : Waiting(peers)) {
            peer->ForgetCalls();
            peer->Answer(call, TSAnswer::Bytes({1}));
        }
    }

    static bool WaitForWaiting(const TPeers& peers, size_t count)
    {
        return WaitUntil([&] { return Waiting(peers).size() >= count; });
    }
};

TEST_F(FullConnection, EveryClientIsCalledOnceFourAtATime)
{
    const TPeers peers = MakeSilentClients(12);

    std::future<TCounts> sent = SendInBackground(5, 60'000);
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(WaitForWaiting(peers, kRoom)) << "all that the bus has room for";
        EXPECT_EQ(Waiting(peers).size(), kRoom);
        AnswerAll(peers);
    }

    EXPECT_EQ(sent.get(), TCounts(12, 0));
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

TEST_F(FullConnection, ACallThatEndsMakesRoomForTheNextAtOnce)
{
    constexpr size_t kCount = 40;
    const TPeers few = MakeSilentClients(kRoom, {6});
    const TPeers many = MakeSilentClients(kCount);
    const auto send = [&](int type, const TPeers& peers) {
        std::future<TCounts> sent = SendInBackground(type, 60'000);
        for (size_t left = peers.size(); left != 0; --left) {
            EXPECT_TRUE(WaitForWaiting(peers, std::min(left, kRoom)));
            const auto [peer, call] = Waiting(peers).front();
            peer->ForgetCalls();
            peer->Answer(call, TSAnswer::Bytes({1}));
        }
        EXPECT_EQ(sent.get(), TCounts(peers.size(), 0));
    };

    // What as many calls take that the bus has room for at once tells how busy the machine is.
    TClock::duration plain = TClock::duration::max();
    TClock::duration crowded = TClock::duration::max();
    for (int i = 0; i < 10 && (i == 0 || crowded >= 8 * plain); ++i) {
        const TClock::time_point begin = TClock::now();
        for (size_t calls = 0; calls < kCount; calls += kRoom) {
            send(6, few);
        }
        const TClock::time_point middle = TClock::now();
        send(5, many);
        plain = std::min(plain, middle - begin);
        crowded = std::min(crowded, TClock::now() - middle);
    }

    EXPECT_LT(crowded, 8 * plain) << "nobody waited for a timer";
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

TEST_F(FullConnection, ItsCallsFindTheRoomThatOthersMake)
{
    TPeers older = FillConnection();
    const TPeers peers = MakeSilentClients(8);

    std::future<TCounts> sent = SendInBackground(5, 60'000);
    EXPECT_EQ(sent.wait_for(milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(CountCalls(peers), 0u);
    older.clear();

    EXPECT_TRUE(WaitForWaiting(peers, kRoom)) << "all of it";
    AnswerAll(peers);
    EXPECT_TRUE(WaitForWaiting(peers, kRoom));
    AnswerAll(peers);
    EXPECT_EQ(sent.get(), TCounts(8, 0));
}

TEST_F(FullConnection, ItsCallsDoNotWaitForASlowOneWhenOthersMakeRoom)
{
    TPeers older = FillConnection(kRoom - 1);
    const TPeers peers = MakeSilentClients(5);

    std::future<TCounts> sent = SendInBackground(5, 60'000);
    EXPECT_TRUE(WaitForWaiting(peers, 1));
    older.clear();

    EXPECT_TRUE(WaitForWaiting(peers, kRoom)) << "before the first has answered";
    AnswerAll(peers);
    EXPECT_TRUE(WaitForWaiting(peers, 1));
    AnswerAll(peers);
    EXPECT_EQ(sent.get(), TCounts(5, 0));
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

/// A bus that grants a connection few match rules: most clients cannot be watched.
class FewMatchRules : public FanOut
{
protected:
    FewMatchRules() : FanOut(Limit("max_match_rules_per_connection", 16)) {}
};

TEST_F(FewMatchRules, AClientThatCouldNotBeWatchedIsForgottenByTheNextSend)
{
    RawPeer stays(m_bus);
    Subscribe(stays, {5});
    TPeers peers = MakeClients(24);
    std::vector<std::string> names;
    for (const auto& peer : peers) {
        names.push_back(peer->Name());
    }
    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(25, 0));

    peers.clear();
    for (const std::string& name : names) {
        EXPECT_TRUE(WaitUntil([&] { return !IsOnBus(stays, name); }));
    }
    stays.Settle();
    m_loop.Settle(); // all that the agent hears of it, it has heard
    const size_t unwatched = m_server.NumberOfClients() - 1;
    EXPECT_GT(unwatched, 0u) << "otherwise there was nothing to see";
    EXPECT_LT(unwatched, 24u) << "those before the limit were watched";

    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, unwatched));

    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, 0));
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 256)), 0u);
}

TEST_F(FewMatchRules, AReplacementForAForgottenClientIsAClientLikeAnyOther)
{
    TPeers peers = MakeClients(24);
    peers.clear();
    RawPeer comes(m_bus);
    Subscribe(comes, {5});

    EXPECT_TRUE(WaitUntil([&] { return m_server.SendMessage(5, {}, 20'000) == TCounts(1, 0); }));

    EXPECT_EQ(m_server.NumberOfClients(), 1u);
}

} // namespace

} // namespace kel::test

// In place of GIO's function of this name.
extern "C" __attribute__((visibility("default"))) void
g_dbus_proxy_call(GDBusProxy* proxy, const gchar* method, GVariant* parameters,
                  GDBusCallFlags flags, gint timeout, GCancellable* cancellable,
                  GAsyncReadyCallback callback, gpointer data)
{
    static const auto next
        = reinterpret_cast<decltype(&g_dbus_proxy_call)>(dlsym(RTLD_NEXT, "g_dbus_proxy_call"));
    kel::test::sentParameters.Add(parameters);
    next(proxy, method, parameters, flags, timeout, cancellable, callback, data);
}
