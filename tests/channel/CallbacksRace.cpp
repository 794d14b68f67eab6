// Where the threads of the callbacks object meet: the application sets and resets functions, the
// agent's events call them, and they call the library.

#include <atomic>
#include <future>
#include <set>

#include <kel/api.h>

#include "channel/CallbacksTest.h"
#include "support/Archives.h"
#include "support/Threads.h"

namespace kel::test {

namespace {

typedef RawPeer::TSAnswer TSAnswer;
typedef std::chrono::steady_clock TClock;

/// What an agent answers that has set a policy.
TSAnswer PolicyResult(int result)
{
    TBytes archive = ArchiveOf(result);
    archive.insert(archive.begin(), 1);
    return TSAnswer::Bytes(archive);
}

class CallbacksRace : public CallbacksTest
{
protected:
    /// Returns when the agent has read every "Hello" so far: each change sends one, and a flood of
    /// them would be all that there is to see.
    void Pace()
    {
        TBytes ignored;
        m_client->SendMessage(99, {}, ignored, false);
    }

    /// Has the agent send events of both types, one behind the other, a few under way together.
    void SendEvents()
    {
        for (int i = 0; i < 4; ++i) {
            m_agent.Post("Send", Body(SendBytes(2 + 2 * (i % 2), 1)), true);
        }
        m_agent.Send(SendBytes(2, 0));
    }
};

TEST_F(CallbacksRace, SetsAndResetsRacingEventsNeverBlockAndNoFunctionOutlivesItsReset)
{
    const Watchdog watchdog;
    StartAgent();
    std::atomic<unsigned int> called(0);
    std::atomic<unsigned int> late(0);
    std::atomic<unsigned int> wrong(0);
    std::atomic<unsigned int> rounds(0);
    const auto makeFunction = [&](const std::shared_ptr<std::atomic<bool>>& set) {
        return [&, set] {
            late += *set ? 0 : 1;
            ++called;
            std::this_thread::yield();
            late += *set ? 0 : 1;
            return false;
        };
    };
    {
        const Repeat events([this] { SendEvents(); });
        const Repeat policy([&] {
            const auto set = std::make_shared<std::atomic<bool>>(true);
            wrong += m_proxy->SetPolicyUpdateCb(makeFunction(set)) ? 0 : 1;
            wrong += m_proxy->SetPolicyUpdateCb([] {}) ? 1 : 0;
            if (rounds % 2 == 0) {
                m_agent.Send(SendBytes(2, 0));
            }
            wrong += m_proxy->ResetPolicyUpdateCb() ? 0 : 1;
            *set = false;
            ++rounds;
            Pace();
        });
        const Repeat info([&] {
            const auto set = std::make_shared<std::atomic<bool>>(true);
            wrong += m_proxy->SetRequestProcessInfoCb(makeFunction(set)) ? 0 : 1;
            wrong += m_proxy->ResetRequestProcessInfoCb() ? 0 : 1;
            *set = false;
            Pace();
            m_log.Clear();
            m_agent.ForgetCalls();
        });
        const Repeat instances([&] { wrong += TCCallbacksProxy::Instance() == m_proxy ? 0 : 1; });
        std::this_thread::sleep_for(std::chrono::seconds(3)); // as long as the race is to last
    }

    EXPECT_GT(rounds, 10u);
    EXPECT_GT(called, 10u);
    EXPECT_EQ(late, 0u) << "calls of functions that had been reset";
    EXPECT_EQ(wrong, 0u) << "results";
}

TEST_F(CallbacksRace, AResetReturnsWhenTheFunctionRunsNoMore)
{
    const Watchdog watchdog;
    Gate gate;
    std::promise<void> entered;
    std::atomic<bool> left(false);
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb([&] {
        entered.set_value();
        gate.Wait();
        left = true;
    }));
    const guint32 event = m_agent.Post("Send", Body(SendBytes(2, 0)));
    entered.get_future().wait();

    std::future<bool> leftBefore = std::async(std::launch::async, [&] {
        EXPECT_TRUE(m_proxy->ResetPolicyUpdateCb());
        return left.load();
    });
    EXPECT_TRUE(WaitUntil([this] { return IsWriterWaiting(m_client->m_callbacksMutex); }));
    gate.Open();

    EXPECT_TRUE(leftBefore.get());
    EXPECT_EQ(m_agent.WaitReply(event).m_bytes, TBytes{1}) << "it was called all the same";
}

/// What a function does, with or without an agent.
class CallbacksReentry : public CallbacksRace, public testing::WithParamInterface<bool>
{
protected:
    static constexpr int kResult = 3;

    void SetUp() override
    {
        m_agent.SetAnswer("Send", PolicyResult(kResult));
        if (GetParam()) {
            StartAgent();
        }
    }

