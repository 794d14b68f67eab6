// kelctl's side alone: its usage, its exit status, and agents that are not ours.

#include <signal.h>

#include <chrono>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/Archives.h"

namespace kel::test {

using testing::HasSubstr;

namespace {

constexpr int kSetPolicy = 4;

typedef std::chrono::steady_clock TClock;

TBytes Handled(TBytes response)
{
    response.insert(response.begin(), 1);
    return response;
}

} // namespace

class Kelctl : public AgentRoad
{
protected:
    void ExpectNoAnswer(const TSFinished& set, const std::string& reason = "")
    {
        EXPECT_EQ(set.m_exit, 3) << Text(set);
        EXPECT_EQ(set.m_output, "");
        EXPECT_TRUE(IsOneLine(set.m_errorOutput, "kelctl: " + reason)) << Text(set);
    }
};

class KelctlDenied : public AgentRoad
{
protected:
    KelctlDenied() : AgentRoad(NobodyMayCallTheAgent()) {}

    static PrivateBus::TSOptions NobodyMayCallTheAgent()
    {
        PrivateBus::TSOptions options;
        options.m_config = "<policy context=\"mandatory\">"
                           "<deny send_destination=\"com.norvale.kel.IControl\"/></policy>";
        return options;
    }
};

TEST_F(KelctlDenied, EveryCommandThatNeedsTheAgentTellsSo)
{
    ASSERT_TRUE(m_peer.OwnName());

    const TSFinished set = SetPolicy("<policy/>");
    const TSFinished monitor = AgentRoad::Kelctl({"monitor"});
    const TSFinished information = AgentRoad::Kelctl({"process-info"});
    const TSFinished status = AgentRoad::Kelctl({"status"});
    const TSFinished json = AgentRoad::Kelctl({"status", "--json"});

    for (const TSFinished& ended : {set, monitor, information}) {
        EXPECT_EQ(ended.m_exit, 3) << Text(ended);
        EXPECT_EQ(ended.m_output, "");
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the bus forbids ")) << Text(ended);
    }
    EXPECT_EQ(status.m_exit, 0) << Text(status);
    EXPECT_THAT(status.m_output, testing::EndsWith(", which the bus forbids this user\n"));
    EXPECT_THAT(json.m_output, HasSubstr("\"denied\": true, \"answers\": false}"));
    EXPECT_TRUE(m_peer.Calls().empty());
}

TEST_F(KelctlDenied, AMonitorThatIsThereBeforeTheAgentTellsSoWhenItComes)
{
    ChildProcess monitor({KEL_CTL, "monitor", "--verbose"});
    ASSERT_TRUE(Says(monitor, "Name vanished"));

    ASSERT_TRUE(m_peer.OwnName());

    EXPECT_EQ(monitor.Wait(), 3);
    EXPECT_THAT(monitor.ErrorOutput(), HasSubstr("kelctl: the bus forbids this user the agent: "));
}

TEST_F(Kelctl, AloneItPointsToTheHelp)
{
    const TSFinished ended = AgentRoad::Kelctl({});

    EXPECT_EQ(ended.m_exit, 2);
    EXPECT_EQ(ended.m_errorOutput, "kelctl: a command is required: see kelctl --help\n");
}

TEST_F(Kelctl, RangesAreToldInPlainNumbers)
{
    const TSFinished count = AgentRoad::Kelctl({"monitor", "--count", "0"});
    const TSFinished timeout = AgentRoad::Kelctl({"monitor", "--timeout", "1e9"});

    EXPECT_EQ(count.m_errorOutput, "kelctl: --count: 0 is no number from 1 to 2147483648\n");
    EXPECT_EQ(timeout.m_errorOutput,
              "kelctl: --timeout: 1e9 is no number of seconds from 0.001 to 4000000\n");
}

TEST_F(Kelctl, EveryCommandEndsInTheSameWayWhenItsReaderHasGone)
{
    ASSERT_TRUE(m_peer.OwnName());
    // The reader is gone before the first byte comes.
    for (const char* const command :
         {"policy", "status", "reports --json --state-dir /tmp", "monitor", "--help",
          "set-policy '" KEL_EXAMPLES "/policy.xml'"}) {
        m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(Handled(ArchiveOf(0))));
        const TSFinished ended
            = RunProgram({"bash", "-c",
                          std::string("mkfifo /tmp/gone; exec 3<>/tmp/gone 4>/tmp/gone 3<&-; rm "
                                      "/tmp/gone; exec '" KEL_CTL "' ")
                              + command + " >&4 4>&-"});

        EXPECT_EQ(ended.m_exit, 5) << command << Text(ended);
        EXPECT_EQ(ended.m_errorOutput, "") << command;
    }
}

