// How much the agent takes, and how much it keeps.

#include <signal.h>

#include <filesystem>
#include <set>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

namespace fs = std::filesystem;
using namespace std::string_literals;

class ReportLimits : public ReportRoad
{
protected:
    // The threads of the reports' requests, in order.
    TNames Threads() const
    {
        TNames threads;
        for (const TSReport& report : Reports()) {
            threads.push_back(report["/request/thread"]);
        }
        return threads;
    }

    // Files a request and waits for its report.
    void Collect(const ChildProcess& agent, const std::string& thread,
                 const std::string& path = "NO_PATH") const
    {
        ASSERT_EQ(Request(ALWAYS, "proc", thread, path), 1);
        ASSERT_TRUE(Says(agent, ": proc-" + thread + "-ALWAYS.log in /tmp/kel_NDF collected\n"))
            << agent.ErrorOutput();
    }
};

TEST_F(ReportLimits, OfAFloodNoRequestIsLostAndNoneIsMadeTwice)
{
    constexpr int kProcesses = 4;
    constexpr int kThreads = 4;
    constexpr int kRequests = 125;
    constexpr size_t kAll = size_t(kProcesses) * kThreads * kRequests;
    const auto agent = StartCollector();

    std::vector<std::unique_ptr<ChildProcess>> applications;
    std::set<std::string> wanted;
    for (int i = 0; i < kProcesses; ++i) {
        const std::string process = "process" + std::to_string(i);
        applications.push_back(std::make_unique<ChildProcess>(TNames{
            KEL_FILE_REQUESTS, process, std::to_string(kThreads), std::to_string(kRequests)}));
        for (int j = 0; j < kThreads * kRequests; ++j) {
            wanted.insert("/nowhere/" + process + "/" + std::to_string(j / kRequests) + "."
                          + std::to_string(j % kRequests));
        }
    }
    for (const auto& application : applications) {
        EXPECT_EQ(application->Wait(), 0) << application->Output();
    }

    ASSERT_TRUE(WaitForReports(kAll)) << Ids().size() << " reports";
    EXPECT_TRUE(WaitUntil([] { return Taken().empty(); }));
    EXPECT_EQ(NamesIn(kDrop), TNames());
    const std::vector<TSReport> reports = Reports();
    EXPECT_EQ(reports.size(), kAll);
    std::set<std::string> paths;
    for (const TSReport& report : reports) {
        const std::string path = report["/request/upload-path"];
        EXPECT_TRUE(paths.insert(path).second) << path << " twice";
        EXPECT_EQ(path, "/nowhere/" + report["/request/process"] + "/" + report["/request/thread"]);
    }
    EXPECT_TRUE(paths == wanted);
    EXPECT_EQ(SetPolicy("<policy/>").m_output, "0 (accepted)\n");
}

TEST_F(ReportLimits, OfTooManyTheOldestAreDropped)
{
    {
        const auto agent = StartCollector({"--max-reports", "3"});
        for (int i = 1; i <= 5; ++i) {
            Collect(*agent, std::to_string(i));
        }

        EXPECT_TRUE(Says(*agent, "kel-agent: report 2 dropped: more than 3 reports\n"));
        EXPECT_EQ(CountOf(agent->ErrorOutput(), " dropped: "), 2U) << agent->ErrorOutput();
        EXPECT_EQ(Threads(), (TNames{"3", "4", "5"}));
        EXPECT_TRUE(WaitUntil([&] { return NamesIn(m_reports) == Ids(); }))
            << "nothing is half dropped";
        agent->Signal(SIGTERM);
        ASSERT_EQ(agent->Wait(), 0);
    }

    const auto agent = StartCollector({"--max-reports", "1"});
    Collect(*agent, "6");

    EXPECT_TRUE(Says(*agent, "kel-agent: report 5 dropped: more than 1 reports\n"));
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " dropped: "), 3U) << agent->ErrorOutput();
    EXPECT_EQ(Threads(), TNames{"6"});
    EXPECT_EQ(Ids(), TNames{"0000000006"}) << "numbers are not given twice";
}

TEST_F(ReportLimits, OfTooManyBytesTheOldestAreDropped)
{
    WriteFile("/tmp/artefact", std::string(100000, 'x'));
    {
        const auto agent = StartCollector({"--max-bytes", "250000"});
        for (int i = 1; i <= 4; ++i) {
            Collect(*agent, std::to_string(i), "/tmp/artefact");
        }

        EXPECT_TRUE(Says(*agent, "kel-agent: report 2 dropped: more than 250000 bytes\n"));
        EXPECT_EQ(CountOf(agent->ErrorOutput(), " dropped: "), 2U) << agent->ErrorOutput();
        EXPECT_EQ(Threads(), (TNames{"3", "4"}));
        EXPECT_EQ(Reports().at(1)["/artefact/bytes"], "100000");
        agent->Signal(SIGTERM);
        ASSERT_EQ(agent->Wait(), 0);
    }

    const auto agent = StartCollector({"--max-bytes", "150000"});
    Collect(*agent, "5");

    EXPECT_TRUE(Says(*agent, "kel-agent: report 3 dropped: more than 150000 bytes\n"));
    EXPECT_EQ(Threads(), (TNames{"4", "5"}));
}

} // namespace kel::test
