// An agent that had nothing to do walked both drops every second: 60 system calls.

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/SystemCalls.h"

namespace kel::test {

TEST_F(ReportRoad, AnIdleAgentMakesThreeSystemCallsASecond)
{
    const auto agent = StartCollector();
    LetItLook();
    // What follows the last report: the minute's line, a bus that says good-bye.
    ASSERT_TRUE(
        WaitUntil([&] { return CountSystemCalls(agent->Id(), std::chrono::seconds(1)) <= 3; }));

    EXPECT_LE(CountSystemCalls(agent->Id(), std::chrono::seconds(5)), 18U);
}

} // namespace kel::test
