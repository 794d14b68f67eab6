// What an agent and an application cost that have nothing to do.

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/SystemCalls.h"

namespace kel::test {

using namespace std::chrono_literals;

// What follows a start has ended. Who is traced is woken by that: so it is not traced before.
bool IsQuiet(const ChildProcess& program, size_t sleeps)
{
    return WaitUntil([&] { return CountSleeps(program.Id(), 1s) <= sleeps; });
}

TEST_F(ReportRoad, AnIdleAgentIsWokenOnceASecond)
{
    const auto agent = StartCollector();
    LetItLook();
    ASSERT_TRUE(IsQuiet(*agent, 1));

    EXPECT_LE(CountSleeps(agent->Id(), 5s), 6U);
}

TEST_F(ReportRoad, AnIdleApplicationIsWokenByNothing)
{
    const auto agent = StartCollector();
    ChildProcess application({KEL_HEAR_POLICY_EXAMPLE});
    ASSERT_TRUE(IsQuiet(application, 0));

    EXPECT_EQ(CountSleeps(application.Id(), 5s), 0U);
    EXPECT_EQ(CountSystemCalls(application.Id(), 5s), 0U);
    EXPECT_EQ(SetPolicy("<policy/>").m_exit, 0);
    EXPECT_TRUE(application.WaitForOutput("the policy has changed\n")) << "it was not listening";
}

} // namespace kel::test
