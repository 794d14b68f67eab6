// The copies of artefacts, and the processes that read them.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>
#include <optional>

#include <gmock/gmock.h>

#include "reports/Artefact.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace kel::test {

namespace fs = std::filesystem;
using agent::TCArtefactCopier;
using agent::TCReaderServer;
using agent::TSArtefact;

class Artefact : public testing::Test
{
protected:
    static constexpr uint64_t kLongest = 1U << 30U;

    Artefact() : m_directory(MakeDirectory()) { Restart(); }
    ~Artefact() override { fs::remove_all(m_directory); }

    void Restart()
    {
        m_readerServer.emplace();
        m_copier.emplace(kLongest, *m_readerServer);
    }

    fs::path File(const std::string& text) const
    {
        std::ofstream(m_directory / "file", std::ios::binary) << text;
        return m_directory / "file";
    }

    // Writes in the middle of a file.
    static void WriteAt(const fs::path& path, off_t offset, const std::string& text)
    {
        const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(pwrite(file, text.data(), text.size(), offset), ssize_t(text.size()));
        close(file);
    }

    // Why it is not copied; empty when it is.
    std::string Copy(const fs::path& path, uint64_t room = kLongest)
    {
        fs::remove(m_copy);
        return CopyFor(geteuid(), path, room);
    }

    std::string CopyFor(uid_t user, const fs::path& path, uint64_t room)
    {
        m_copier->Begin(path, user, m_copy, room);
        m_copied = m_copier->Take(user, kDeadline).value();
        return m_copied.m_outcome.Reason();
    }

    static std::string TextOf(const fs::path& path)
    {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const fs::path m_directory;
    const fs::path m_copy = m_directory / "copy";
    std::optional<TCReaderServer> m_readerServer;
    std::optional<TCArtefactCopier> m_copier;
    TSArtefact m_copied;
};

TEST_F(Artefact, IsCopiedByteForByteWhateverItsSize)
{
    for (const size_t size : {0, 1, 65535, 65536, 65537, 300000}) {
        std::string text;
        for (size_t i = 0; i < size; ++i) {
            text += static_cast<char>(i % 251 + i / 251);
        }

        EXPECT_EQ(Copy(File(text)), "");

        EXPECT_TRUE(TextOf(m_copy) == text) << size;
        EXPECT_EQ(m_copied.m_size, size);
        EXPECT_EQ(m_copied.m_written, size);
    }
}

TEST_F(Artefact, KeepsItsHoles)
{
    const fs::path file = File("");
    fs::resize_file(file, 1 << 20);
    WriteAt(file, 400 << 10, "in the middle");
    WriteAt(file, 800 << 10, "near the end");

    EXPECT_EQ(Copy(file, 100000), "");

    EXPECT_TRUE(TextOf(m_copy) == TextOf(file));
    EXPECT_EQ(m_copied.m_size, 1U << 20U);
    EXPECT_LE(m_copied.m_written, 2U * 65536U);
    struct stat status = {};
    ASSERT_EQ(stat(m_copy.c_str(), &status), 0);
    EXPECT_LE(status.st_blocks * 512, 2 * 65536);
}

TEST_F(Artefact, WithoutRoomIsNotBegun)
{
    const fs::path file = File(std::string(100000, 'x'));
    fs::resize_file(file, 1 << 20);

    const std::string reason = Copy(file, 90000);

    EXPECT_THAT(reason,
                testing::MatchesRegex("it has 10[0-9]* bytes, and there is room for 90000"));
    EXPECT_FALSE(fs::exists(m_copy));
    fs::resize_file(file, kLongest + 1);
    EXPECT_EQ(Copy(file), "it has 1073741825 bytes, and there is room for 1073741824");
    EXPECT_FALSE(fs::exists(m_copy));
}

TEST_F(Artefact, ThatTellsOfNoSizeIsCopiedNoFurtherThanTheRoom)
{
    EXPECT_EQ(Copy("/proc/kallsyms", 1000000),
              "it has more bytes than it tells of, and there is room for 1000000");
    EXPECT_FALSE(fs::exists(m_copy));
    EXPECT_EQ(Copy("/proc/self/status"), "");
    EXPECT_THAT(TextOf(m_copy), testing::HasSubstr("\nVmData:"));
}

TEST_F(Artefact, DoesNotReplaceWhatIsThere)
{
    const fs::path file = File("text");
    std::ofstream(m_copy) << "mine";

    EXPECT_EQ(CopyFor(geteuid(), file, kLongest), "File exists");
    EXPECT_EQ(TextOf(m_copy), "mine");
}

TEST_F(Artefact, IsForAnotherUserWhenTheAgentIsPrivilegedAlone)
{
    const fs::path file = File("text");
    fs::permissions(file, fs::perms::owner_read);

    const std::string reason = CopyFor(65533, file, kLongest);

    EXPECT_THAT(reason, testing::AnyOf("Permission denied", // ours may be a namespace of one user
                                       "the agent must not read it for user 65533"));
    EXPECT_FALSE(fs::exists(m_copy));
}

TEST_F(Artefact, LeavesNoProcessAndNoDescriptor)
{
    const fs::path file = File(std::string(100000, 'x'));
    m_copier.reset();
    m_readerServer.reset();
    const size_t before = CountDescriptors();

    Restart();
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(Copy(i % 2 == 0 ? file : "/nowhere"),
                  i % 2 == 0 ? "" : "No such file or directory");
    }
    EXPECT_LE(CountDescriptors(), before + 3) << "of the server, the last reader, and its end";
    m_copier.reset();
    m_readerServer.reset();

    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() == before; })) << "a thread has the last";
}

TEST_F(Artefact, OfANameThatIsTooLongIsNotCopied)
{
    EXPECT_EQ(Copy("/" + std::string(PATH_MAX, 'x')), "File name too long");
    EXPECT_EQ(Copy("/" + std::string(PATH_MAX - 2, 'x')), "File name too long");
    EXPECT_EQ(Copy(std::string(PATH_MAX - 10, '/') + "nowhere"), "No such file or directory");
}

} // namespace kel::test
