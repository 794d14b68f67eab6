// kelctl status, set-policy and --help, and kel-agent --help, ended with success when their output
// could not be written.

#include <gtest/gtest.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

namespace {

TSFinished IntoAFullDevice(const std::string& arguments, const std::string& input = {},
                           const std::string& program = KEL_CTL)
{
    return RunProgram({"sh", "-c", "exec '" + program + "' " + arguments + " >/dev/full"}, {},
                      input);
}

constexpr char kFull[] = "kelctl: the output cannot be written: No space left on device\n";

} // namespace

TEST_F(AgentRoad, WhatKelctlSaysIsWrittenOrItIsNoSuccess)
{
    ProvideAgent();

    const TSFinished ended[] = {
        IntoAFullDevice("set-policy -", "<policy/>"),
        IntoAFullDevice("status"),
        IntoAFullDevice("status --json"),
        IntoAFullDevice("policy"),
        IntoAFullDevice("--help"),
        IntoAFullDevice("--version"),
    };

    for (const TSFinished& one : ended) {
        EXPECT_EQ(one.m_exit, 5) << Text(one);
        EXPECT_EQ(one.m_errorOutput, kFull);
    }
    EXPECT_EQ(StoredPolicy(), "<policy/>");
}

TEST_F(AgentRoad, WhatTheAgentSaysOfItselfIsWrittenOrItIsNoSuccess)
{
    for (const char* const option : {"--help", "--version"}) {
        const TSFinished ended = IntoAFullDevice(option, {}, KEL_AGENT);

        EXPECT_EQ(ended.m_exit, 1) << Text(ended);
        EXPECT_EQ(ended.m_errorOutput,
                  "kel-agent: the output cannot be written: No space left on device\n");
    }
}

TEST_F(AgentRoad, WhatIsNoSuccessStaysWhatItIs)
{
    const TSFinished status = IntoAFullDevice("status --json");

    EXPECT_EQ(status.m_exit, 1) << Text(status);
    EXPECT_EQ(status.m_errorOutput, "kelctl: no agent runs\n");
}

} // namespace kel::test
