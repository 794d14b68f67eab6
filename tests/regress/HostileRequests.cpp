// A request could stop the agent, delay or mislead its reports of others, or fill its disk.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Mount.h"
#include "support/Threads.h"

namespace kel::test {

namespace fs = std::filesystem;
using namespace std::string_literals;

typedef ReportRoad HostileRequests;

// Whoever was there before the agent made the directories its own.
TEST_F(HostileRequests, WhatSomebodyHasPutAmongTheTakenIsNoneEither)
{
    const fs::path taken = kDrop / ".taken";
    fs::create_directories(taken / "a-directory-ALWAYS.log/deep");
    WriteFile(m_scratch / "file", "/secret");
    fs::create_symlink(m_scratch / "file", taken / "a-link-ALWAYS.log");
    fs::create_hard_link(m_scratch / "file", taken / "a-hardlink-ALWAYS.log");
    ASSERT_EQ(mkfifo((taken / "a-fifo-ALWAYS.log").c_str(), 0666), 0);
    WriteFile(taken / "nonsense", "NO_PATH");
    const TNames names = NamesIn(taken);

    const auto agent = StartCollector();

    for (const std::string& name : names) {
        EXPECT_TRUE(Says(*agent, "kel-agent: " + name + " in /tmp/kel_NDF ignored: "))
            << agent->ErrorOutput();
    }
    EXPECT_EQ(ReadFile(m_scratch / "file"), "/secret");
    File(kGood);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    LetItLook();
    EXPECT_EQ(Names(), (TNames{"look-once-ALWAYS.log", "look-twice-ALWAYS.log", kGood}));
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " ignored: "), names.size()) << agent->ErrorOutput();
    EXPECT_EQ(NamesIn(taken), TNames{"a-directory-ALWAYS.log"});
    EXPECT_TRUE(fs::exists(taken / "a-directory-ALWAYS.log/deep")) << "whose owner may turn on us";
}

TEST_F(HostileRequests, OneOfATimeThatCannotBeToldIsCollected)
{
    const auto agent = StartCollector();
    WriteFile(m_scratch / "far", "NO_PATH");
    const timespec far[] = {{0, UTIME_NOW}, {time_t(1) << 58, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (m_scratch / "far").c_str(), far, 0), 0);

    fs::rename(m_scratch / "far", kDrop / kGood);

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/request/filed"], "-");
}

TEST_F(HostileRequests, OneThatCannotBeTakenYetWaits)
{
    const Mount drop(kDrop);
    StartCollector(); // makes the directories
    WriteFile(kDrop / kGood, "NO_PATH");
    drop.Remount(MS_RDONLY);
    const auto agent = StartCollector();

    EXPECT_TRUE(
        Says(*agent, "kel-agent: "s + kGood + " in /tmp/kel_NDF waits: Read-only file system\n"))
        << agent->ErrorOutput();
    drop.Remount(0);

    EXPECT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " waits: "), 1U) << agent->ErrorOutput();
}

TEST_F(HostileRequests, OneThatCannotBeRemovedHasOneReport)
{
    StartCollector(); // makes the directories
    const fs::path request = kDrop / ".taken" / kGood;
    WriteFile(request, "NO_PATH");
    WriteFile(m_scratch / "mounted", "NO_PATH");
    std::unique_ptr<ChildProcess> agent;
    {
        const Mount mounted = Mount::Bind(m_scratch / "mounted", request);
        agent = StartCollector();

        EXPECT_TRUE(
            Says(*agent, "kel-agent: "s + kGood + " in /tmp/kel_NDF waits: it cannot be removed: "))
            << agent->ErrorOutput();
        LetItLook();
        EXPECT_EQ(Names(), (TNames{"look-once-ALWAYS.log", "look-twice-ALWAYS.log", kGood}));
        EXPECT_EQ(CountOf(agent->ErrorOutput(), " waits: "), 1U) << agent->ErrorOutput();
    }

    EXPECT_TRUE(WaitUntil([&] { return !fs::exists(request); }));
}

