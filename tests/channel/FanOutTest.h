#pragma once

#include <future>

#include "channel/ChannelTest.h"

namespace kel::test {

/// An agent, and as many clients as a test wants.
class FanOut : public ServerTest
{
protected:
    typedef std::vector<std::unique_ptr<RawPeer>> TPeers;
    typedef RawPeer::TSAnswer TSAnswer;

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

inline PrivateBus::TSOptions Limit(const std::string& name, int value)
{
    PrivateBus::TSOptions options;
    options.m_config = "<limit name=\"" + name + "\">" + std::to_string(value) + "</limit>";
    if (PrivateBus::IsBroker()) { // which grants a user as much as so many connections
        options.m_config += "<limit name=\"max_connections_per_user\">1</limit>";
    }
    return options;
}

/// A bus that lets a connection wait for four replies at once.
class FullConnection : public FanOut
{
protected:
    static constexpr size_t kRoom = 4;

    FullConnection() : FanOut(ReplyLimit()) {}

    static PrivateBus::TSOptions ReplyLimit()
    {
        PrivateBus::NeedReplyLimit();
        return Limit("max_replies_per_connection", kRoom);
    }

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

} // namespace kel::test
