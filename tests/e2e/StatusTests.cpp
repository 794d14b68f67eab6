// kelctl status: who the agent is, without starting one.

#include <unistd.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

class KelctlStatus : public AgentRoad
{
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
                                 + m_peer.Name() + "\"}\n");
    EXPECT_TRUE(m_peer.Calls().empty()); // the owner is not asked
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
