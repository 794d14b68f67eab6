// The agent and the application in examples/python, which use none of our code, with our ends and
// with one another.

#include <signal.h>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/WireVectors.h"

namespace kel::test {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

constexpr int kSetPolicy = 4;
constexpr char kPolicy[] = KEL_EXAMPLES "/policy.xml";
constexpr char kHeard[] = "the policy has changed\n";
constexpr char kAsked[] = "process information is wanted\n";

// The system's Python, which has the bindings; no compiled files beside the examples.
std::vector<std::string> Python(const std::string& name,
                                const std::vector<std::string>& arguments = {})
{
    std::vector<std::string> command{"/usr/bin/python3", "-B", KEL_EXAMPLES "/python/" + name};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

// The interpreter's words are not always those of the agent, which a machine may emulate.
std::vector<std::string> Application()
{
    return Python("application.py", {kPolicy, "--word=" + std::to_string(sizeof(size_t))});
}

} // namespace

class PythonEnds : public AgentRoad
{
protected:
    static bool IsReady(ChildProcess& agent) { return agent.WaitForOutput("ready\n", kStarted); }

    static void ExpectNothingThrown(const ChildProcess& program)
    {
        EXPECT_EQ(CountOf(program.ErrorOutput(), "Traceback"), 0U) << program.ErrorOutput();
    }

    // An interpreter takes its time to start where others build.
    static constexpr std::chrono::seconds kStarted{60};
};

TEST(PythonWire, ReadsAndWritesTheVectors)
{
    const TSFinished checked = RunProgram(Python("check_vectors.py", {KEL_WIRE_VECTORS}));

    EXPECT_EQ(checked.m_exit, 0) << Text(checked);
    EXPECT_THAT(checked.m_output, EndsWith(" vectors, 0 faults\n"));
}

TEST_F(PythonEnds, OurApplicationsHearFromThePythonAgent)
{
    ChildProcess agent(Python("agent.py"));
    ASSERT_TRUE(IsReady(agent)) << agent.ErrorOutput();

    const TSFinished heard = RunProgram({KEL_HEAR_POLICY_EXAMPLE, "<policy/>"});

    EXPECT_EQ(heard.m_exit, 0) << Text(heard);
    EXPECT_EQ(heard.m_output, kHeard);
    EXPECT_TRUE(agent.WaitForOutput("event 2: ")) << agent.Output(); // it ends, answered or not

    ChildProcess monitor({KEL_CTL, "monitor"});
    EXPECT_TRUE(WaitUntil([&] { // until the monitor's "Hello" has come
        agent.Signal(SIGUSR1);
        return CountOf(monitor.Output(), " process-info-request\n") > 0;
    }));
    EXPECT_TRUE(agent.WaitForOutput(" handled\n")) << agent.Output();
    ExpectNothingThrown(agent);
}

TEST_F(PythonEnds, ThePythonApplicationSetsOurAgentsPolicyAndHearsFromIt)
{
    ProvideAgent();

    ChildProcess application(Application());

    EXPECT_TRUE(application.WaitForOutput(std::string("the agent answers 0\n") + kHeard, kStarted))
        << application.ErrorOutput();
    EXPECT_EQ(StoredPolicy(), ReadFile(kPolicy));
    ASSERT_TRUE(AgentId().has_value());
    kill(*AgentId(), SIGUSR1);
    EXPECT_TRUE(application.WaitForOutput(kAsked)) << application.ErrorOutput();

    KillAgent();
    ProvideAgent();
    EXPECT_TRUE(WaitUntil([&] { // until the "Hello" to another agent, which knows nobody, has come
        return SetPolicy("<policy/>").m_exit != 0 || CountOf(application.Output(), kHeard) > 1;
    }));
    EXPECT_GT(CountOf(application.Output(), kHeard), 1U);
    ExpectNothingThrown(application);
}

TEST_F(PythonEnds, UnderstandOneAnother)
{
    ChildProcess agent(Python("agent.py"));
    ASSERT_TRUE(IsReady(agent)) << agent.ErrorOutput();

    ChildProcess application(Application());

    EXPECT_TRUE(application.WaitForOutput(std::string("the agent answers 0\n") + kHeard, kStarted))
        << application.ErrorOutput();
    agent.Signal(SIGUSR1);
    EXPECT_TRUE(application.WaitForOutput(kAsked)) << application.ErrorOutput();
    ExpectNothingThrown(agent);
    ExpectNothingThrown(application);
}

TEST_F(PythonEnds, ThePythonAgentAnswersEachArchiveInItsOwnKind)
{
    ChildProcess agent(Python("agent.py"));
    ASSERT_TRUE(IsReady(agent)) << agent.ErrorOutput();

    for (const json& vector : WireVectors("policies")) {
        SCOPED_TRACE(vector.dump());
        const TBytes archive = HexBytes(vector, "bytes");

        const TSReply reply = m_peer.Send(SendBytes(kSetPolicy, 0, archive));

        EXPECT_TRUE(reply.IsOk()) << reply.m_error;
        if (IsRefused(vector)) {
            EXPECT_EQ(reply.m_bytes, TBytes{0});
            continue;
        }
        const size_t header = vector.at("word").get<size_t>() / 8 + 22 + 2 + 8;
        const bool isTaken = vector.at("policy").get<std::string>().substr(0, 2) == "3c"; // "<"
        TBytes expected(archive.begin(), archive.begin() + static_cast<ptrdiff_t>(header));
        expected.insert(expected.begin(), 1);
        expected.insert(expected.end(), {static_cast<unsigned char>(isTaken ? 0 : 5), 0, 0, 0});
        EXPECT_EQ(reply.m_bytes, expected);
    }
    ExpectNothingThrown(agent);
}

TEST_F(PythonEnds, WithoutAnAnswerThePythonApplicationSaysWhy)
{
    const TSFinished alone = RunProgram(Application(), {}, {}, kStarted);
    EXPECT_EQ(alone.m_exit, 1) << Text(alone);
    EXPECT_THAT(alone.m_errorOutput, HasSubstr("ServiceUnknown"));

    ASSERT_TRUE(m_peer.OwnName());
    for (const auto& [answer, reason] :
         {std::make_pair(RawPeer::TSAnswer::Bytes({0}), ""),
          std::make_pair(RawPeer::TSAnswer::Bytes({}), "a reply without a result\n"),
          std::make_pair(RawPeer::TSAnswer::Bytes({1, 0, 0, 0, 0}), "no archive, or "),
          std::make_pair(RawPeer::TSAnswer::Other("('text',)"), "returned type")}) {
        m_peer.SetAnswer("Send", answer);

        const TSFinished set = RunProgram(Application(), {}, {}, kStarted);

        EXPECT_EQ(set.m_exit, 1) << Text(set);
        EXPECT_EQ(set.m_output, "");
        EXPECT_THAT(set.m_errorOutput, HasSubstr(reason));
        EXPECT_THAT(set.m_errorOutput, EndsWith("application: no answer\n"));
    }
}

} // namespace kel::test
