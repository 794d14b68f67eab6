// What the bus policy lets whom do. Outside the sandbox: inside, there may be no second user.

#include <unistd.h>

#include "channel/ChannelTest.h"
#include "support/Sandbox.h"

namespace kel::test {

namespace {

constexpr char kDenied[] = "org.freedesktop.DBus.Error.AccessDenied";

PrivateBus::TSOptions ProjectPolicyAlone()
{
    PrivateBus::TSOptions options;
    options.m_thisUserIsAgent = false;
    return options;
}

/// Calls a method as an unprivileged user.
TSFinished CallAsApplication(const PrivateBus& bus, const std::string& destination,
                             const std::string& path, const std::string& method,
                             const std::vector<std::string>& arguments)
{
    std::vector<std::string> command;
    if (geteuid() == 0) {
        command = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
    }
    command.insert(command.end(), {"gdbus", "call", "--address", bus.Address(), "--dest",
                                   destination, "--object-path", path, "--method", method});
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command);
}

class Policy : public testing::TestWithParam<std::pair<const char*, const char*>>
{
protected:
    const std::string m_name = GetParam().first;
    const std::string m_path = GetParam().second;
};

TEST_P(Policy, AnUnprivilegedUserCannotTakeTheAgentsName)
{
    const PrivateBus bus(ProjectPolicyAlone());

    const TSFinished taken = CallAsApplication(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus.RequestName", {m_name, "0"});

    EXPECT_EQ(taken.m_exit, 1) << taken.m_output;
    EXPECT_NE(taken.m_errorOutput.find(kDenied), std::string::npos) << taken.m_errorOutput;
}

TEST_P(Policy, AnUnprivilegedApplicationReachesTheAgentThroughTheChannelAlone)
{
    const PrivateBus bus;
    RawPeer agent(bus);
    ASSERT_TRUE(agent.OwnName(m_name)) << "the agent's user can take it";

    const TSFinished send
        = CallAsApplication(bus, m_name, m_path, std::string(kInterface) + ".Send", {"[byte 1]"});
    const TSFinished other
        = CallAsApplication(bus, m_name, m_path, "org.freedesktop.DBus.Properties.GetAll", {"'x'"});

    EXPECT_EQ(send.m_exit, 0) << send.m_errorOutput;
    EXPECT_EQ(send.m_output, "([byte 0x01],)\n");
    EXPECT_NE(other.m_errorOutput.find(kDenied), std::string::npos) << other.m_errorOutput;
}

TEST_P(Policy, ApplicationsCannotCallOneAnother)
{
    const PrivateBus bus(ProjectPolicyAlone());
    RawPeer application(bus);

    const TSFinished send = CallAsApplication(bus, application.Name(), m_path,
                                              std::string(kInterface) + ".Send", {"[byte 1]"});

    EXPECT_NE(send.m_errorOutput.find(kDenied), std::string::npos) << send.m_errorOutput;
    EXPECT_TRUE(application.Calls().empty());
}

TEST_P(Policy, TheAgentReachesApplicationsThroughTheChannelAlone)
{
    const PrivateBus bus;
    RawPeer agent(bus);
    RawPeer application(bus);

    agent.SetTarget(application.Name(), m_path);
    EXPECT_TRUE(agent.Send(SendBytes(1, 0)).IsOk());
    const guint32 other = agent.Post("Send", Body({1}), false, "com.norvale.kel.Other");
    EXPECT_EQ(agent.WaitReply(other).m_error, kDenied);
    agent.SetTarget(application.Name(), "/another/object");
    EXPECT_EQ(agent.Send(SendBytes(1, 0)).m_error, kDenied);
    EXPECT_EQ(application.Calls().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Channels, Policy,
                         testing::Values(std::make_pair(kBusName, kObjectPath),
                                         std::make_pair(kTestBusName, kTestObjectPath)),
                         [](const auto& channel) { return channel.index == 0 ? "Real" : "Test"; });

} // namespace

} // namespace kel::test

int main(int argumentCount, char** arguments)
{
    return kel::test::RunTests(argumentCount, arguments);
}
