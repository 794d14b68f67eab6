// Clients beyond the bus's match rules were called for ever after their end.

#include "channel/FanOutTest.h"

namespace kel::test {

namespace {

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
