// A client that a send had found dead was erased before its end was told: the line about it never
// came, or a failed check was reported for nothing; and the send waited for the bus's word without
// a limit of its own.

#include <future>

#include "channel/ChannelTest.h"
#include "support/Threads.h"

namespace kel::test {

namespace {

class ForgottenClient : public ServerTest
{
protected:
    ForgottenClient() = default;
    explicit ForgottenClient(const PrivateBus::TSOptions& options) : ServerTest(options) {}

    std::string EndOf(const std::string& name) const
    {
        char server[32];
        snprintf(server, sizeof(server), "%p", static_cast<const void*>(&m_server));
        return "Client name " + name + " has vanished, user_data " + server;
    }

    /// Leaves the bus while the agent's main context handles nothing.
    void VanishUnheard(RawPeer& peer, const Gate& gate)
    {
        std::promise<void> blocked;
        PostToHostLoop([&] {
            blocked.set_value();
            gate.Wait();
        });
        blocked.get_future().wait();
        RawPeer asker(m_bus);
        peer.Vanish();
        ASSERT_TRUE(WaitUntil([&] { return !IsOnBus(asker, peer.Name()); }));
    }

    static bool IsOnBus(RawPeer& asker, const std::string& name)
    {
        asker.SetTarget("org.freedesktop.DBus", "/org/freedesktop/DBus");
        const TBody body(g_variant_ref_sink(g_variant_new("(s)", name.c_str())), &g_variant_unref);
        const TSReply reply
            = asker.WaitReply(asker.Post("NameHasOwner", body, false, "org.freedesktop.DBus"));
        gboolean owned = TRUE;
        if (reply.IsOk()) {
            g_variant_get(reply.m_body.get(), "(b)", &owned);
        }
        return owned != FALSE;
    }
};

TEST_F(ForgottenClient, HasItsLineOnceWhenASendComesBeforeTheEvent)
{
    RawPeer peer(m_bus);
    Subscribe(peer, {5});
    Gate gate;
    VanishUnheard(peer, gate);

    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(0, 1));
    EXPECT_EQ(m_server.NumberOfClients(), 0u);
    gate.Open();
    m_loop.Settle();

    EXPECT_EQ(m_log.Count(EndOf(peer.Name())), 1u) << m_log.Text();
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 256)), 0u);
    EXPECT_FALSE(m_log.Mentions("Not told of the end of clients")) << "nothing was refused";
}

/// The bus grants few match rules: most clients' ends are not told.
PrivateBus::TSOptions FewRules()
{
    PrivateBus::TSOptions options;
    options.m_config = "<limit name=\"max_match_rules_per_connection\">16</limit>";
    return options;
}

class UntoldClient : public ForgottenClient
{
protected:
    UntoldClient() : ForgottenClient(FewRules()) {}
};

TEST_F(UntoldClient, IsToldOfOnceAtTheLatestByASend)
{
    constexpr size_t kCount = 24;
    std::vector<std::unique_ptr<RawPeer>> peers;
    std::vector<std::string> names;
    for (size_t i = 0; i < kCount; ++i) {
        peers.push_back(std::make_unique<RawPeer>(m_bus));
        Subscribe(*peers.back(), {5});
        names.push_back(peers.back()->Name());
    }
    const auto refusals = [this] {
        size_t count = 0;
        for (const TSLogLine& line : m_log.Lines()) {
            count
                += line.m_message.rfind("Not told of the end of clients any more, errno ", 0) == 0;
        }
        return count;
    };
    EXPECT_TRUE(WaitUntil([&] { return refusals() == 1; })) << "said as soon as it is so";

    RawPeer asker(m_bus);
    peers.clear();
    for (const std::string& name : names) {
        EXPECT_TRUE(WaitUntil([&] { return !IsOnBus(asker, name); }));
    }
    m_server.SendMessage(5, {}, 20'000);
    m_loop.Settle();

    EXPECT_EQ(m_server.NumberOfClients(), 0u);
    for (const std::string& name : names) {
        EXPECT_EQ(m_log.Count(EndOf(name)), 1u) << name;
    }
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 256)), 0u);
    EXPECT_EQ(refusals(), 1u) << "said once";
}

} // namespace

} // namespace kel::test
