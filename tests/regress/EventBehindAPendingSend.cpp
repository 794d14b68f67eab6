// An event waited behind a synchronous send of another thread: to note its sender it wanted the
// state mutex, which the send holds until its answer is there.

#include <future>

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

TEST_F(ClientTest, AnEventIsHandledWhileASendOfAnotherThreadIsPending)
{
    StartAgent();
    m_agent.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    m_client->SetCallback(1, [](const TBytes&, TBytes&) { return true; });
    std::future<bool> sent = std::async(std::launch::async, [this] {
        TBytes response;
        return m_client->SendMessage(4, {}, response, false);
    });
    ASSERT_TRUE(m_agent.WaitForCalls("Send", 1));

    const TSReply reply = m_agent.Send(SendBytes(1, 0));

    EXPECT_EQ(reply.m_bytes, TBytes{1});
    EXPECT_EQ(sent.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "the send was over before the event was handled";
    m_agent.Answer(m_agent.Calls("Send").at(0), RawPeer::TSAnswer::Bytes({1}));
    EXPECT_TRUE(sent.get());
}

} // namespace

} // namespace kel::test
