#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <kel/KELDebug.h>

#include "FileSystemTests.h"
#include "StandardOutput.h"

namespace kel::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

typedef std::vector<fs::path> TPaths;

class FileQueries : public FileSystemTest
{
protected:
    static std::vector<std::string> Names(const TPaths& paths)
    {
        std::vector<std::string> names;
        for (const fs::path& path : paths) {
            names.push_back(path.string());
        }
        return names;
    }

    // Newer Boosts add the code's number to the text.
    static std::string TextOf(const char* operation, const fs::path& path, int error)
    {
        const boost::system::error_code code(error, boost::system::system_category());
        return fs::filesystem_error(operation, path, code).what();
    }
};

TEST_F(FileQueries, AnythingExistsButNothingAndALinkToNowhere)
{
    const fs::path file = Write(m_root / "file");
    fs::create_symlink(file, m_root / "link");
    fs::create_symlink(m_root / "nothing", m_root / "dangling");
    fs::create_symlink(m_root / "loop", m_root / "loop");
    ASSERT_EQ(mkfifo((m_root / "fifo").c_str(), 0600), 0);

    EXPECT_TRUE(TSFileSystem::FileExists(file));
    EXPECT_TRUE(TSFileSystem::FileExists(m_root));
    EXPECT_TRUE(TSFileSystem::FileExists(m_root / "link"));
    EXPECT_TRUE(TSFileSystem::FileExists(m_root / "fifo"));
    EXPECT_FALSE(TSFileSystem::FileExists(m_root / "nothing"));
    EXPECT_FALSE(TSFileSystem::FileExists(m_root / "dangling"));
    EXPECT_FALSE(TSFileSystem::FileExists(m_root / "loop"));
    EXPECT_FALSE(TSFileSystem::FileExists(file / "below"));
    EXPECT_FALSE(TSFileSystem::FileExists(fs::path()));
    EXPECT_FALSE(TSFileSystem::FileExists(std::string(5000, 'x')));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, WhatCannotBeSearchedForDoesNotExist)
{
    const fs::path file = Write(m_root / "closed" / "file");
    ChangeMode(m_root / "closed", 0600);

    const Unprivileged unprivileged;
    EXPECT_FALSE(TSFileSystem::FileExists(file));
    EXPECT_FALSE(TSFileSystem::FolderExists(m_root / "closed" / "."));

    ExpectLog("FolderExists", kErrorPriority,
              {"File " + (m_root / "closed" / ".").string() + " does not exist"});
}

TEST_F(FileQueries, AFolderExistsAsADirectoryOrALinkToOne)
{
    fs::create_directory_symlink(m_root, m_root / "link");

    EXPECT_TRUE(TSFileSystem::FolderExists(m_root));
    EXPECT_TRUE(TSFileSystem::FolderExists(m_root / "link"));

    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, AMissingFolderAndOneThatIsAFileAreToldApartInTheLog)
{
    Write(m_root / "file");

    EXPECT_FALSE(TSFileSystem::FolderExists(m_root / "missing"));
    EXPECT_FALSE(TSFileSystem::FolderExists(m_root / "file"));

    ExpectLog("FolderExists", kErrorPriority,
              {"File /tmp/tree/missing does not exist",
               "Path /tmp/tree/file exists but it is not a directory"});
}

TEST_F(FileQueries, ALineIsCopiedUnderTheNameOfItsClass)
{
    TCDebug::m_instance.EnableStdoutLog(true);
    const std::string output
        = StandardOutputOf([&] { TSFileSystem::FolderExists(m_root / "missing"); });
    TCDebug::m_instance.EnableStdoutLog(false);

    EXPECT_EQ(output,
              "KEL >kel::TSFileSystem:FolderExists:" + std::to_string(m_log.Lines().at(0).m_line)
                  + "< File /tmp/tree/missing does not exist\n");
}

TEST_F(FileQueries, FilesAreNamesWithAnExtensionUpperLevelsFirst)
{
    Write(m_root / "a" / "b" / "y.txt");
    Write(m_root / "a" / "b" / "z.log");
    Write(m_root / "a" / "x.txt");
    TPaths files{"kept"};

    EXPECT_TRUE(TSFileSystem::GetFiles(files, m_root, ".txt"));

    EXPECT_THAT(Names(files), ElementsAre("kept", "x.txt", "y.txt"));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, AMissingDirectoryHasNoFilesAndTheSizeZero)
{
    TPaths files{"kept"};

    EXPECT_FALSE(TSFileSystem::GetFiles(files, m_root / "missing", ".txt"));

    EXPECT_THAT(Names(files), ElementsAre("kept"));
    EXPECT_THAT(m_log.Lines(), IsEmpty());

    EXPECT_EQ(TSFileSystem::GetDirSize(m_root / "missing"), 0);
    ExpectLog("GetDirSize", kErrorPriority, {"Error getting dir size, boost error 2"});
}

