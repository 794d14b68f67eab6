// A request for a report, from the application to the agent's directory of state.

#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iterator>
#include <thread>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Mount.h"

namespace kel::test {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr int kProcessInfo = 4;

// As report.json has it; the clock of files lags behind by some milliseconds.
std::string Time(std::chrono::milliseconds offset = {})
{
    const auto now = std::chrono::system_clock::now().time_since_epoch() + offset;
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const time_t seconds = milliseconds / 1000;
    tm parts;
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &parts));
    char fraction[8];
    snprintf(fraction, sizeof(fraction), ".%03dZ", static_cast<int>(milliseconds % 1000));
    return std::string(text) + fraction;
}

std::string Text(const TNames& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += name + "\n";
    }
    return text;
}

TNames Fields(const TSReport& report)
{
    TNames fields;
    for (const char* const field :
         {"source", "name", "process", "thread", "mode", "reboot", "cut", "upload-path", "user"}) {
        fields.push_back(report["/request/"s + field]);
    }
    return fields;
}

} // namespace

class Report : public ReportRoad
{
protected:
    // An application that asked for requests of process information.
    static void Introduce(RawPeer& application)
    {
        ASSERT_TRUE(application.Hello({kProcessInfo}).IsOk());
        application.Settle(); // the agent answers first, and registers then
    }
};

TEST_F(Report, HasEveryFieldOfTheRequestFile)
{
    const auto agent = StartCollector();
    WriteFile("/tmp/a log", "text");
    const std::string user = std::to_string(getuid());
    const std::string before = Time(std::chrono::milliseconds(-20));

    EXPECT_EQ(Request(ONCE_ONLY, "proc", "main"), 1);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Request(OQC_ALWAYS, "proc", "main", 1), 1);
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    EXPECT_EQ(Request(ALWAYS, "my proc", "1.2", "/tmp/a log"s), 1);
    ASSERT_TRUE(WaitForReports(3)) << agent->ErrorOutput();
    EXPECT_EQ(Request(POLICY, "my-proc", "main", "/tmp/a log"s, 1), 1);
    ASSERT_TRUE(WaitForReports(4)) << agent->ErrorOutput();

    const std::vector<TSReport> reports = Reports();
    ASSERT_EQ(reports.size(), 4U);
    EXPECT_THAT(Fields(reports[0]),
                ElementsAre("/tmp/kel_NDF", "proc-main-ONCE_ONLY.log", "proc", "main", "ONCE_ONLY",
                            "false", "false", "null", user));
    EXPECT_THAT(Fields(reports[1]),
                ElementsAre("/tmp/kel_NDF_reboot", "proc-main-OQC_ALWAYS.log", "proc", "main",
                            "OQC_ALWAYS", "true", "false", "null", user));
    EXPECT_THAT(Fields(reports[2]),
                ElementsAre("/tmp/kel_NDF", "my proc-1.2-ALWAYS.log", "my proc", "1.2", "ALWAYS",
                            "false", "false", "/tmp/a log", user));
    EXPECT_THAT(Fields(reports[3]),
                ElementsAre("/tmp/kel_NDF_reboot", "my-proc-main-POLICY.log", "my-proc", "main",
                            "POLICY", "true", "false", "/tmp/a log", user));

    const std::string after = Time();
    std::string last = before;
    for (size_t i = 0; i < reports.size(); ++i) {
        const std::string number = std::to_string(i + 1);
        EXPECT_EQ(reports[i].m_directory.filename(), std::string(9, '0') + number);
        EXPECT_EQ(reports[i]["/id"], number);
        EXPECT_EQ(reports[i]["/artefact"], i < 2 ? "null" : "(absent)");
        EXPECT_EQ(reports[i]["/artefact/bytes"], i < 2 ? "(absent)" : "4");
        EXPECT_GE(reports[i]["/request/filed"], last);
        EXPECT_GE(reports[i]["/time"], reports[i]["/request/filed"]);
        EXPECT_GE(after, reports[i]["/time"]);
        EXPECT_THAT(reports[i]["/time"], MatchesRegex("....-..-..T..:..:..\\....Z"));
        last = reports[i]["/request/filed"];
        EXPECT_TRUE(Says(*agent, "kel-agent: report " + number + ": " + reports[i].Name() + " in "
                                     + reports[i]["/request/source"] + " collected\n"))
            << agent->ErrorOutput();
    }
}

