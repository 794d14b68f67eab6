// What an application, or somebody who is none, can put in the agent's way, and what the machine
// can: none of it may stop the agent, cost a request or leave half a report.

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Mount.h"

namespace kel::test {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::StartsWith;

namespace {

constexpr uid_t kNobody = 65534;

void MakeSparse(const fs::path& path, uintmax_t size)
{
    WriteFile(path, "");
    fs::resize_file(path, size);
}

} // namespace

typedef ReportRoad RequestFaults;

TEST_F(RequestFaults, WhatIsNoFileOfItsOwnIsRemovedWithALineForEachKind)
{
    WriteFile(m_scratch / "file", "/secret");
    const auto agent = StartCollector();

    fs::create_symlink(m_scratch / "file", kDrop / "a-link-ALWAYS.log");
    fs::create_symlink("/nowhere", kDrop / "a-dangling-ALWAYS.log");
    fs::create_hard_link(m_scratch / "file", kDrop / "a-hardlink-ALWAYS.log");
    fs::create_directories(kDrop / "a-directory-ALWAYS.log/deep/er");
    WriteFile(kDrop / "a-directory-ALWAYS.log/b-file-ALWAYS.log", "NO_PATH");
    fs::create_directory_symlink(m_scratch / "", kDrop / "a-directory-ALWAYS.log/deep/link");
    ASSERT_EQ(mkfifo((kDrop / "a-fifo-ALWAYS.log").c_str(), 0666), 0);

    EXPECT_TRUE(WaitUntil([] { return NamesIn(kDrop).empty(); })) << agent->ErrorOutput();
    EXPECT_TRUE(WaitUntil([] { return NamesIn(kTaken / "trash").empty(); }));
    EXPECT_TRUE(Says(*agent, " of user 0 in /tmp/kel_NDF removed: it is no regular file\n"))
        << agent->ErrorOutput();
    EXPECT_TRUE(Says(*agent, "kel-agent: a-hardlink-ALWAYS.log of user 0 in /tmp/kel_NDF removed: "
                             "it has other names, too\n"))
        << agent->ErrorOutput();
    EXPECT_EQ(ReadFile(m_scratch / "file"), "/secret");

    File(kGood);
    EXPECT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Names(), TNames{kGood});
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " removed: "), 2U) << agent->ErrorOutput();
}

TEST_F(RequestFaults, OneOfTenMebibytesGivesAReportWithoutAnArtefact)
{
    const auto agent = StartCollector();

    File("a-huge-ALWAYS.log", std::string(10 << 20, '/'));
    File("a-zeros-ALWAYS.log", std::string(300, '\0'));
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();

    for (const TSReport& report : Reports()) {
        EXPECT_EQ(report["/artefact/reason"], "what was given is no path") << report.Name();
        EXPECT_EQ(report["/artefact/file"], "(absent)");
        EXPECT_LT(fs::file_size(report.m_directory / "report.json"), 20000U);
    }
}

TEST_F(RequestFaults, OneThatVanishesAgainAndAgainStopsNothing)
{
    const auto agent = StartCollector();
    const fs::path racer = kDrop / "a-racer-ALWAYS.log";

    for (int i = 0; i < 1000; ++i) {
        WriteFile(racer, "/nowhere");
        if (i % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(i));
        }
        std::error_code gone; // the agent may have it
        fs::remove(racer, gone);
    }
    File(kGood);

    EXPECT_TRUE(Says(*agent, kGood + " in /tmp/kel_NDF collected\n"s)) << agent->ErrorOutput();
    for (const TSReport& report : Reports()) {
        EXPECT_EQ(report["/request/upload-path"], report.Name() == kGood ? "null" : "/nowhere");
    }
    EXPECT_EQ(agent->Wait(std::chrono::milliseconds(0)), std::nullopt);
}

// The writer meets the agent in every state: just looking, just taking, and just having taken.
TEST_F(RequestFaults, OneThatIsFiledAgainAndAgainIsReadWholeAndInTheEnd)
{
    const auto agent = StartCollector();

    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(Request(ALWAYS, "a", "again", "/nowhere/" + std::to_string(100000 + i)), 1);
    }

    const auto isLast = [&] {
        const std::vector<TSReport> reports = Reports();
        return !reports.empty() && reports.back()["/request/upload-path"] == "/nowhere/101999";
    };
    EXPECT_TRUE(WaitUntil(isLast, std::chrono::seconds(60))) << agent->ErrorOutput();
    for (const TSReport& report : Reports()) {
        EXPECT_EQ(report["/request/upload-path"].size(), sizeof("/nowhere/100000") - 1);
    }
    EXPECT_EQ(agent->Wait(std::chrono::milliseconds(0)), std::nullopt);
}

