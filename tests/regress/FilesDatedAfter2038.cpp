// With a time_t of 4 bytes, a file that its owner had dated after 2038 did not exist, could be
// neither copied nor measured nor removed, and stopped the lists and walks of its directory.

#include <cstdlib>
#include <limits>

#include <kel/KELDirsManager.h>

#include "FileSystemTests.h"

namespace kel::test {

namespace {

constexpr long long kLate = 4102444800; // the first second of 2100

class FilesDatedAfter2038 : public FileSystemTest
{
protected:
    ~FilesDatedAfter2038() override { TSFileSystem::RemoveFolder(m_root / "late"); }

    // By a program that has large times: this one may have none.
    static fs::path Date(const fs::path& path)
    {
        const std::string command
            = "touch --date=@" + std::to_string(kLate) + " '" + path.string() + "'";
        EXPECT_EQ(system(command.c_str()), 0);
        return path;
    }

    const fs::path m_late = MakeDirectory(m_root / "late");
    const fs::path m_file = Date(Write(m_late / "file.log", "content"));
    const fs::path m_directory = Date(MakeDirectory(m_late / "directory"));
};

TEST_F(FilesDatedAfter2038, Exist)
{
    EXPECT_TRUE(TSFileSystem::FileExists(m_file));
    EXPECT_TRUE(TSFileSystem::FolderExists(m_directory));
    EXPECT_FALSE(TSFileSystem::FolderExists(m_file));
    EXPECT_TRUE(TSFileSystem::MakeDir(m_directory, false));

    fs::path free;
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(m_late, "file.log", free));
    EXPECT_EQ(free, m_late / "file_1.log");

    const time_t last = std::numeric_limits<time_t>::max();
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(m_file), last < kLate ? last : kLate);
}

TEST_F(FilesDatedAfter2038, AreListedAndMeasured)
{
    const fs::path link = m_late / "link.log";
    fs::create_symlink(m_file, link);

    std::vector<fs::path> names;
    EXPECT_TRUE(TSFileSystem::GetFiles(names, m_late, ".log"));
    EXPECT_THAT(names, testing::UnorderedElementsAre("file.log", "link.log"));
    EXPECT_THAT(TSFileSystem::GetFileList(m_late, ".log", ""),
                testing::UnorderedElementsAre(m_file, link));
    EXPECT_THAT(TSFileSystem::GetDirList(m_late), testing::ElementsAre(m_directory));
    EXPECT_EQ(TSFileSystem::GetDirSize(m_late), 14);
}

TEST_F(FilesDatedAfter2038, AreReadAndCopied)
{
    std::vector<unsigned char> contents;
    EXPECT_TRUE(TSFileSystem::GetFileContents(m_file.string(), contents));

    EXPECT_TRUE(TSFileSystem::CopyFile(m_file, m_root / "copy", false));
    EXPECT_EQ(Read(m_root / "copy"), "content");
    EXPECT_TRUE(TSFileSystem::CopyFile(m_root / "copy", m_file, true));
    EXPECT_FALSE(TSFileSystem::CopyFile(m_directory, m_root / "copy", true));
}

TEST_F(FilesDatedAfter2038, AreChangedAndRemoved)
{
    EXPECT_TRUE(TSFileSystem::SetPermissions(m_file, fs::perms(0640), -1, -1));
    Date(m_file);
    EXPECT_TRUE(TSFileSystem::SetPermissions(m_file, fs::add_perms | fs::perms(0004), -1, -1));
    Date(m_file);
    EXPECT_TRUE(TSFileSystem::SetPermissions(m_file, fs::remove_perms | fs::perms(0040), -1, -1));
    Date(m_file);
    Date(m_directory);
    EXPECT_TRUE(TSFileSystem::MakeDir(m_directory / "below", true));
    Date(m_directory / "below");
    Date(m_directory);
    m_log.Clear();

    EXPECT_FALSE(TSFileSystem::RemoveFile(m_directory));
    EXPECT_TRUE(TSFileSystem::RemoveFile(m_file));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(m_directory));

    EXPECT_TRUE(fs::is_empty(m_late));
    ExpectLog("RemoveFile", kErrorPriority,
              {"Couldnt delete file: " + m_directory.string() + ", boost error: 39"});
}

TEST_F(FilesDatedAfter2038, AreThePolicyWhereTheyHaveItsName)
{
    const fs::path vendor = "/opt/usr/share/vostek/vostek_kel_policy.xml";
    Date(Write(vendor));

    EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), vendor);

    EXPECT_TRUE(TSFileSystem::RemoveFile(vendor));
}

} // namespace

} // namespace kel::test
