// A FIFO in the place of the kernel log's snapshot stopped its readers, a file passed for its
// lines.

#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <iterator>

#include <gmock/gmock.h>

#include "e2e/KelctlTest.h"
#include "e2e/ReportRoad.h"

namespace kel::test {

namespace fs = std::filesystem;

TEST_F(KelctlTest, WhateverIsInTheSnapshotsPlaceItNeitherWaitsNorShowsIt)
{
    SetKernelLog("line\n");
    ASSERT_EQ(mkfifo("/tmp/Device_Tracker.log", 0666), 0);
    const TSFinished fifo = Klog();
    std::ofstream("/tmp/Device_Tracker.log") << "other\n";
    const TSFinished file = Klog();
    fs::create_directory("/tmp/Device_Tracker.log");
    const TSFinished directory = Klog();

    EXPECT_EQ(fifo.m_exit, 0) << Text(fifo);
    EXPECT_EQ(fifo.m_output, "line\n");
    EXPECT_EQ(file.m_exit, 0) << Text(file);
    EXPECT_EQ(file.m_output, "line\n");
    EXPECT_EQ(directory.m_exit, 1) << Text(directory);
    EXPECT_EQ(directory.m_output, "");
    EXPECT_EQ(directory.m_errorOutput, "kelctl: no line of the kernel log can be had: "
                                       "/tmp/Device_Tracker.log: File exists\n");
}

TEST_F(KelctlTest, FollowsAsSoonAsTheSnapshotHasItsPlace)
{
    SetKernelLog("line\n");
    fs::create_directory("/tmp/Device_Tracker.log");
    const std::unique_ptr<ChildProcess> klog = FollowKlog();
    const std::string complaint
        = "kelctl: the kernel log is not read: /tmp/Device_Tracker.log: File exists\n";
    ASSERT_TRUE(WaitUntil([&] { return klog->ErrorOutput() == complaint; }));

    fs::remove("/tmp/Device_Tracker.log");

    EXPECT_TRUE(klog->WaitForOutput("line\n"));
    klog->Signal(SIGTERM);
    EXPECT_EQ(klog->Wait(), 0);
    EXPECT_EQ(klog->ErrorOutput(), complaint);
}

TEST_F(ReportRoad, HasTheKernelsOwnLinesWhateverIsInTheSnapshotsPlace)
{
    const fs::path snapshot = "/tmp/Device_Tracker.log";
    const fs::path other = m_bus.Directory() + "/other";
    WriteFile(other, "other\n");
    const auto agent = StartCollector();
    const std::function<void()> inThePlace[] = {
        [&] { EXPECT_EQ(mkfifo(snapshot.c_str(), 0666), 0); },
        [&] { fs::create_symlink(other, snapshot); },
        [&] { fs::create_symlink("/tmp/nothing", snapshot); },
        [&] { WriteFile(snapshot, "other\n"); },
    };

    for (size_t i = 0; i < std::size(inThePlace); ++i) {
        inThePlace[i]();
        const std::string line = "line " + std::to_string(i) + "\n";
        SetKernelLog(line);
        Request(ALWAYS, "proc", "main");

        ASSERT_TRUE(WaitForReports(i + 1)) << agent->ErrorOutput();
        EXPECT_EQ(ReadFile(Reports().at(i).m_directory / "kernel.log"), line);
        EXPECT_FALSE(fs::exists(fs::symlink_status(snapshot)));
    }
    EXPECT_EQ(ReadFile(other), "other\n");
    EXPECT_FALSE(fs::exists("/tmp/nothing"));
}

TEST_F(ReportRoad, HasNoKernelLogWhereItsSnapshotHasNoPlace)
{
    const fs::path snapshot = "/tmp/Device_Tracker.log";
    fs::create_directory(snapshot);
    const auto agent = StartCollector();
    SetKernelLog("line\n");

    Request(ALWAYS, "proc", "main");

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/kernel-log/lines"], "0");
    EXPECT_EQ(CountOf(agent->ErrorOutput(), "kel-agent: the kernel log is not read: "
                                            "/tmp/Device_Tracker.log: File exists\n"),
              1U)
        << agent->ErrorOutput();
    fs::remove(snapshot);
}

} // namespace kel::test
