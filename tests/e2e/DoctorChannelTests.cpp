// kelctl doctor: the checks of the bus, what is installed for it, and the agent.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include <gmock/gmock.h>

#include "e2e/Findings.h"
#include "support/Archives.h"

namespace kel::test {

namespace fs = std::filesystem;
using testing::HasSubstr;

class DoctorChannel : public AgentRoad
{
protected:
    typedef std::vector<std::string> TWords;

    explicit DoctorChannel(const PrivateBus::TSOptions& options = {}) : AgentRoad(options) {}

    static TSFound Look(const std::string& check, const TWords& more = {})
    {
        TWords arguments{"doctor", "--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return FoundIn(Kelctl(arguments), check);
    }

    // As another user than root, the bus's and the agent's.
    static TSFound LookAsStranger(const std::string& check)
    {
        return FoundIn(RunProgram({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                   "--", KEL_CTL, "doctor", "--json"}),
                       check);
    }

    void Start(const TWords& arguments = {})
    {
        m_agent = StartAgent(arguments);
        ASSERT_TRUE(Says(*m_agent, "kel-agent: ready\n"));
    }

    // Has the peer be an agent that answers these types so, and declines others.
    void BeAgent(const std::map<int, std::string>& answers)
    {
        m_peer.SetAnswer("Send", [answers](const TSCall& call) {
            int type = 0;
            std::memcpy(&type, call.m_bytes.data(), sizeof(type));
            const auto found = answers.find(type);
            TBytes bytes(1, found != answers.end());
            if (found != answers.end()) {
                bytes.insert(bytes.end(), found->second.begin(), found->second.end());
            }
            return RawPeer::TSAnswer::Bytes(bytes);
        });
        ASSERT_TRUE(m_peer.OwnName());
    }

    // Replaces words in the configuration, behind the back of the bus.
    void Rewrite(const std::string& words, const std::string& others)
    {
        const std::string path = m_bus.Directory() + "/bus.conf";
        std::string text = ReadFile(path);
        const size_t at = text.find(words);
        ASSERT_NE(at, std::string::npos) << text;
        text.replace(at, words.size(), others);
        std::ofstream(path) << text;
    }

    std::unique_ptr<ChildProcess> m_agent;
};

template <const char* Config> class DoctorBusWith : public DoctorChannel
{
protected:
    DoctorBusWith() : DoctorChannel(Options()) {}

private:
    static PrivateBus::TSOptions Options()
    {
        PrivateBus::TSOptions options;
        options.m_config = Config;
        return options;
    }
};

// The bus.

TEST_F(DoctorChannel, TheBusIsGoodWhenItAnswers)
{
    EXPECT_THAT(Look("bus"), Finds("good", "the bus answers this user: dbus-"));
}

TEST(DoctorWithoutBus, ABusThatIsNotThereIsAFault)
{
    const TSFinished ended = RunProgram({KEL_CTL, "doctor", "--json"},
                                        {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none"}});

    EXPECT_EQ(ended.m_exit, 1);
    const TSFound found = FoundIn(ended, "bus");
    EXPECT_THAT(found, Finds("fault", "there is no system bus: Could not connect"));
    EXPECT_THAT(found.m_advice, HasSubstr("It is unix:path=/tmp/none"));
    EXPECT_THAT(FoundIn(ended, "agent"), Finds("warning", "there is no bus"));
    EXPECT_THAT(FoundIn(ended, "bus limits"), Finds("warning", "there is no bus"));
}

TEST(DoctorWithoutBus, WhoListensThereAndSaysNothingIsNotWaitedFor)
{
    const std::string directory = MakeDirectory();
    sockaddr_un address = {AF_UNIX, {}};
    (directory + "/bus").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 1), 0);

    const TSFinished ended
        = RunProgram({KEL_CTL, "doctor", "--json"},
                     {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + directory + "/bus"}});

