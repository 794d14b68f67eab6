#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/RawPeer.h"

using kel::test::ChildProcess;
using kel::test::CountOf;
using kel::test::PrivateBus;
using kel::test::RawPeer;
using kel::test::RunProgram;
using kel::test::TSFinished;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

namespace {

// No bus, and the log where it can be read.
const ChildProcess::TEnvironment kNoBus{{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus"},
                                        {"KEL_HOST_LOG", "stderr"}};
const ChildProcess::TEnvironment kOwnBus{{"KEL_HOST_LOG", "stderr"}};

const char* const kRefused = "Unable to register user callback - already destroyed";

std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind("KEL >", 0) != 0) { // the library's own copies
            lines.push_back(line);
        }
    }
    return lines;
}

TEST(LoadAndExit, StaticObjectsMayUseTheLibraryBeforeAndAfterMain)
{
    const TSFinished program = RunProgram({KEL_STATICS}, kNoBus);

    EXPECT_THAT(program.m_exit, Optional(0)) << program.m_errorOutput;
    EXPECT_THAT(LinesOf(program.m_output),
                ElementsAre("constructor: a control object", "user registered",
                            "main: the switches are as the constructor left them",
                            "main: a control object", "atexit of main: a control object",
                            "destructor: a control object", "destructor: answer -1",
                            "end of the program: a control object",
                            // The library goes here.
                            "user at deactivation", "function at deactivation",
                            "after the libraries: none", "user refused"));
    EXPECT_EQ(CountOf(program.m_errorOutput, kRefused), 1u) << program.m_errorOutput;
    EXPECT_EQ(CountOf(program.m_errorOutput, "Unable to register user callback - destroyed 1"), 1u);
}

TEST(LoadAndExit, DeactivationFindsTheLogAndTheHoldersInPlace)
{
    const TSFinished program = RunProgram({KEL_CHILD, "return-from-main"}, kNoBus);

    EXPECT_THAT(program.m_exit, Optional(3)) << program.m_errorOutput;
    EXPECT_THAT(
        LinesOf(program.m_output),
        ElementsAre("user at deactivation", "a client at deactivation", "no control object"));
    EXPECT_THAT(program.m_errorOutput, HasSubstr("Error for at deactivation file in line 1."));
    EXPECT_THAT(program.m_output, HasSubstr("< Error for at deactivation file in line 1.\n"))
        << "the second copy";
}

TEST(LoadAndExit, FirstUseMayBeInAnExitHandler)
{
    const TSFinished program = RunProgram({KEL_CHILD, "use-first-at-exit"}, kNoBus);

    EXPECT_THAT(program.m_exit, Optional(4)) << program.m_errorOutput;
    EXPECT_THAT(
        LinesOf(program.m_output),
        ElementsAre("atexit: a control object", "atexit: answer -1", "user at deactivation"));
}

TEST(LoadAndExit, ThreadsThatCallTheLibraryDoNotStopTheExit)
{
    for (int round = 0; round < 20; ++round) {
        const TSFinished program = RunProgram({KEL_CHILD, "exit-under-load"}, kNoBus);

        ASSERT_THAT(program.m_exit, Optional(6)) << program.m_errorOutput;
        ASSERT_THAT(CountOf(program.m_output, "user at deactivation"), AnyOf(0, 1));
    }
}

TEST(LoadAndExit, ALibraryThatIsClosedStaysAndIsDeactivatedAtExit)
{
    const TSFinished program = RunProgram({KEL_UNLOAD, KEL_LIBRARY}, kNoBus);

    EXPECT_THAT(program.m_exit, Optional(0)) << program.m_errorOutput;
    EXPECT_THAT(LinesOf(program.m_output),
                ElementsAre("closing", "stays", "closing", "stays", "function at deactivation"));
}

// With an agent on a bus.
class LoadAndExitOnABus : public testing::Test
{
protected:
    LoadAndExitOnABus() : m_agent(m_bus) { EXPECT_TRUE(m_agent.OwnName()); }

    // Calls "Send" of the child once it has said hello, and does not wait for the answer.
    void CallBack()
    {
        for (;;) {
            ASSERT_TRUE(m_agent.WaitForCalls("Hello", ++m_hellos));
            const auto hello = m_agent.Calls("Hello").at(m_hellos - 1);
            if (hello.m_bytes == kel::test::HelloBytes({2})) {
                m_agent.SetTarget(hello.m_sender);
                m_agent.Post("Send", kel::test::Body(kel::test::SendBytes(2, 0)));
                return;
            }
        }
    }

    PrivateBus m_bus;
    RawPeer m_agent;
    size_t m_hellos = 0;
};

TEST_F(LoadAndExitOnABus, ExitDoesNotWaitForASendThatHasNoAnswer)
{
    m_agent.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    ChildProcess child({KEL_CHILD, "exit-during-send"}, kOwnBus);
    ASSERT_TRUE(m_agent.WaitForCalls("Send", 1));

    child.Write("exit\n");

    EXPECT_THAT(child.Wait(), Optional(5)) << child.ErrorOutput();
    EXPECT_THAT(LinesOf(child.Output()), ElementsAre("sending", "user at deactivation"));
}

TEST_F(LoadAndExitOnABus, ExitWaitsForARunningCallbackThatAsksForTheControlObject)
{
    ChildProcess child({KEL_CHILD, "exit-during-callback"}, kOwnBus);
    CallBack();

    EXPECT_THAT(child.Wait(), Optional(7)) << child.Output() << child.ErrorOutput();
    EXPECT_THAT(
        child.Output(),
        HasSubstr(
            "in the callback\nuser at deactivation\nno control object\nleaving the callback\n"));
    EXPECT_THAT(child.ErrorOutput(), HasSubstr(kRefused));
}

TEST_F(LoadAndExitOnABus, ACallbackMayExit)
{
    ChildProcess child({KEL_CHILD, "exit-from-callback"}, kOwnBus);
    CallBack();

    EXPECT_THAT(child.Wait(), Optional(8)) << child.Output() << child.ErrorOutput();
    EXPECT_THAT(LinesOf(child.Output()), ElementsAre("in the callback", "user at deactivation"));
}

TEST_F(LoadAndExitOnABus, ExitWhileTheMainLoopRunsEnds)
{
    for (int round = 0; round < 10; ++round) {
        const TSFinished program = RunProgram({KEL_CHILD, "exit-while-the-loop-runs"}, kOwnBus);

        ASSERT_THAT(program.m_exit, Optional(9)) << program.m_errorOutput;
    }
}

} // namespace
