// For half a second an agent that owned its name had no drop directories: a request failed.

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

TEST_F(ReportRoad, WhenTheAgentOwnsItsNameARequestCanBeFiled)
{
    const auto agent = StartAgent();
    ASSERT_TRUE(WaitUntil([this] { return AgentId().has_value(); })) << agent->ErrorOutput();

    EXPECT_EQ(Request(ALWAYS, "proc", "good"), 1);
    EXPECT_EQ(Request(ALWAYS, "proc", "good", 1), 1);

    EXPECT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
}

} // namespace kel::test