    EXPECT_EQ(ended.m_exit, 1);
    EXPECT_THAT(FoundIn(ended, "bus"), Finds("fault", "who listens there says nothing"));
    close(listener);
    fs::remove_all(directory);
}

// Its policy.

TEST_F(DoctorChannel, ThePolicyIsGoodWhenMessagesReachTheAgent)
{
    Start();

    const TSFound found = Look("bus policy");

    EXPECT_THAT(found, Finds("good", "/com.norvale.kel.IControl.conf is installed, and loaded: "
                                     "this user's messages may go to the agent"));
}

TEST_F(DoctorChannel, WithoutAnAgentRootTriesTheEventsAndOthersNothing)
{
    Sandbox::NeedOtherUsers();

    EXPECT_THAT(Look("bus policy"),
                Finds("good", "installed, and loaded: events may go to the applications"));
    EXPECT_THAT(LookAsStranger("bus policy"), Finds("good", "is seen when an agent runs"));
    EXPECT_TRUE(m_peer.Calls().empty());
    EXPECT_FALSE(AgentId().has_value());
}

TEST_F(DoctorChannel, APolicyThatIsGoneIsAWarningUntilTheBusReadsItAgain)
{
    Rewrite("<includedir>" KEL_POLICY_DIR "</includedir>", "");

    EXPECT_THAT(Look("bus policy"), Finds("warning", "no file that it reads does so any more"));
}

class DoctorWithoutPolicy : public DoctorChannel
{
protected:
    DoctorWithoutPolicy() : DoctorChannel(Options()) {}

private:
    static PrivateBus::TSOptions Options()
    {
        PrivateBus::TSOptions options;
        options.m_projectPolicy = false;
        return options;
    }
};

TEST_F(DoctorWithoutPolicy, APolicyThatIsNotInstalledIsAFault)
{
    const TSFound found = Look("bus policy");

    EXPECT_THAT(found, Finds("fault", "the bus forbids the agent's events"));
    EXPECT_THAT(found.m_advice, HasSubstr("install com.norvale.kel.IControl.conf in /usr/share"));
    EXPECT_THAT(Look("bus policy", {"--test"}).m_advice,
                HasSubstr("install com.norvale.kel.IControlTest.conf in "));
}

TEST_F(DoctorWithoutPolicy, SoIsOneThatTheBusHasNotRead)
{
    Rewrite("</busconfig>", "<includedir>" KEL_POLICY_DIR "</includedir></busconfig>");

    const TSFound found = Look("bus policy");

    EXPECT_THAT(found,
                Finds("fault", "it has not read " KEL_POLICY_DIR "/com.norvale.kel.IControl.conf"));
    EXPECT_THAT(found.m_advice, HasSubstr("systemctl reload dbus"));
}

constexpr char kForbidsStrangers[]
    = "<policy user=\"65534\"><deny send_destination=\"com.norvale.kel.IControl\"/></policy>";
typedef DoctorBusWith<kForbidsStrangers> DoctorForbidden;

TEST_F(DoctorForbidden, WhomTheBusForbidsTheAgentIsToldSo)
{
    Sandbox::NeedOtherUsers();
    Start();

    const TSFound found = LookAsStranger("bus policy");

    EXPECT_THAT(found, Finds("fault", "the bus forbids this user's messages to the agent"));
    EXPECT_THAT(LookAsStranger("agent"), Finds("warning", "the bus forbids this user to ask it"));
    EXPECT_THAT(Look("bus policy"), Finds("good", "loaded"));
}

// The activation file.

TEST_F(DoctorChannel, AnActivationFileIsGoodWhenItsProgramCanBeExecuted)
{
    LetTheBusStartTheAgent();

    ASSERT_TRUE(WaitUntil([] { return Look("activation").m_health == "good"; }));
    EXPECT_THAT(Look("activation").m_what,
                HasSubstr("/services/com.norvale.kel.IControl.service has the bus start "
                          + m_bus.Directory() + "/start-agent"));
    EXPECT_FALSE(AgentId().has_value()); // none was started
}

TEST_F(DoctorChannel, WithoutOneTheBusStartsNoAgent)
{
    EXPECT_THAT(Look("activation"), Finds("warning", "com.norvale.kel.IControl.service is not in "
                                                         + m_bus.Directory() + "/services"));
    EXPECT_THAT(Look("activation", {"--test"}), Finds("good", "started by hand"));
}

TEST_F(DoctorChannel, AnActivationFileWithoutItsProgramIsAFault)
{
    const std::string program = m_bus.Directory() + "/program";
    m_bus.AddService(kBusName, program);

    EXPECT_THAT(Look("activation"), Finds("fault", program + ": No such file or directory"));

    std::ofstream(program) << "text";
    EXPECT_THAT(Look("activation"), Finds("fault", program + " is no program"));
}

TEST_F(DoctorChannel, AnActivationFileThatTheBusHasNotReadIsAFault)
{
    fs::create_directory(m_bus.Directory() + "/late");
    std::ofstream(m_bus.Directory() + "/late/com.norvale.kel.IControl.service")
        << "[D-BUS Service]\nName=com.norvale.kel.IControl\nExec=" KEL_AGENT "\nUser=root\n";
    Rewrite("</busconfig>", "<servicedir>" + m_bus.Directory() + "/late</servicedir></busconfig>");

    EXPECT_THAT(Look("activation"), Finds("fault", "the bus has not read "));
}

// The agent.

TEST_F(DoctorChannel, AnAgentIsGoodWhenItAnswers)
{
    Start();

    const TSFound found = Look("agent");

    EXPECT_THAT(found, Finds("good", "version " KEL_VERSION " (process "
                                         + std::to_string(m_agent->Id()) + ", "));
    EXPECT_TRUE(std::regex_search(found.m_what, std::regex("answers within [0-9]+ ms$")))
        << found.m_what;
}

TEST_F(DoctorChannel, WithoutAnAgentItTellsWhetherTheBusStartsOne)
{
    EXPECT_THAT(Look("agent"), Finds("fault", "no agent runs, and the bus can start none"));

    LetTheBusStartTheAgent();
    ASSERT_TRUE(WaitUntil([] { return Look("agent").m_health == "warning"; }));
    EXPECT_THAT(Look("agent"), Finds("warning", "the bus starts one for the first message"));
    EXPECT_FALSE(AgentId().has_value());
}

TEST_F(DoctorChannel, TheAgentOfTheTestChannelIsAnother)
{
    Start({"--test"});

    EXPECT_THAT(Look("agent", {"--test"}), Finds("good", "answers within"));
    EXPECT_THAT(Look("agent"), Finds("fault", "no agent runs"));
}

TEST_F(DoctorChannel, AnAgentThatDoesNotAnswerIsAFault)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    ASSERT_TRUE(m_peer.OwnName());

