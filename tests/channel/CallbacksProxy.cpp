// What an application hears of the agent through the callbacks object.

#include <atomic>

#include "channel/CallbacksTest.h"

namespace kel::test {

namespace {

class CallbacksProxy : public CallbacksTest
{
protected:
    /// The types of the latest "Hello" that the agent has received.
    TBytes LatestHello()
    {
        m_client->SendMessage(99, {}, m_ignored, false); // comes behind it
        const std::vector<TSCall> hellos = m_agent.Calls("Hello");
        return hellos.empty() ? TBytes{0xee} : hellos.back().m_bytes;
    }

    TBytes m_ignored;
    std::atomic<int> m_called{0};
    const boost::function<void()> m_count = [this] { ++m_called; };
    const boost::function<bool()> m_countAndRefuse = [this] {
        ++m_called;
        return false;
    };
};

TEST_F(CallbacksProxy, NothingIsRegisteredBeforeAFunctionIsSet)
{
    EXPECT_TRUE(m_client->m_callbacks.empty());
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{0});
    EXPECT_TRUE(m_log.Has(kDebug, "Callback for type 2 is not registered"));
}

TEST_F(CallbacksProxy, APolicyUpdateCallsTheFunctionAndIsAnsweredWithTrueAndNoData)
{
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    m_log.Clear();

    EXPECT_EQ(m_agent.Send(SendBytes(2, 0, {1, 2, 3})).m_bytes, TBytes{1});

    EXPECT_EQ(m_called, 1);
    EXPECT_TRUE(m_log.Has(kDebug, "Callback called with id 2"));
    EXPECT_EQ(m_agent.Send(SendBytes(2, 1)).m_bytes, TBytes{1});
    EXPECT_EQ(m_called, 2);
}

TEST_F(CallbacksProxy, AProcessInfoRequestIsAnsweredWithTrueWhateverTheFunctionSays)
{
    ASSERT_TRUE(m_proxy->SetRequestProcessInfoCb(m_countAndRefuse));
    m_log.Clear();

    EXPECT_EQ(m_agent.Send(SendBytes(4, 0)).m_bytes, TBytes{1});

    EXPECT_EQ(m_called, 1);
    EXPECT_TRUE(m_log.Has(kDebug, "Callback called with id 4"));
}

TEST_F(CallbacksProxy, ASecondSetIsRefusedAndTheFirstFunctionStays)
{
    std::atomic<int> second(0);
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    ASSERT_TRUE(m_proxy->SetRequestProcessInfoCb(m_countAndRefuse));

    EXPECT_FALSE(m_proxy->SetPolicyUpdateCb([&] { ++second; }));
    EXPECT_FALSE(m_proxy->SetRequestProcessInfoCb([&] { return ++second != 0; }));
    m_agent.Send(SendBytes(2, 0));
    m_agent.Send(SendBytes(4, 0));

    EXPECT_EQ(m_called, 2);
    EXPECT_EQ(second, 0);
}

TEST_F(CallbacksProxy, EveryChangeIsToldToTheAgentAtOnce)
{
    StartAgent();

    EXPECT_TRUE(m_proxy->SetRequestProcessInfoCb(m_countAndRefuse));
    EXPECT_EQ(LatestHello(), HelloBytes({4}));
    EXPECT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    EXPECT_EQ(LatestHello(), HelloBytes({2, 4}));
    EXPECT_TRUE(m_proxy->ResetRequestProcessInfoCb());
    EXPECT_EQ(LatestHello(), HelloBytes({2}));
    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());
    EXPECT_EQ(LatestHello(), HelloBytes({}));
}

TEST_F(CallbacksProxy, AResetEndsTheCallsAndMakesRoomForAnother)
{
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{0});
    EXPECT_EQ(m_called, 0);

    EXPECT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(m_called, 1);
}

TEST_F(CallbacksProxy, AResetOfNothingReturnsFalseAndChangesNothing)
{
    StartAgent();
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    ASSERT_EQ(LatestHello(), HelloBytes({2}));
    m_agent.ForgetCalls();

    EXPECT_FALSE(m_proxy->ResetRequestProcessInfoCb());
    EXPECT_EQ(LatestHello(), TBytes{0xee}) << "no Hello";
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());
    EXPECT_FALSE(m_proxy->ResetPolicyUpdateCb());
}