// The file's time tells how long the agent has waited: the clock need not run.
TEST_F(HostileRequests, OneThatIsNeverClosedIsTakenInTheEnd)
{
    const auto agent = StartCollector();
    const int patient = creat((kDrop / "a-patient-ALWAYS.log").c_str(), 0644);
    const int future = creat((kDrop / "a-future-ALWAYS.log").c_str(), 0644);
    ASSERT_EQ(write(patient, "/nowhere", 8), 8);
    File(kGood);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Names(), TNames{kGood});

    const timespec longAgo[] = {{1'000'000, 0}, {1'000'000, 0}};
    const timespec later[] = {{0, UTIME_OMIT}, {0x7000'0000, 0}}; // the clock was set back since
    EXPECT_EQ(futimens(patient, longAgo), 0);
    EXPECT_EQ(futimens(future, later), 0);

    EXPECT_TRUE(WaitForReports(3)) << agent->ErrorOutput();
    std::vector<TSReport> reports = Reports();
    std::sort(reports.begin(), reports.end(), [](const TSReport& a, const TSReport& b) {
        return a.Name() < b.Name(); // both may be of one tick of the file system's clock
    });
    EXPECT_EQ(reports.at(0)["/request/filed"].substr(0, 4), "2029");
    EXPECT_EQ(reports.at(1)["/request/upload-path"], "/nowhere");
    close(patient);
    close(future);
}

// A file of the system's that tells of no size, and has hundreds of gigabytes.
TEST_F(HostileRequests, WhatHasNoEndIsCopiedNoFurtherThanTheLimit)
{
    const Mount state(m_stateDir, "size=64m");
    const auto agent = StartCollector({"--max-bytes", "1000000"});
    uintmax_t leastSpace = fs::space(m_stateDir).free;
    {
        const Repeat watch([&] {
            leastSpace = std::min(leastSpace, fs::space(m_stateDir).free);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        });
        File(kGood, "/proc/self/pagemap");
        EXPECT_TRUE(Says(*agent, "artefact /proc/self/pagemap not copied: it has more bytes than "
                                 "it tells of, and there is room for "))
            << agent->ErrorOutput();
    }
    EXPECT_GT(leastSpace, 60U << 20U);
}

// The agent reads the kernel log when it has seen requests, and before it takes them.
class HostileRequestsAtTheTake : public ReportRoad
{
protected:
    HostileRequestsAtTheTake()
    {
        WriteFile(m_bus.Directory() + "/tools/dmesg",
                  "#!/bin/sh\nwhile [ ! -e " + m_go.string() + " ]; do sleep 0.01; done\n");
    }

    // Starts an agent that finds these requests, and returns when it has seen them.
    std::unique_ptr<ChildProcess> StartWith(const TNames& names) const
    {
        StartCollector(); // makes the directories
        for (const std::string& name : names) {
            WriteFile(kDrop / name, "/nowhere");
        }
        auto agent = StartCollector();
        EXPECT_TRUE(Says(*agent, "kel-agent: process information: ")) << agent->ErrorOutput();
        return agent;
    }
    void LetItTake() const { WriteFile(m_go, ""); }

private:
    const fs::path m_go = m_scratch / "go";
};

TEST_F(HostileRequestsAtTheTake, OneThatHasGoneLeavesALine)
{
    const auto agent = StartWith({kGood});

    fs::remove(kDrop / kGood);
    LetItTake();

    EXPECT_TRUE(Says(*agent, "kel-agent: "s + kGood + " in /tmp/kel_NDF ignored: it has gone\n"))
        << agent->ErrorOutput();
    EXPECT_EQ(Ids(), TNames());
}

TEST_F(HostileRequestsAtTheTake, OneThatWasReplacedLeavesALine)
{
    const auto agent = StartWith({kGood});

    fs::remove(kDrop / kGood);
    fs::create_symlink("/etc/passwd", kDrop / kGood);
    LetItTake();

    EXPECT_TRUE(Says(*agent, "kel-agent: "s + kGood
                                 + " in /tmp/kel_NDF ignored: it was replaced by something else\n"))
        << agent->ErrorOutput();
    EXPECT_EQ(Ids(), TNames());
    EXPECT_EQ(NamesIn(kDrop / ".taken"), TNames());
}

TEST_F(HostileRequestsAtTheTake, ManyThatAreWrittenToWithoutEndHaveNoMorePatienceThanOne)
{
    const TNames names = {"a-1-ALWAYS.log", "a-2-ALWAYS.log", "a-3-ALWAYS.log", "a-4-ALWAYS.log"};
    const auto agent = StartWith(names);
    std::vector<int> writers;
    for (const std::string& name : names) {
        writers.push_back(open((kDrop / name).c_str(), O_WRONLY | O_CLOEXEC));
    }
    const auto start = std::chrono::steady_clock::now();
    {
        const Repeat writing([&] {
            for (const int writer : writers) {
                EXPECT_EQ(futimens(writer, nullptr), 0);
            }
        });
        LetItTake();
        EXPECT_TRUE(WaitForReports(names.size())) << agent->ErrorOutput();
    }

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(12)); // 5 each: 20
    for (const int writer : writers) {
        close(writer);
    }
}

} // namespace kel::test
