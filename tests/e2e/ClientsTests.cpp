// kelctl status --clients: the applications that the agent knows, and what became of its events.

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/AgentRoad.h"

namespace kel::test {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class KelctlClients : public AgentRoad
{
protected:
    typedef RawPeer::TSAnswer TSAnswer;

    void Start()
    {
        m_agent = StartAgent();
        ASSERT_TRUE(Says(*m_agent, "kel-agent: ready\n"));
    }

    static void Introduce(RawPeer& application, const std::vector<int>& types = {2, 4})
    {
        ASSERT_TRUE(application.Hello(types).IsOk());
    }

    // This one's, as other processes see it.
    static std::string Program()
    {
        const std::string link = "/proc/" + std::to_string(getpid()) + "/exe";
        return RunProgram({"readlink", "--no-newline", link}).m_output;
    }

    // Has the agent ask all for process information, and waits for the counts in its log.
    void Ask(const std::string& counts)
    {
        m_agent->Signal(SIGUSR1);
        ASSERT_TRUE(Says(*m_agent, "kel-agent: process information: " + counts + "\n"))
            << m_agent->ErrorOutput();
    }

    // What is told of the applications, by unique name.
    static std::map<std::string, json> Clients()
    {
        const TSFinished ended = Kelctl({"status", "--clients", "--json"});
        EXPECT_EQ(ended.m_exit, 0) << Text(ended);
        const json whole = json::parse(ended.m_output);
        std::map<std::string, json> clients;
        for (const json& client : whole.at("clients")) {
            clients[client.at("unique-name")] = client;
        }
        return clients;
    }

    static std::unique_ptr<ChildProcess> Watch(const std::vector<std::string>& more = {})
    {
        std::vector<std::string> command{KEL_CTL, "status", "--clients", "--watch"};
        command.insert(command.end(), more.begin(), more.end());
        return std::make_unique<ChildProcess>(command);
    }