TEST_F(Kelctl, TheTestChannelIsServedAside)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent({"--test"});
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));
    ChildProcess monitor({KEL_CTL, "monitor", "--test", "--count", "1"});

    const TSFinished status = AgentRoad::Kelctl({"status"});
    const TSFinished testStatus = AgentRoad::Kelctl({"--test", "status"});
    const TSFinished set = AgentRoad::Kelctl({"set-policy", "--test", KEL_EXAMPLES "/policy.xml"});
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_EQ(AgentRoad::Kelctl({"process-info", "--test"}).m_exit, 0);
        return !monitor.Output().empty();
    })) << monitor.ErrorOutput();

    EXPECT_EQ(status.m_exit, 1) << Text(status);
    EXPECT_EQ(testStatus.m_exit, 0) << Text(testStatus);
    EXPECT_EQ(set.m_output, "0 (accepted)\n") << Text(set);
    EXPECT_EQ(monitor.Wait(), 0);
}

TEST_F(Kelctl, ProcessInformationIsAskedForThroughTheAgent)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));

    const TSFinished asked = AgentRoad::Kelctl({"process-info"});

    EXPECT_EQ(asked.m_exit, 0) << Text(asked);
    EXPECT_EQ(asked.m_output + asked.m_errorOutput, "");
    EXPECT_TRUE(Says(*agent, "kel-agent: process information: "));
}

TEST_F(Kelctl, ProcessInformationIsNotAskedOfAnAgentThatMayNotKnowTheSignal)
{
    const TSFinished none = AgentRoad::Kelctl({"process-info"});
    ASSERT_TRUE(m_peer.OwnName()); // this process, which the signal would end
    const TSFinished other = AgentRoad::Kelctl({"process-info"});
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Error("org.example.Strange"));
    const TSFinished silent = AgentRoad::Kelctl({"process-info"});

    EXPECT_EQ(none.m_exit, 1) << Text(none);
    EXPECT_EQ(none.m_errorOutput, "kelctl: no agent runs\n");
    EXPECT_EQ(other.m_exit, 1) << Text(other);
    EXPECT_TRUE(IsOneLine(other.m_errorOutput, "kelctl: the agent that runs is another one"));
    EXPECT_EQ(silent.m_exit, 3) << Text(silent);
    EXPECT_EQ(silent.m_errorOutput, "kelctl: the agent does not answer\n");
}

