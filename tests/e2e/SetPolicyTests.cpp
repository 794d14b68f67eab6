// A policy on its way from a file to the agent's directory of state.

#include <filesystem>
#include <fstream>
#include <limits>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/Archives.h"

namespace kel::test {

using testing::HasSubstr;

namespace {

constexpr int kSetPolicy = 4;

// The most memory a process has used so far, in KiB.
size_t PeakMemory(pid_t id)
{
    const std::string status = ReadFile("/proc/" + std::to_string(id) + "/status");
    const std::string label = "VmHWM:";
    return std::stoul(status.substr(status.find(label) + label.size()));
}

} // namespace

class SetPolicyRoad : public AgentRoad
{
protected:
    SetPolicyRoad() { ProvideAgent(); }
};

TEST_F(SetPolicyRoad, TheBusStartsTheAgentWhichStoresThePolicy)
{
    LetTheBusStartTheAgent();
    ASSERT_FALSE(AgentId().has_value());

    const TSFinished set = Kelctl({"set-policy", KEL_EXAMPLES "/policy.xml"});

    EXPECT_EQ(set.m_exit, 0) << Text(set);
    EXPECT_EQ(set.m_output, "0 (accepted)\n");
    EXPECT_EQ(set.m_errorOutput, "");
    EXPECT_FALSE(StoredPolicy().empty());
    EXPECT_EQ(StoredPolicy(), ReadFile(KEL_EXAMPLES "/policy.xml"));
    EXPECT_TRUE(AgentId().has_value());
}

TEST_F(SetPolicyRoad, AMalformedPolicyIsRefusedAndTheStoredOneStays)
{
    ASSERT_EQ(SetPolicy("<good/>").m_exit, 0);

    const TSFinished set = Kelctl({"set-policy", KEL_EXAMPLES "/malformed-policy.xml"});

    EXPECT_EQ(set.m_exit, 1) << Text(set);
    EXPECT_EQ(set.m_output, "1 (not well-formed)\n");
    EXPECT_EQ(set.m_errorOutput, "kelctl: the agent refused the policy: not well-formed\n");
    EXPECT_EQ(StoredPolicy(), "<good/>");
    EXPECT_THAT(AgentLog(), HasSubstr(" bytes refused: line "));
}

TEST_F(SetPolicyRoad, AnAgentThatWasKilledIsStartedAgain)
{
    LetTheBusStartTheAgent();
    ASSERT_EQ(SetPolicy("<first/>").m_exit, 0);
    const std::optional<pid_t> first = AgentId();
    KillAgent();

    const TSFinished set = SetPolicy("<second/>");

    EXPECT_EQ(set.m_exit, 0) << Text(set);
    EXPECT_EQ(StoredPolicy(), "<second/>");
    EXPECT_TRUE(AgentId().has_value());
    EXPECT_NE(AgentId(), first);
}

TEST_F(SetPolicyRoad, WithoutADirectoryItIsNotStoredUntilThereIsOne)
{
    std::filesystem::remove(m_stateDir);

    const TSFinished set = SetPolicy("<policy/>");

    EXPECT_EQ(set.m_exit, 1) << Text(set);
    EXPECT_EQ(set.m_output, "2 (could not be stored)\n");
    EXPECT_EQ(set.m_errorOutput, "kelctl: the agent refused the policy: could not be stored\n");
    EXPECT_THAT(AgentLog(), HasSubstr("the state: No such file or directory\n"));

    std::filesystem::create_directory(m_stateDir);
    EXPECT_EQ(SetPolicy("<policy/>").m_exit, 0);
}

TEST_F(SetPolicyRoad, AMebibyteIsAPolicyAndMoreIsTooLarge)
{
    const std::string policy = "<policy>" + std::string((1 << 20) - 17, 'x') + "</policy>";

    const TSFinished set = SetPolicy(policy);
    const TSFinished larger = SetPolicy(policy + "\n");

    EXPECT_EQ(set.m_exit, 0) << Text(set);
    EXPECT_EQ(larger.m_exit, 1) << Text(larger);
    EXPECT_EQ(larger.m_output, "3 (too large or too deep)\n");
    EXPECT_EQ(larger.m_errorOutput,
              "kelctl: the agent refused the policy: too large or too deep\n");
    EXPECT_TRUE(StoredPolicy() == policy);
}

TEST_F(SetPolicyRoad, AMessageThatHoldsNoPolicyIsDeclinedWithoutMemoryAndTheAgentLivesOn)
{
    ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0);
    const pid_t agent = AgentId().value();
    const size_t before = PeakMemory(agent);

    const TBytes whole = ArchiveOf(std::string("<forged/>"));
    const size_t half = size_t(1) << (std::numeric_limits<size_t>::digits - 1);
    std::vector<TBytes> forged{{}, {1}, TBytes(100, 0xff), ArchiveOf(4)};
    for (const size_t length : {size_t(1) << 31, half >> 23, half, half - 1, half + (half - 1)}) {
        forged.push_back(WithLength(whole, 0, length));
        forged.push_back(WithLength(whole, kStringLengthAt, length));
    }
    for (const TBytes& archive : forged) {
        const TSReply reply = m_peer.Send(SendBytes(kSetPolicy, 0, archive));

        EXPECT_TRUE(reply.IsOk()) << reply.m_error;
        EXPECT_EQ(reply.m_bytes, TBytes{0}); // not handled, and no answer
    }

    EXPECT_LT(PeakMemory(agent), before + (32 << 10));
    EXPECT_EQ(StoredPolicy(), "<policy/>");
    EXPECT_THAT(AgentLog(), HasSubstr("refused a message of 100 bytes that holds no policy\n"));
    EXPECT_EQ(SetPolicy("<after/>").m_exit, 0);
    EXPECT_EQ(AgentId(), agent);
}

TEST_F(SetPolicyRoad, AnAgentThatDiesDuringTheSendIsNoAnswer)
{
    // Not the bus's agent: that one would be started again for a message that comes too late.
    m_bus.AddService(kBusName, "/bin/false");
    ASSERT_TRUE(m_peer.OwnName());
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    ChildProcess kelctl({KEL_CTL, "set-policy", KEL_EXAMPLES "/policy.xml"});
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));

    m_peer.Vanish();

    EXPECT_EQ(kelctl.Wait(std::chrono::seconds(8)), 3); // before its own time is over
    EXPECT_EQ(kelctl.Output(), "");
    EXPECT_THAT(kelctl.ErrorOutput(),
                HasSubstr("kelctl: the agent, or the bus, ended without an answer: "));
}

TEST_F(SetPolicyRoad, TheExampleApplicationSetsAPolicy)
{
    const TSFinished good
        = RunProgram({KEL_SET_POLICY_EXAMPLE}, {}, ReadFile(KEL_EXAMPLES "/policy.xml"));
    const TSFinished malformed
        = RunProgram({KEL_SET_POLICY_EXAMPLE}, {}, ReadFile(KEL_EXAMPLES "/malformed-policy.xml"));

    EXPECT_EQ(good.m_exit, 0) << Text(good);
    EXPECT_EQ(good.m_output, "the agent answered 0\n");
    EXPECT_EQ(malformed.m_exit, 1) << Text(malformed);
    EXPECT_EQ(malformed.m_output, "the agent answered 1\n");
    EXPECT_EQ(StoredPolicy(), ReadFile(KEL_EXAMPLES "/policy.xml"));
}

} // namespace kel::test
