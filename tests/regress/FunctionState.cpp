// An application's function began each call with the state that it had been registered with.

#include "channel/CallbacksTest.h"

namespace kel::test {

namespace {

TEST_F(ServerTest, ACallbackKeepsItsStateFromMessageToMessage)
{
    RawPeer peer(m_bus);
    const auto shared = std::make_shared<int>();
    std::vector<int> counts;
    m_server.SetCallback(5, [&counts, shared, count = 0](const TBytes&, TBytes&) mutable {
        counts.push_back(++count);
        return true;
    });

    for (int i = 0; i < 3; ++i) {
        peer.Send(SendBytes(5, 0));
    }
    m_loop.Settle();

    EXPECT_EQ(counts, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(shared.use_count(), 2) << "there is one of it";
    m_server.UnSetCallback(5);
    EXPECT_EQ(shared.use_count(), 1);
}

TEST_F(CallbacksTest, AFunctionKeepsItsStateFromEventToEvent)
{
    std::vector<int> counts;
    m_proxy->SetPolicyUpdateCb([&counts, count = 0]() mutable { counts.push_back(++count); });
    m_proxy->SetRequestProcessInfoCb([&counts, count = 10]() mutable {
        counts.push_back(++count);
        return true;
    });

    for (const int type : {2, 4, 2, 4}) {
        m_agent.Send(SendBytes(type, 0));
    }

    m_loop.Settle();
    EXPECT_EQ(counts, (std::vector<int>{1, 11, 2, 12}));
}

} // namespace

} // namespace kel::test