TEST_F(RequestFaults, OneThatIsBeingWrittenIsCollectedOnceAndWhole)
{
    const auto agent = StartCollector();
    {
        std::ofstream slow(kDrop / "a-slow-ALWAYS.log");
        slow << "/nowhere/" << std::flush;
        File(kGood);
        ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
        LetItLook();
        EXPECT_EQ(Names(), (TNames{"look-once-ALWAYS.log", "look-twice-ALWAYS.log", kGood}));
        slow << "in two parts";
    }

    ASSERT_TRUE(WaitForReports(4)) << agent->ErrorOutput();
    LetItLook();
    const std::vector<TSReport> reports = Reports();
    ASSERT_EQ(reports.size(), 6U);
    EXPECT_EQ(reports[3].Name(), "a-slow-ALWAYS.log");
    EXPECT_EQ(reports[3]["/request/upload-path"], "/nowhere/in two parts");
}

class ArtefactFaults : public ReportRoad
{
protected:
    // Files a request for the artefact; the reason why it was not copied.
    std::string ReasonOf(const ChildProcess& agent, const std::string& path, uid_t user = 0)
    {
        const std::string name = "proc-" + std::to_string(++m_number) + "-ALWAYS.log";
        File(name, path, user);
        EXPECT_TRUE(WaitForReports(m_number)) << agent.ErrorOutput();
        const std::vector<TSReport> reports = Reports();
        if (reports.empty() || reports.back().Name() != name) {
            return {};
        }
        const TSReport& report = reports.back();
        EXPECT_EQ(report["/request/upload-path"], path);
        EXPECT_EQ(report["/artefact/file"], "(absent)");
        EXPECT_FALSE(fs::exists(report.m_directory / "artefact"));
        const std::string reason = report["/artefact/reason"];
        EXPECT_TRUE(Says(agent, "kel-agent: report " + report["/id"] + ": artefact " + path
                                    + " not copied: " + reason + "\n"))
            << agent.ErrorOutput();
        return reason;
    }

private:
    size_t m_number = 0;
};

TEST_F(ArtefactFaults, WhatIsNoRegularFileIsNotCopied)
{
    ASSERT_EQ(mkfifo((m_scratch / "fifo").c_str(), 0666), 0);
    const auto agent = StartCollector();

    for (const std::string& path : {"/dev/zero"s, "/tmp"s, (m_scratch / "fifo").string()}) {
        EXPECT_EQ(ReasonOf(*agent, path), "it is no regular file") << path;
    }
    EXPECT_EQ(ReasonOf(*agent, "/nowhere/at all"), "No such file or directory");
    EXPECT_EQ(ReasonOf(*agent, "/tmp/" + std::string(300, 'x')), "File name too long");
    EXPECT_EQ(ReasonOf(*agent, "relative"), "its path is not absolute");
}

TEST_F(ArtefactFaults, WhatTheRequesterMayNotReadIsNotCopied)
{
    WriteFile(m_scratch / "secret", "secret");
    fs::permissions(m_scratch / "secret", fs::perms::owner_read);
    fs::create_directory(m_scratch / "closed");
    WriteFile(m_scratch / "closed/open", "open");
    fs::permissions(m_scratch / "closed", fs::perms::owner_all);
    WriteFile(m_scratch / "open", "open");
    fs::create_symlink(m_scratch / "secret", m_scratch / "link");
    const auto agent = StartCollector();
    WriteFile(m_scratch / "probe", "");
    if (chown((m_scratch / "probe").c_str(), kNobody, static_cast<gid_t>(-1)) != 0) {
        EXPECT_EQ(ReasonOf(*agent, "/etc/shadow"), "Permission denied");
        GTEST_SKIP() << "a namespace of one user: the machine's own secret alone was tried";
    }

    for (const std::string name : {"secret", "closed/open", "link"}) {
        EXPECT_EQ(ReasonOf(*agent, m_scratch / name, kNobody), "Permission denied") << name;
    }

    File("nobody-open-ALWAYS.log", m_scratch / "open", kNobody);
    ASSERT_TRUE(WaitForReports(4)) << agent->ErrorOutput();
    File("owner-secret-ALWAYS.log", m_scratch / "secret");
    ASSERT_TRUE(WaitForReports(5)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(3)["/request/user"], std::to_string(kNobody));
    EXPECT_EQ(Reports().at(3)["/artefact/bytes"], "4");
    EXPECT_EQ(Reports().at(4)["/artefact/bytes"], "6");
}