TEST_F(FileQueries, TheExtensionOfFilesBeginsWithTheLastDot)
{
    for (const char* const name : {"plain", ".hidden", "end.", "a.tar.gz", "b.gz", "..gz", "...",
                                   "with space.gz", "new\nline.gz", "\xff\xfe.gz", "x.GZ"}) {
        Write(m_root / name);
    }
    MakeDirectory(m_root / "directory.gz");
    TPaths compressed;
    TPaths bare;
    TPaths hidden;
    TPaths dots;
    TPaths none;

    EXPECT_TRUE(TSFileSystem::GetFiles(compressed, m_root, ".gz"));
    EXPECT_TRUE(TSFileSystem::GetFiles(bare, m_root, ""));
    EXPECT_TRUE(TSFileSystem::GetFiles(hidden, m_root, ".hidden"));
    EXPECT_TRUE(TSFileSystem::GetFiles(dots, m_root, "."));
    EXPECT_TRUE(TSFileSystem::GetFiles(none, m_root, "gz"));

    EXPECT_THAT(Names(compressed), UnorderedElementsAre("a.tar.gz", "b.gz", "..gz", "with space.gz",
                                                        "new\nline.gz", "\xff\xfe.gz"));
    EXPECT_THAT(Names(bare), ElementsAre("plain"));
    EXPECT_THAT(Names(hidden), ElementsAre(".hidden"));
    EXPECT_THAT(Names(dots), UnorderedElementsAre("end.", "..."));
    EXPECT_THAT(none, IsEmpty());
}

TEST_F(FileQueries, PlainFilesCostAWalkOneStatusQueryForTheirDirectory)
{
    for (int i = 0; i < 50; ++i) {
        Write(m_root / (std::to_string(i) + ".log"));
    }
    TPaths files;
    g_statusQueries = 0;

    EXPECT_TRUE(TSFileSystem::GetFiles(files, m_root, ".log"));
    const size_t forNames = g_statusQueries;
    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), 350);
    const size_t forSizes = g_statusQueries - forNames;

    EXPECT_EQ(files.size(), 50u);
    EXPECT_EQ(forNames, 1u);
    EXPECT_EQ(forSizes, 50u);
}

TEST_F(FileQueries, AFileListHasTheFullPathsOfRegularFilesAlone)
{
    Write(m_root / "a.txt");
    Write(m_root / "b");
    Write(m_root / "directory" / "c.txt");
    fs::create_symlink(m_root / "b", m_root / "link.txt");
    fs::create_symlink(m_root / "nothing", m_root / "dangling.txt");
    ASSERT_EQ(mkfifo((m_root / "fifo.txt").c_str(), 0600), 0);

    EXPECT_THAT(TSFileSystem::GetFileList(m_root, "", ""),
                UnorderedElementsAre(m_root / "a.txt", m_root / "b", m_root / "link.txt"));
    EXPECT_THAT(TSFileSystem::GetFileList(m_root, ".txt", ""),
                UnorderedElementsAre(m_root / "a.txt", m_root / "link.txt"));
    EXPECT_THAT(TSFileSystem::GetFileList(m_root, ".txt", "link"),
                ElementsAre(m_root / "link.txt"));
    EXPECT_THAT(TSFileSystem::GetFileList(m_root, "", "b"), ElementsAre(m_root / "b"));
    EXPECT_THAT(TSFileSystem::GetFileList(m_root, ".txt", "zzz"), IsEmpty());
    // A part of the directory's name matches all of its files.
    EXPECT_THAT(TSFileSystem::GetFileList(m_root, "", "tre").size(), 3u);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, AFileListIsInTheDirectorysOrder)
{
    for (const char* const name : {"3", "1", "4", "5", "9", "2", "6"}) {
        Write(m_root / name);
    }
    std::list<fs::path> order;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_root)) {
        order.push_back(entry.path());
    }

    EXPECT_EQ(TSFileSystem::GetFileList(m_root, "", ""), order);
}

