// An agent and an application whose machine words differ in size, on one bus. Archives do not go
// from one to the other; both ends say so.

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

namespace {

struct TSEnds
{
    const char* m_name;
    const char* m_agent;
    const char* m_ctl;
};

class OtherWordSize : public AgentRoad, public testing::WithParamInterface<TSEnds>
{
};

TEST_P(OtherWordSize, OfTheApplicationIsSaidAtBothEnds)
{
    ChildProcess agent({GetParam().m_agent, "--state-dir", m_stateDir});
    ASSERT_TRUE(Says(agent, "kel-agent: ready\n")) << agent.ErrorOutput();

    const TSFinished set = RunProgram({GetParam().m_ctl, "set-policy", "-"}, {}, "<policy/>");

    EXPECT_EQ(set.m_exit, 3) << Text(set);
    EXPECT_EQ(set.m_errorOutput,
              "kelctl: the agent declined the policy: it takes none, or cannot read archives of "
              "this word size and this Boost\n");
    EXPECT_TRUE(Says(agent, " bytes: its archive is of another word size, or of a newer Boost\n"))
        << agent.ErrorOutput();
    EXPECT_EQ(StoredPolicy(), "");
    // What is no archive goes through.
    EXPECT_EQ(RunProgram({GetParam().m_ctl, "status"}).m_exit, 0);
}

INSTANTIATE_TEST_SUITE_P(, OtherWordSize,
                         testing::Values(TSEnds{"ThatOfTheAgent", KEL_OTHER_AGENT, KEL_CTL},
                                         TSEnds{"ThatOfTheTool", KEL_AGENT, KEL_OTHER_CTL}),
                         [](const auto& ends) { return ends.param.m_name; });

} // namespace

} // namespace kel::test
