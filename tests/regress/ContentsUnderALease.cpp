// GetFileContents() failed at once on a file under another process's lease, where an open waits.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "FileSystemTests.h"

namespace kel::test {

namespace {

// Another process with a lease on a file, which ends, and the lease with it, when the kernel tells
// it that somebody opens the file: that is what SIGIO does to a process.
class Lessee
{
public:
    explicit Lessee(const fs::path& path)
    {
        int channel[2];
        if (pipe2(channel, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        m_child = fork();
        if (m_child == 0) {
            signal(SIGIO, SIG_DFL);
            const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
            const char taken = fcntl(file, F_SETLEASE, F_WRLCK) == 0 ? 'y' : 'n';
            if (write(channel[1], &taken, 1) == 1) {
                pause();
            }
            _exit(1);
        }
        close(channel[1]);
        char taken = 'n';
        m_taken = read(channel[0], &taken, 1) == 1 && taken == 'y';
        close(channel[0]);
    }
    ~Lessee()
    {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
    }
    Lessee(const Lessee&) = delete;
    Lessee& operator=(const Lessee&) = delete;

    bool HasLease() const { return m_taken; }

    // The signal that has ended it.
    int End()
    {
        int status = 0;
        waitpid(m_child, &status, 0);
        m_child = -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    pid_t m_child;
    bool m_taken;
};

class ContentsUnderALease : public FileSystemTest
{
};

TEST_F(ContentsUnderALease, AreReadWhenTheLeaseIsGivenBack)
{
    const fs::path path = Write(m_root / "file", "text");
    Lessee lessee(path);
    if (!lessee.HasLease()) {
        GTEST_SKIP() << "this machine grants no leases";
    }
    const size_t before = CountDescriptors();
    std::vector<unsigned char> contents;

    EXPECT_TRUE(TSFileSystem::GetFileContents(path.string(), contents));

    EXPECT_THAT(contents, testing::ElementsAre('t', 'e', 'x', 't'));
    EXPECT_EQ(lessee.End(), SIGIO);
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_THAT(m_log.Lines(), testing::IsEmpty());
}

TEST_F(ContentsUnderALease, StayWhenAFifoTakesTheFilesPlaceMeanwhile)
{
    const fs::path path = Write(m_root / "file", "text");
    Lessee lessee(path);
    if (!lessee.HasLease()) {
        GTEST_SKIP() << "this machine grants no leases";
    }
    g_hooks.m_open = [&, number = 0](const std::string& opened) mutable {
        if (opened == path.string() && ++number == 2) {
            fs::remove(path);
            EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        }
    };
    std::vector<unsigned char> contents{1, 2};

    EXPECT_FALSE(TSFileSystem::GetFileContents(path.string(), contents));

    EXPECT_THAT(contents, testing::ElementsAre(1, 2));
    ExpectLog("GetFileContents", kDebugPriority, {"File /tmp/tree/file opening failed"});
}

} // namespace

} // namespace kel::test
