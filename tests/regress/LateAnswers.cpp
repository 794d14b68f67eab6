// Requests waited for the kernel log, which is read in idle time, and for applications that never
// answer.

#include <sched.h>
#include <signal.h>

#include <thread>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

namespace fs = std::filesystem;

class LateAnswers : public ReportRoad
{
protected:
    // A dmesg that gives nothing until it is let.
    void HoldDmesg() const
    {
        WriteFile(m_bus.Directory() + "/tools/dmesg.new",
                  "#!/bin/sh\nwhile [ ! -e " + m_go.string() + " ]; do sleep 0.01; done\nexec cat '"
                      + m_bus.Directory() + "/kernel-log'\n");
        fs::permissions(m_bus.Directory() + "/tools/dmesg.new", fs::perms::owner_all);
        fs::rename(m_bus.Directory() + "/tools/dmesg.new", m_bus.Directory() + "/tools/dmesg");
    }
    void LetDmesgGo() const { WriteFile(m_go, ""); }

    TSReport Collect(const ChildProcess& agent, const std::string& thread) const
    {
        const size_t before = Ids().size();
        EXPECT_EQ(Request(ALWAYS, "proc", thread), 1);
        EXPECT_TRUE(WaitForReports(before + 1)) << agent.ErrorOutput();
        return Reports().at(before);
    }

private:
    const fs::path m_go = m_scratch / "go";
};

TEST_F(LateAnswers, LinesThatComeLateAreInTheNextReport)
{
    SetKernelLog("one\ntwo\n");
    HoldDmesg();
    const auto agent = StartCollector();

    for (const char* const thread : {"first", "second"}) {
        const TSReport report = Collect(*agent, thread);
        EXPECT_EQ(report["/kernel-log/state"], "late");
        EXPECT_EQ(report["/kernel-log/reason"], "it was not read within 1 s");
        EXPECT_EQ(report["/kernel-log/file"], "null");
        EXPECT_EQ(report["/kernel-log/lines"], "0");
        EXPECT_EQ(report["/kernel-log/gap"], "false");
    }
    LetDmesgGo();

    EXPECT_TRUE(WaitUntil([&] {
        const TSReport report = Collect(*agent, "another");
        return ReadFile(report.m_directory / "kernel.log") == "one\ntwo\n"
               && report["/kernel-log/gap"] == "false";
    })) << agent->ErrorOutput();
    EXPECT_TRUE(WaitUntil([&] {
        return Collect(*agent, "another")["/kernel-log/state"] == "complete";
    })) << agent->ErrorOutput();
}

TEST_F(LateAnswers, AnAgentEndsBeforeItsDmesg)
{
    HoldDmesg();
    const auto agent = StartCollector();
    EXPECT_EQ(Collect(*agent, "main")["/kernel-log/state"], "late");

    agent->Signal(SIGTERM);

    std::optional<int> exit; // dmesg still has its output
    EXPECT_TRUE(WaitUntil([&] {
        exit = agent->Wait(std::chrono::milliseconds(0));
        return exit.has_value();
    }));
    EXPECT_EQ(exit, 0) << agent->ErrorOutput();
    LetDmesgGo();
}

TEST_F(LateAnswers, AReportTellsWhenLinesMayBeMissing)
{
    SetKernelLog("one\ntwo\n");
    const auto agent = StartCollector();
    EXPECT_EQ(Collect(*agent, "first")["/kernel-log/gap"], "false");
    SetKernelLog("two\nthree\n");
    EXPECT_EQ(Collect(*agent, "second")["/kernel-log/gap"], "false");
    SetKernelLog("four\nfive\n");

    const TSReport gap = Collect(*agent, "third");
    EXPECT_EQ(gap["/kernel-log/gap"], "true") << "what came between three and four?";
    EXPECT_EQ(gap["/kernel-log/lines"], "2");
    EXPECT_EQ(gap["/kernel-log/state"], "complete");
    const TSReport nothingNew = Collect(*agent, "fourth");
    EXPECT_EQ(nothingNew["/kernel-log/gap"], "false");
    EXPECT_EQ(nothingNew["/kernel-log/state"], "complete");
}

TEST_F(LateAnswers, ReportsDoNotWaitForAnApplicationThatNeverAnswers)
{
    constexpr int kProcessInfo = 4;
    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Nothing());
    const auto agent = StartCollector();
    ASSERT_TRUE(m_peer.Hello({kProcessInfo}).IsOk());
    m_peer.Settle();

    for (const char* const thread : {"first", "second"}) {
        const TSReport report = Collect(*agent, thread);
        EXPECT_EQ(report["/applications/handled"], "null");
        EXPECT_EQ(report["/applications/failed"], "null");
        EXPECT_EQ(report["/applications/late"], "true");
    }
    EXPECT_EQ(m_peer.Calls("Send").size(), 1U) << "one question at a time";
    EXPECT_EQ(CountOf(agent->ErrorOutput(), "kel-agent: process information: "), 0U)
        << agent->ErrorOutput();

    m_peer.SetAnswer("Send", RawPeer::TSAnswer::Bytes({1}));
    m_peer.Answer(m_peer.Calls("Send")[0], RawPeer::TSAnswer::Bytes({1}));
    EXPECT_TRUE(Says(*agent, "kel-agent: process information: 1 handled, 0 not\n"));
    EXPECT_TRUE(WaitUntil([&] {
        const TSReport report = Collect(*agent, "another");
        return report["/applications/handled"] == "1" && report["/applications/late"] == "(absent)";
    })) << agent->ErrorOutput();
}

// Of the idle class itself: others that never sleep are on its processor.
TEST_F(LateAnswers, ReportsDoNotWaitForABusyDevice)
{
    cpu_set_t before;
    cpu_set_t first;
    ASSERT_EQ(sched_getaffinity(0, sizeof(before), &before), 0);
    CPU_ZERO(&first);
    for (int processor = 0; CPU_COUNT(&first) == 0; ++processor) {
        if (CPU_ISSET(processor, &before)) {
            CPU_SET(processor, &first);
        }
    }
    ASSERT_EQ(sched_setaffinity(0, sizeof(first), &first), 0); // what is started takes it over
    const ChildProcess agent({KEL_AGENT, "--state-dir", m_stateDir}, {{"PATH", Path()}});
    std::vector<std::unique_ptr<ChildProcess>> busy;
    for (int i = 0; i < 12; ++i) {
        busy.push_back(std::make_unique<ChildProcess>(TNames{"sh", "-c", "while :; do :; done"}));
    }
    ASSERT_EQ(sched_setaffinity(0, sizeof(before), &before), 0);
    ASSERT_TRUE(Says(agent, "kel-agent: ready\n"));
    ASSERT_TRUE(WaitUntil([] { return fs::exists(kDrop); })) << agent.ErrorOutput();
    SetKernelLog("line\n");

    const auto start = std::chrono::steady_clock::now();
    const TSReport report = Collect(agent, "main");

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(report["/kernel-log/state"],
              report["/kernel-log/lines"] == "0" ? "late" : "complete");
}

} // namespace kel::test
