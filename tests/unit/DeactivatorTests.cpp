#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELControlProxy.h>
#include <kel/KELDeactivator.h>
#include <kel/api.h>

#include "Messages.h"

using kel::TCDeactivator;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

typedef void (*TFunction)();

std::vector<std::string> events;

template <int number> void Function() { events.push_back("function " + std::to_string(number)); }

class TCUser : public kel::TIDestroyCallback
{
public:
    explicit TCUser(const char* name) : m_name(name) {}
    void OnDestroy() override { events.push_back(m_name); }

private:
    const std::string m_name;
};

// The switch is thrown once in a process: these tests put it back, and use it up once each. They
// act on the one instance, as the static operations do.
class Deactivator : public testing::Test
{
protected:
    Deactivator()
        : m_deactivator(TCDeactivator::m_instance), m_functions(m_deactivator.m_functions),
          m_pUser(m_deactivator.m_pUser)
    {
        m_deactivator.m_functions.clear();
        m_deactivator.m_pUser = nullptr;
        events.clear();
    }

    ~Deactivator() override
    {
        TCDeactivator::m_destroyed = false;
        m_deactivator.m_functions = m_functions;
        m_deactivator.m_pUser = m_pUser;
    }

    kel::test::LogRecorder m_log;
    TCDeactivator& m_deactivator;
    TCUser m_a{"user a"};
    TCUser m_b{"user b"};

private:
    const std::set<TFunction> m_functions;
    kel::TIDestroyCallback* const m_pUser;
};

TEST_F(Deactivator, TellsTheUserFirstAndThenTheFunctionsInTheirAddressesOrder)
{
    std::vector<std::pair<TFunction, std::string>> functions{{&Function<1>, "function 1"},
                                                             {&Function<2>, "function 2"},
                                                             {&Function<3>, "function 3"},
                                                             {&Function<4>, "function 4"}};
    for (const auto& [fn, name] : functions) {
        TCDeactivator::RegisterDBUS(fn);
    }
    EXPECT_TRUE(TCDeactivator::RegisterUser(m_a));

    m_deactivator.m_Deactivate();

    std::sort(functions.begin(), functions.end(), [](const auto& left, const auto& right) {
        return std::less<TFunction>()(left.first, right.first);
    });
    std::vector<std::string> expected{"user a"};
    for (const auto& [fn, name] : functions) {
        expected.push_back(name);
    }
    EXPECT_EQ(events, expected);
}

TEST_F(Deactivator, RunsOnce)
{
    TCDeactivator::RegisterDBUS(&Function<1>);
    TCDeactivator::RegisterUser(m_a);

    m_deactivator.m_Deactivate();
    m_deactivator.m_Deactivate();
    {
        TCDeactivator another;
        another.m_functions.insert(&Function<2>);
    }

    EXPECT_THAT(events, ElementsAre("user a", "function 1"));
}

TEST_F(Deactivator, RunsFromTheDestructor)
{
    {
        TCDeactivator ending;
        ending.m_functions.insert(&Function<2>);
        ending.m_pUser = &m_b;
        EXPECT_THAT(events, IsEmpty());
    }

    EXPECT_THAT(events, ElementsAre("user b", "function 2"));
    EXPECT_TRUE(TCDeactivator::m_destroyed);
}

TEST_F(Deactivator, KeepsAFunctionOnce)
{
    TCDeactivator::RegisterDBUS(&Function<1>);
    TCDeactivator::RegisterDBUS(&Function<1>);
    TCDeactivator::RegisterDBUS(&Function<2>);

    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("3 Register a new DBUS callback", "3 DBUS callback already registered",
                            "3 Register a new DBUS callback"));
    EXPECT_THAT(m_deactivator.m_functions, SizeIs(2));
}

TEST_F(Deactivator, RefusesFunctionsAfterwards)
{
    m_deactivator.m_Deactivate();

    TCDeactivator::RegisterDBUS(&Function<1>);

    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Unable to register user callback - already destroyed"));
    EXPECT_THAT(m_deactivator.m_functions, IsEmpty());
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(Deactivator, HasOneSlotForAUser)
{
    EXPECT_TRUE(TCDeactivator::RegisterUser(m_a));
    EXPECT_FALSE(TCDeactivator::RegisterUser(m_b));
    EXPECT_FALSE(TCDeactivator::RegisterUser(m_a));

    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Unable to register user callback - destroyed 0",
                            "6 Unable to register user callback - destroyed 0"));
    m_deactivator.m_Deactivate();
    EXPECT_THAT(events, ElementsAre("user a"));
}

