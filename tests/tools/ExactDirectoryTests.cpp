// A directory of the agent's own where anybody may have made one before.

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>

#include "common/Files.h"
#include "requests/ExactDirectory.h"
#include "requests/Trash.h"
#include "support/PrivateBus.h"
#include "support/Sandbox.h"

namespace kel::test {

namespace fs = std::filesystem;
using agent::TCExactDirectory;
using agent::TCPassLimit;
using agent::TCTrash;
using tools::OpenIn;
using tools::TCDescriptor;

namespace {

// To enter directories of mode 0, as an agent does that is root: in the sandbox everybody is.
void NeedRights()
{
    if (geteuid() != 0) {
        Sandbox::Need();
    }
}

// As where the kernel has none, for this process's rest.
void ForbidOpenat2()
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(code), code};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
    ASSERT_EQ(syscall(SYS_openat2, -1, nullptr, nullptr, 0), -1);
    ASSERT_EQ(errno, ENOSYS);
}

} // namespace

class ExactDirectory : public testing::Test
{
protected:
    ExactDirectory() : m_root(MakeDirectory()), m_parent(open(m_root.c_str(), O_RDONLY)) {}
    ~ExactDirectory() override { fs::remove_all(m_root); }

    // Opens it, and tells whether something was moved aside.
    bool Open()
    {
        bool moved = false;
        const tools::TCOutcome opened = m_directory.Open(m_parent.Get(), m_opened, moved);
        EXPECT_TRUE(opened) << opened.Reason();
        struct stat status = {};
        EXPECT_EQ(lstat((m_root / "own").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFDIR | 01733U);
        EXPECT_TRUE(fs::is_empty(m_root / "own"));
        return moved;
    }

    size_t Count() const
    {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(m_root), fs::directory_iterator()));
    }

    const fs::path m_root;
    const TCDescriptor m_parent;
    const TCExactDirectory m_directory{"own", 01733, "aside-"};
    TCDescriptor m_opened;
};

TEST_F(ExactDirectory, IsMadeWhateverTheMaskIs)
{
    NeedRights();
    const mode_t mask = umask(0777);
    EXPECT_FALSE(Open());
    umask(mask);

    EXPECT_FALSE(Open());
    EXPECT_EQ(Count(), 1U);
}

TEST_F(ExactDirectory, TakesThePlaceOfWhatIsNotExact)
{
    size_t count = 1;
    const auto expectMoved = [&] {
        EXPECT_TRUE(Open());
        EXPECT_EQ(Count(), ++count);
    };
    const fs::path own = m_root / "own";

    fs::create_directory(own);
    std::ofstream(own / "file") << "text";
    expectMoved();
    fs::permissions(own, fs::perms::all);
    expectMoved();
    fs::remove(own);
    fs::create_directory_symlink("/tmp", own);
    expectMoved();
    fs::remove(own);
    std::ofstream(own) << "text";
    expectMoved();
    fs::remove(own);
    ASSERT_EQ(mkfifo(own.c_str(), 0600), 0);
    expectMoved();
}

TEST_F(ExactDirectory, TrashIsEmptiedHoweverDeepAndOddItIs)
{
    NeedRights();
    TCTrash trash;
    ASSERT_TRUE(trash.Open(m_parent.Get()));
    fs::path deep = m_root / "deep";
    for (int i = 0; i < 500; ++i) {
        deep /= "d";
    }
    fs::create_directories(deep);
    fs::create_directory_symlink("/etc", deep / "link");
    ASSERT_EQ(mkfifo((m_root / "deep/fifo").c_str(), 0), 0);
    fs::permissions(m_root / "deep/d/d", fs::perms::none);
    std::string moved;
    struct stat status;
    ASSERT_TRUE(trash.Move(m_parent.Get(), "deep", 'k', moved, status));
    EXPECT_TRUE(S_ISDIR(status.st_mode));

    size_t salvaged = 0;
    const auto salvage = [&](char kind, int, const std::string&, unsigned char) {
        salvaged += kind == 'k' ? 1 : 0;
        return std::optional<bool>();
    };
    for (bool more = true; more;) {
        TCPassLimit limit; // of time, too: on a busy machine it takes more than one pass
        more = trash.Empty(limit, salvage);
    }

    EXPECT_EQ(salvaged, 2U) << "its own entries alone";
    EXPECT_TRUE(fs::is_empty(m_root / TCTrash::kName));
}

TEST_F(ExactDirectory, OpensNothingOutside)
{
    fs::create_directory(m_root / "directory");
    fs::create_directory_symlink("/tmp", m_root / "link");
    const auto expectNothing = [this] {
        EXPECT_TRUE(OpenIn(m_parent.Get(), "directory", O_RDONLY).IsOpen());
        for (const char* const name : {"", "..", "/tmp", "directory/..", "link", "nothing"}) {
            EXPECT_FALSE(OpenIn(m_parent.Get(), name, O_RDONLY).IsOpen()) << name;
        }
        const TCDescriptor root(open("/", O_RDONLY | O_DIRECTORY));
        EXPECT_FALSE(OpenIn(root.Get(), "proc", O_RDONLY).IsOpen());
        EXPECT_EQ(errno, EXDEV);
    };

    expectNothing();
    ForbidOpenat2();
    expectNothing();
}

} // namespace kel::test
