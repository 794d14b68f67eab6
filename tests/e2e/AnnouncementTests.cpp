// The agent as the applications hear it: raw peers that asked for its events.

#include <signal.h>

#include <chrono>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/Archives.h"

namespace kel::test {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int kSetPolicy = 4;
constexpr int kPolicyUpdate = 2;
constexpr int kProcessInfo = 4;

typedef std::chrono::steady_clock TClock;

} // namespace

class AgentAnnouncements : public AgentRoad
{
protected:
    AgentAnnouncements() : m_start(TClock::now()), m_agent(StartAgent()) {}

    // An application that asked for both events; the agent has heard it when this returns.
    void Introduce(RawPeer& application)
    {
        ASSERT_TRUE(Says("kel-agent: ready\n"));
        ASSERT_TRUE(application.Hello({kPolicyUpdate, kProcessInfo}).IsOk());
    }

    bool Says(const std::string& text) const { return test::Says(*m_agent, text); }

    const TClock::time_point m_start;
    const std::unique_ptr<ChildProcess> m_agent;
};

TEST_F(AgentAnnouncements, WhoSetsThePolicyAndWaitsForTheAnswerHearsOfItAfterwards)
{
    Introduce(m_peer);
    m_agent->Signal(SIGUSR1);
    ASSERT_TRUE(Says("process information: ")); // from here on, an update is sent at once

    const TBody policy = Body(SendBytes(kSetPolicy, 0, ArchiveOf(std::string("<policy/>"))));
    for (int i = 0; i < 10; ++i) {
        m_peer.ForgetCalls();

        const TSReply reply = m_peer.Call("Send", policy);

        EXPECT_TRUE(reply.IsOk()) << reply.m_error;
        ASSERT_TRUE(m_peer.WaitForCalls("Send", 1)) << m_agent->ErrorOutput();
        EXPECT_EQ(m_peer.Calls("Send")[0].m_bytes, SendBytes(kPolicyUpdate, 0));
    }
}

TEST_F(AgentAnnouncements, ThePolicyOfANewAgentWaitsForApplicationsThatWereThereBefore)
{
    Introduce(m_peer);

    ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0);
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));

    EXPECT_GE(TClock::now() - m_start, std::chrono::milliseconds(500));
}

TEST_F(AgentAnnouncements, PoliciesThatComeDuringASendShareTheNext)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    Introduce(m_peer);
    ASSERT_EQ(SetPolicy("<policy number='1'/>").m_exit, 0);
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));

    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(SetPolicy("<policy number='2'/>").m_exit, 0);
    }
    m_peer.Answer(m_peer.Calls("Send")[0], RawPeer::TSAnswer::Bytes({1}));
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 2));
    m_peer.Answer(m_peer.Calls("Send")[1], RawPeer::TSAnswer::Bytes({1}));

    m_agent->Signal(SIGUSR1); // which is sent behind all that waits
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 3));
    EXPECT_EQ(m_peer.Calls("Send")[1].m_bytes, SendBytes(kPolicyUpdate, 0));
    EXPECT_EQ(m_peer.Calls("Send")[2].m_bytes, SendBytes(kProcessInfo, 0));
}

TEST_F(AgentAnnouncements, ARefusedPolicyIsNoNews)
{
    Introduce(m_peer);

    ASSERT_EQ(SetPolicy("<broken").m_exit, 1);
    m_agent->Signal(SIGUSR1);

    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));
    EXPECT_EQ(m_peer.Calls("Send")[0].m_bytes, SendBytes(kProcessInfo, 0));
    EXPECT_TRUE(Says("kel-agent: process information: 1 handled, 0 not\n"));
    EXPECT_THAT(m_agent->ErrorOutput(), Not(HasSubstr("policy update")));
}

TEST_F(AgentAnnouncements, WhoDoesNotHandleItIsCounted)
{
    RawPeer declines(m_bus);
    RawPeer fails(m_bus);
    declines.SetAnswer("Send", RawPeer::TSAnswer::Bytes({0}));
    fails.SetAnswer("Send", RawPeer::TSAnswer::Error("com.norvale.Test"));
    Introduce(m_peer);
    Introduce(declines);
    Introduce(fails);

    m_agent->Signal(SIGUSR1);

    EXPECT_TRUE(Says("kel-agent: process information: 1 handled, 2 not\n"))
        << m_agent->ErrorOutput();
}

TEST_F(AgentAnnouncements, ASignalDuringASendEndsTheAgentWhenTheTimeOfTheSendIsOver)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    Introduce(m_peer);
    ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0);
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));
    ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0); // the next update waits, and is dropped

    m_agent->Signal(SIGTERM);
    m_agent->Signal(SIGUSR1);

    EXPECT_EQ(m_agent->Wait(std::chrono::seconds(20)), 0) << m_agent->ErrorOutput();
    EXPECT_THAT(m_agent->ErrorOutput(), EndsWith("\nkel-agent: policy update: 0 handled, 1 not\n"));
    EXPECT_EQ(m_peer.Calls("Send").size(), 1U);
}

} // namespace kel::test