TEST_F(Kelctl, WrongUsageIsToldInOneLine)
{
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"unknown"},
                                                      {"--unknown"},
                                                      {"set-policy"},
                                                      {"set-policy", "a", "b"},
                                                      {"set-policy", "--unknown", "a"},
                                                      {"set-policy", "/tmp/none"},
                                                      {"set-policy", "/tmp"},
                                                      {"monitor", "operand"},
                                                      {"monitor", "--count"},
                                                      {"monitor", "--count", "0"},
                                                      {"monitor", "--count", "-1"},
                                                      {"monitor", "--count", "1.5"},
                                                      {"monitor", "--count", "4294967297"},
                                                      {"monitor", "--timeout", "0"},
                                                      {"monitor", "--timeout", "-1"},
                                                      {"monitor", "--timeout", "nan"},
                                                      {"monitor", "--timeout", "1e9"},
                                                      {"monitor", "--timeout", ""},
                                                      {"report", "--process", ""},
                                                      {"report", "--thread", ""},
                                                      {"process-info", "operand"},
                                                      {"status", "operand"},
                                                      {"status", "--count", "1"},
                                                      {"policy", "operand"},
                                                      {"policy", "--count"},
                                                      {"klog", "operand"},
                                                      {"klog", "--count"},
                                                      {"klog", "--follow=x"},
                                                      {"reports", "x"},
                                                      {"reports", "0x8"},
                                                      {"reports", "8", "x"},
                                                      {"reports", "-8"},
                                                      {"reports", "8.0"},
                                                      {"reports", ""},
                                                      {"reports", "99999999999999999999999"},
                                                      {"reports", "--state-dir"},
                                                      {"reports", "--since", "yesterday"},
                                                      {"reports", "--since", "2026-02-29"},
                                                      {"reports", "--since", "0d"},
                                                      {"reports", "--older-than", "1000000000d"},
                                                      {"reports", "--older-than", "5"},
                                                      {"reports", "--process", ""},
                                                      {"reports", "--user", "no such user"},
                                                      {"reports", "--mode", "never"},
                                                      {"reports", "--sort", "directory"},
                                                      {"reports", "--remove"},
                                                      {"reports", "--remove", "--json", "8"},
                                                      {"reports", "--remove", "--follow"},
                                                      {"reports", "--follow", "8"},
                                                      {"reports", "--follow", "--sort", "id"},
                                                      {"reports", "--html"},
                                                      {"reports", "--html", "/tmp/page", "--json"},
                                                      {"reports", "--count", "1"}}) {
        const TSFinished ended = AgentRoad::Kelctl(arguments);

        EXPECT_EQ(ended.m_exit, 2) << Text(ended);
        EXPECT_EQ(ended.m_output, "");
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: ")) << Text(ended);
    }
}

TEST_F(Kelctl, AFullOutputIsToldInOneLine)
{
    for (const std::string command : {"policy", "reports --json --state-dir /tmp"}) {
        const TSFinished full
            = RunProgram({"sh", "-c", "exec '" KEL_CTL "' " + command + " >/dev/full"});

        EXPECT_EQ(full.m_exit, 5) << Text(full);
        EXPECT_TRUE(IsOneLine(full.m_errorOutput, "kelctl: the output cannot be written: "))
            << Text(full);
    }
}

TEST_F(Kelctl, HelpAndVersionGoToStandardOutput)
{
    const TSFinished help = AgentRoad::Kelctl({"--help"});
    const TSFinished commandHelp = AgentRoad::Kelctl({"set-policy", "--help"});
    const TSFinished version = AgentRoad::Kelctl({"--version"});

    EXPECT_EQ(help.m_exit, 0);
    EXPECT_THAT(help.m_output, HasSubstr("set-policy"));
    EXPECT_EQ(commandHelp.m_exit, 0);
    EXPECT_THAT(commandHelp.m_output, HasSubstr("FILE"));
    EXPECT_EQ(version.m_exit, 0);
    EXPECT_EQ(version.m_output, "kelctl " KEL_VERSION "\n");
}

TEST_F(Kelctl, MoreThanTheBusCarriesIsNotSent)
{
    ASSERT_TRUE(m_peer.OwnName());

    const TSFinished set = SetPolicy(std::string(33 << 20, 'x'));

    EXPECT_EQ(set.m_exit, 2) << Text(set);
    EXPECT_EQ(set.m_errorOutput, "kelctl: -: larger than 32 MiB, which the bus does not carry\n");
    EXPECT_TRUE(m_peer.Calls().empty());
}

TEST_F(Kelctl, WhatTheBusDropsGetsNoAnswer)
{
    ASSERT_TRUE(m_peer.OwnName());

    const TSFinished set = SetPolicy(std::string(32 << 20, 'x')); // and the bytes around it

    ExpectNoAnswer(set, "the policy, with what goes around it, is larger than the bus carries\n");
}

