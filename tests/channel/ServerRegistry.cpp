// Who is registered with the agent, for what, and for how long.

#include <atomic>
#include <set>

#include "channel/ChannelTest.h"
#include "channel/FailingCalls.h"

namespace kel::test {

namespace {

std::string Pointer(const char* format, const char* name, const void* pointer)
{
    char text[256];
    snprintf(text, sizeof(text), format, name, pointer);
    return text;
}

class ServerRegistry : public ServerTest
{
protected:
    typedef std::set<int> TTypes;

    TTypes TypesOf(const RawPeer& peer)
    {
        const TCReadLock state(m_server.m_stateMutex);
        const auto client = m_server.m_clients.find(peer.Name());
        return client != m_server.m_clients.end() ? client->second.m_types : TTypes{-1};
    }

    std::pair<GDBusProxy*, unsigned int> HandlesOf(const RawPeer& peer)
    {
        const TCReadLock state(m_server.m_stateMutex);
        const auto& client = m_server.m_clients.at(peer.Name());
        return {client.m_pProxy, client.m_watchId};
    }

    /// Sends a "Hello" of exactly these bytes.
    void HelloOf(RawPeer& peer, const TBytes& bytes)
    {
        const TSReply reply = peer.Call("Hello", Body(bytes));
        ASSERT_TRUE(reply.IsOk());
        ASSERT_EQ(reply.m_signature, "");
        peer.Settle();
    }

