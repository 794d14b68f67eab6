// After an empty function had been set, a set that was refused had its function called by an event
// that came before the refusal.

#include <atomic>

#include "channel/CallbacksTest.h"
#include "support/Threads.h"

namespace kel::test {

namespace {

TEST_F(CallbacksTest, AFunctionThatIsRefusedIsNeverCalled)
{
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(boost::function<void()>()));
    ASSERT_TRUE(m_proxy->SetRequestProcessInfoCb(boost::function<bool()>()));
    std::atomic<int> called(0);
    std::atomic<int> handled(0);
    const Repeat sets([&] {
        EXPECT_FALSE(m_proxy->SetPolicyUpdateCb([&] { ++called; }));
        EXPECT_FALSE(m_proxy->SetRequestProcessInfoCb([&] { return ++called != 0; }));
    });

    for (int i = 0; i < 500; ++i) {
        handled += m_agent.Send(SendBytes(2, 0)).m_bytes == TBytes{1} ? 1 : 0;
        handled += m_agent.Send(SendBytes(4, 0)).m_bytes == TBytes{1} ? 1 : 0;
    }

    EXPECT_EQ(called, 0);
    EXPECT_EQ(handled, 0);
    EXPECT_TRUE(m_log.Has(kError, "m_requestProcessInfoCb is NULL"));
}

TEST_F(CallbacksTest, AnEmptyFunctionIsResetLikeAnyOther)
{
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(boost::function<void()>()));

    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());

    std::atomic<int> called(0);
    EXPECT_TRUE(m_proxy->SetPolicyUpdateCb([&] { ++called; }));
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(called, 1);
}

} // namespace

} // namespace kel::test