TEST_F(Kelctl, ThePolicyTravelsAsAnArchiveOfOneString)
{
    const std::string policy("any \0 bytes", 11);
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(Handled(ArchiveOf(0))));
    ASSERT_TRUE(m_peer.OwnName());

    const TSFinished set = SetPolicy(policy);

    EXPECT_EQ(set.m_exit, 0) << Text(set);
    const std::vector<TSCall> sends = m_peer.Calls("Send");
    ASSERT_EQ(sends.size(), 1U);
    EXPECT_EQ(sends[0].m_bytes, SendBytes(kSetPolicy, 0, ArchiveOf(policy)));
}

TEST_F(Kelctl, AnAnswerOfAnotherAgentIsShownAndIsARefusal)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(Handled(ArchiveOf(7))));
    ASSERT_TRUE(m_peer.OwnName());

    const TSFinished set = SetPolicy("<policy/>");

    EXPECT_EQ(set.m_exit, 1) << Text(set);
    EXPECT_EQ(set.m_output, "7 (refused)\n");
    EXPECT_EQ(set.m_errorOutput, "kelctl: the agent refused the policy: refused\n");
}

TEST_F(Kelctl, AnAgentThatDeclinesGivesNoAnswer)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes({0}));
    ASSERT_TRUE(m_peer.OwnName());

    ExpectNoAnswer(SetPolicy("<policy/>"), "the agent declined the policy: ");
}

TEST_F(Kelctl, WhoHasTheNameAndServesNoChannelIsTold)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Error("org.freedesktop.DBus.Error.UnknownMethod"));
    ASSERT_TRUE(m_peer.OwnName());

    ExpectNoAnswer(SetPolicy("<policy/>"), "who has the agent's name serves no channel: ");
}

TEST_F(Kelctl, AnAnswerThatIsNoneOfTheChannelCannotBeRead)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Other("('yes',)"));
    ASSERT_TRUE(m_peer.OwnName());

    ExpectNoAnswer(SetPolicy("<policy/>"), "the agent's answer cannot be read\n");
}

TEST_F(Kelctl, AnErrorThatNobodyExpectsIsToldWithItsName)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Error("org.example.Strange"));
    ASSERT_TRUE(m_peer.OwnName());

    ExpectNoAnswer(SetPolicy("<policy/>"), "no answer from the agent: org.example.Strange");
}

TEST_F(Kelctl, MinusOneOfAnAgentIsARefusal)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(Handled(ArchiveOf(-1))));
    ASSERT_TRUE(m_peer.OwnName());

    const TSFinished set = SetPolicy("<policy/>");

    EXPECT_EQ(set.m_exit, 1) << Text(set);
    EXPECT_EQ(set.m_output, "-1 (refused)\n");
}

TEST_F(Kelctl, AnAnswerThatIsNoArchiveIsNoAnswer)
{
    const TBytes whole = ArchiveOf(0);
    const TBytes forged = WithLength(whole, 0, size_t(1) << 31);
    const TBytes cut(whole.begin(), whole.end() - 1);
    ASSERT_TRUE(m_peer.OwnName());

    for (const TBytes& bytes :
         {TBytes{}, TBytes{1}, TBytes{1, 2, 3}, Handled(forged), Handled(cut)}) {
        m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(bytes));

        const TSFinished set = SetPolicy("<policy/>");

        ExpectNoAnswer(set);
        EXPECT_THAT(set.m_errorOutput, HasSubstr("the agent's answer cannot be read: "));
    }
}

TEST_F(Kelctl, WithoutAnAgentThereIsNoAnswer)
{
    ExpectNoAnswer(SetPolicy("<policy/>"), "no agent runs, and the bus can start none: ");
}

TEST_F(Kelctl, AnAgentThatCannotBeStartedGivesNoAnswer)
{
    m_bus.AddService(kBusName, "/bin/false");

    ExpectNoAnswer(SetPolicy("<policy/>"), "no agent runs, and the bus can start none: ");
}

