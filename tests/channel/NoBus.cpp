// Both ends where there is no system bus.

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

class NoBus : public testing::Test
{
protected:
    NoBus()
    {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/at/all", 1);
        GError* error = nullptr;
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
        m_line = "Connecting to system bus error, errno " + std::to_string(error->code);
        g_error_free(error);
    }
    ~NoBus() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    LogRecorder m_log;
    HostLoop m_loop;
    std::string m_line;
};

TEST_F(NoBus, AClientExistsAndFailsPromptly)
{
    const auto start = std::chrono::steady_clock::now();
    TCDbusClient client(false);
    TBytes response{0xee};

    EXPECT_EQ(m_log.Text(), "6 KELDbus: " + m_line + "\n");
    EXPECT_FALSE(client.IsReady());
    EXPECT_EQ(client.GetUniqueName(), "");
    m_log.Clear();
    EXPECT_FALSE(client.SendMessage(4, {1}, response, false));
    EXPECT_EQ(m_log.Text(), "3 KELDbusClient: Connection is not ready\n"
                            "3 KELDbusClient: Send hello \n"
                            "6 KELDbusClient: pResult is NULL\n");
    EXPECT_TRUE(client.SendMessage(4, {1}, response, true));
    EXPECT_EQ(response, TBytes{0xee});
    EXPECT_TRUE(client.SetCallback(1, [](const TBytes&, TBytes&) { return true; }));
    EXPECT_TRUE(client.UnSetCallback(1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(NoBus, AServerExistsAndSendsNothing)
{
    const size_t threads = CountThreads();
    TCDbusServer server(false);

    EXPECT_EQ(m_log.Text(), "6 KELDbus: " + m_line + "\n");
    EXPECT_EQ(CountThreads(), threads);
    EXPECT_FALSE(server.IsReady());
    EXPECT_EQ(server.GetUniqueName(), "");
    EXPECT_EQ(server.NumberOfClients(), 0u);
    EXPECT_EQ(server.SendMessage(1, {1}, 1000), TCounts(0, 0));
    EXPECT_TRUE(m_log.Has(kDebug, "Connection is ready 0, number of clients 0"));
    EXPECT_TRUE(server.SetCallback(1, [](const TBytes&, TBytes&) { return true; }));
    EXPECT_TRUE(server.UnSetCallback(1));
}

TEST_F(NoBus, TheProviderHandsOutAClientAllTheSame)
{
    const auto client = TCDbusClientProvider::Get(false);

    ASSERT_NE(client, nullptr);
    EXPECT_FALSE(client->IsReady());
    EXPECT_EQ(client, TCDbusClientProvider::Get(false));
}

} // namespace

} // namespace kel::test
