#include <algorithm>
#include <functional>
#include <thread>

#include <gmock/gmock.h>

#include "unit/DeactivatorTest.h"

namespace kel::test {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

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

TEST_F(DeactivatorOfTheControlObject, TenCallsForItRegisterItsEndOnce)
{
    for (int i = 0; i < 10; ++i) {
        EXPECT_NE(api::GetControl(), nullptr);
    }

    EXPECT_THAT(m_deactivator.m_functions, ElementsAre(&TCControlProxy::Destroy));
    EXPECT_EQ(m_log.Count("Register a new DBUS callback"), 1u);
    EXPECT_EQ(m_log.Count("DBUS callback already registered"), 9u);
}

} // namespace

} // namespace kel::test