TEST_F(CallbacksProxy, AResetGivesBackWhatTheFunctionHeld)
{
    const auto held = std::make_shared<int>(0);
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb([held] {}));
    ASSERT_GT(held.use_count(), 1);

    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());

    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(CallbacksProxy, ATypeThatSomebodyElseRegisteredIsRefusedAndTheFunctionNotKept)
{
    ASSERT_TRUE(m_client->SetCallback(2, [](const TBytes&, TBytes& response) {
        response = {7};
        return true;
    }));
    const auto held = std::make_shared<int>(0);

    EXPECT_FALSE(m_proxy->SetPolicyUpdateCb([held] {}));

    EXPECT_EQ(held.use_count(), 1);
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, (TBytes{1, 7}));
    ASSERT_TRUE(m_client->UnSetCallback(2));
    EXPECT_TRUE(m_proxy->SetPolicyUpdateCb(m_count)) << "the member was left empty";
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
}

TEST_F(CallbacksProxy, AnEmptyFunctionIsRegisteredAndNeverCalled)
{
    EXPECT_TRUE(m_proxy->SetPolicyUpdateCb({}));
    EXPECT_TRUE(m_proxy->SetRequestProcessInfoCb({}));
    m_log.Clear();

    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{0});
    for (const TSLogLine& line : m_log.Lines()) {
        EXPECT_NE(line.m_priority, kError) << line.m_message;
    }
    EXPECT_EQ(m_agent.Send(SendBytes(4, 0)).m_bytes, TBytes{0});
    EXPECT_TRUE(m_log.Has(kError, "m_requestProcessInfoCb is NULL"));
}

TEST_F(CallbacksProxy, AFunctionThatThrowsCountsAsNotHandledAndHarmsNothing)
{
    const Watchdog watchdog;
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb([] { throw std::runtime_error("no more"); }));
    ASSERT_TRUE(m_proxy->SetRequestProcessInfoCb([]() -> bool { throw 7; }));

    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{0});
    EXPECT_EQ(m_agent.Send(SendBytes(4, 0)).m_bytes, TBytes{0});

    EXPECT_TRUE(m_log.Has(kError, "Callback for type 2 has thrown: no more")) << m_log.Text();
    EXPECT_TRUE(m_log.Has(kError, "Callback for type 4 has thrown"));
    EXPECT_TRUE(WaitUntil([&] {
        const TCReadLock state(m_client->m_stateMutex);
        return m_client->m_currentSender.empty();
    }));
    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());
    EXPECT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(m_called, 1);
}

TEST_F(CallbacksProxy, AMissingClientIsAFatalAssertion)
{
    auto* const proxy = static_cast<TCCallbacksProxy*>(m_proxy.get());
    const boost::shared_ptr<IDbusClient> kept = proxy->m_pClient;
    proxy->m_pClient.reset();

    EXPECT_DEATH(m_proxy->SetPolicyUpdateCb(m_count), "px != 0");
    EXPECT_DEATH(m_proxy->ResetRequestProcessInfoCb(), "px != 0");

    proxy->m_pClient = kept;
}

class CallbacksSingleton : public CallbacksProxy
{
};

TEST_F(CallbacksSingleton, IsOneObjectUntilItIsDestroyed)
{
    EXPECT_EQ(TCCallbacksProxy::Instance(), m_proxy);

    TCCallbacksProxy::Destroy();

    EXPECT_FALSE(TCCallbacksProxy::Instance());
    TCCallbacksProxy::Destroy();
    EXPECT_FALSE(TCCallbacksProxy::Instance());
}

TEST_F(CallbacksSingleton, WhoHoldsItKeepsAWorkingObject)
{
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));

    TCCallbacksProxy::Destroy();

    EXPECT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(m_called, 1);
    EXPECT_FALSE(m_proxy->SetPolicyUpdateCb(m_count));
    EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());
    EXPECT_TRUE(m_proxy->SetRequestProcessInfoCb(m_countAndRefuse));
    EXPECT_EQ(m_agent.Send(SendBytes(4, 0)).m_bytes, TBytes{1});
    EXPECT_EQ(m_called, 2);
}

TEST_F(CallbacksSingleton, GoesWithItsLastHolderAndTheClientWithIt)
{
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb(m_count));
    const boost::weak_ptr<IDbusClient> client(m_client);
    m_client.reset();
    TCCallbacksProxy::Destroy();
    EXPECT_FALSE(client.expired());

    m_proxy.reset();

    EXPECT_TRUE(client.expired());
}

TEST_F(CallbacksSingleton, MayBeDestroyedBeforeItsFirstUse)
{
    m_client.reset();
    m_proxy.reset();
    TCCallbacksProxy::m_pInstance->reset();

    TCCallbacksProxy::Destroy();

    EXPECT_FALSE(TCCallbacksProxy::Instance());
}

} // namespace

} // namespace kel::test