TEST_F(ArtefactFaults, WhatIsLargerThanTheLimitIsNotCopied)
{
    WriteFile(m_scratch / "just too large", std::string(200000, 'x'));
    MakeSparse(m_scratch / "huge", 5ULL << 30U);
    const auto agent = StartCollector({"--max-bytes", "200000"});

    EXPECT_THAT(ReasonOf(*agent, m_scratch / "just too large"),
                StartsWith("it has 200000 bytes, and there is room for "));
    EXPECT_THAT(ReasonOf(*agent, m_scratch / "huge"),
                StartsWith("it has 5368709120 bytes, and there is room for "));
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " dropped: "), 0U) << "nothing is given up for it";
}

TEST_F(ArtefactFaults, WhatIsLargerThanTheFreeSpaceIsNotCopied)
{
    const Mount state(m_stateDir, "size=8m");
    WriteFile(m_scratch / "large", std::string(8 << 20, 'x'));
    MakeSparse(m_scratch / "huge", 5ULL << 30U);
    const auto agent = StartCollector({"--max-bytes", "4294967295"});

    EXPECT_THAT(ReasonOf(*agent, m_scratch / "large"),
                StartsWith("it has 8388608 bytes, and there is room for "));
    EXPECT_THAT(ReasonOf(*agent, m_scratch / "huge"),
                StartsWith("it has 5368709120 bytes, and there is room for "));

    WriteFile(m_scratch / "small", std::string(1 << 20, 'x'));
    File(kGood, m_scratch / "small");
    ASSERT_TRUE(WaitForReports(3)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(2)["/artefact/bytes"], std::to_string(1 << 20));
}

class StateFaults : public ReportRoad
{
protected:
    // Files requests while nothing can be stored; each must get its line, and just one.
    static void ExpectAllWait(const ChildProcess& agent)
    {
        const TNames names = {"a-1-ALWAYS.log", "a-2-ALWAYS.log", "a-3-ALWAYS.log"};
        for (const std::string& name : names) {
            File(name, "/nowhere");
            EXPECT_TRUE(Says(agent, "kel-agent: " + name + " in /tmp/kel_NDF waits: "))
                << agent.ErrorOutput();
        }
        RequestSlot("proc", "slot");
        EXPECT_TRUE(Says(agent, "kel-agent: proc|slot|0 in memory/kel/ndf_one waits: "))
            << agent.ErrorOutput();
        EXPECT_EQ(CountOf(agent.ErrorOutput(), " waits: "), 4U) << agent.ErrorOutput();
        EXPECT_EQ(SetPolicy("<policy/>").m_output, "2 (could not be stored)\n");
    }

    void ExpectAllCollected(const ChildProcess& agent, size_t before)
    {
        ASSERT_TRUE(WaitForReports(before + 4)) << agent.ErrorOutput();
        LetItLook();
        const TNames all = {"a-1-ALWAYS.log", "a-2-ALWAYS.log", "a-3-ALWAYS.log", "proc|slot|0"};
        EXPECT_EQ(Ids().size(), before + 6);
        EXPECT_THAT(Names(), testing::IsSupersetOf(all));
        EXPECT_EQ(SetPolicy("<policy/>").m_output, "0 (accepted)\n");
    }
};

TEST_F(StateFaults, WhileItIsFullRequestsWait)
{
    const Mount state(m_stateDir, "size=1m");
    const auto agent = StartCollector();
    std::ofstream filler(m_stateDir + "/filler", std::ios::binary);
    filler << std::string(2 << 20, 'x') << std::flush;
    ASSERT_FALSE(filler);

    ExpectAllWait(*agent);
    filler.close();
    fs::remove(m_stateDir + "/filler");

    ExpectAllCollected(*agent, 0);
}

TEST_F(StateFaults, WhileItIsReadOnlyRequestsWait)
{
    const Mount state(m_stateDir, "size=1m");
    const auto agent = StartCollector();
    File(kGood);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    state.Remount(MS_RDONLY);

    ExpectAllWait(*agent);
    state.Remount(0);

    ExpectAllCollected(*agent, 1);
}

TEST_F(StateFaults, WhileItIsGoneRequestsWait)
{
    const auto agent = StartCollector();
    File(kGood);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    fs::rename(m_stateDir, m_stateDir + " elsewhere");

    ExpectAllWait(*agent);
    EXPECT_FALSE(fs::exists(m_stateDir));
    fs::rename(m_stateDir + " elsewhere", m_stateDir);

    ExpectAllCollected(*agent, 1);
}