    RawPeer m_peer{m_bus};
};

TEST_F(ServerRegistry, StartingSaysWhatItDoes)
{
    EXPECT_TRUE(m_log.Has(kDebug, "Working with unique name " + m_server.GetUniqueName()));
    EXPECT_TRUE(
        m_log.Has(kDebug, "Server started. Own name id " + std::to_string(m_server.m_ownerId)));
    EXPECT_TRUE(
        m_log.WaitFor(Pointer("Name %s has been acquired, user_data %p", kBusName, &m_server)));
    for (const TSLogLine& line : m_log.Lines()) {
        EXPECT_EQ(line.m_buffer, 2);
        EXPECT_EQ(line.m_tag, "KEL");
        EXPECT_EQ(line.m_format.rfind("%s: %s(%d) > ", 0), 0u);
        EXPECT_THAT(line.m_source, testing::AnyOf("KELDbus", "KELDbusServer"));
    }
}

TEST_F(ServerRegistry, AFirstHelloRegistersTheClient)
{
    HelloOf(m_peer, {0x05, 0, 0, 0, 0x02, 0, 0, 0});

    EXPECT_TRUE(m_log.Has(kDebug, "A new client " + m_peer.Name()));
    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_TRUE(m_log.Has(kDebug, "Number of clients 1"));
    EXPECT_EQ(TypesOf(m_peer), (TTypes{2, 5}));
}

TEST_F(ServerRegistry, ARepeatedHelloReplacesTheTypesAndKeepsOneClient)
{
    Subscribe(m_peer, {2, 5});
    const auto handles = HandlesOf(m_peer);

    Subscribe(m_peer, {7});

    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_EQ(TypesOf(m_peer), TTypes{7});
    EXPECT_EQ(HandlesOf(m_peer), handles);
    EXPECT_EQ(m_log.Count("A new client " + m_peer.Name()), 1u);
    EXPECT_EQ(m_server.SendMessage(5, {}, 1000), TCounts(0, 0));
    EXPECT_EQ(m_server.SendMessage(7, {}, 1000), TCounts(1, 0));
}

TEST_F(ServerRegistry, AnEmptyHelloRegistersAClientThatGetsNothing)
{
    HelloOf(m_peer, {});

    EXPECT_EQ(m_server.NumberOfClients(), 1u);
    EXPECT_EQ(TypesOf(m_peer), TTypes());
    EXPECT_EQ(m_server.SendMessage(0, {}, 1000), TCounts(0, 0));
    EXPECT_TRUE(m_peer.Calls("Send").empty());
}

TEST_F(ServerRegistry, AHelloOfAMillionBytesNamesAQuarterOfAMillionTypes)
{
    std::vector<int> types(250'000);
    for (size_t i = 0; i < types.size(); ++i) {
        types[i] = static_cast<int>(i * 7919 % types.size()); // in no order
    }
    const TBytes bytes = HelloBytes(types);
    ASSERT_EQ(bytes.size(), 1'000'000u);

    HelloOf(m_peer, bytes);

    EXPECT_EQ(TypesOf(m_peer), TTypes(types.begin(), types.end()));
    EXPECT_EQ(m_server.SendMessage(249'999, {}, 10'000), TCounts(1, 0));
}

TEST_F(ServerRegistry, ASenderWithoutHelloIsServedButNotRegistered)
{
    m_server.SetCallback(4, [](const TBytes&, TBytes&) { return true; });

    EXPECT_EQ(m_peer.Send(SendBytes(4, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(m_server.NumberOfClients(), 0u);
}

TEST_F(ServerRegistry, AClientThatLeavesTheBusIsForgotten)
{
    RawPeer stays(m_bus);
    Subscribe(m_peer, {1});
    Subscribe(stays, {1});
    ASSERT_EQ(m_server.NumberOfClients(), 2u);
    std::atomic<int> released(0);
    const auto count = [](gpointer number, GObject*) { ++*static_cast<std::atomic<int>*>(number); };
    for (const auto& [name, client] : m_server.m_clients) {
        g_object_weak_ref(G_OBJECT(client.m_pProxy), count, &released);
    }

    m_peer.Vanish();

    EXPECT_TRUE(WaitUntil([&] { return m_server.NumberOfClients() == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return released == 1; })) << "the proxy, and its match rules";
    EXPECT_TRUE(m_log.Has(kDebug, Pointer("Client name %s has vanished, user_data %p",
                                          m_peer.Name().c_str(), &m_server)))
        << m_log.Text();
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 256)), 0u);
    EXPECT_EQ(m_server.SendMessage(1, {}, 1000), TCounts(1, 0));

    TCDbusServer::m_ClientNameVanished(m_server.m_pConnection, stays.Name().c_str(), &m_server);

    EXPECT_EQ(m_server.NumberOfClients(), 0u);
    EXPECT_TRUE(WaitUntil([&] { return released == 2; })) << "of one that we were told of, too";
}

TEST_F(ServerRegistry, TheVanishingOfAStrangerIsReported)
{
    TCDbusServer::m_ClientNameVanished(m_server.m_pConnection, ":1.999", &m_server);

    EXPECT_TRUE(m_log.Has(kError, FailedCheck("KELDbusServer", 256)));
}

TEST_F(ServerRegistry, NameEventsWithoutAServerAreOnlyLogged)
{
    TCDbusServer::m_ClientNameVanished(m_server.m_pConnection, ":1.9", nullptr);
    TCDbusServer::m_NameAcquired(m_server.m_pConnection, "a.name", nullptr);

    EXPECT_TRUE(
        m_log.Has(kDebug, Pointer("Client name %s has vanished, user_data %p", ":1.9", nullptr)));
    EXPECT_TRUE(
        m_log.Has(kDebug, Pointer("Name %s has been acquired, user_data %p", "a.name", nullptr)));
    EXPECT_EQ(m_log.Count(FailedCheck("KELDbusServer", 256)), 0u);
}

TEST_F(ServerRegistry, ACallbackIsNeverReplaced)
{
    const auto first = [](const TBytes&, TBytes& response) {
        response = {1};
        return true;
    };
    const auto second = [](const TBytes&, TBytes& response) {
        response = {2};
        return true;
    };
    m_log.Clear();

    EXPECT_TRUE(m_server.SetCallback(4, first));
    EXPECT_FALSE(m_server.SetCallback(4, second));

    EXPECT_TRUE(m_log.Has(kDebug, "Type 4, result 1"));
    EXPECT_TRUE(m_log.Has(kDebug, "Type 4, result 0"));
    EXPECT_EQ(m_peer.Send(SendBytes(4, 0)).m_bytes, (TBytes{1, 1}));
}

TEST_F(ServerRegistry, ACallbackIsRemovedOnceAndWithoutALine)
{
    m_server.SetCallback(4, [](const TBytes&, TBytes&) { return true; });
    m_log.Clear();

    EXPECT_TRUE(m_server.UnSetCallback(4));
    EXPECT_FALSE(m_server.UnSetCallback(4));

    EXPECT_EQ(m_log.Text(), "");
    EXPECT_EQ(m_peer.Send(SendBytes(4, 0)).m_bytes, TBytes{0});
}

TEST_F(ServerRegistry, AClientThatCannotBeCalledIsNotRegistered)
{
    FailNextProxy(17);

    EXPECT_TRUE(m_peer.Hello({1}).IsOk()) << "answered before any work";
    m_peer.Settle();

    EXPECT_TRUE(m_log.Has(kError, "Registering proxy error, errno 17")) << m_log.Text();
    EXPECT_EQ(m_server.NumberOfClients(), 0u);
    Subscribe(m_peer, {1});
    EXPECT_EQ(m_server.NumberOfClients(), 1u) << "the next one is not affected";
}

TEST_F(ServerRegistry, AClientWithoutProxyAndWatchHasNothingToGiveBack)
{
    TCDbusServer::TSClient client;
    m_log.Clear();

    const TCWriteLock state(m_server.m_stateMutex);
    m_server.m_DestroyClient(client); // a release of nothing would be a critical warning

    EXPECT_EQ(m_log.Text(), "");
}

TEST_F(ServerRegistry, ANameThatIsLostLaterIsReportedAndChangesNothing)
{
    Subscribe(m_peer, {1});

    g_variant_unref(g_dbus_connection_call_sync(
        m_server.m_pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "ReleaseName", g_variant_new("(s)", kBusName), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));

    EXPECT_TRUE(m_log.WaitFor(FailedCheck("KELDbusServer", 233)));
    EXPECT_TRUE(
        m_log.Has(kDebug, Pointer("Name %s has been lost, user_data %p", kBusName, &m_server)));
    EXPECT_TRUE(m_server.IsReady());
    EXPECT_EQ(m_server.SendMessage(1, {}, 1000), TCounts(1, 0));
}

} // namespace

} // namespace kel::test