TEST_F(Report, IsOfTheTypesThatItsReadersRelyOn)
{
    SetKernelLog("line\n");
    const auto agent = StartCollector();
    Request(ONCE_ONLY, "proc", "other", "/nowhere"s);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    Request(ONCE_ONLY, "proc", "main", "/nowhere"s);
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();

    std::map<std::string, std::string> json = Reports().at(1).m_members;

    EXPECT_EQ(json["/id"], "2");
    EXPECT_EQ(json["/request/name"], "\"proc-main-ONCE_ONLY.log\"");
    EXPECT_EQ(json["/request/reboot"], "false");
    EXPECT_EQ(json["/request/user"], std::to_string(getuid()));
    EXPECT_EQ(json["/request/upload-path"], "\"/nowhere\"");
    EXPECT_EQ(json["/applications/handled"], "0");
    EXPECT_EQ(json["/applications/failed"], "0");
    EXPECT_EQ(json["/kernel-log/file"], "null");
    EXPECT_EQ(json["/kernel-log/lines"], "0");
    EXPECT_EQ(json["/kernel-log/state"], "\"complete\"");
    EXPECT_EQ(json["/kernel-log/gap"], "false");
    EXPECT_EQ(json["/policy/policy-mode"], "0");
}

TEST_F(Report, ItsRequestIsGone)
{
    const auto agent = StartCollector();

    Request(ALWAYS, "proc", "main");
    Request(ALWAYS, "proc", "main", 1);
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();

    for (const fs::path& drop : {kDrop, kRebootDrop}) {
        EXPECT_EQ(NamesIn(drop), TNames());
    }
    EXPECT_TRUE(WaitUntil([] { return Taken().empty(); }));
}

TEST_F(Report, AnotherRequestOfTheSameNameIsAnother)
{
    const auto agent = StartCollector();

    for (size_t i = 1; i <= 3; ++i) {
        Request(ALWAYS, "proc", "main", "/nowhere/" + std::to_string(i));
        ASSERT_TRUE(WaitForReports(i)) << agent->ErrorOutput();
    }

    LetItLook();
    std::vector<TSReport> reports = Reports();
    ASSERT_EQ(reports.size(), 5U);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(reports[i]["/request/upload-path"], "/nowhere/" + std::to_string(i + 1));
    }
    EXPECT_EQ(reports[3].Name(), "look-once-ALWAYS.log");
}

TEST_F(Report, ARequestThatWasThereBeforeTheAgentIsCollected)
{
    fs::create_directory(kDrop);
    Request(ALWAYS, "proc", "main");
    RequestSlot("proc", "slot", 1);

    const auto agent = StartAgent();

    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    EXPECT_EQ(Names(), (TNames{"proc-main-ALWAYS.log", "proc|slot|1"}));
}

TEST_F(Report, HasACopyOfTheArtefactThatNobodyCanRun)
{
    std::string bytes;
    for (int i = 0; i < 300000; ++i) {
        bytes += static_cast<char>(i % 251 + i / 251);
    }
    WriteFile("/tmp/artefact", bytes);
    fs::permissions("/tmp/artefact", fs::perms::all | fs::perms::set_uid | fs::perms::set_gid);
    ASSERT_EQ(ModeOf("/tmp/artefact"), 06777U);
    const auto agent = StartCollector();

    Request(ALWAYS, "proc", "main", "/tmp/artefact"s);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();

    const TSReport report = Reports().at(0);
    EXPECT_EQ(report["/artefact/file"], "artefact");
    EXPECT_EQ(report["/artefact/bytes"], "300000");
    EXPECT_TRUE(ReadFile(report.m_directory / "artefact") == bytes);
    EXPECT_EQ(ModeOf(report.m_directory / "artefact"), 0600U);
    EXPECT_EQ(ReadFile("/tmp/artefact").size(), bytes.size()) << "it is left where it is";
}

