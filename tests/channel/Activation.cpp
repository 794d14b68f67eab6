// The application's end with an agent that the bus starts, and that uses none of our code.

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

constexpr int kDieBefore = 98; // the foreign agent's orders
constexpr int kDieAfter = 99;

bool Accept(const TBytes&, TBytes&) { return true; }

class Activation : public ChannelTest
{
protected:
    Activation()
    {
        m_bus.AddService(kBusName, "/usr/bin/python3 '" KEL_FOREIGN_AGENT "'");
        for (const int type : {7, 2, 5}) {
            m_client.SetCallback(type, Accept);
        }
    }

    /// What the agent answers: the greeting it has heard, and the request.
    static TBytes Echo(const std::vector<int>& hello, const TBytes& request)
    {
        TBytes bytes = HelloBytes(hello);
        bytes.insert(bytes.end(), request.begin(), request.end());
        return bytes;
    }

    TCDbusClient m_client{false};
    TBytes m_response;
};

TEST_F(Activation, WatchingTheNameDoesNotStartTheAgent)
{
    ASSERT_TRUE(m_log.WaitFor(std::string("Name vanished - name ") + kBusName));
    m_client.SetCallback(9, Accept);
    m_loop.Settle();

    EXPECT_FALSE(m_client.IsReady());
}

TEST_F(Activation, ASynchronousSendStartsTheAgentAndIsAnswered)
{
    EXPECT_TRUE(m_client.SendMessage(4, {0x41, 0x00, 0x42}, m_response, false)) << m_log.Text();

    EXPECT_EQ(m_response, Echo({2, 5, 7}, {4, 0, 0, 0, 0, 0x41, 0x00, 0x42}));
    EXPECT_TRUE(WaitUntil([this] { return m_client.IsReady(); }));
}

TEST_F(Activation, AnAsynchronousSendStartsTheAgent)
{
    EXPECT_TRUE(m_client.SendMessage(4, {}, m_response, true));

    EXPECT_TRUE(WaitUntil([this] { return m_client.IsReady(); }));
    EXPECT_EQ(m_response, TBytes());
}

TEST_F(Activation, AnAgentThatWentAwayIsStartedAgainAndGreetedAgain)
{
    const std::string vanished = std::string("Name vanished - name ") + kBusName;
    ASSERT_TRUE(m_log.WaitFor(vanished)); // there was none before the first
    ASSERT_TRUE(m_client.SendMessage(kDieAfter, {}, m_response, false)) << m_log.Text();
    // Readiness does not tell: a client that has not seen the agent yet is not ready either, and
    // its next message would go to the agent that is no more.
    ASSERT_TRUE(m_log.WaitFor(vanished, 2)) << m_log.Text();
    m_loop.Settle();
    m_client.SetCallback(3, Accept);

    EXPECT_TRUE(m_client.SendMessage(4, {}, m_response, false)) << m_log.Text();

    EXPECT_EQ(m_response, Echo({2, 3, 5, 7}, SendBytes(4, 0)));
}

TEST_F(Activation, AnAgentThatDiesInsteadOfAnsweringIsAFailureAtOnce)
{
    ASSERT_TRUE(m_client.SendMessage(4, {}, m_response, false)) << m_log.Text();
    m_response = {0xee};

    EXPECT_FALSE(m_client.SendMessage(kDieBefore, {}, m_response, false));

    EXPECT_EQ(m_response, TBytes{0xee});
    EXPECT_TRUE(
        m_log.Has(kError, "Sending message error, errno " + std::to_string(G_DBUS_ERROR_NO_REPLY)))
        << m_log.Text();
}

} // namespace

} // namespace kel::test
