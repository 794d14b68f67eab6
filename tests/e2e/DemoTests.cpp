// scripts/demo, with the programs of this build.

#include <signal.h>

#include <gmock/gmock.h>

#include "e2e/DemoTest.h"

namespace kel::test {

using testing::EndsWith;
using testing::HasSubstr;

TEST_F(Demo, ShowsTheRoadEndsWithItsResultAndLeavesNothing)
{
    const TSFinished ended = RunProgram({KEL_DEMO}, Environment(KEL_BINARIES), {}, kDemoDeadline);

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_EQ(ended.m_errorOutput, "");
    EXPECT_THAT(ended.m_output, HasSubstr("KELDbusClient: m_SendHello("));
    EXPECT_THAT(ended.m_output, HasSubstr("\n      0 (accepted)\n"));
    EXPECT_THAT(ended.m_output, HasSubstr("\n      1 (not well-formed)\n"));
    EXPECT_THAT(ended.m_output, HasSubstr("in /tmp/kel_NDF collected\n"));
    EXPECT_THAT(ended.m_output, HasSubstr("\n      artefact:\n        file: artefact\n"));
    EXPECT_THAT(ended.m_output,
                EndsWith("\n\nResult: OK: a policy accepted, refused, and accepted by "
                         "a new agent; a report collected.\n"));
    ExpectNothingLeft();
}

struct TSFault
{
    const char* m_name;
    const char* m_kelctl; // a shell's command line in its place
    const char* m_result;
};

class FaultyDemo : public Demo, public testing::WithParamInterface<TSFault>
{
};

TEST_P(FaultyDemo, FailsAndSaysWhy)
{
    const TSFinished ended = RunProgram(
        {KEL_DEMO}, Environment(BinariesWith("kelctl", GetParam().m_kelctl)), {}, kDemoDeadline);

    EXPECT_EQ(ended.m_exit, 1);
    EXPECT_THAT(ended.m_errorOutput,
                EndsWith(std::string("\nResult: FAILED: ") + GetParam().m_result + "\n"));
    ExpectNothingLeft();
}

#define KELCTL "'" KEL_BINARIES "/tools/kelctl/kelctl' \"$@\""

INSTANTIATE_TEST_SUITE_P(
    Kelctl, FaultyDemo,
    testing::Values(TSFault{"NoPolicyArrives", "echo '0 (accepted)'",
                            "examples/policy.xml is not what the agent has stored"},
                    TSFault{"AMonitorIsDeaf", "[ $1 != monitor ] || exec sleep 100; exec " KELCTL,
                            "a monitor has not heard of the policy"},
                    TSFault{"NothingIsRefused",
                            KELCTL " || :", "kelctl's exit status is 0 instead of 1"},
                    TSFault{"NoReportIsFiled", "[ $1 != report ] || exit 0; exec " KELCTL,
                            "the file is not in the report"}),
    [](const auto& fault) { return fault.param.m_name; });

TEST_F(Demo, AnInterruptLeavesNothing)
{
    // A shell forgets an interrupt that comes while it starts a command: this one must run.
    const std::string started = m_directory + "/build/started";
    const std::string kelctl = "[ $1 != set-policy ] || : >'" + started
                               + "'; '" KEL_BINARIES "/tools/kelctl/kelctl' \"$@\"; exec sleep 100";
    ChildProcess demo({KEL_DEMO}, Environment(BinariesWith("kelctl", kelctl)));
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(started); })) << demo.ErrorOutput();

    kill(-demo.Id(), SIGINT); // what a terminal does

    EXPECT_EQ(demo.Wait(), 130);
    ExpectNothingLeft();
}

} // namespace kel::test