TEST_F(Report, OfTheSlotHasItsFieldsAndTwoEqualRequestsGiveTwo)
{
    const auto agent = StartCollector();

    for (const size_t count : {1, 2}) {
        RequestSlot("proc", "main", 3);
        ASSERT_TRUE(WaitForReports(count)) << agent->ErrorOutput();
        EXPECT_TRUE(WaitUntil([] { return Slot().empty(); }));
    }
    RequestSlot("proc", "main");
    ASSERT_TRUE(WaitForReports(3)) << agent->ErrorOutput();

    const std::vector<TSReport> reports = Reports();
    ASSERT_EQ(reports.size(), 3U);
    for (const TSReport& report : {reports[0], reports[1]}) {
        EXPECT_THAT(Fields(report), ElementsAre("memory/kel/ndf_one", "proc|main|3", "proc", "main",
                                                "null", "true", "false", "null", "null"));
        EXPECT_EQ(report["/artefact"], "null");
    }
    EXPECT_THAT(Fields(reports[2]), ElementsAre("memory/kel/ndf_one", "proc|main|0", "proc", "main",
                                                "null", "false", "false", "null", "null"));
    EXPECT_TRUE(Says(*agent, "report 1: proc|main|3 in memory/kel/ndf_one collected\n"));
}

TEST_F(Report, OfTheSlotThereIsNoneForAValueOfAnotherForm)
{
    const auto agent = StartCollector();

    SetSlot("no\nrequest");
    ASSERT_TRUE(Says(*agent, "kel-agent: no\\x0arequest in memory/kel/ndf_one ignored: "))
        << agent->ErrorOutput();
    ASSERT_TRUE(WaitUntil([] { return Slot().empty(); }));
    RequestSlot("proc", "main");

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Names(), TNames{"proc|main|0"});
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " ignored: "), 1U) << agent->ErrorOutput();
}

TEST_F(Report, HasTheKernelLogsLinesThatAreNewSinceTheOneBefore)
{
    SetKernelLog("one\ntwo\n");
    const auto agent = StartCollector();
    Request(ALWAYS, "proc", "first");
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    SetKernelLog("one\ntwo\nthree\n");
    Request(ALWAYS, "proc", "second");
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    Request(ALWAYS, "proc", "third");
    ASSERT_TRUE(WaitForReports(3)) << agent->ErrorOutput();

    const std::vector<TSReport> reports = Reports();

    EXPECT_EQ(ReadFile(reports[0].m_directory / "kernel.log"), "one\ntwo\n");
    EXPECT_EQ(reports[0]["/kernel-log/lines"], "2");
    EXPECT_EQ(ReadFile(reports[1].m_directory / "kernel.log"), "three\n");
    EXPECT_EQ(reports[1]["/kernel-log/lines"], "1");
    EXPECT_EQ(reports[2]["/kernel-log/file"], "null");
    EXPECT_EQ(reports[2]["/kernel-log/lines"], "0");
}

TEST_F(Report, HasNoKernelLogWhereThereIsNoDmesg)
{
    const fs::path tools = m_bus.Directory() + "/few-tools";
    fs::create_directory(tools);
    fs::create_symlink("/bin/sh", tools / "sh");
    fs::create_symlink("/usr/bin/tail", tools / "tail");
    const auto agent = StartAgent({}, {{"PATH", tools}});
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n")) << agent->ErrorOutput();

    Request(ALWAYS, "proc", "main");

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/kernel-log/file"], "null");
    EXPECT_EQ(Reports().at(0)["/kernel-log/lines"], "0");
    EXPECT_EQ(Reports().at(0)["/kernel-log/state"], "unavailable");
    EXPECT_EQ(Reports().at(0)["/kernel-log/reason"], "dmesg gives no line");
}