    EXPECT_THAT(Look("agent"), Finds("fault", "does not answer within "));
    EXPECT_EQ(m_peer.Calls("Send").size(), 1u); // it is not asked for more, which would take longer
    EXPECT_THAT(Look("archive"), Finds("warning", "no agent answers"));
}

TEST_F(DoctorChannel, AnAgentOfAnotherVersionIsAWarning)
{
    BeAgent({{100, "9.9"}});

    EXPECT_THAT(Look("agent"), Finds("warning", "version 9.9 (process "));
    EXPECT_THAT(Look("agent"), Finds("warning", "kelctl, which has " KEL_VERSION));
}

// The limits of the bus.

TEST_F(DoctorChannel, TheLimitsAreGoodWhenTheApplicationsHaveRoom)
{
    Start();
    ASSERT_TRUE(m_peer.Hello({2}).IsOk());

    const TSFound found = Look("bus limits");

    EXPECT_THAT(found, Finds("good", "the agent knows 1 application"));
    if (!PrivateBus::IsBroker()) {
        EXPECT_THAT(found.m_what, HasSubstr("a message has 33554432 bytes at most, a connection "
                                            "waits for 128 answers, and has 512 match rules"));
        EXPECT_THAT(found.m_what, HasSubstr(", and has 1 match rule")); // of the agent's, by count
    }
}