    std::unique_ptr<ChildProcess> m_agent;
};

TEST_F(KelctlClients, AreToldWithTheirProcessAndWhatBecameOfTheEvents)
{
    Start();
    RawPeer declines(m_bus);
    declines.SetAnswer("Send", TSAnswer::Bytes({0}));
    auto leaves = std::make_unique<RawPeer>(m_bus);
    leaves->SetAnswer("Send", TSAnswer::Nothing());
    RawPeer waits(m_bus);
    waits.SetAnswer("Send", TSAnswer::Nothing());
    RawPeer others(m_bus);
    Introduce(m_peer);
    Introduce(declines);
    Introduce(*leaves);
    Introduce(waits);
    Introduce(others, {7, -1});
    const std::string left = leaves->Name();
    m_agent->Signal(SIGUSR1);
    ASSERT_TRUE(leaves->WaitForCalls("Send", 1));
    leaves->Vanish();

    ASSERT_TRUE(Says(*m_agent, "kel-agent: process information: 1 handled, 3 not\n"))
        << m_agent->ErrorOutput();

    const std::map<std::string, json> clients = Clients();
    EXPECT_EQ(clients.size(), 4U);
    EXPECT_EQ(clients.count(left), 0U);
    const json& handled = clients.at(m_peer.Name());
    EXPECT_EQ(handled.at("pid"), getpid());
    EXPECT_EQ(handled.at("user"), getuid());
    EXPECT_EQ(handled.at("program"), Program());
    EXPECT_EQ(handled.at("types"), json({2, 4}));
    EXPECT_EQ(handled.at("number-of-types"), 2);
    EXPECT_THAT(handled.at("registered").get<std::string>(), StartsWith("20"));
    EXPECT_EQ(handled.at("sent"), 1);
    EXPECT_EQ(handled.at("handled"), 1);
    EXPECT_GT(handled.at("last-us").get<int>(), 0);
    EXPECT_EQ(clients.at(declines.Name()).at("refused"), 1);
    const json& late = clients.at(waits.Name());
    EXPECT_EQ(late.at("timed-out"), 1);
    EXPECT_GE(late.at("slowest-us").get<int>(), 4'900'000);
    EXPECT_EQ(late.at("handled"), 0);
    EXPECT_EQ(clients.at(others.Name()).at("sent"), 0);
    EXPECT_EQ(clients.at(others.Name()).at("types"), json({-1, 7}));

    const std::string who = " (process " + std::to_string(getpid()) + ", " + Program() + ", user "
                            + std::to_string(getuid()) + ") did not handle process information: ";
    const std::string log = m_agent->ErrorOutput();
    EXPECT_THAT(log, HasSubstr("kel-agent: " + declines.Name() + who
                               + "it has declined, or its function has thrown\n"));
    EXPECT_THAT(log, HasSubstr("kel-agent: " + left + who + "it has left the bus\n"));
    EXPECT_THAT(log, HasSubstr("kel-agent: " + waits.Name() + who + "no answer in 5000 ms\n"));
    EXPECT_THAT(log, Not(HasSubstr(m_peer.Name() + who)));
}

TEST_F(KelctlClients, ACrowdThatRefusesFillsNoLog)
{
    Start();
    std::vector<std::unique_ptr<RawPeer>> crowd;
    for (int i = 0; i < 20; ++i) {
        crowd.push_back(std::make_unique<RawPeer>(m_bus));
        crowd.back()->SetAnswer("Send", TSAnswer::Error("com.norvale.Test"));
        Introduce(*crowd.back());
    }

    Ask("0 handled, 20 not");

    EXPECT_EQ(CountOf(m_agent->ErrorOutput(), " did not handle "), 16U);
    EXPECT_THAT(m_agent->ErrorOutput(), HasSubstr(": error com.norvale.Test: "));
    EXPECT_THAT(m_agent->ErrorOutput(), HasSubstr("kel-agent: nor did 4 more\n"));
}

TEST_F(KelctlClients, ATableTellsThemToPeople)
{
    Start();
    const std::string bare = Kelctl({"status", "--clients"}).m_output;
    Introduce(m_peer);

    const TSFinished ended = Kelctl({"status", "--clients"});

    EXPECT_THAT(bare, StartsWith("running: process "));
    EXPECT_EQ(CountOf(bare, "\n"), 2U) << bare;
    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_EQ(CountOf(ended.m_output, "\n"), 3U) << ended.m_output;
    EXPECT_THAT(ended.m_output, HasSubstr("\nCLIENT  "));
    EXPECT_THAT(ended.m_output, HasSubstr("\n" + m_peer.Name() + "  "));
    EXPECT_THAT(ended.m_output, HasSubstr("  2,4    20"));
    EXPECT_THAT(ended.m_output, EndsWith("  " + Program() + "\n"));
}

TEST_F(KelctlClients, AProgramsNameSteersNoTerminal)
{
    Start();
    const std::string hostile = "/tmp/\033[2J\npla\"yer";
    std::filesystem::copy_file(KEL_HEAR_POLICY_EXAMPLE, hostile,
                               std::filesystem::copy_options::overwrite_existing);
    const ChildProcess player(std::vector<std::string>{hostile});
    ASSERT_TRUE(WaitUntil([] { return Clients().size() == 1; }));

    const TSFinished ended = Kelctl({"status", "--clients"});

    EXPECT_EQ(Clients().begin()->second.at("program"), hostile);
    EXPECT_EQ(Clients().begin()->second.at("pid"), player.Id());
    EXPECT_THAT(ended.m_output, EndsWith("  /tmp/\\x1b[2J\\x0apla\"yer\n"));
    std::filesystem::remove(hostile);
}

TEST_F(KelctlClients, OfAHelloOfManyTypesTheFirstAreTold)
{
    Start();
    std::vector<int> types(40);
    for (size_t i = 0; i < types.size(); ++i) {
        types[i] = static_cast<int>(i);
    }
    Introduce(m_peer, types);

    const json client = Clients().at(m_peer.Name());

    EXPECT_EQ(client.at("types").size(), 32U);
    EXPECT_EQ(client.at("number-of-types"), 40);
    EXPECT_THAT(Kelctl({"status", "--clients"}).m_output, HasSubstr(",30,31...  "));
}

TEST_F(KelctlClients, OfAnAgentThatDoesNotTellThereAreNone)
{
    ASSERT_TRUE(m_peer.OwnName());
    const std::vector<TBytes> answers
        = {{0}, {1}, {1, '{', '}'}, {1, '[', ']'}, {1, 0xff}, {1, 'n', 'u', 'l', 'l'}};
    for (const TBytes& answer : answers) {
        m_peer.SetAnswer("Send", TSAnswer::Bytes(answer));

        const TSFinished ended = Kelctl({"status", "--clients"});

        EXPECT_EQ(ended.m_exit, 1) << Text(ended);
        EXPECT_THAT(ended.m_output, StartsWith("running: "));
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the agent that runs does not tell"));
    }
    const std::string odd = R"({"clients": {"no name": 7, ":9.9\u001b": {"pid": {}, "types": 1}}})";
    TBytes answer{1};
    answer.insert(answer.end(), odd.begin(), odd.end());
    m_peer.SetAnswer("Send", TSAnswer::Bytes(answer));
    const TSFinished ended = Kelctl({"status", "--clients"});
    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_THAT(ended.m_output, HasSubstr("\nno name "));
    EXPECT_THAT(ended.m_output, HasSubstr("\n:9.9\\x1b "));
    m_peer.SetAnswer("Send", TSAnswer::Nothing());
    EXPECT_EQ(Kelctl({"status", "--clients"}).m_exit, 3);
}

TEST_F(KelctlClients, AWatchIsOfClients) { EXPECT_EQ(Kelctl({"status", "--watch"}).m_exit, 2); }

TEST_F(KelctlClients, AWatchPrintsALineForEachChange)
{
    const auto watch = Watch();
    ASSERT_TRUE(watch->WaitForOutput("Z no agent runs\n"));

    Start();
    ASSERT_TRUE(watch->WaitForOutput("Z running: process " + std::to_string(m_agent->Id())));
    auto application = std::make_unique<RawPeer>(m_bus);
    Introduce(*application);
    const std::string start
        = "Z " + application->Name() + " PROCESS " + std::to_string(getpid()) + " USER ";
    ASSERT_TRUE(watch->WaitForOutput(start)) << watch->Output();
    Ask("1 handled, 0 not");
    ASSERT_TRUE(watch->WaitForOutput(" SENT 1 HANDLED 1 REFUSED 0 ")) << watch->Output();
    const std::string gone = "Z " + application->Name() + " gone\n";
    application->Vanish();
    ASSERT_TRUE(watch->WaitForOutput(gone)) << watch->Output();
    EXPECT_EQ(CountOf(watch->Output(), start), 2U) << watch->Output();
    EXPECT_EQ(CountOf(watch->Output(), "\033"), 0U);

    watch->Signal(SIGTERM);
    EXPECT_EQ(watch->Wait(), 0);
    EXPECT_EQ(watch->ErrorOutput(), "");
}

TEST_F(KelctlClients, AWatchPrintsAnObjectForEachChange)
{
    Start();
    const auto watch = Watch({"--json"});
    ASSERT_TRUE(watch->WaitForOutput("\"clients\": []}\n"));

    Introduce(m_peer);
    ASSERT_TRUE(watch->WaitForOutput(m_peer.Name()));
    m_agent->Kill();
    ASSERT_TRUE(watch->WaitForOutput("{\"running\": false}\n"));

    watch->Signal(SIGINT);
    EXPECT_EQ(watch->Wait(), 0);
    EXPECT_GE(CountOf(watch->Output(), "\n"), 3U) << watch->Output();
    const std::string whole = watch->Output();
    const size_t second = whole.find('\n') + 1;
    const json object = json::parse(whole.substr(second, whole.find('\n', second) - second));
    EXPECT_EQ(object.at("clients").at(0).at("unique-name"), m_peer.Name());
}

TEST_F(KelctlClients, AWatchDrawsATerminalAnewInItsPlace)
{
    Start();
    Introduce(m_peer);
    const ChildProcess watch(std::vector<std::string>{
        "script", "-qec", "'" KEL_CTL "' status --clients --watch", "/dev/null"});

    // Twice: the cursor goes home, and the rest of each line and of the screen is cleared.
    const std::string home = "\033[?7l\033[H";
    EXPECT_TRUE(WaitUntil([&] { return CountOf(watch.Output(), home) >= 3; })) << watch.Output();
    const std::string output = watch.Output();
    EXPECT_EQ(CountOf(output, "\033[2J"), 1U);
    const size_t first = output.find(home);
    const std::string drawn = output.substr(first, output.find(home, first + 1) - first);
    EXPECT_THAT(drawn, HasSubstr("Z running: process "));
    EXPECT_THAT(drawn, HasSubstr("\033[K\r\nCLIENT "));
    EXPECT_THAT(drawn, HasSubstr("\033[K\r\n" + m_peer.Name() + " "));
    EXPECT_THAT(drawn, EndsWith("\033[K\r\n\033[J\033[?7h"));
}

TEST_F(KelctlClients, AWatchEndsWithItsReaderAndWithTheBus)
{
    const TSFinished closed = RunProgram(
        {"bash", "-c", "'" KEL_CTL "' status --clients --watch | true; exit ${PIPESTATUS[0]}"});
    EXPECT_EQ(closed.m_exit, 5) << Text(closed);
    EXPECT_EQ(closed.m_errorOutput, "");

    const auto watch = Watch();
    ASSERT_TRUE(watch->WaitForOutput("no agent runs\n"));
    m_bus.Kill();
    EXPECT_EQ(watch->Wait(), 3);
    EXPECT_EQ(watch->ErrorOutput(), "kelctl: the system bus is gone\n");
}

} // namespace kel::test