TEST_F(FileQueries, ListsOfADirectoryThatCannotBeOpenedAreEmptyAndSilent)
{
    Write(m_root / "closed" / "file");
    MakeDirectory(m_root / "closed" / "directory");
    ChangeMode(m_root / "closed", 0300);

    const Unprivileged unprivileged;
    for (const fs::path& path : {m_root / "closed", m_root / "missing", fs::path()}) {
        EXPECT_THAT(TSFileSystem::GetFileList(path, "", ""), IsEmpty());
        EXPECT_THAT(TSFileSystem::GetDirList(path), IsEmpty());
    }

    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, ListsOfADirectoryThatCannotBeSearchedOrReadOnThrow)
{
    Write(m_root / "closed" / "file");
    ChangeMode(m_root / "closed", 0600);

    const Unprivileged unprivileged;
    EXPECT_THROW(TSFileSystem::GetFileList(m_root / "closed", "", ""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirList(m_root / "closed"), fs::filesystem_error);

    int entries = 0;
    Write(m_root / "second");
    g_hooks.m_readdir = [&](dirent* entry) -> dirent* {
        if (entry == nullptr || entry->d_name[0] == '.' || ++entries % 2 == 1) {
            return entry;
        }
        errno = EIO;
        return nullptr;
    };
    EXPECT_THROW(TSFileSystem::GetFileList(m_root, "", ""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirList(m_root), fs::filesystem_error);
}

TEST_F(FileQueries, ADirectoryListIsSortedAndTellsTheLogOfEach)
{
    MakeDirectory(m_root / "b" / "below");
    MakeDirectory(m_root / "a");
    MakeDirectory(m_root / "a b");
    Write(m_root / "file");
    fs::create_directory_symlink(m_root / "a", m_root / "link");
    fs::create_symlink(m_root / "nothing", m_root / "dangling");

    const std::set<fs::path> directories = TSFileSystem::GetDirList(m_root);

    EXPECT_THAT(directories,
                ElementsAre(m_root / "a", m_root / "a b", m_root / "b", m_root / "link"));
    std::set<std::string> messages;
    for (const TSLogLine& line : m_log.Lines()) {
        messages.insert(line.m_message);
        EXPECT_EQ(line.m_priority, kDebugPriority);
        EXPECT_EQ(line.m_function, "GetDirList");
    }
    EXPECT_EQ(m_log.Lines().size(), 4u);
    EXPECT_THAT(messages,
                ElementsAre("Add /tmp/tree/a b dir to list", "Add /tmp/tree/a dir to list",
                            "Add /tmp/tree/b dir to list", "Add /tmp/tree/link dir to list"));
}

TEST_F(FileQueries, ADirectorysSizeIsThatOfAllFilesBelow)
{
    Write(m_root / "a", "1234");
    Write(m_root / "b" / "c", "12345");
    Write(m_root / "b" / "d" / "e", "1");
    fs::create_symlink(m_root / "a", m_root / "b" / "link");

    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), 14);

    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, SizesBeyondFourGibibytesWrap)
{
    Write(m_root / "large");
    fs::resize_file(m_root / "large", (5ull << 30) + 7);
    Write(m_root / "small", "12345");
    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), (1 << 30) + 12);

    // Two halves of 4 GiB add up to nothing, half of it is negative.
    fs::resize_file(m_root / "large", 1ull << 31);
    fs::resize_file(m_root / "small", 0);
    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), static_cast<int>(0x80000000u));
    fs::resize_file(m_root / "small", 1ull << 31);
    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), 0);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, ADirectoryThatCannotBeReadToTheEndThrowsOrHasTwentyMebibytes)
{
    Write(m_root / "first.log");
    Write(m_root / "second.log");
    int entries = 0;
    g_hooks.m_readdir = [&](dirent* entry) -> dirent* {
        if (entry != nullptr && entry->d_name[0] != '.' && ++entries % 2 == 0) {
            errno = EIO;
            return nullptr;
        }
        return entry;
    };
    TPaths files;

    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), 20971520);
    ExpectLog("GetDirSize", kErrorPriority,
              {"Error getting dir size, boost error "
               + TextOf("boost::filesystem::directory_iterator::operator++", m_root, EIO)});

    try {
        TSFileSystem::GetFiles(files, m_root, ".log");
        ADD_FAILURE() << "nothing thrown";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code().value(), EIO);
        EXPECT_EQ(error.path1(), m_root);
    }
    EXPECT_EQ(files.size(), 1u);
    EXPECT_EQ(m_log.Lines().size(), 1u);
}