constexpr char kFewReplies[] = "<limit name=\"max_replies_per_connection\">1</limit>";
typedef DoctorBusWith<kFewReplies> DoctorFewReplies;

TEST_F(DoctorFewReplies, MoreApplicationsThanRepliesAreAWarning)
{
    PrivateBus::NeedReplyLimit();
    RawPeer other(m_bus);
    Start();
    ASSERT_TRUE(m_peer.Hello({2}).IsOk());
    EXPECT_THAT(Look("bus limits"), Finds("good", "the agent knows 1 application"));

    ASSERT_TRUE(other.Hello({2}).IsOk());

    const TSFound found = Look("bus limits");
    EXPECT_THAT(found, Finds("warning", "Too little of max_replies_per_connection"));
    EXPECT_THAT(found.m_advice, HasSubstr("raise max_replies_per_connection"));
}

constexpr char kFewMatches[] = "<limit name=\"max_match_rules_per_connection\">1</limit>";
typedef DoctorBusWith<kFewMatches> DoctorFewMatches;

TEST_F(DoctorFewMatches, AnAgentWithoutMatchRulesLeftIsAWarning)
{
    PrivateBus::NeedReplyLimit();
    Start();
    ASSERT_TRUE(m_peer.Hello({2}).IsOk());

    EXPECT_THAT(Look("bus limits"),
                Finds("warning", "Too little of max_match_rules_per_connection"));
}

constexpr char kSmallMessages[] = "<limit name=\"max_message_size\">1000000</limit>";
typedef DoctorBusWith<kSmallMessages> DoctorSmallMessages;

TEST_F(DoctorSmallMessages, ABusThatTakesLessThanTheLibrarySendsIsAWarning)
{
    PrivateBus::NeedReplyLimit();

    EXPECT_THAT(Look("bus limits"), Finds("warning", "Too little of max_message_size"));
    EXPECT_THAT(Look("bus limits"), Finds("warning", "a message has 1000000 bytes at most"));
}

TEST_F(DoctorChannel, LimitsThatThisUserMayNotReadAreAWarning)
{
    Sandbox::NeedOtherUsers();
    fs::permissions(m_bus.Directory() + "/bus.conf", fs::perms::owner_read);

    EXPECT_THAT(LookAsStranger("bus limits"), Finds("warning", "bus.conf: Permission denied"));
    EXPECT_THAT(LookAsStranger("bus policy"), Finds("warning", "no file of the bus that is seen"));
}

// The archives.

TEST_F(DoctorChannel, TheArchivesAreGoodWhenBothEndsWriteThemAlike)
{
    Start();

    EXPECT_THAT(Look("archive"), Finds("good", "both ends write Boost archives of version "));
}

TEST_F(DoctorChannel, AnAgentOfAnotherBoostOrWordSizeIsAFault)
{
    const std::vector<unsigned char> archive = ArchiveOf(0);
    std::string newer(archive.begin(), archive.end());
    ++newer[kVersionAt];
    const unsigned int version = static_cast<unsigned char>(newer[kVersionAt]);
    BeAgent({{100, KEL_VERSION}, {102, newer}});
    EXPECT_THAT(Look("archive"), Finds("fault", "the agent writes Boost archives of version "
                                                    + std::to_string(version)));

    std::string other(archive.begin(), archive.end());
    sizeof(size_t) == 8 ? other.erase(4, 4) : other.insert(4, std::string(4, '\0'));
    BeAgent({{100, KEL_VERSION}, {102, other}});
    EXPECT_THAT(Look("archive"), Finds("fault", sizeof(size_t) == 8 ? "in words of 32 bits"
                                                                    : "in words of 64 bits"));
}

TEST_F(DoctorChannel, AnAgentThatDoesNotTellItsBoostIsAWarning)
{
    BeAgent({{100, KEL_VERSION}});

    EXPECT_THAT(Look("archive"), Finds("warning", "another agent than kel-agent, or older"));
}

} // namespace kel::test
