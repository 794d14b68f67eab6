// kelctl klog, with a kernel log of the test's own.

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"
#include "support/Sandbox.h"

namespace kel::test {

using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

const fs::path kTools = "/tmp/tools";
const fs::path kKernelLog = "/tmp/kernel-log"; // what dmesg shows

std::string Numbered(const std::string& word, size_t from, size_t to)
{
    std::string lines;
    for (size_t i = from; i < to; ++i) {
        lines += word + std::to_string(i) + "\n";
    }
    return lines;
}

} // namespace

class KelctlKlog : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(Sandbox::IsEntered());
        fs::create_directory(kTools);
        SetDmesg("exec cat " + kKernelLog.string());
        SetKernelLog("");
    }
    void TearDown() override
    {
        for (const char* const path : {"/tmp/tools", "/tmp/kernel-log", "/tmp/Device_Tracker.log",
                                       "/tmp/running", "/tmp/go", "/tmp/pipe"}) {
            fs::remove_all(path);
        }
    }

    // At once: a dmesg that runs is the old one or the new one.
    static void SetDmesg(const std::string& script)
    {
        std::ofstream("/tmp/dmesg.new") << "#!/bin/sh\n" << script << "\n";
        fs::permissions("/tmp/dmesg.new", fs::perms::owner_all);
        fs::rename("/tmp/dmesg.new", kTools / "dmesg");
    }
    static void SetKernelLog(const std::string& text)
    {
        std::ofstream("/tmp/kernel-log.new") << text;
        fs::rename("/tmp/kernel-log.new", kKernelLog);
    }

    static ChildProcess::TEnvironment Environment()
    {
        return {{"PATH", kTools.string() + ":/usr/bin:/bin"}};
    }
    // Out of the idle class, in which nothing runs on a machine that is busy with tests.
    static TSFinished Klog() { return RunProgram({KEL_NOT_IDLE, KEL_CTL, "klog"}, Environment()); }
    static std::unique_ptr<ChildProcess> Follow()
    {
        return std::make_unique<ChildProcess>(
            std::vector<std::string>{KEL_NOT_IDLE, KEL_CTL, "klog", "--follow"}, Environment());
    }
};

TEST_F(KelctlKlog, PrintsTheNewestLinesWithoutEmptyOnes)
{
    SetKernelLog("one\n\n two\nthree");
    const TSFinished few = Klog();
    SetKernelLog(Numbered("line ", 0, 600));
    const TSFinished many = Klog();

    EXPECT_EQ(few.m_exit, 0) << Text(few);
    EXPECT_EQ(few.m_output, "one\n two\nthree\n");
    EXPECT_EQ(few.m_errorOutput, "");
    EXPECT_EQ(many.m_exit, 0) << many.m_errorOutput;
    EXPECT_EQ(many.m_output, Numbered("line ", 600 - 512, 600));
}

TEST_F(KelctlKlog, WithoutAnyLineItTellsSo)
{
    const TSFinished empty = Klog();

    EXPECT_EQ(empty.m_exit, 1) << Text(empty);
    EXPECT_EQ(empty.m_output, "");
    EXPECT_EQ(empty.m_errorOutput, "kelctl: no line of the kernel log can be had\n");
}

TEST_F(KelctlKlog, WhatDmesgComplainsOfIsSeenToo)
{
    SetDmesg("echo 'dmesg: not for you' >&2; exit 1");

    const TSFinished refused = Klog();

    EXPECT_EQ(refused.m_exit, 1) << Text(refused);
    EXPECT_EQ(refused.m_output, "");
    EXPECT_EQ(refused.m_errorOutput,
              "dmesg: not for you\nkelctl: no line of the kernel log can be had\n");
}

TEST_F(KelctlKlog, WithoutADmesgItTellsSo)
{
    fs::remove(kTools / "dmesg");
    SetKernelLog("line\n");
    for (const char* const directory : {"/usr/bin", "/bin"}) {
        if (fs::exists(fs::path(directory) / "tail") && !fs::exists(kTools / "tail")) {
            fs::create_symlink(fs::path(directory) / "tail", kTools / "tail");
        }
    }

    const TSFinished ended = RunProgram({KEL_NOT_IDLE, KEL_CTL, "klog"}, {{"PATH", kTools}});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_THAT(ended.m_errorOutput, testing::AllOf(HasSubstr("dmesg"), HasSubstr("not found")));
    EXPECT_THAT(ended.m_errorOutput,
                testing::EndsWith("\nkelctl: no line of the kernel log can be had\n"));
}

TEST_F(KelctlKlog, WhateverIsInTheSnapshotsPlaceItNeitherWaitsNorShowsIt)
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

TEST_F(KelctlKlog, FollowsAsSoonAsTheSnapshotHasItsPlace)
{
    SetKernelLog("line\n");
    fs::create_directory("/tmp/Device_Tracker.log");
    const std::unique_ptr<ChildProcess> klog = Follow();
    const std::string complaint
        = "kelctl: the kernel log is not read: /tmp/Device_Tracker.log: File exists\n";
    ASSERT_TRUE(WaitUntil([&] { return klog->ErrorOutput() == complaint; }));

    fs::remove("/tmp/Device_Tracker.log");

    EXPECT_TRUE(klog->WaitForOutput("line\n"));
    klog->Signal(SIGTERM);
    EXPECT_EQ(klog->Wait(), 0);
    EXPECT_EQ(klog->ErrorOutput(), complaint);
}

