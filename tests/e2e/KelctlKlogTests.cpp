// kelctl klog, with a kernel log of the test's own.

#include <signal.h>

#include <fstream>

#include <gmock/gmock.h>

#include "e2e/KelctlTest.h"

namespace kel::test {

using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

std::string Numbered(const std::string& word, size_t from, size_t to)
{
    std::string lines;
    for (size_t i = from; i < to; ++i) {
        lines += word + std::to_string(i) + "\n";
    }
    return lines;
}

} // namespace

typedef KelctlTest KelctlKlog;

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

TEST_F(KelctlKlog, FollowsWithWhatIsNew)
{
    SetKernelLog(Numbered("line ", 0, 3));
    const std::unique_ptr<ChildProcess> klog = FollowKlog();
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
    const std::unique_ptr<ChildProcess> klog = FollowKlog();
    SetKernelLog("first\n");

    EXPECT_TRUE(klog->WaitForOutput("first\n"));

    klog->Signal(SIGINT);
    EXPECT_EQ(klog->Wait(), 0);
    EXPECT_EQ(klog->ErrorOutput(), "");
}

TEST_F(KelctlKlog, ASignalEndsItBeforeTheNextLook)
{
    SetDmesg("echo >>/tmp/running; echo line");
    const auto looks = [] { return fs::file_size("/tmp/running"); };
    int without = 0;
    for (int i = 0; i < 10; ++i) {
        const std::unique_ptr<ChildProcess> klog = FollowKlog();
        ASSERT_TRUE(klog->WaitForOutput("line\n"));
        const uintmax_t before = looks();

        klog->Signal(i % 2 == 0 ? SIGINT : SIGTERM);

        EXPECT_EQ(klog->Wait(), 0);
        without += looks() == before ? 1 : 0;
    }
    EXPECT_GT(without, 5); // one may have begun just before the signal
}

TEST_F(KelctlKlog, ASignalDuringALookLosesNoLine)
{
    SetDmesg("echo >/tmp/running\n"
             "while [ ! -e /tmp/go ]; do sleep 0.01; done\n"
             "exec cat /tmp/kernel-log");
    SetKernelLog(Numbered("line ", 0, 512));
    const std::unique_ptr<ChildProcess> klog = FollowKlog();
    ASSERT_TRUE(WaitUntil([] { return fs::exists("/tmp/running"); })) << klog->ErrorOutput();

    klog->Signal(SIGINT);
    std::ofstream("/tmp/go").flush();

    EXPECT_EQ(klog->Wait(), 0);
    EXPECT_EQ(klog->Output(), Numbered("line ", 0, 512));
    EXPECT_EQ(klog->ErrorOutput(), "");
}

TEST_F(KelctlKlog, AReaderThatIsSlowGetsEveryLine)
{
    const std::string line(400, 'x');
    SetKernelLog(Numbered(line, 0, 512));

    // A shell reads byte by byte.
    const TSFinished read = RunInShell("'" KEL_NOT_IDLE "' '" KEL_CTL "' klog --follow | "
                                       "for ((i = 0; i < 512; ++i)); do read -r line; "
                                       "echo \"$line\"; done");

    EXPECT_EQ(read.m_output, Numbered(line, 0, 512)) << read.m_errorOutput;
    EXPECT_EQ(read.m_errorOutput, "");
}

TEST_F(KelctlKlog, EndsWhenNobodyReadsItsOutput)
{
    SetKernelLog("line\n");

    const TSFinished ended = RunInShell("'" KEL_NOT_IDLE "' '" KEL_CTL
                                        "' klog --follow | head -n 1; exit ${PIPESTATUS[0]}");

    EXPECT_EQ(ended.m_exit, 5) << Text(ended);
    EXPECT_EQ(ended.m_output, "line\n");
    EXPECT_EQ(ended.m_errorOutput, "");
}

TEST_F(KelctlKlog, EndsWhenItsOutputIsFull)
{
    SetKernelLog("line\n");
    for (const char* const command : {" klog --follow", " klog"}) {
        const TSFinished ended = RunInShell(std::string("exec '" KEL_NOT_IDLE "' '" KEL_CTL "'")
                                            + command + " >/dev/full");

        EXPECT_EQ(ended.m_exit, 5) << Text(ended);
        EXPECT_EQ(ended.m_errorOutput,
                  "kelctl: the output cannot be written: No space left on device\n");
    }
}

} // namespace kel::test
