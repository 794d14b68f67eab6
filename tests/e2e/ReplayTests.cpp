// kelctl replay: what was recorded is sent again, to an agent or as one, and compared.

#include <gmock/gmock.h>

#include "e2e/TraceRoad.h"
#include "support/Archives.h"

namespace kel::test {

using testing::ContainsRegex;
using testing::HasSubstr;

class KelctlReplay : public TraceRoad
{
protected:
    static RawPeer::TSAnswer Answer(int number)
    {
        TBytes bytes{1};
        const TBytes archive = ArchiveOf(number);
        bytes.insert(bytes.end(), archive.begin(), archive.end());
        return RawPeer::TSAnswer::Bytes(bytes);
    }

    // Keeps an application's policy, which an agent of the test's own has answered.
    void RecordPolicy()
    {
        ASSERT_TRUE(m_busPeer.OwnName());
        m_busPeer.SetAnswer("Send", Answer(0));
        const std::unique_ptr<ChildProcess> trace = Trace({"--output", m_file});
        ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0);
        ASSERT_TRUE(trace->WaitForOutput("answer 0"));
        End(*trace);
        m_busPeer.ForgetCalls();
    }
};

TEST_F(KelctlReplay, SendsWhatAnApplicationHasSentAndFindsTheSameAnswer)
{
    RecordPolicy();

    const TSFinished ended = Kelctl({"replay", "--speed", "10", m_file});

    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_THAT(ended.m_output, ContainsRegex(" set-policy \\(4\\): same: handled, answer 0\n"
                                              "sent: 2, different: 0\n$"));
    EXPECT_EQ(m_busPeer.Calls("Hello").size(), 1u);
    ASSERT_EQ(m_busPeer.Calls("Send").size(), 1u);
    EXPECT_EQ(m_busPeer.Calls("Send")[0].m_bytes,
              SendBytes(4, 0, ArchiveOf(std::string("<policy/>"))));
}

TEST_F(KelctlReplay, WhatAnAgentTellsOfItsClientsIsOfThatMoment)
{
    const std::unique_ptr<ChildProcess> agent = StartAgent();
    ASSERT_TRUE(Says(*agent, "ready"));
    const std::unique_ptr<ChildProcess> trace = Trace({"--output", m_file});
    ASSERT_EQ(Kelctl({"status", "--clients"}).m_exit, 0);
    ASSERT_TRUE(trace->WaitForOutput("clients (101): handled"));
    End(*trace);
    ASSERT_TRUE(m_peer.Hello({2}).IsOk());

    const TSFinished ended = Kelctl({"replay", m_file});

    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_THAT(ended.m_output, HasSubstr(" clients (101): same: handled\n"));
}

TEST_F(KelctlReplay, TellsOfAnotherAnswer)
{
    RecordPolicy();
    m_busPeer.SetAnswer("Send", Answer(3));

    const TSFinished ended = Kelctl({"replay", m_file});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_THAT(ended.m_output,
                HasSubstr(": DIFFERENT: handled, answer 3; recorded: handled, answer 0\n"));
    EXPECT_EQ(ended.m_errorOutput, "kelctl: not all is as it was recorded\n");
}

TEST_F(KelctlReplay, IsTheAgentForTheApplicationsThatAreHere)
{
    {
        const std::unique_ptr<ChildProcess> agent = StartAgent();
        ASSERT_TRUE(Says(*agent, "ready"));
        m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes({1}));
        ASSERT_TRUE(m_peer.Hello({2}).IsOk());
        const std::unique_ptr<ChildProcess> trace = Trace({"--output", m_file});
        ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0);
        ASSERT_TRUE(trace->WaitForOutput("policy-update (2): handled"));
        End(*trace);
    }
    ASSERT_TRUE(WaitUntil([this] { return !AgentId().has_value(); }));

    ChildProcess replay({KEL_CTL, "replay", "--as", "agent", m_file});
    ASSERT_TRUE(WaitUntil([this] { return AgentId().has_value(); }));
    m_peer.ForgetCalls();
    ASSERT_TRUE(m_peer.Hello({2}).IsOk());

    EXPECT_EQ(replay.Wait(), 0) << replay.ErrorOutput();
    EXPECT_THAT(replay.Output(), HasSubstr(" policy-update (2): same: handled\n"));
    EXPECT_EQ(m_peer.Calls("Send").size(), 1u);
}

TEST_F(KelctlReplay, IsNoAgentBesideAnother)
{
    RecordPolicy();

    const TSFinished ended = Kelctl({"replay", "--as", "agent", m_file});

    EXPECT_EQ(ended.m_exit, 3) << Text(ended);
    EXPECT_EQ(ended.m_errorOutput, "kelctl: cannot be the agent: another one is\n");
}

TEST_F(KelctlReplay, WrongUsageAndARecordingWithoutSuchCallsAreTold)
{
    RecordPolicy();
    m_busPeer.ReleaseName();

    const TSFinished none = Kelctl({"replay", "--as", "agent", m_file});
    EXPECT_EQ(none.m_exit, 1) << Text(none);
    EXPECT_EQ(none.m_errorOutput, "kelctl: the recording has nothing that an agent has sent\n");
    EXPECT_EQ(Kelctl({"replay"}).m_exit, 2);
    EXPECT_EQ(Kelctl({"replay", "/nowhere/file"}).m_exit, 2);
    EXPECT_EQ(Kelctl({"replay", "--speed", "0", m_file}).m_exit, 2);
    EXPECT_EQ(Kelctl({"replay", "--as", "nobody", m_file}).m_exit, 2);
}

} // namespace kel::test