TEST_F(KelctlKlog, FollowsWithWhatIsNew)
{
    SetKernelLog(Numbered("line ", 0, 3));
    const std::unique_ptr<ChildProcess> klog = Follow();
    ASSERT_TRUE(klog->WaitForOutput("line 2\n")) << klog->ErrorOutput();

    SetKernelLog(Numbered("line ", 0, 5));
    ASSERT_TRUE(klog->WaitForOutput("line 4\n")) << klog->ErrorOutput();
    SetKernelLog(Numbered("line ", 0, 6));
    ASSERT_TRUE(klog->WaitForOutput("line 5\n")) << klog->ErrorOutput();

    klog->Signal(SIGTERM);
    EXPECT_EQ(klog->Wait(), 0);
    EXPECT_EQ(klog->Output(), Numbered("line ", 0, 6));
    EXPECT_EQ(klog->ErrorOutput(), "");
}

TEST_F(KelctlKlog, FollowsAnEmptyLog)
{
    const std::unique_ptr<ChildProcess> klog = Follow();
    SetKernelLog("first\n");

    EXPECT_TRUE(klog->WaitForOutput("first\n"));

    klog->Signal(SIGINT);
    EXPECT_EQ(klog->Wait(), 0);
    EXPECT_EQ(klog->ErrorOutput(), "");
}

TEST_F(KelctlKlog, ASignalEndsItBeforeTheNextLook)
{
    SetKernelLog("line\n");
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 10 && shortest > std::chrono::milliseconds(500); ++i) {
        const std::unique_ptr<ChildProcess> klog = Follow();
        ASSERT_TRUE(klog->WaitForOutput("line\n"));
        const auto start = std::chrono::steady_clock::now();

        klog->Signal(i % 2 == 0 ? SIGINT : SIGTERM);

        EXPECT_EQ(klog->Wait(), 0);
        shortest = std::min(shortest, std::chrono::steady_clock::now() - start);
    }
    EXPECT_LE(shortest, std::chrono::milliseconds(500)); // the looks are a second apart
}

TEST_F(KelctlKlog, ASignalDuringALookLosesNoLine)
{
    SetDmesg("echo >/tmp/running\n"
             "while [ ! -e /tmp/go ]; do sleep 0.01; done\n"
             "exec cat "
             + kKernelLog.string());
    SetKernelLog(Numbered("line ", 0, 512));
    const std::unique_ptr<ChildProcess> klog = Follow();
    ASSERT_TRUE(WaitUntil([] { return fs::exists("/tmp/running"); })) << klog->ErrorOutput();

    klog->Signal(SIGINT);
    std::ofstream("/tmp/go").flush();

    EXPECT_EQ(klog->Wait(), 0);
    EXPECT_EQ(klog->Output(), Numbered("line ", 0, 512));
    EXPECT_EQ(klog->ErrorOutput(), "");
}

TEST_F(KelctlKlog, ASignalEndsItAlsoWhenItsReaderHasStopped)
{
    const std::string line(400, 'x');
    SetKernelLog(Numbered(line, 0, 512)); // three times what a pipe takes
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    const int reader = open("/tmp/pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    ChildProcess klog(
        {"sh", "-c", "exec '" KEL_NOT_IDLE "' '" KEL_CTL "' klog --follow >/tmp/pipe"},
        Environment());
    int waiting = 0;
    ASSERT_TRUE(WaitUntil([&] {
        return ioctl(reader, FIONREAD, &waiting) == 0 && waiting > 60000;
    })) << klog.ErrorOutput();

    klog.Signal(SIGTERM);

    EXPECT_EQ(klog.Wait(), 0);
    EXPECT_EQ(klog.ErrorOutput(), "");
    close(reader);
}

TEST_F(KelctlKlog, AReaderThatIsSlowGetsEveryLine)
{
    const std::string line(400, 'x');
    SetKernelLog(Numbered(line, 0, 512));

    const TSFinished read = RunProgram({"sh", "-c",
                                        "'" KEL_NOT_IDLE "' '" KEL_CTL
                                        "' klog --follow | { sleep 0.3; exec head -n 512; }"},
                                       Environment());

    EXPECT_EQ(read.m_output, Numbered(line, 0, 512)) << read.m_errorOutput;
    EXPECT_EQ(read.m_errorOutput, "kelctl: nobody reads the output\n");
}

TEST_F(KelctlKlog, EndsWhenNobodyReadsItsOutput)
{
    SetKernelLog("line\n");

    const TSFinished ended = RunProgram({"bash", "-c",
                                         "'" KEL_NOT_IDLE "' '" KEL_CTL
                                         "' klog --follow | head -n 1; exit ${PIPESTATUS[0]}"},
                                        Environment());

    EXPECT_EQ(ended.m_exit, 5) << Text(ended);
    EXPECT_EQ(ended.m_output, "line\n");
    EXPECT_EQ(ended.m_errorOutput, "kelctl: nobody reads the output\n");
}

TEST_F(KelctlKlog, EndsWhenItsOutputIsFull)
{
    SetKernelLog("line\n");
    for (const char* const command : {" klog --follow", " klog"}) {
        const TSFinished ended = RunProgram(
            {"sh", "-c",
             std::string("exec '" KEL_NOT_IDLE "' '" KEL_CTL "'") + command + " >/dev/full"},
            Environment());

        EXPECT_EQ(ended.m_exit, 5) << Text(ended);
        EXPECT_EQ(ended.m_errorOutput,
                  "kelctl: the output cannot be written: No space left on device\n");
    }
}

TEST_F(KelctlKlog, WrongUsageIsToldInOneLine)
{
    for (const char* const argument : {"operand", "--count", "--follow=x"}) {
        const TSFinished ended = RunProgram({KEL_CTL, "klog", argument});

        EXPECT_EQ(ended.m_exit, 2) << Text(ended);
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: ")) << Text(ended);
    }
}

} // namespace kel::test
