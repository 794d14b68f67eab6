// A function that used its callbacks object after the object's end, or at its own, deadlocked.

#include <atomic>

#include "channel/CallbacksTest.h"

namespace kel::test {

namespace {

TEST_F(CallbacksTest, AFunctionThatAsksForTheObjectAfterItsEndGetsNone)
{
    const Watchdog watchdog;
    std::atomic<bool> empty(false);
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb([&] { empty = !TCCallbacksProxy::Instance(); }));
    TCCallbacksProxy::Destroy();

    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});

    EXPECT_TRUE(empty);
}

TEST_F(CallbacksTest, WhatAFunctionHeldMayUseTheProxyWhenItGoes)
{
    const Watchdog watchdog;
    std::atomic<int> called(0);
    std::shared_ptr<void> held(
        nullptr, [&](void*) { EXPECT_TRUE(m_proxy->SetPolicyUpdateCb([&called] { ++called; })); });
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb([held] {}));
    held.reset();

    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());

    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(called, 1);
}

} // namespace

} // namespace kel::test
