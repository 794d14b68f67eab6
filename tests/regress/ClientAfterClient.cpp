// A client made while the last one was ending found the object path taken and was dead: every send
// through it failed, for everybody who asked the provider.

#include <future>

#include "channel/ChannelTest.h"
#include "support/Threads.h"

namespace kel::test {

namespace {

class ClientAfterClient : public ChannelTest
{
protected:
    ClientAfterClient() { EXPECT_TRUE(m_agent.OwnName()); }

    bool IsAnswered(IDbusClient& client)
    {
        TBytes response;
        return client.SendMessage(4, {}, response, false);
    }

    RawPeer m_agent{m_bus};
};

TEST_F(ClientAfterClient, BeginsAndWorksWhileTheLastOneWaitsForItsCallback)
{
    Gate inside;
    Gate leave;
    auto client = TCDbusClientProvider::Get(false);
    client->SetCallback(1, [&](const TBytes&, TBytes&) {
        inside.Open();
        leave.Wait();
        return true;
    });
    m_agent.SetTarget(boost::dynamic_pointer_cast<TCDbusClient>(client)->GetUniqueName());
    m_agent.Post("Send", Body(SendBytes(1, 1)));
    inside.Wait();
    const boost::weak_ptr<IDbusClient> last(client);
    std::future<void> ended = std::async(std::launch::async, [&] { client.reset(); });
    ASSERT_TRUE(WaitUntil([&] { return last.expired(); }));

    const auto next = TCDbusClientProvider::Get(false);

    EXPECT_TRUE(IsAnswered(*next));
    leave.Open();
    ended.wait();
    EXPECT_TRUE(WaitUntil([&] { return next->IsReady(); }));
    next->SetCallback(2, [](const TBytes&, TBytes&) { return true; });
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1}) << "it has the object path";
}

TEST_F(ClientAfterClient, MayBeTakenInsideACallbackOfTheEndingOne)
{
    Gate inside;
    boost::shared_ptr<IDbusClient> next;
    auto client = TCDbusClientProvider::Get(false);
    const boost::weak_ptr<IDbusClient> last(client);
    client->SetCallback(1, [&](const TBytes&, TBytes&) {
        inside.Open();
        EXPECT_TRUE(WaitUntil([&] { return last.expired(); }));
        next = TCDbusClientProvider::Get(false);
        return IsAnswered(*next);
    });
    m_agent.SetTarget(boost::dynamic_pointer_cast<TCDbusClient>(client)->GetUniqueName());
    const guint32 call = m_agent.Post("Send", Body(SendBytes(1, 1)));
    inside.Wait();

    client.reset(); // waits for the callback, which does not wait for it

    EXPECT_EQ(m_agent.WaitReply(call).m_bytes, TBytes{1});
    EXPECT_TRUE(WaitUntil([&] { return next->IsReady(); }));
}

TEST_F(ChannelTest, AServerMayBeginWhileTheLastOneWaitsForItsCallback)
{
    RawPeer peer(m_bus);
    Gate inside;
    Gate leave;
    auto last = std::make_unique<TCDbusServer>(false);
    peer.SetTarget(last->GetUniqueName());
    last->SetCallback(1, [&](const TBytes&, TBytes&) {
        inside.Open();
        leave.Wait();
        return true;
    });
    peer.Post("Send", Body(SendBytes(1, 1)), true);
    inside.Wait();
    m_log.Clear();
    std::future<void> ended = std::async(std::launch::async, [&] { last.reset(); });

    std::unique_ptr<TCDbusServer> next;
    const auto begin = [&] {
        next = std::make_unique<TCDbusServer>(false);
        return next->m_registrationId != 0;
    };
    EXPECT_TRUE(WaitUntil(begin)) << "the last one has the object path while it waits";

    EXPECT_EQ(ended.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    leave.Open();
    ended.wait();
    EXPECT_EQ(peer.Send(SendBytes(2, 0)).m_bytes, TBytes{0}) << "the next one answers";
}

} // namespace

} // namespace kel::test