TEST_F(FileQueries, ADirectoryThatCannotBeBegunSetsTheCodeAndThrowsNothing)
{
    Write(m_root / "a.log");
    g_hooks.m_readdir = [](dirent* entry) -> dirent* {
        if (entry != nullptr && entry->d_name[0] != '.') {
            errno = EIO;
            return nullptr;
        }
        return entry;
    };
    TPaths files;

    EXPECT_FALSE(TSFileSystem::GetFiles(files, m_root, ".log"));
    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), 0);

    EXPECT_THAT(files, IsEmpty());
    ExpectLog("GetDirSize", kErrorPriority, {"Error getting dir size, boost error 5"});
}

TEST_F(FileQueries, AFileThatVanishesBeforeItsSizeIsTakenThrows)
{
    Write(m_root / "file");
    g_hooks.m_stat = [&](const std::string& path) {
        if (fs::path(path).filename() == "file") {
            unlink((m_root / "file").c_str());
        }
    };

    try {
        TSFileSystem::GetDirSize(m_root);
        ADD_FAILURE() << "nothing thrown";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_EQ(error.path1(), m_root / "file");
        EXPECT_EQ(error.what(), TextOf("boost::filesystem::file_size", m_root / "file", ENOENT));
    }

    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, AFileThatVanishesWhenItsDirectoryHasBeenReadDoesNotStopTheWalk)
{
    Write(m_root / "a.log");
    Write(m_root / "b.log");
    Write(m_root / "directory" / "c.log");
    bool vanished = false;
    g_hooks.m_readdir = [&](dirent* entry) {
        if (entry != nullptr && strcmp(entry->d_name, "b.log") == 0 && !vanished) {
            vanished = unlink((m_root / "b.log").c_str()) == 0;
        }
        return entry;
    };
    TPaths files;

    EXPECT_TRUE(TSFileSystem::GetFiles(files, m_root, ".log"));

    EXPECT_TRUE(vanished);
    EXPECT_THAT(Names(files), testing::IsSupersetOf({"a.log", "c.log"}));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, ADirectoryThatVanishesBeforeItIsWalkedSetsTheCode)
{
    MakeDirectory(m_root / "directory");
    g_hooks.m_readdir = [&](dirent* entry) {
        if (entry == nullptr) {
            rmdir((m_root / "directory").c_str());
            errno = 0;
        }
        return entry;
    };
    TPaths files;

    EXPECT_FALSE(TSFileSystem::GetFiles(files, m_root, ".log"));
    MakeDirectory(m_root / "directory");
    EXPECT_EQ(TSFileSystem::GetDirSize(m_root), 0);

    ExpectLog("GetDirSize", kErrorPriority, {"Error getting dir size, boost error 2"});
}

TEST_F(FileQueries, TheTimeOfModificationIsInWholeSeconds)
{
    Write(m_root / "file");
    const timespec times[2] = {{1000000000, 0}, {1234567890, 999999999}};
    ASSERT_EQ(utimensat(AT_FDCWD, (m_root / "file").c_str(), times, 0), 0);
    fs::create_symlink(m_root / "file", m_root / "link");

    EXPECT_EQ(TSFileSystem::GetLastModificationTime(m_root / "file"), 1234567890);
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(m_root / "link"), 1234567890);

    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(m_root / "missing"), 0);
    ExpectLog("GetLastModificationTime", kErrorPriority, {"ERROR"});
}

TEST_F(FileQueries, FreeSpaceIsInWholeMebibytes)
{
    const Mount mount((m_root / "mount").string(), "size=3m");
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(m_root / "mount"), 3.0);

    Write(m_root / "mount" / "file", "x");
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(m_root / "mount" / "file"), 2.0);

    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(m_root / "missing"), -1.0);
    ExpectLog("GetFreeSpaceSize", kErrorPriority, {"Error checking free space: boost error 2"});
}

TEST_F(FileQueries, FreeSpaceIsWhatIsAvailableRoundedDown)
{
    g_hooks.m_statvfs = [](struct statvfs& result) {
        result = {};
        result.f_bsize = result.f_frsize = 1;
        result.f_blocks = 10 << 20;
        result.f_bfree = 5 << 20; // a part of it is root's
        result.f_bavail = 1572863;
        return 0;
    };

    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(m_root), 1.0);

    g_hooks.m_statvfs = [](struct statvfs& result) {
        result = {};
        result.f_bsize = result.f_frsize = 4096;
        result.f_blocks = result.f_bfree = result.f_bavail = 1ull << 31;
        return 0;
    };
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(m_root), 8388608.0);
}

