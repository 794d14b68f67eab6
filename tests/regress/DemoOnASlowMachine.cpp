// The demonstration looked at the report before the agent had said that it was made.

#include <gmock/gmock.h>

#include "e2e/DemoTest.h"

namespace kel::test {

typedef Demo DemoOnASlowMachine;

TEST_F(DemoOnASlowMachine, ShowsTheLineAboutTheReport)
{
    // Passes on what the agent says, and the line about the report late.
    const std::string agent = "exec '" KEL_BINARIES "/tools/kel-agent/kel-agent' \"$@\" 2> >(\n"
                              "while IFS= read -r line; do\n"
                              "    [[ $line != *collected ]] || sleep 1\n"
                              "    printf '%s\\n' \"$line\"\n"
                              "done >&2)";

    const TSFinished ended = RunProgram({KEL_DEMO}, Environment(BinariesWith("kel-agent", agent)));

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_THAT(ended.m_output, testing::HasSubstr("in /tmp/kel_NDF collected\n"));
    ExpectNothingLeft();
}

} // namespace kel::test