TEST_F(StateFaults, RequestsThatWaitOutliveTheAgent)
{
    const Mount state(m_stateDir, "size=1m,ro");
    {
        const auto agent = StartCollector();
        File(kGood, "/nowhere");
        ASSERT_TRUE(Says(*agent, kGood + " in /tmp/kel_NDF waits: "s)) << agent->ErrorOutput();
        File(kGood, "/nowhere/else"); // the same once more
        agent->Signal(SIGTERM);
        ASSERT_EQ(agent->Wait(), 0) << agent->ErrorOutput();
    }
    state.Remount(0);

    const auto agent = StartCollector();
    const auto hasLatest = [&] {
        const std::vector<TSReport> reports = Reports();
        return !reports.empty() && reports.back()["/request/upload-path"] == "/nowhere/else";
    };
    EXPECT_TRUE(WaitUntil(hasLatest)) << agent->ErrorOutput();
    EXPECT_LE(Ids().size(), 2U);
}

// A log whose reader comes to a halt: the agent stands still with its next line.
class StuckLog
{
public:
    explicit StuckLog(const std::string& path) : m_path(path)
    {
        fs::remove(path);
        if (mkfifo(path.c_str(), 0600) == 0) {
            m_pipe = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        }
        m_size = fcntl(m_pipe, F_SETPIPE_SZ, 4096);
    }
    ~StuckLog() { close(m_pipe); }
    StuckLog(const StuckLog&) = delete;
    StuckLog& operator=(const StuckLog&) = delete;

    const std::string& Path() const { return m_path; }

    bool WaitFor(const std::string& text) const
    {
        std::string said;
        return WaitUntil([&] {
            said += Take();
            return said.find(text) != std::string::npos;
        });
    }

    std::string Take() const
    {
        char text[4096];
        const ssize_t size = read(m_pipe, text, sizeof(text));
        return {text, size > 0 ? static_cast<size_t>(size) : 0};
    }

    // The pipe is empty, and has room for just these lines from now on.
    void StandStillAfter(const std::string& lines) const
    {
        const std::string filler(static_cast<size_t>(m_size) - lines.size(), '\n');
        ASSERT_EQ(write(m_pipe, filler.data(), filler.size()), ssize_t(filler.size()));
    }

private:
    const std::string m_path;
    int m_pipe = -1;
    int m_size;
};

class AgentFaults : public ReportRoad
{
protected:
    // Starts an agent with this log, and waits until it is ready.
    std::unique_ptr<ChildProcess> StartAgentWith(const StuckLog& log) const
    {
        TNames command = AgentCommand();
        command.insert(command.begin(), {"sh", "-c", "exec \"$@\" 2>\"$0\"", log.Path()});
        auto agent
            = std::make_unique<ChildProcess>(command, ChildProcess::TEnvironment{{"PATH", Path()}});
        EXPECT_TRUE(log.WaitFor("kel-agent: ready\n"));
        return agent;
    }

    // Has a program file requests, and waits for its end.
    static void FileMany(const std::string& process, int count)
    {
        const TSFinished filed
            = RunProgram({KEL_FILE_REQUESTS, process, "1", std::to_string(count)});
        EXPECT_EQ(filed.m_exit, 0) << Text(filed);
    }

    // Each request of these has one report, wherever it is, and the report tells its path.
    static void ExpectEachOnce(const std::vector<TSReport>& reports, const TNames& processes,
                               int count)
    {
        std::multiset<std::string> paths;
        for (const TSReport& report : reports) {
            paths.insert(report["/request/upload-path"]);
            EXPECT_EQ(report["/request/upload-path"],
                      "/nowhere/" + report["/request/process"] + "/" + report["/request/thread"]);
        }
        std::multiset<std::string> wanted;
        for (const std::string& process : processes) {
            for (int i = 0; i < count; ++i) {
                wanted.insert("/nowhere/" + process + "/0." + std::to_string(i));
            }
        }
        EXPECT_EQ(paths, wanted);
    }

    void ExpectNothingHalf() const
    {
        for (const std::string& name : NamesIn(m_reports)) {
            EXPECT_NE(name[0], '.') << name;
        }
    }
};

