// kelctl failed without a reason in a directory that had been removed, and ignored SIGTERM while
// its reader had stopped.

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "e2e/KelctlTest.h"

namespace kel::test {

namespace fs = std::filesystem;

TEST_F(KelctlTest, ARelativePathNeedsACurrentDirectory)
{
    const TSFinished ended
        = RunProgram({"sh", "-c",
                      "mkdir /tmp/gone && cd /tmp/gone && rmdir /tmp/gone && exec '" KEL_CTL
                      "' report --process a --path log"});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the request could not be left: "))
        << Text(ended);
    EXPECT_THAT(ended.m_errorOutput, testing::HasSubstr("the current directory"));
    EXPECT_EQ(NamesIn(kDrop), TWords());
}

TEST_F(KelctlTest, ASignalEndsItAlsoWhenItsReaderHasStopped)
{
    std::string lines; // three times what a pipe takes
    for (int i = 0; i < 512; ++i) {
        lines += std::string(400, 'x') + "\n";
    }
    SetKernelLog(lines);
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

} // namespace kel::test
