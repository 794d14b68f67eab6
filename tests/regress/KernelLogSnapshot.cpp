// A FIFO in the place of the kernel log's snapshot stopped its readers, a file passed for its
// lines, and a directory kept them from all lines for good.

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>

#include <gmock/gmock.h>

#include "e2e/KelctlTest.h"
#include "e2e/ReportRoad.h"
#include "support/Mount.h"

namespace kel::test {

namespace fs = std::filesystem;

TEST_F(KelctlTest, WhateverIsInTheSnapshotsPlaceItNeitherWaitsNorShowsIt)
{
    SetKernelLog("line\n");
    ASSERT_EQ(mkfifo("/tmp/Device_Tracker.log", 0666), 0);
    const TSFinished fifo = Klog();
    std::ofstream("/tmp/Device_Tracker.log") << "other\n";
    const TSFinished file = Klog();
    fs::create_directories("/tmp/Device_Tracker.log/deep");
    std::ofstream("/tmp/Device_Tracker.log/deep/file") << "other\n";
    const TSFinished directory = Klog();

    EXPECT_EQ(fifo.m_exit, 0) << Text(fifo);
    EXPECT_EQ(fifo.m_output, "line\n");
    EXPECT_EQ(file.m_exit, 0) << Text(file);
    EXPECT_EQ(file.m_output, "line\n");
    EXPECT_EQ(directory.m_exit, 0) << Text(directory);
    EXPECT_EQ(directory.m_output, "line\n");
    EXPECT_FALSE(fs::exists("/tmp/Device_Tracker.log"));
}

TEST_F(KelctlTest, WhatIsInTheSnapshotsPlaceAndNotTheirsEndsOthersWithAReason)
{
    Sandbox::NeedOtherUsers();
    fs::create_directory("/tmp/Device_Tracker.log");
    SetKernelLog("line\n");
    const TWords command = {"setpriv", "--reuid=65534", "--clear-groups", KEL_CTL, "klog"};

    const TSFinished ended = RunProgram(command, Environment());

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_EQ(ended.m_errorOutput,
              "kelctl: no line of the kernel log can be had: /tmp/Device_Tracker.log: what is in "
              "its place cannot be removed: Operation not permitted\n");
}

TEST_F(KelctlTest, FollowsAsSoonAsTheSnapshotHasItsPlace)
{
    Sandbox::NeedOtherUsers();
    SetKernelLog("line\n");
    fs::permissions(kTools / "dmesg", fs::perms(0755));
    fs::create_directory("/tmp/Device_Tracker.log");
    ChildProcess klog(
        {"setpriv", "--reuid=65534", "--clear-groups", KEL_NOT_IDLE, KEL_CTL, "klog", "--follow"},
        Environment());
    const std::string complaint
        = "kelctl: the kernel log is not read: /tmp/Device_Tracker.log: what is in its place "
          "cannot be removed: Operation not permitted\n";
    ASSERT_TRUE(WaitUntil([&] { return klog.ErrorOutput() == complaint; })) << klog.ErrorOutput();

    fs::remove("/tmp/Device_Tracker.log");

    EXPECT_TRUE(klog.WaitForOutput("line\n")) << klog.ErrorOutput();
    EXPECT_EQ(klog.ErrorOutput(), complaint);
}

TEST_F(ReportRoad, HasTheKernelsOwnLinesWhateverIsInTheSnapshotsPlace)
{
    Sandbox::NeedOtherUsers();
    const fs::path snapshot = "/tmp/Device_Tracker.log";
    const fs::path other = m_bus.Directory() + "/other";
    WriteFile(other, "other\n");
    const auto agent = StartCollector();
    const std::function<void()> inThePlace[] = {
        [&] { EXPECT_EQ(mkfifo(snapshot.c_str(), 0666), 0); },
        [&] { fs::create_symlink(other, snapshot); },
        [&] { fs::create_symlink("/tmp/nothing", snapshot); },
        [&] { WriteFile(snapshot, "other\n"); },
        [&] { fs::create_directory(snapshot); },
        [&] {
            // Somebody else's, who has more in there than can be seen at once.
            fs::create_directories(snapshot / "deep/deeper");
            fs::create_directory_symlink(m_scratch / "kept", snapshot / "link");
            for (int i = 0; i < 1000; ++i) {
                WriteFile(snapshot / "deep" / std::to_string(i), "other\n");
            }
            EXPECT_EQ(mkfifo((snapshot / "deep/deeper/fifo").c_str(), 0666), 0);
            for (const char* const directory : {"deep/deeper", "deep", ""}) {
                EXPECT_EQ(chmod((snapshot / directory).c_str(), 0), 0);
                EXPECT_EQ(chown((snapshot / directory).c_str(), 65534, 65534), 0);
            }
        },
    };
    fs::create_directory(m_scratch / "kept");
    WriteFile(m_scratch / "kept/file", "kept");

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
    EXPECT_TRUE(fs::exists(m_scratch / "kept/file"));
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        EXPECT_NE(entry.path().filename().string().rfind(".Device_Tracker", 0), 0U) << entry;
    }
}

TEST_F(ReportRoad, HasNoKernelLogWhereItsSnapshotHasNoPlace)
{
    const fs::path snapshot = "/tmp/Device_Tracker.log";
    fs::create_directory(snapshot);
    const auto agent = StartCollector();
    SetKernelLog("line\n");
    const std::string reason = "/tmp/Device_Tracker.log: what is in its place cannot be removed: "
                               "Device or resource busy";
    {
        const Mount mounted(snapshot);
        for (const size_t i : {1, 2}) {
            Request(ALWAYS, "proc", "main");

            ASSERT_TRUE(WaitForReports(i)) << agent->ErrorOutput();
            EXPECT_EQ(Reports().at(i - 1)["/kernel-log/lines"], "0");
            EXPECT_EQ(Reports().at(i - 1)["/kernel-log/state"], "unavailable");
            EXPECT_EQ(Reports().at(i - 1)["/kernel-log/reason"], reason);
        }
        EXPECT_EQ(CountOf(agent->ErrorOutput(),
                          "kel-agent: the kernel log is not read: " + reason + "\n"),
                  1U)
            << agent->ErrorOutput();
    }
    Request(ALWAYS, "proc", "main");

    ASSERT_TRUE(WaitForReports(3)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(2)["/kernel-log/state"], "complete");
    EXPECT_EQ(Reports().at(2)["/kernel-log/lines"], "1");
}

} // namespace kel::test