TEST_F(Report, TellsThePolicyInForceAndTheSystem)
{
    const auto agent = StartCollector();
    Request(ALWAYS, "proc", "default");
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    fs::create_directories("/opt/usr/share/dlog");
    WriteFile("/opt/usr/share/dlog/yol_kel_policy.xml", "<policy/>");
    Request(ALWAYS, "proc", "variant");
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    fs::remove_all("/opt/usr");

    const std::vector<TSReport> reports = Reports();

    EXPECT_EQ(reports[0]["/policy/path"], "/opt/usr/share/dlog/default_kel_policy.xml");
    EXPECT_EQ(reports[0]["/policy/policy-mode"], "0");
    EXPECT_EQ(reports[0]["/policy/device-mode"], "0");
    EXPECT_EQ(reports[1]["/policy/path"], "/opt/usr/share/dlog/yol_kel_policy.xml");
    EXPECT_EQ(reports[1]["/policy/policy-mode"], "2");
    utsname system;
    ASSERT_EQ(uname(&system), 0);
    EXPECT_EQ(reports[0]["/system/kernel"], system.sysname);
    EXPECT_EQ(reports[0]["/system/kernel-release"], system.release);
    EXPECT_EQ(reports[0]["/system/machine"], system.machine);
    EXPECT_EQ(reports[0]["/system/page-size"], std::to_string(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(reports[0]["/system/cores"], std::to_string(sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST_F(Report, ComesAfterTheApplicationsWereAskedAndCountsThem)
{
    RawPeer declines(m_bus);
    declines.SetAnswer("Send", RawPeer::TSAnswer::Bytes({0}));
    const auto agent = StartCollector();
    m_peer.SetAnswer("Send", [this](const TSCall&) {
        EXPECT_EQ(Ids(), TNames());
        return RawPeer::TSAnswer::Bytes({1});
    });
    for (RawPeer* const application : {&m_peer, &declines}) {
        Introduce(*application);
    }

    Request(ALWAYS, "proc", "main");
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();

    EXPECT_EQ(Reports().at(0)["/applications/handled"], "1");
    EXPECT_EQ(Reports().at(0)["/applications/failed"], "1");
    ASSERT_EQ(m_peer.Calls("Send").size(), 1U);
    EXPECT_EQ(m_peer.Calls("Send")[0].m_bytes, SendBytes(kProcessInfo, 0));
    EXPECT_EQ(declines.Calls("Send").size(), 1U);
    EXPECT_EQ(CountOf(agent->ErrorOutput(), "kel-agent: process information: 1 handled, 1 not\n"),
              1U)
        << agent->ErrorOutput();
}

TEST_F(Report, ComesAlsoWhenAnApplicationNeverAnswers)
{
    RawPeer mute(m_bus);
    mute.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    const auto agent = StartCollector();
    for (RawPeer* const application : {&m_peer, &mute}) {
        Introduce(*application);
    }

    Request(ALWAYS, "proc", "main");
    ASSERT_TRUE(mute.WaitForCalls("Send", 1));
    EXPECT_EQ(Ids(), TNames());

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/applications/handled"], "null");
    EXPECT_EQ(Reports().at(0)["/applications/failed"], "null");
    EXPECT_EQ(Reports().at(0)["/applications/late"], "true");
    EXPECT_TRUE(Says(*agent, "kel-agent: process information: 1 handled, 1 not\n"))
        << agent->ErrorOutput();
}

TEST_F(Report, CountsAnApplicationThatTakesItsTime)
{
    const auto agent = StartCollector();
    m_peer.SetAnswer("Send", [](const TSCall&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return RawPeer::TSAnswer::Bytes({1});
    });
    Introduce(m_peer);

    Request(ALWAYS, "proc", "main");

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/applications/handled"], "1");
    EXPECT_EQ(Reports().at(0)["/applications/late"], "(absent)");
}

TEST_F(Report, RequestsThatWaitShareOneQuestionToTheApplications)
{
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    const auto agent = StartCollector();
    Introduce(m_peer);
    Request(ALWAYS, "proc", "first");
    ASSERT_TRUE(m_peer.WaitForCalls("Send", 1));

    for (const char* const thread : {"second", "third", "fourth"}) {
        Request(ALWAYS, "proc", thread);
    }
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes({1}));
    m_peer.Answer(m_peer.Calls("Send")[0], RawPeer::TSAnswer::Bytes({1}));

    ASSERT_TRUE(WaitForReports(4)) << agent->ErrorOutput();
    EXPECT_EQ(m_peer.Calls("Send").size(), 2U);
    EXPECT_EQ(Reports().at(3)["/applications/handled"], "1");
}

TEST_F(Report, HasAKernelLogThatWasReadInIdleTime)
{
    // The scheduling class of a process is the 41st field of its state.
    WriteFile(m_bus.Directory() + "/tools/dmesg",
              "#!/bin/sh\nexec cut -d ' ' -f 41 /proc/self/stat\n");
    const ChildProcess agent({KEL_AGENT, "--state-dir", m_stateDir}, {{"PATH", Path()}});
    ASSERT_TRUE(Says(agent, "kel-agent: ready\n")) << agent.ErrorOutput();

    const auto hasItsLog
        = [&] { // a busy machine has no idle time, and a late log is the next one's
              const size_t before = Ids().size();
              Request(ALWAYS, "proc", "main");
              return WaitForReports(before + 1)
                     && ReadFile(Reports().at(before).m_directory / "kernel.log")
                            == std::to_string(SCHED_IDLE) + "\n";
          };
    EXPECT_TRUE(WaitUntil(hasItsLog, kCollected)) << agent.ErrorOutput();
}

class DropDirectories : public ReportRoad
{
};

TEST_F(DropDirectories, AreMadeForEverybodyToFileAndNobodyToList)
{
    const auto agent = StartCollector();

    for (const fs::path& drop : {kDrop, kRebootDrop}) {
        EXPECT_EQ(ModeOf(drop), 01733U) << drop;
    }
    EXPECT_EQ(ModeOf(kTaken), 0700U);
}

TEST_F(DropDirectories, ThatExistAreMadeSafe)
{
    fs::create_directory(kDrop);
    fs::permissions(kDrop, fs::perms::all);
    fs::create_directory(kRebootDrop);
    fs::permissions(kRebootDrop, fs::perms::owner_read);

    const auto agent = StartCollector();
    EXPECT_TRUE(WaitUntil([] { return ModeOf(kDrop) == 01733 && ModeOf(kRebootDrop) == 01733; }));

    Request(ALWAYS, "proc", "main");
    Request(ALWAYS, "proc", "main", 1);
    EXPECT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
}

TEST_F(DropDirectories, TakeThePlaceOfWhatIsNone)
{
    fs::create_directory("/tmp/elsewhere");
    WriteFile("/tmp/elsewhere/proc-main-ALWAYS.log", "NO_PATH");
    fs::create_directory_symlink("/tmp/elsewhere", kDrop);
    WriteFile(kRebootDrop, "a file");
    ASSERT_EQ(mkfifo(kTaken.c_str(), 0666), 0);

    const auto agent = StartCollector();

    EXPECT_EQ(ModeOf(kDrop), 01733U);
    EXPECT_EQ(ModeOf(kRebootDrop), 01733U);
    EXPECT_EQ(ModeOf(kTaken), 0700U);
    Request(ALWAYS, "proc", "later");
    Request(ALWAYS, "proc", "later", 1);
    EXPECT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    EXPECT_EQ(NamesIn("/tmp/elsewhere"), TNames{"proc-main-ALWAYS.log"});
    EXPECT_EQ(ModeOf("/tmp/elsewhere"), 0755U);
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " is moved aside\n"), 3U) << agent->ErrorOutput();
    EXPECT_TRUE(WaitUntil([] { return CountOf(Text(NamesIn("/tmp")), "aside") == 0; }));
    fs::remove_all("/tmp/elsewhere");
}

TEST_F(DropDirectories, ThatAreMountPointsAreLeftAloneUntilTheyAreNone)
{
    const auto agent = StartCollector();
    {
        const Mount mounted(kDrop, "mode=1733");
        Request(ALWAYS, "proc", "mounted");
        Request(ALWAYS, "proc", "other", 1); // the other drop is served all the same
        ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
        ASSERT_TRUE(Says(*agent, "kel-agent: /tmp/kel_NDF cannot be used: it is a mount point"))
            << agent->ErrorOutput();
        EXPECT_EQ(NamesIn(kDrop), TNames{"proc-mounted-ALWAYS.log"});
    }
    Request(ALWAYS, "proc", "main");
    EXPECT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    EXPECT_EQ(CountOf(agent->ErrorOutput(), "cannot be used: "), 1U) << agent->ErrorOutput();
}

TEST_F(DropDirectories, ThatAreRemovedAreMadeAgain)
{
    const auto agent = StartCollector();
    Request(ALWAYS, "proc", "first");
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();

    for (const fs::path& place : {kDrop, kTaken, kRebootDrop}) {
        std::error_code filled; // by the agent, in the moment before
        EXPECT_TRUE(WaitUntil([&] { return fs::remove_all(place, filled), !filled; })) << filled;
    }

    for (const fs::path& drop : {kDrop, kRebootDrop}) {
        EXPECT_TRUE(WaitUntil([&] { return ModeOf(drop) == 01733; })) << drop;
    }
    EXPECT_TRUE(WaitUntil([] { return ModeOf(kTaken) == 0700; }));
    Request(ALWAYS, "proc", "second");
    Request(ALWAYS, "proc", "second", 1);
    EXPECT_TRUE(WaitForReports(3)) << agent->ErrorOutput();
}

class RequestNames : public ReportRoad
{
protected:
    // Process and thread of the report of a request of this name.
    static TNames FieldsOf(const std::vector<TSReport>& reports, const std::string& name)
    {
        for (const TSReport& report : reports) {
            if (report.Name() == name) {
                return {report["/request/process"], report["/request/thread"]};
            }
        }
        return {};
    }
};

TEST_F(RequestNames, ThatAreNotUnderstoodAreRemovedWithOneLineForAll)
{
    const TNames names = {"nonsense",
                          "proc.log",
                          "proc-ALWAYS.log",
                          "proc-main-NEVER.log",
                          "proc-main-ALWAYS.txt",
                          "-ALWAYS.log",
                          ".hidden",
                          std::string(114, 'p'),
                          std::string(150, 'p') + "-main-ALWAYS.log"};
    const auto agent = StartCollector();

    File("a\nline");
    ASSERT_TRUE(Says(*agent, "kel-agent: a\\x0aline of user 0 in /tmp/kel_NDF removed: its name is "
                             "not that of a request\n"));
    for (const std::string& name : names) {
        File(name);
    }

    EXPECT_TRUE(WaitUntil([] { return NamesIn(kDrop).empty(); }));
    LetItLook();
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " removed: "), 1U) << agent->ErrorOutput();
    EXPECT_EQ(Ids().size(), 2U); // of the looks
    agent->Signal(SIGTERM);
    ASSERT_EQ(agent->Wait(), 0);
    EXPECT_EQ(CountOf(agent->ErrorOutput(), "kel-agent: " + std::to_string(names.size())
                                                + " more of user 0 within a minute removed: "),
              1U)
        << agent->ErrorOutput();
}