TEST_F(FileQueries, AFilesContentsReplaceWhatWasThere)
{
    const std::string bytes("\0\xff\r\nx", 5);
    Write(m_root / "file", bytes);
    std::vector<unsigned char> contents(100, 'a');

    EXPECT_TRUE(TSFileSystem::GetFileContents((m_root / "file").string(), contents));

    EXPECT_EQ(std::string(contents.begin(), contents.end()), bytes);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileQueries, ContentsStayWhenTheFileCannotBeOpenedOrHasNoSize)
{
    Write(m_root / "empty", "");
    Write(m_root / "secret");
    ChangeMode(m_root / "secret", 0);
    std::vector<unsigned char> contents{1, 2};

    const Unprivileged unprivileged;
    for (const std::string path :
         {"/tmp/tree/missing", "/tmp/tree/secret", "/tmp/tree/empty", "/proc/self/status"}) {
        EXPECT_FALSE(TSFileSystem::GetFileContents(path, contents));
    }

    EXPECT_THAT(contents, ElementsAre(1, 2));
    ExpectLog("GetFileContents", kDebugPriority,
              {"File /tmp/tree/missing opening failed", "File /tmp/tree/secret opening failed"});
    ExpectLog("GetFileContents", kErrorPriority,
              {"File /tmp/tree/empty size is 0!", "File /proc/self/status size is 0!"});
}

TEST_F(FileQueries, ADirectoryAndAFileThatDeliversLessThanItsSizeCannotBeRead)
{
    std::vector<unsigned char> contents{1, 2};
    const std::string file = "/sys/kernel/mm/transparent_hugepage/enabled";
    const std::string fallback = "/sys/kernel/uevent_seqnum";
    const std::string present = fs::exists(file) ? file : fallback; // both measure 4096 bytes

    for (const std::string& path : {present, fs::current_path().string()}) {
        EXPECT_FALSE(TSFileSystem::GetFileContents(path, contents));
    }
    EXPECT_FALSE(TSFileSystem::GetFileContents(m_root.string(), contents));

    EXPECT_THAT(contents, ElementsAre(1, 2));
    EXPECT_TRUE(m_log.Has(kErrorPriority, "Error reading file: " + present));
    EXPECT_EQ(m_log.Lines().size(), 3u);
    for (const TSLogLine& line : m_log.Lines()) {
        EXPECT_EQ(line.m_priority, kErrorPriority) << line.m_message;
    }
}

TEST_F(FileQueries, WhatHasNoPositionIsTooLongAndDoesNotWaitForAWriter)
{
    ASSERT_EQ(mkfifo((m_root / "fifo").c_str(), 0600), 0);
    std::vector<unsigned char> contents{1, 2};

    try {
        TSFileSystem::GetFileContents((m_root / "fifo").string(), contents);
        ADD_FAILURE() << "nothing thrown";
    } catch (const std::length_error& error) {
        EXPECT_STREQ(error.what(), "cannot create std::vector larger than max_size()");
    }

    EXPECT_THAT(contents, ElementsAre(1, 2));
}

TEST_F(FileQueries, ContentsAreReadEvenWhereTheTypeCannotBeAskedFor)
{
    Write(m_root / "file", "text");
    std::vector<unsigned char> contents;
    g_hooks.m_fstat = [] { return EIO; };

    EXPECT_TRUE(TSFileSystem::GetFileContents((m_root / "file").string(), contents));

    EXPECT_THAT(contents, ElementsAre('t', 'e', 'x', 't'));
}

TEST_F(FileQueries, ReadingContentsLeavesNoDescriptorOpen)
{
    ASSERT_EQ(mkfifo((m_root / "fifo").c_str(), 0600), 0);
    Write(m_root / "file");
    Write(m_root / "empty", "");
    std::vector<unsigned char> contents;
    const size_t before = CountDescriptors();

    for (const char* const name : {"file", "empty", "missing", "."}) {
        TSFileSystem::GetFileContents((m_root / name).string(), contents);
    }
    EXPECT_THROW(TSFileSystem::GetFileContents((m_root / "fifo").string(), contents),
                 std::length_error);

    EXPECT_EQ(CountDescriptors(), before);
}

} // namespace

} // namespace kel::test
