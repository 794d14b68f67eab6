// A callback that iterated the main context forgot who had sent its own message, and the server
// called the very client that was blocked.

#include <atomic>

#include <gio/gio.h>

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

class SenderOfAnOuterMessage : public ServerTest
{
protected:
    void SetUp() override
    {
        ServerTest::SetUp();
        Subscribe(m_outer, {5});
        m_outer.SetAnswer("Send", RawPeer::TSAnswer::Nothing()); // it is blocked
        m_server.SetCallback(2, [this](const TBytes&, TBytes&) {
            m_nested = true;
            return true;
        });
        m_server.SetCallback(1, [this](const TBytes&, TBytes&) {
            m_inner.Post("Send", Body(SendBytes(2, m_innerFlag)), true);
            while (!m_nested) {
                g_main_context_iteration(nullptr, TRUE);
            }
            m_counts = m_server.SendMessage(5, {}, 200);
            return true;
        });
    }

    RawPeer m_outer{m_bus};
    RawPeer m_inner{m_bus};
    std::atomic<unsigned char> m_innerFlag{0};
    bool m_nested = false;
    TCounts m_counts;
};

TEST_F(SenderOfAnOuterMessage, IsNotCalledAfterANestedMessage)
{
    EXPECT_EQ(m_outer.Send(SendBytes(1, 0)).m_bytes, TBytes{1});
    m_loop.Settle();

    EXPECT_EQ(m_counts, TCounts(0, 1));
    EXPECT_TRUE(m_outer.Calls("Send").empty());
    EXPECT_TRUE(m_log.Has(kError, "Unable to send message to " + m_outer.Name()
                                      + ", type 5, waiting for sync replay"));
}

TEST_F(SenderOfAnOuterMessage, IsNotCalledAfterANestedMessageThatNobodyWaitsFor)
{
    m_innerFlag = 1;

    EXPECT_EQ(m_outer.Send(SendBytes(1, 0)).m_bytes, TBytes{1});
    m_loop.Settle();

    EXPECT_EQ(m_counts, TCounts(0, 1));
    EXPECT_TRUE(m_outer.Calls("Send").empty());
}

} // namespace

} // namespace kel::test