TEST_F(AgentFaults, KilledAtAnyMomentItMakesEachReportOnceAndWhole)
{
    constexpr int kRounds = 12;
    constexpr int kRequests = 10; // of each round
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::minstd_rand random(seed);
    WriteFile("/tmp/artefact", std::string(100000, 'x'));
    StartCollector();

    TNames processes;
    for (int round = 0; round < kRounds; ++round) {
        processes.push_back("round" + std::to_string(round));
        FileMany(processes.back(), kRequests);
        const size_t before = Ids().size();
        const size_t some = before + random() % kRequests;
        const std::unique_ptr<ChildProcess> agent = StartAgent();
        ASSERT_TRUE(WaitUntil([&] { return Ids().size() >= some; })) << agent->ErrorOutput();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        agent->Kill();
        Reports(); // whole at any moment
    }

    const auto agent = StartCollector();
    ASSERT_TRUE(WaitForReports(kRounds * kRequests)) << agent->ErrorOutput();
    LetItLook();
    ExpectNothingHalf();
    std::vector<TSReport> reports = Reports();
    ASSERT_EQ(reports.size(), kRounds * kRequests + 2U);
    reports.resize(kRounds * kRequests); // the rest is of the look
    ExpectEachOnce(reports, processes, kRequests);
}

TEST_F(AgentFaults, KilledBetweenAReportAndTheEndOfItsRequestItMakesNoSecond)
{
    StartCollector(); // makes the directories
    for (const bool slot : {false, true}) {
        const size_t before = Ids().size();
        {
            const StuckLog log(m_bus.Directory() + "/log");
            const auto agent = StartAgentWith(log);
            log.StandStillAfter("kel-agent: process information: 0 handled, 0 not\n");
            if (slot) {
                RequestSlot("proc", "main");
            } else {
                File(kGood);
            }
            ASSERT_TRUE(WaitForReports(before + 1)) << log.Take(); // and now it would say so
            EXPECT_EQ(slot ? size_t(ReadFile(m_stateDir + "/slot-request").empty())
                           : Taken().size(),
                      slot ? 0U : 1U);
        }
        File("before-anything-ALWAYS.log");
        Request(ALWAYS, "before", "everything", 1);

        const auto agent = StartCollector();
        ASSERT_TRUE(WaitForReports(before + 3)) << agent->ErrorOutput();
        LetItLook();
        EXPECT_EQ(Ids().size(), before + 5) << agent->ErrorOutput();
        EXPECT_EQ(Taken(), TNames());
    }
}

TEST_F(AgentFaults, OfTwoThatStartAtOnceOneGivesUpAndEachReportIsMadeOnce)
{
    fs::create_directory(kDrop);
    FileMany("early", 50);

    const auto first = StartAgent();
    const auto second = StartAgent();
    FileMany("late", 50);

    ASSERT_TRUE(WaitForReports(100)) << first->ErrorOutput() << second->ErrorOutput();
    std::optional<int> exit;
    ASSERT_TRUE(WaitUntil([&] {
        for (const auto* const agent : {&first, &second}) {
            exit = exit ? exit : (*agent)->Wait(std::chrono::milliseconds(0));
        }
        return exit.has_value();
    }));
    EXPECT_EQ(exit, 1);
    ExpectEachOnce(Reports(), {"early", "late"}, 50);
}

TEST_F(AgentFaults, BesideOneOfTheTestChannelEachReportIsMadeOnce)
{
    const fs::path other = m_bus.Directory() + "/the other state";
    fs::create_directory(other);
    const auto agent = StartAgent();
    const auto tester = StartAgent({"--test", "--state-dir", other});
    for (const auto* const each : {&agent, &tester}) {
        ASSERT_TRUE(Says(**each, "kel-agent: ready\n")) << (*each)->ErrorOutput();
    }
    FileMany("both", 100);

    ASSERT_TRUE(WaitUntil([&] { return Ids().size() + Ids(other).size() >= 100; }))
        << agent->ErrorOutput() << tester->ErrorOutput();
    std::vector<TSReport> reports = Reports();
    for (TSReport& report : Reports(other)) {
        reports.push_back(std::move(report));
    }
    ExpectEachOnce(reports, {"both"}, 100);
}

TEST_F(AgentFaults, ASignalWhileItCollectsEndsItInTimeWithNothingHalfWritten)
{
    constexpr int kRequests = 300;
    fs::create_directory(kDrop);
    FileMany("many", kRequests);
    const auto agent = StartAgent();
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();

    agent->Signal(SIGTERM);

    EXPECT_EQ(agent->Wait(std::chrono::seconds(20)), 0) << agent->ErrorOutput();
    ExpectNothingHalf();
    const size_t made = Reports().size();
    EXPECT_EQ(made + NamesIn(kDrop).size() + Taken().size(), size_t(kRequests));

    const auto next = StartCollector();
    ASSERT_TRUE(WaitForReports(kRequests)) << next->ErrorOutput();
    ExpectEachOnce(Reports(), {"many"}, kRequests);
}

} // namespace kel::test
