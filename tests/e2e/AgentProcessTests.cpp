// The agent as a program: when it runs, when it ends, and what it says then.

#include <signal.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/Archives.h"
#include "support/Mount.h"
#include "support/Sandbox.h"

namespace kel::test {

using testing::HasSubstr;

namespace {

constexpr int kSetPolicy = 4;

} // namespace

class AgentProcess : public AgentRoad
{
};

TEST_F(AgentProcess, ASignalEndsItWithSuccess)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        const std::unique_ptr<ChildProcess> agent = StartAgent();
        ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));
        ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0);

        agent->Signal(signal);

        EXPECT_EQ(agent->Wait(), 0) << agent->ErrorOutput();
        EXPECT_FALSE(AgentId().has_value());
    }
}

TEST_F(AgentProcess, ItEndsWithTheBus)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));

    m_bus.Kill();

    EXPECT_TRUE(agent->Wait().has_value());
}

TEST_F(AgentProcess, ASecondOneGivesUpAndTheFirstGoesOn)
{
    const std::unique_ptr<ChildProcess> first = StartAgent();
    ASSERT_TRUE(Says(*first, "kel-agent: ready\n"));

    const std::unique_ptr<ChildProcess> second = StartAgent();

    EXPECT_EQ(second->Wait(), 1);
    EXPECT_TRUE(IsOneLine(second->ErrorOutput(), "kel-agent: cannot own the agent's name "))
        << second->ErrorOutput();
    EXPECT_EQ(AgentId(), first->Id());
    EXPECT_EQ(SetPolicy("<policy/>").m_exit, 0);
}

TEST_F(AgentProcess, ASecondOneTakesOverWhenTheFirstEndsInTime)
{
    const std::unique_ptr<ChildProcess> first = StartAgent();
    ASSERT_TRUE(Says(*first, "kel-agent: ready\n"));
    const std::unique_ptr<ChildProcess> second = StartAgent();

    first->Signal(SIGTERM);

    EXPECT_TRUE(Says(*second, "kel-agent: ready\n"));
    EXPECT_EQ(AgentId(), second->Id());
}

TEST_F(AgentProcess, TheTestChannelIsAnother)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent({"--test"});
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));

    m_peer.SetTarget(kTestBusName, kTestObjectPath);
    const TSReply reply
        = m_peer.Send(SendBytes(kSetPolicy, 0, ArchiveOf(std::string("<policy/>"))));

    ASSERT_GT(reply.m_bytes.size(), 1U) << reply.m_error;
    EXPECT_EQ(reply.m_bytes[0], 1);
    EXPECT_EQ(ValueOf<int>({reply.m_bytes.begin() + 1, reply.m_bytes.end()}), 0);
    EXPECT_EQ(StoredPolicy(), "<policy/>");
    EXPECT_FALSE(AgentId().has_value());
}

TEST_F(AgentProcess, GivesAnArchiveToWhoAsksForOne)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));

    TBytes handled{1};
    const TBytes archive = ArchiveOf(0);
    handled.insert(handled.end(), archive.begin(), archive.end());

    EXPECT_EQ(m_peer.Send(SendBytes(102, 0)).m_bytes, handled);
}

TEST_F(AgentProcess, ItsOwnDirectoryIsMade)
{
    const Mount machines("/var/lib");
    const ChildProcess agent({KEL_AGENT});
    ASSERT_TRUE(Says(agent, "kel-agent: ready\n")) << agent.ErrorOutput();
    ASSERT_EQ(SetPolicy("<policy/>").m_output, "0 (accepted)\n");

    using std::filesystem::perms;
    const std::filesystem::path own = "/var/lib/kel-agent";
    EXPECT_EQ(status(own).permissions(), perms(0750));
    EXPECT_EQ(status(own / "policy.xml").permissions(), perms(0640));
    EXPECT_EQ(ReadFile(own / "policy.xml"), "<policy/>");
}

TEST_F(AgentProcess, WrongUsageIsToldInOneLine)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--unknown"}, {"operand"}, {"--state-dir"}, {"--test=maybe"}}) {
        std::vector<std::string> command{KEL_AGENT};
        command.insert(command.end(), arguments.begin(), arguments.end());

        const TSFinished ended = RunProgram(command);

        EXPECT_EQ(ended.m_exit, 2) << Text(ended);
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kel-agent: ")) << Text(ended);
    }
}

TEST_F(AgentProcess, HelpAndVersionGoToStandardOutput)
{
    const TSFinished help = RunProgram({KEL_AGENT, "--help"});
    const TSFinished version = RunProgram({KEL_AGENT, "--version"});

    EXPECT_EQ(help.m_exit, 0);
    EXPECT_THAT(help.m_output, HasSubstr("--state-dir DIR"));
    EXPECT_EQ(help.m_errorOutput, "");
    EXPECT_EQ(version.m_exit, 0);
    EXPECT_EQ(version.m_output, "kel-agent " KEL_VERSION "\n");
}

// It has made its directories by then.
TEST(AgentWithoutBus, GivesUpAtOnce)
{
    Sandbox::Need();
    const TSFinished ended = RunProgram({KEL_AGENT, "--state-dir", "/"},
                                        {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none"}}, {},
                                        std::chrono::seconds(10));

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_errorOutput, "kel-agent: cannot connect to the system bus\n");
}

class AgentWithoutPermission : public AgentRoad
{
protected:
    AgentWithoutPermission() : AgentRoad(WithoutPolicy()) {}

    static PrivateBus::TSOptions WithoutPolicy()
    {
        PrivateBus::TSOptions options;
        options.m_projectPolicy = false;
        return options;
    }
};

TEST_F(AgentWithoutPermission, GivesUp)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();

    EXPECT_EQ(agent->Wait(), 1);
    EXPECT_TRUE(IsOneLine(agent->ErrorOutput(), "kel-agent: cannot own the agent's name "))
        << agent->ErrorOutput();
}

} // namespace kel::test
