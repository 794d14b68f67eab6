// A set-uid program let its caller say where it writes its keys and its log.

#include "HostPlatformTests.h"
#include "support/ChildProcess.h"

namespace {

using kel::test::RunProgram;
using kel::test::TSFinished;

TEST(SetUidHost, DoesNotAskItsCallersEnvironment)
{
    kel::test::Sandbox::Need();
    const kel::test::Mount programs("/tmp/programs", "mode=755");
    const fs::path program = "/tmp/programs/set-uid";
    fs::copy_file(KEL_SET_UID_PROGRAM, program);
    ASSERT_EQ(chmod(program.c_str(), 04755), 0);

    const TSFinished ended
        = RunProgram({"setpriv", "--reuid=65534", "--clear-groups", "--", program},
                     {{"KEL_HOST_LOG", "stderr"}, {"KEL_HOST_VCONF_DIR", "/tmp/theirs"}});

    if (ended.m_errorOutput.rfind("setpriv: ", 0) == 0) {
        GTEST_SKIP() << "there is no second user here: " << ended.m_errorOutput;
    }
    if (ended.m_output == "plain\n") {
        GTEST_SKIP() << "this machine has no set-uid programs";
    }
    EXPECT_EQ(ended.m_output, "secure\n");
    EXPECT_EQ(ended.m_exit, 0);
    EXPECT_EQ(ended.m_errorOutput, "");
    EXPECT_FALSE(fs::exists("/tmp/theirs"));
    EXPECT_TRUE(fs::exists("/run/kel-vconf/memory/key"));
    fs::remove_all("/run/kel-vconf");
}

} // namespace