TEST_F(Kelctl, AnAgentThatVanishesDuringTheSendGivesNoAnswer)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    ASSERT_TRUE(m_peer.OwnName());
    ChildProcess kelctl({KEL_CTL, "set-policy", KEL_EXAMPLES "/policy.xml"});
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));

    m_peer.Vanish();

    const std::optional<int> exit = kelctl.Wait(std::chrono::seconds(8));
    ExpectNoAnswer({exit, kelctl.Output(), kelctl.ErrorOutput()},
                   "the agent, or the bus, ended without an answer: ");
}

TEST_F(Kelctl, ASilentAgentIsWaitedForTenSeconds)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    ASSERT_TRUE(m_peer.OwnName());
    const TClock::time_point start = TClock::now();

    const TSFinished set = SetPolicy("<policy/>");

    ExpectNoAnswer(set, "the agent did not answer in 10 s\n");
    EXPECT_GE(TClock::now() - start, std::chrono::milliseconds(9900));
    EXPECT_LT(TClock::now() - start, std::chrono::seconds(20));
}

TEST_F(Kelctl, AnAgentWithoutOurCodeAnswers)
{
    ChildProcess agent({"/usr/bin/python3", "-B", KEL_EXAMPLES "/python/agent.py"});
    ASSERT_TRUE(agent.WaitForOutput("ready\n")) << agent.ErrorOutput();

    const TSFinished good = SetPolicy("<policy/>");
    const TSFinished bad = SetPolicy("text");

    EXPECT_EQ(good.m_exit, 0) << Text(good);
    EXPECT_EQ(bad.m_exit, 1) << Text(bad);
    EXPECT_EQ(bad.m_output, "5 (refused)\n");
    EXPECT_TRUE(agent.WaitForOutput("policy of 9 bytes: '<policy/>'\n")) << agent.Output();
    EXPECT_TRUE(agent.WaitForOutput("policy of 4 bytes: 'text'\n")) << agent.Output();
}

TEST_F(Kelctl, TheExampleAgentAccepts)
{
    ChildProcess agent({KEL_SMALLEST_AGENT});
    ASSERT_TRUE(WaitUntil([this] { return AgentId().has_value(); }));

    const TSFinished set = SetPolicy("<policy/>");

    EXPECT_EQ(set.m_exit, 0) << Text(set);
    EXPECT_TRUE(agent.WaitForOutput("a policy came, in "));
}

TEST(KelctlWithoutBus, ThereIsNoAnswerPromptly)
{
    const TSFinished set = RunProgram({KEL_CTL, "set-policy", KEL_EXAMPLES "/policy.xml"},
                                      {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none"}}, {},
                                      std::chrono::seconds(5));

    EXPECT_EQ(set.m_exit, 3) << Text(set);
    EXPECT_EQ(set.m_output, "");
    EXPECT_TRUE(IsOneLine(set.m_errorOutput, "kelctl: no system bus: Could not connect"))
        << Text(set);
}

TEST(KelctlWithoutBus, TheLogIsShownForWhoAsksForIt)
{
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--verbose", "set-policy", "-"},
          {"set-policy", "--verbose", "-"}}) {
        std::vector<std::string> command{KEL_CTL};
        command.insert(command.end(), words.begin(), words.end());
        const TSFinished set = RunProgram(
            command, {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none"}}, "<policy/>");

        EXPECT_EQ(set.m_exit, 3) << Text(set);
        EXPECT_EQ(set.m_output, "");
        EXPECT_THAT(
            set.m_errorOutput,
            testing::ContainsRegex("KEL >kel::TCDbus:t_Start:[0-9]+< Connecting to system bus "
                                   "error, errno [0-9]+\n"));
        EXPECT_THAT(set.m_errorOutput, HasSubstr("\nkelctl: no system bus: "));
    }
}

} // namespace kel::test