    int Expected() const { return GetParam() ? kResult : -1; }
};

INSTANTIATE_TEST_SUITE_P(Agent, CallbacksReentry, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& agent) {
                             return agent.param ? "Present" : "Absent";
                         });

TEST_P(CallbacksReentry, AFunctionMaySendWhileAnotherThreadWaitsToReset)
{
    const Watchdog watchdog;
    std::promise<void> entered;
    std::atomic<int> result(0);
    std::atomic<bool> same(false);
    ASSERT_TRUE(m_proxy->SetRequestProcessInfoCb([&] {
        entered.set_value();
        EXPECT_TRUE(WaitUntil([this] { return IsWriterWaiting(m_client->m_callbacksMutex); }));
        same = TCCallbacksProxy::Instance() == m_proxy;
        result = api::GetControl()->SetPolicy("from inside");
        return true;
    }));
    const guint32 event = m_agent.Post("Send", Body(SendBytes(4, 0)));
    entered.get_future().wait();

    EXPECT_TRUE(m_proxy->ResetRequestProcessInfoCb());

    EXPECT_EQ(m_agent.WaitReply(event).m_bytes, TBytes{1});
    EXPECT_EQ(result, Expected());
    EXPECT_TRUE(same);
}

TEST_P(CallbacksReentry, FunctionsMaySendWhileOtherThreadsSetAndReset)
{
    const Watchdog watchdog;
    std::atomic<unsigned int> wrong(0);
    std::atomic<unsigned int> called(0);
    ASSERT_TRUE(m_proxy->SetPolicyUpdateCb([&] {
        wrong += TCCallbacksProxy::Instance() == m_proxy ? 0 : 1;
        wrong += api::GetControl()->SetPolicy("from inside") == Expected() ? 0 : 1;
        ++called;
    }));
    {
        const Repeat others([&] {
            wrong += m_proxy->SetRequestProcessInfoCb([] { return true; }) ? 0 : 1;
            wrong += m_proxy->ResetRequestProcessInfoCb() ? 0 : 1;
            Pace();
        });
        const Repeat refused([&] { wrong += m_proxy->SetPolicyUpdateCb([] {}) ? 1 : 0; });
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(m_agent.Send(SendBytes(2, 0)).m_bytes, TBytes{1});
            m_agent.ForgetCalls();
            m_log.Clear();
        }
    }

    EXPECT_EQ(called, 100u);
    EXPECT_EQ(wrong, 0u);
}

TEST_F(CallbacksRace, SixtyFourFirstUsesMakeOneObject)
{
    const Watchdog watchdog;
    m_proxy.reset();
    m_client.reset();
    TCCallbacksProxy::m_pInstance->reset();
    m_log.Clear();
    Gate gate;
    std::vector<std::future<boost::shared_ptr<ICallbacks>>> uses;
    for (int i = 0; i < 64; ++i) {
        uses.push_back(std::async(std::launch::async, [&gate] {
            gate.Wait();
            return TCCallbacksProxy::Instance();
        }));
    }

    gate.Open();

    std::set<boost::shared_ptr<ICallbacks>> objects;
    for (auto& use : uses) {
        objects.insert(use.get());
    }
    EXPECT_EQ(objects.size(), 1u);
    EXPECT_TRUE(*objects.begin());
    const auto client = boost::dynamic_pointer_cast<TCDbusClient>(TCDbusClientProvider::Get(false));
    EXPECT_EQ(m_log.Count("Working with unique name " + client->GetUniqueName()), 1u)
        << "one object, one client";
}

TEST_F(CallbacksRace, TheEndOfTheLastHolderIsSafeWhileEventsArrive)
{
    const Watchdog watchdog;
    std::atomic<unsigned int> called(0);
    std::atomic<unsigned int> late(0);
    // Keeps the connection, and so its name, from one client to the next.
    const std::unique_ptr<GDBusConnection, void (*)(gpointer)> shared(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr), &g_object_unref);
    const Repeat events([this] { SendEvents(); });
    const TClock::time_point end = TClock::now() + std::chrono::seconds(2);

    for (int round = 0; round < 200 && TClock::now() < end; ++round) {
        const auto alive = std::make_shared<std::atomic<bool>>(true);
        ASSERT_TRUE(m_proxy->SetPolicyUpdateCb([&, alive] {
            ++called;
            std::this_thread::yield();
            late += *alive ? 0 : 1;
        }));
        if (round % 2 == 0) {
            const unsigned int before = called;
            ASSERT_TRUE(WaitUntil([&] { return called != before; }));
        }
        m_client.reset();

        TCCallbacksProxy::Destroy();
        m_proxy.reset();
        *alive = false;

        Renew();
        m_log.Clear();
    }

    EXPECT_GT(called, 5u);
    EXPECT_EQ(late, 0u);
}

} // namespace

} // namespace kel::test