TEST_F(RequestNames, AreToldAsTheyAreAndSplitAtTheLastHyphen)
{
    const auto agent = StartCollector();

    File("a\nb-main-ALWAYS.log");
    File("caf\xe9-main-ALWAYS.log");
    File("a..b-..-ALWAYS.log");
    File("my-own-proc-main-ALWAYS.log");
    ASSERT_TRUE(WaitForReports(4)) << agent->ErrorOutput();

    const std::vector<TSReport> reports = Reports();
    EXPECT_EQ(FieldsOf(reports, "a\nb-main-ALWAYS.log"), (TNames{"a\nb", "main"}));
    EXPECT_EQ(FieldsOf(reports, "caf\xef\xbf\xbd-main-ALWAYS.log"),
              (TNames{"caf\xef\xbf\xbd", "main"}));
    EXPECT_EQ(FieldsOf(reports, "a..b-..-ALWAYS.log"), (TNames{"a..b", ".."}));
    EXPECT_EQ(FieldsOf(reports, "my-own-proc-main-ALWAYS.log"), (TNames{"my-own-proc", "main"}));
    EXPECT_TRUE(Says(*agent, ": a\\x0ab-main-ALWAYS.log in /tmp/kel_NDF collected\n"));
}

TEST_F(RequestNames, ThatTheLibraryHasCutHaveNoMode)
{
    const auto agent = StartCollector();
    const std::string process(200, 'p');
    const std::string fits = std::string(113 - 16, 'p') + "-main-ALWAYS.log";

    EXPECT_EQ(Request(ALWAYS, process, "main", "/nowhere"s), 1);
    EXPECT_EQ(Request(ALWAYS, process, "main", "/nowhere"s, 1), 1);
    EXPECT_EQ(Request(ALWAYS, fits.substr(0, fits.find('-')), "main"), 1);
    ASSERT_TRUE(WaitForReports(3)) << agent->ErrorOutput();

    for (const TSReport& report : Reports()) {
        if (report.Name() == fits) {
            EXPECT_EQ(report["/request/mode"], "ALWAYS");
            EXPECT_EQ(report["/request/cut"], "false");
            continue;
        }
        const bool reboot = report["/request/source"] == "/tmp/kel_NDF_reboot";
        EXPECT_EQ(report.Name(), std::string(reboot ? 106 : 113, 'p'));
        EXPECT_EQ(report["/request/mode"], "null");
        EXPECT_EQ(report["/request/cut"], "true");
        EXPECT_EQ(report["/request/reboot"], reboot ? "true" : "false");
        EXPECT_EQ(report["/request/upload-path"], "/nowhere");
    }
}

TEST_F(RequestNames, WithSlashesLeadNowhereOrToTheOtherDropDirectory)
{
    const auto agent = StartCollector();

    EXPECT_EQ(Request(ALWAYS, "a/b", "main"), -1);
    EXPECT_EQ(Request(ALWAYS, "/", "main"), 1); // "/tmp/kel_NDF//-main-ALWAYS.log"
    EXPECT_EQ(Request(ALWAYS, "../kel_NDF_reboot/proc", "main"), 1);
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();

    LetItLook();
    EXPECT_EQ(Ids().size(), 4U);
    EXPECT_EQ(Names(), (TNames{"-main-ALWAYS.log", "look-once-ALWAYS.log", "look-twice-ALWAYS.log",
                               "proc-main-ALWAYS.log"}));
    EXPECT_EQ(CountOf(agent->ErrorOutput(), "in /tmp/kel_NDF_reboot collected\n"), 1U)
        << agent->ErrorOutput();
}

} // namespace kel::test
