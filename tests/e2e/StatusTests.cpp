// kelctl status: who the agent is, without starting one.

#include <unistd.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

class KelctlStatus : public AgentRoad
{
protected:
    static TBytes Handled(const std::string& text)
    {
        TBytes bytes{1};
        bytes.insert(bytes.end(), text.begin(), text.end());
        return bytes;
    }
};

TEST_F(KelctlStatus, TellsProcessAndUniqueNameOfTheOwner)
{
    ASSERT_TRUE(m_peer.OwnName());
    const std::string process = std::to_string(getpid());

    const TSFinished text = Kelctl({"status"});
    const TSFinished json = Kelctl({"status", "--json"});

    EXPECT_EQ(text.m_exit, 0) << Text(text);
    EXPECT_EQ(text.m_output,
              "running: process " + process + ", unique name " + m_peer.Name() + "\n");
    EXPECT_EQ(text.m_errorOutput, "");
    EXPECT_EQ(json.m_exit, 0) << Text(json);
    EXPECT_EQ(json.m_output, "{\"running\": true, \"pid\": " + process + ", \"unique-name\": \""
                                 + m_peer.Name() + "\", \"denied\": false, \"answers\": true}\n");
    for (const TSCall& call : m_peer.Calls()) {
        EXPECT_EQ(call.m_bytes, SendBytes(100, 0)); // nothing but the version is asked for
    }
}

TEST_F(KelctlStatus, TellsTheVersionAndNothingThatIsNone)
{
    ASSERT_TRUE(m_peer.OwnName());
    const std::pair<std::string, std::string> answers[]
        = {{"1.2.3~rc1+dfsg-4", ", version 1.2.3~rc1+dfsg-4"},
           {"", ""},
           {"1 2", ""},
           {"1\"", ""},
           {"\033[2J", ""},
           {std::string(100, '1'), ""}};
    for (const auto& [version, told] : answers) {
        m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(Handled(version)));

        const TSFinished text = Kelctl({"status"});

        EXPECT_EQ(text.m_exit, 0) << Text(text);
        EXPECT_THAT(text.m_output, testing::EndsWith("unique name " + m_peer.Name() + told + "\n"));
    }
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes(Handled("1.2")));
    EXPECT_THAT(Kelctl({"status", "--json"}).m_output,
                testing::EndsWith("\"answers\": true, \"version\": \"1.2\"}\n"));
}

TEST_F(KelctlStatus, TellsOfAnAgentThatDoesNotAnswer)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    ASSERT_TRUE(m_peer.OwnName());

    const TSFinished text = Kelctl({"status"});

    EXPECT_EQ(text.m_exit, 0) << Text(text);
    EXPECT_THAT(text.m_output, testing::EndsWith(", does not answer\n"));
}

TEST_F(KelctlStatus, TellsTheRealAgentFromNoneAndStartsNone)
{
    LetTheBusStartTheAgent();

    const TSFinished without = Kelctl({"status"});
    const TSFinished json = Kelctl({"status", "--json"});
    const bool started = std::filesystem::exists(m_bus.Directory() + "/agents");
    ASSERT_EQ(SetPolicy("<policy/>").m_exit, 0);
    const TSFinished with = Kelctl({"status"});

    EXPECT_EQ(without.m_exit, 1) << Text(without);
    EXPECT_EQ(without.m_output, "");
    EXPECT_EQ(without.m_errorOutput, "kelctl: no agent runs\n");
    EXPECT_EQ(json.m_exit, 1) << Text(json);
    EXPECT_EQ(json.m_output, "{\"running\": false}\n");
    EXPECT_FALSE(started);
    EXPECT_EQ(with.m_exit, 0) << Text(with);
    EXPECT_THAT(with.m_output,
                testing::StartsWith("running: process " + std::to_string(AgentId().value()) + ","));
    EXPECT_THAT(with.m_output, testing::EndsWith(", version " KEL_VERSION "\n"));
}

TEST(KelctlStatusWithoutBus, TellsSo)
{
    const TSFinished ended
        = RunProgram({KEL_CTL, "status"}, {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none"}});

    EXPECT_EQ(ended.m_exit, 3) << Text(ended);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: no system bus: ")) << Text(ended);
}

} // namespace kel::test