TEST_F(Deactivator, RefusesAUserAfterwards)
{
    m_deactivator.m_Deactivate();

    EXPECT_FALSE(TCDeactivator::RegisterUser(m_a));

    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Unable to register user callback - destroyed 1"));
    EXPECT_EQ(m_deactivator.m_pUser, nullptr);
}

TEST_F(Deactivator, UnregisteringClearsTheSlotWhoeverIsInIt)
{
    TCDeactivator::RegisterUser(m_a);

    TCDeactivator::UnregisterUser(m_b);

    EXPECT_EQ(m_deactivator.m_pUser, nullptr);
    EXPECT_TRUE(TCDeactivator::RegisterUser(m_b));
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

TEST_F(Deactivator, UnregisteringAfterwardsChangesNothing)
{
    TCDeactivator::RegisterUser(m_a);
    m_deactivator.m_Deactivate();

    TCDeactivator::UnregisterUser(m_a);

    EXPECT_EQ(m_deactivator.m_pUser, &m_a);
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

// A user that takes its time.
class TCSlowUser : public kel::TIDestroyCallback
{
public:
    void OnDestroy() override
    {
        m_entered.set_value();
        m_leave.get_future().wait();
        m_told = true;
    }

    std::promise<void> m_entered;
    std::promise<void> m_leave;
    std::atomic<bool> m_told{false};
};

TEST_F(Deactivator, UnregisteringWaitsForAUserThatIsBeingTold)
{
    TCSlowUser user;
    TCDeactivator::RegisterUser(user);
    const auto deactivation
        = std::async(std::launch::async, [this] { m_deactivator.m_Deactivate(); });
    user.m_entered.get_future().wait();

    auto unregistering = std::async(std::launch::async, [&user] {
        TCDeactivator::UnregisterUser(user);
        return user.m_told.load();
    });
    EXPECT_EQ(unregistering.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    user.m_leave.set_value();

    EXPECT_TRUE(unregistering.get());
}

// The function waits for a thread that registers: exit waits for the handlers of other threads.
TEST_F(Deactivator, NobodyWaitsForTheFunctions)
{
    TCDeactivator::RegisterUser(m_a);
    TCDeactivator::RegisterDBUS([] {
        std::async(std::launch::async, [] {
            TCDeactivator::RegisterDBUS(&Function<1>);
            TCUser user("user");
            TCDeactivator::RegisterUser(user);
            TCDeactivator::UnregisterUser(user);
            events.push_back(kel::api::GetControl() == nullptr ? "none" : "control");
        }).wait();
    });

    m_deactivator.m_Deactivate();

    EXPECT_THAT(events, ElementsAre("user a", "none"));
}

TEST_F(Deactivator, ManyThreadsRegisterOneEntry)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 100; ++round) {
                TCDeactivator::RegisterDBUS(&Function<1>);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_THAT(m_deactivator.m_functions, ElementsAre(&Function<1>));
    EXPECT_EQ(m_log.Count("Register a new DBUS callback"), 1u);
    EXPECT_EQ(m_log.Count("DBUS callback already registered"), 799u);
}

// The control object belongs to this process once: it is ended here for good.
class DeactivatorOfTheControlObject : public Deactivator
{
protected:
    ~DeactivatorOfTheControlObject() override
    {
        kel::TCControlProxy::Destroy();
        kel::TCControlProxy::m_destroyed = false;
    }
};

TEST_F(DeactivatorOfTheControlObject, TenCallsForItRegisterItsEndOnce)
{
    for (int i = 0; i < 10; ++i) {
        EXPECT_NE(kel::api::GetControl(), nullptr);
    }

    EXPECT_THAT(m_deactivator.m_functions, ElementsAre(&kel::TCControlProxy::Destroy));
    EXPECT_EQ(m_log.Count("Register a new DBUS callback"), 1u);
    EXPECT_EQ(m_log.Count("DBUS callback already registered"), 9u);
}

TEST_F(DeactivatorOfTheControlObject, DeactivationEndsIt)
{
    const boost::shared_ptr<kel::IControl> held = kel::api::GetControl();
    ASSERT_NE(held, nullptr);

    m_deactivator.m_Deactivate();
    m_log.Clear();

    EXPECT_EQ(kel::api::GetControl(), nullptr);
    EXPECT_EQ(kel::TCControlProxy::Instance(), nullptr);
    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Unable to register user callback - already destroyed"));
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_EQ(held->SetPolicy("x"), -1) << "who holds it keeps a working object";
}

} // namespace
