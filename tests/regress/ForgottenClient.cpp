// A client that a send had found dead was erased before its end was told: the line about it never
// came, or a failed check was reported for nothing. Clients beyond the bus's match rules, of whose
// end it does not tell, were called for ever, and nobody said so. And the send waited for the bus's
// word beyond its own time-out.

#include <dlfcn.h>

#include <atomic>
#include <cstring>

#include "channel/FanOutTest.h"

namespace kel::test {

namespace {

std::atomic<int> questionTimeout(0); // of the latest question whether a name is there

class ForgottenClient : public FanOut
{
protected:
    using FanOut::FanOut;

    std::string EndOf(const std::string& name) const
    {
        char server[32];
        snprintf(server, sizeof(server), "%p", static_cast<const void*>(&m_server));
        return "Client name " + name + " has vanished, user_data " + server;
    }
};

TEST_F(ForgottenClient, HasItsLineOnceWhenASendComesBeforeTheEvent)
{
    RawPeer peer(m_bus);
    RawPeer asker(m_bus);
    Subscribe(peer, {5});
    m_loop.Run([&] { // so that the event is not handled meanwhile
        peer.Vanish();
        EXPECT_TRUE(WaitUntil([&] { return !IsOnBus(asker, peer.Name()); }));

        EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(0, 1));
        EXPECT_EQ(m_server.NumberOfClients(), 0u);
    });
    m_loop.Settle();

    EXPECT_EQ(m_log.Count(EndOf(peer.Name())), 1u) << m_log.Text();
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 256)), 0u);
    EXPECT_FALSE(m_log.Mentions("Not told of the end of clients")) << "nothing was refused";
}

TEST_F(ForgottenClient, IsAskedForWithinTheTimeOutOfTheSend)
{
    RawPeer peer(m_bus);
    Subscribe(peer, {5});
    peer.SetAnswer("Send", TSAnswer::Error("org.freedesktop.DBus.Error.ServiceUnknown"));

    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(0, 1));

    EXPECT_GE(questionTimeout, 1);
    EXPECT_LE(questionTimeout, 20'000);
}

/// A bus that grants a connection few match rules: of most clients' ends it does not tell.
class UntoldClient : public ForgottenClient
{
protected:
    UntoldClient() : ForgottenClient(Limit("max_match_rules_per_connection", 16)) {}

    /// How often the agent has said so.
    size_t CountComplaints() const
    {
        size_t count = 0;
        for (const TSLogLine& line : m_log.Lines()) {
            count
                += line.m_message.rfind("Not told of the end of clients any more, errno ", 0) == 0;
        }
        return count;
    }
};

TEST_F(UntoldClient, IsForgottenByTheNextSendAndHasItsLineOnce)
{
    RawPeer stays(m_bus);
    Subscribe(stays, {5});
    TPeers peers = MakeClients(24);
    std::vector<std::string> names;
    for (const auto& peer : peers) {
        names.push_back(peer->Name());
    }
    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(25, 0));
    EXPECT_TRUE(WaitUntil([this] { return CountComplaints() == 1; })) << "as soon as it is so";

    peers.clear();
    for (const std::string& name : names) {
        EXPECT_TRUE(WaitUntil([&] { return !IsOnBus(stays, name); }));
    }
    stays.Settle();
    m_loop.Settle(); // all that the agent hears of it, it has heard
    const size_t untold = m_server.NumberOfClients() - 1;
    EXPECT_GT(untold, 0u) << "otherwise there was nothing to see";
    EXPECT_LT(untold, 24u) << "of those before the limit it was told";

    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, untold));

    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_EQ(m_server.SendMessage(5, {}, 20'000), TCounts(1, 0));
    m_loop.Settle();
    for (const std::string& name : names) {
        EXPECT_EQ(m_log.Count(EndOf(name)), 1u) << name;
    }
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 256)), 0u);
    EXPECT_EQ(CountComplaints(), 1u) << "said once";
}

TEST_F(UntoldClient, IsForgottenByTheSendDuringWhichItDies)
{
    const TPeers peers = MakeClients(20, {6});
    RawPeer dies(m_bus);
    Subscribe(dies, {5});
    dies.SetAnswer("Send", TSAnswer::Nothing());

    std::future<TCounts> sent = SendInBackground(5, 20'000);
    ASSERT_TRUE(dies.WaitForCalls("Send", 1));
    dies.Vanish();

    EXPECT_EQ(sent.get(), TCounts(0, 1));
    EXPECT_EQ(m_server.NumberOfClients(), 20u);
}

TEST_F(UntoldClient, HasAReplacementThatIsAClientLikeAnyOther)
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

// In place of GIO's.
extern "C" __attribute__((visibility("default"))) void
g_dbus_connection_call(GDBusConnection* connection, const gchar* name, const gchar* path,
                       const gchar* interface, const gchar* method, GVariant* parameters,
                       const GVariantType* type, GDBusCallFlags flags, gint timeout,
                       GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data)
{
    static const auto next
        = reinterpret_cast<decltype(&g_dbus_connection_call)>(dlsym(RTLD_NEXT, __func__));
    if (std::strcmp(method, "NameHasOwner") == 0) {
        kel::test::questionTimeout = timeout;
    }
    next(connection, name, path, interface, method, parameters, type, flags, timeout, cancellable,
         callback, data);
}
