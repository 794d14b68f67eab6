// What has become of a message for each client, and which clients there are.

#include <chrono>
#include <future>
#include <map>

#include "channel/ChannelTest.h"
#include "channel/FanOutTest.h"

namespace kel::test {

namespace {

typedef std::map<std::string, TSClientOutcome> TOutcomes; // by unique name

class Outcomes : public FanOut
{
protected:
    Outcomes() = default;
    explicit Outcomes(const PrivateBus::TSOptions& options) : FanOut(options) {}

    TOutcomes Send(int type, int timeout = 20'000, const TBytes& data = {})
    {
        TOutcomes outcomes;
        for (const TSClientOutcome& outcome : m_server.SendToEach(type, data, timeout)) {
            EXPECT_TRUE(outcomes.emplace(outcome.m_uniqueName, outcome).second);
        }
        return outcomes;
    }

    std::unique_ptr<RawPeer> Client(const TSAnswer& answer)
    {
        auto peer = std::make_unique<RawPeer>(m_bus);
        peer->SetAnswer("Send", answer);
        Subscribe(*peer, {5});
        return peer;
    }

    static std::string BusError(const std::string& name)
    {
        return "org.freedesktop.DBus.Error." + name;
    }
};

void ExpectOutcome(const TOutcomes& outcomes, const RawPeer& peer, EFailure kind,
                   const std::string& errorName)
{
    const auto found = outcomes.find(peer.Name());
    ASSERT_NE(found, outcomes.end()) << peer.Name();
    const TSFailure& failure = found->second.m_failure;
    EXPECT_EQ(static_cast<int>(failure.m_kind), static_cast<int>(kind)) << failure.m_text;
    EXPECT_EQ(failure.m_errorName, errorName) << failure.m_text;
}

TEST_F(Outcomes, EachClientHasItsOwn)
{
    const auto handles = Client(TSAnswer::Bytes({1}));
    const auto declines = Client(TSAnswer::Bytes({0}));
    const auto empty = Client(TSAnswer::Bytes({}));
    const auto other = Client(TSAnswer::Other("('yes',)"));
    const auto fails = Client(TSAnswer::Error("com.norvale.Test"));
    const auto denies = Client(TSAnswer::Error(BusError("AccessDenied")));
    const auto servesNothing = Client(TSAnswer::Error(BusError("UnknownObject")));
    const auto passesOn = Client(TSAnswer::Error(BusError("ServiceUnknown")));
    RawPeer notAsked(m_bus);
    Subscribe(notAsked, {6});

    const TOutcomes outcomes = Send(5);

    EXPECT_EQ(outcomes.size(), 8U);
    ExpectOutcome(outcomes, *handles, EFailure::None, "");
    ExpectOutcome(outcomes, *declines, EFailure::NotHandled, "");
    ExpectOutcome(outcomes, *empty, EFailure::Unreadable, "");
    ExpectOutcome(outcomes, *other, EFailure::Unreadable, "");
    ExpectOutcome(outcomes, *fails, EFailure::Other, "com.norvale.Test");
    ExpectOutcome(outcomes, *denies, EFailure::Denied, BusError("AccessDenied"));
    ExpectOutcome(outcomes, *servesNothing, EFailure::NotHandled, BusError("UnknownObject"));
    ExpectOutcome(outcomes, *passesOn, EFailure::Other, BusError("ServiceUnknown"));
    EXPECT_TRUE(m_log.Has(kDebug, "Callback result: success 1, fails 7")) << m_log.Text();
}

TEST_F(Outcomes, LatencyIsTheTimeUntilTheOutcomeWasKnown)
{
    const auto silent = Client(TSAnswer::Nothing());
    const auto quick = Client(TSAnswer::Bytes({1}));

    const TOutcomes outcomes = Send(5, 1'500);

    ExpectOutcome(outcomes, *silent, EFailure::TimedOut, "");
    ExpectOutcome(outcomes, *quick, EFailure::None, "");
    EXPECT_GE(outcomes.at(silent->Name()).m_latency, std::chrono::milliseconds(1'490));
    EXPECT_GT(outcomes.at(quick->Name()).m_latency.count(), 0);
    EXPECT_LT(outcomes.at(quick->Name()).m_latency, outcomes.at(silent->Name()).m_latency);
}

TEST_F(Outcomes, AClientThatLeavesTheBusHasEnded)
{
    const auto silent = Client(TSAnswer::Nothing());
    std::future<TOutcomes> sent = std::async(std::launch::async, [&] { return Send(5); });
    ASSERT_TRUE(silent->WaitForCalls("Send", 1));
    const std::string name = silent->Name();

    silent->Vanish();

    const TOutcomes outcomes = sent.get();
    ASSERT_EQ(outcomes.count(name), 1U);
    EXPECT_EQ(outcomes.at(name).m_failure.m_kind, EFailure::Ended);
    EXPECT_EQ(outcomes.at(name).m_failure.m_errorName, BusError("NoReply"));
}

TEST_F(Outcomes, AClientThatIsSentNothingHasTheReason)
{
    TOutcomes waiting;
    m_server.SetCallback(4, [&](const TBytes&, TBytes&) {
        waiting = Send(5);
        return true;
    });
    const auto first = Client(TSAnswer::Bytes({1}));
    const auto second = Client(TSAnswer::Bytes({1}));

    first->Send(SendBytes(4, 0));
    m_loop.Settle();

    ExpectOutcome(waiting, *first, EFailure::Waiting, "");
    ExpectOutcome(waiting, *second, EFailure::None, "");
    first->ForgetCalls();
    const TOutcomes tooLarge = Send(5, 20'000, TBytes(33U << 20));
    ExpectOutcome(tooLarge, *first, EFailure::TooLarge, "");
    const TOutcomes noTime = Send(5, -2);
    ExpectOutcome(noTime, *first, EFailure::Other, "");
    EXPECT_TRUE(first->Calls("Send").empty());
}

TEST_F(Outcomes, ThereAreNoneWithoutSubscribers)
{
    EXPECT_TRUE(m_server.SendToEach(5, {}, 1000).empty());
    const TPeers others = MakeClients(1, {6});
    EXPECT_TRUE(m_server.SendToEach(5, {}, 1000).empty());
}

PrivateBus::TSOptions NobodyMayCallApplications()
{
    PrivateBus::TSOptions options;
    options.m_config = "<policy context=\"mandatory\">"
                       "<deny send_type=\"method_call\""
                       " send_path=\"/com/norvale/kel/CommunicationChannel\""
                       " send_member=\"Send\"/></policy>";
    return options;
}

class OutcomesOnAStrictBus : public Outcomes
{
protected:
    OutcomesOnAStrictBus() : Outcomes(NobodyMayCallApplications()) {}
};

TEST_F(OutcomesOnAStrictBus, WhatTheBusForbidsIsDenied)
{
    const TPeers peers = MakeClients(1);

    const TOutcomes outcomes = Send(5);

    ExpectOutcome(outcomes, *peers[0], EFailure::Denied, BusError("AccessDenied"));
    EXPECT_TRUE(peers[0]->Calls("Send").empty());
}

TEST_F(FullConnection, ACallThatNeverFindsRoomHasTimedOut)
{
    const TPeers older = FillConnection();
    const TPeers peers = MakeClients(1);

    const std::vector<TSClientOutcome> outcomes = m_server.SendToEach(5, {}, 300);

    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes[0].m_failure.m_kind, EFailure::TimedOut);
    EXPECT_GE(outcomes[0].m_latency, std::chrono::milliseconds(290));
}

TEST_F(Outcomes, TheClientsAreToldWithTheirTypesAndSinceWhen)
{
    typedef std::chrono::system_clock TClock;

    EXPECT_TRUE(m_server.Clients(10).empty());
    const TClock::time_point before = TClock::now() - std::chrono::milliseconds(1);
    RawPeer first(m_bus);
    RawPeer second(m_bus);
    Subscribe(first, {7, -3, 2});
    Subscribe(second, {});
    const std::vector<TSRegisteredClient> clients = m_server.Clients(2);

    ASSERT_EQ(clients.size(), 2U);
    EXPECT_LT(clients[0].m_uniqueName, clients[1].m_uniqueName);
    const TSRegisteredClient& told = clients[clients[0].m_uniqueName == first.Name() ? 0 : 1];
    const TSRegisteredClient& none = clients[clients[0].m_uniqueName == first.Name() ? 1 : 0];
    EXPECT_EQ(told.m_uniqueName, first.Name());
    EXPECT_EQ(told.m_types, (std::vector<int>{-3, 2}));
    EXPECT_EQ(told.m_numberOfTypes, 3U);
    EXPECT_GE(told.m_registered, before);
    EXPECT_LE(told.m_registered, TClock::now());
    EXPECT_EQ(none.m_uniqueName, second.Name());
    EXPECT_TRUE(none.m_types.empty());
    EXPECT_EQ(none.m_numberOfTypes, 0U);

    Subscribe(first, {5});
    second.Vanish();
    ASSERT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == 1; }));
    const std::vector<TSRegisteredClient> later = m_server.Clients(2);
    ASSERT_EQ(later.size(), 1U);
    EXPECT_EQ(later[0].m_types, std::vector<int>{5});
    EXPECT_EQ(later[0].m_registered, told.m_registered) << "since its first Hello";
}

} // namespace

} // namespace kel::test
