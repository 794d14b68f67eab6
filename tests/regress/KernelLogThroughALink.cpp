// The kernel log's snapshot was written to where a link under its name pointed, and a FIFO there
// held up the collector and everybody else, for good.

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <kel/KELKernelLog.h>

#include "FileSystemTests.h"

// In place of the C library's: a collector in the idle class makes no headway on a busy machine.
extern "C" __attribute__((visibility("default"))) int
sched_setscheduler(pid_t, int, const struct sched_param*) noexcept
{
    return 0;
}

namespace kel::test {

namespace {

class KernelLogThroughALink : public FileSystemTest
{
protected:
    KernelLogThroughALink()
    {
        Write(m_root / "dmesg", "#!/bin/sh\necho one\n");
        ChangeMode(m_root / "dmesg", 0755);
        setenv("PATH", (m_root.string() + ":/usr/bin:/bin").c_str(), 1);
        lastShared = " ";
    }
    ~KernelLogThroughALink() override { fs::remove(m_snapshot); }

    bool Dump()
    {
        m_lines.clear();
        return DumpKernelLog(m_lines, DUMP_CONDITION_NONE);
    }

    const fs::path m_snapshot = "/tmp/Device_Tracker.log";
    std::vector<std::string> m_lines;
};

TEST_F(KernelLogThroughALink, TakesTheLinksPlace)
{
    const fs::path target = Write(m_root / "target", "precious");
    fs::create_symlink(target, m_snapshot);

    EXPECT_TRUE(Dump());

    EXPECT_EQ(m_lines, std::vector<std::string>{"one"});
    EXPECT_EQ(Read(target), "precious");
    EXPECT_FALSE(fs::is_symlink(m_snapshot));

    fs::remove(m_snapshot);
    fs::create_hard_link(target, m_snapshot);
    lastShared = " ";
    EXPECT_TRUE(Dump());
    EXPECT_EQ(Read(target), "precious") << "it has a second name";
}

TEST_F(KernelLogThroughALink, TakesAFifosPlaceOrHasNothing)
{
    ASSERT_EQ(mkfifo(m_snapshot.c_str(), 0600), 0);
    EXPECT_TRUE(Dump());
    EXPECT_EQ(m_lines, std::vector<std::string>{"one"});

    fs::remove(m_snapshot);
    ASSERT_EQ(mkfifo(m_snapshot.c_str(), 0600), 0);
    const auto setFlags = [](unsigned long flags) {
        return mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV | flags, nullptr);
    };
    ASSERT_EQ(setFlags(MS_RDONLY), 0);
    EXPECT_FALSE(Dump());
    ASSERT_EQ(setFlags(0), 0);
}

} // namespace

} // namespace kel::test
