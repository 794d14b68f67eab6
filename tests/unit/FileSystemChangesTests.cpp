#include <fcntl.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "FileSystemTests.h"

namespace kel::test {

namespace {

using testing::IsEmpty;

constexpr char kText[] = "some text\n";

class FileChanges : public FileSystemTest
{
protected:
    struct TSRoute
    {
        const char* m_what;
        fs::path m_source;
        fs::path m_destination; // directories
    };

    FileChanges()
        : m_one((m_root / "one").string(), "size=2m"), m_two((m_root / "two").string(), "size=1m")
    {}
    ~FileChanges() override { m_LeaveDisk(); }

    // Within one file system, from one to another of the same type, and, when the machine has a
    // disk below the working directory, from that.
    std::vector<TSRoute> Routes()
    {
        std::vector<TSRoute> routes{
            {"within a file system", m_root / "one", MakeDirectory(m_root / "one" / "below")},
            {"to another file system", m_root / "one", m_root / "two"}};
        char name[] = "./kel-copy-XXXXXX";
        if (m_disk.empty() && mkdtemp(name) != nullptr) {
            m_disk = fs::absolute(name);
        }
        if (!m_disk.empty()) {
            routes.push_back({"from the disk", m_disk, m_root / "two"});
        }
        return routes;
    }

    uid_t OwnerOf(const fs::path& path)
    {
        struct stat status
        {
        };
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_uid;
    }

    const Mount m_one;
    const Mount m_two;
    std::string m_reason; // of a failure to come

private:
    void m_LeaveDisk()
    {
        if (!m_disk.empty()) {
            fs::remove_all(m_disk);
        }
    }

    fs::path m_disk;
};

TEST_F(FileChanges, ACopyHasTheBytesAndTheModeOfItsSource)
{
    for (const TSRoute& route : Routes()) {
        SCOPED_TRACE(route.m_what);
        for (const unsigned int mode : {0644u, 0400u, 0777u, 0600u, 0664u}) {
            for (const bool overwrite : {false, true}) {
                const fs::path source = Write(route.m_source / "source", kText);
                ChangeMode(source, mode);
                const fs::path destination = route.m_destination / "copy";

                EXPECT_TRUE(TSFileSystem::CopyFile(source, destination, overwrite));

                EXPECT_EQ(Read(destination), kText);
                EXPECT_EQ(ModeOf(destination), mode);
                EXPECT_EQ(Read(source), kText);
                fs::remove(destination);
                fs::remove(source);
            }
        }
    }
    EXPECT_THAT(m_log.Lines(), IsEmpty()) << m_log.Text();
}

TEST_F(FileChanges, ACopyOfManyBlocksOrNoneIsWholeAndLeavesNoDescriptorOpen)
{
    std::string large;
    for (size_t i = 0; large.size() < 300000; ++i) {
        large += std::to_string(i * i) + '\0';
    }
    for (const TSRoute& route : Routes()) {
        for (const std::string& content : {large, std::string()}) {
            Write(route.m_source / "source", content);
            const size_t before = CountDescriptors();

            EXPECT_TRUE(TSFileSystem::CopyFile(route.m_source / "source",
                                               route.m_destination / "copy", true))
                << route.m_what;

            EXPECT_EQ(CountDescriptors(), before);
            EXPECT_EQ(Read(route.m_destination / "copy"), content) << route.m_what;
        }
    }
}

TEST_F(FileChanges, ACopyOntoAFileIsAskedForOrFails)
{
    for (const TSRoute& route : Routes()) {
        SCOPED_TRACE(route.m_what);
        const fs::path source = Write(route.m_source / "source", kText);
        const fs::path destination
            = Write(route.m_destination / "there", "something that is longer than the source");
        ChangeMode(destination, 0600);
        m_log.Clear();

        EXPECT_FALSE(TSFileSystem::CopyFile(source, destination, false));
        EXPECT_EQ(Read(destination), "something that is longer than the source");
        EXPECT_EQ(ModeOf(destination), 0600u);
        ExpectLog("CopyFile", kErrorPriority, {"Could not copy file: error code: File exists"});

        EXPECT_TRUE(TSFileSystem::CopyFile(source, destination, true));
        EXPECT_EQ(Read(destination), kText);
        EXPECT_EQ(ModeOf(destination), 0644u);
        EXPECT_EQ(m_log.Lines().size(), 1u);
        fs::remove(destination);
    }
}

TEST_F(FileChanges, ACopyOfNothingOrToNowhereFails)
{
    const fs::path source = Write(m_root / "one" / "source", kText);

    EXPECT_FALSE(TSFileSystem::CopyFile(m_root / "missing", m_root / "two" / "copy", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(source, m_root / "missing" / "copy", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(source, source / "copy", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(source, m_root / "two", true));

    EXPECT_FALSE(fs::exists(m_root / "two" / "copy"));
    ExpectLog("CopyFile", kErrorPriority,
              {"Could not copy file: error code: No such file or directory",
               "Could not copy file: error code: No such file or directory",
               "Could not copy file: error code: Not a directory",
               "Could not copy file: error code: Is a directory"});
}

TEST_F(FileChanges, ACopyToAFullFileSystemFailsAndLeavesAPart)
{
    for (const TSRoute& route : Routes()) {
        SCOPED_TRACE(route.m_what);
        Write(route.m_source / "source", std::string(1500 * 1024, 'x'));
        if (route.m_destination != m_root / "two") {
            Write(m_root / "one" / "filler", std::string(100 * 1024, 'x'));
        }
        m_log.Clear();
        const fs::path destination = route.m_destination / "copy";

        for (const bool overwrite : {false, false, true}) {
            EXPECT_FALSE(TSFileSystem::CopyFile(route.m_source / "source", destination, overwrite));
        }

        EXPECT_TRUE(fs::exists(destination));
        EXPECT_LT(fs::file_size(destination), 1500u * 1024);
        ExpectLog("CopyFile", kErrorPriority,
                  {"Could not copy file: error code: No space left on device",
                   "Could not copy file: error code: File exists",
                   "Could not copy file: error code: No space left on device"});
        fs::remove(destination);
    }
}

TEST_F(FileChanges, NothingIsWrittenToAReadOnlyFileSystem)
{
    const fs::path source = Write(m_root / "one" / "source", kText);
    Write(m_root / "two" / "there" / "file", "old");
    m_two.Remount(MS_RDONLY);
    const fs::path there = m_root / "two" / "there";

    EXPECT_FALSE(TSFileSystem::CopyFile(source, m_root / "two" / "copy", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(source, there / "file", true));
    EXPECT_FALSE(TSFileSystem::MoveFile(there / "file", there / "other", true));
    EXPECT_FALSE(TSFileSystem::RemoveFile(there / "file"));
    EXPECT_FALSE(TSFileSystem::RemoveFolder(there));
    EXPECT_FALSE(TSFileSystem::SetPermissions(there, fs::perms(0700), -1, -1));
    EXPECT_FALSE(TSFileSystem::MakeDir(m_root / "two" / "new", true));

    EXPECT_EQ(Read(there / "file"), "old");
    const std::string text = "Read-only file system";
    ExpectLog(
        "CopyFile", kErrorPriority,
        {"Could not copy file: error code: " + text, "Could not copy file: error code: " + text});
    ExpectLog("MoveFile", kErrorPriority, {"Could not move/rename file: error code: " + text});
    ExpectLog("RemoveFile", kErrorPriority,
              {"Couldnt delete file: /tmp/tree/two/there/file, boost error: 30"});
    ExpectLog("RemoveFolder", kErrorPriority,
              {"Could not delete folder: /tmp/tree/two/there, error code: " + text});
    ExpectLog("SetPermissions", kErrorPriority,
              {"Couldnt set permissions for: /tmp/tree/two/there"});
    ASSERT_FALSE(m_log.Lines().empty());
    EXPECT_THAT(m_log.Lines().back().m_message,
                testing::MatchesRegex("Unable to create directory: /tmp/tree/two/new, error: "
                                      + text + ", free space: [01]\\.000000 mb"));
}

// FAT, which most USB sticks have, has no mode bits.
TEST_F(FileChanges, ACopyMakesDoWithoutModeBits)
{
    g_hooks.m_fchmod = [] { return EPERM; };
    for (const TSRoute& route : Routes()) {
        SCOPED_TRACE(route.m_what);
        const fs::path source = Write(route.m_source / "source", kText);
        ChangeMode(source, 0600);
        const fs::path destination = Write(route.m_destination / "there", "old");

        EXPECT_TRUE(TSFileSystem::CopyFile(source, destination, true));

        EXPECT_EQ(Read(destination), kText);
        EXPECT_EQ(ModeOf(destination), 0644u);
        fs::remove(destination);
    }
    EXPECT_THAT(m_log.Lines(), IsEmpty()) << m_log.Text();
}

TEST_F(FileChanges, ACopyFailsWhenAnyStepOfItDoes)
{
    const std::string large(300 * 1024, 'x');
    const fs::path source = Write(m_root / "one" / "source", large);
    ChangeMode(source, 0600);
    const fs::path destination = m_root / "two" / "copy";
    const size_t before = CountDescriptors();
    const auto copyFails = [&] {
        m_log.Clear();
        EXPECT_FALSE(TSFileSystem::CopyFile(source, destination, true));
        ExpectLog("CopyFile", kErrorPriority, {"Could not copy file: error code: " + m_reason});
        g_hooks = TSHooks();
        EXPECT_EQ(CountDescriptors(), before);
        fs::remove(destination);
    };
    m_reason = "Input/output error";

    g_hooks.m_read = [] { return EIO; };
    copyFails();
    g_hooks.m_write = [] { return EIO; };
    copyFails();
    g_hooks.m_fdatasync = [] { return EIO; };
    copyFails();
    Write(destination, "with another mode");
    g_hooks.m_fchmod = [] { return EIO; };
    copyFails();
    // The source is asked for its mode, and the copy before and after the bytes.
    for (const int failing : {1, 2, 3}) {
        g_hooks.m_fstat = [failing, number = 0]() mutable { return ++number == failing ? EIO : 0; };
        copyFails();
    }
}

TEST_F(FileChanges, ACopyGoesOnAfterASignal)
{
    const std::string large(300 * 1024, 'x');
    const fs::path source = Write(m_root / "one" / "source", large);
    const fs::path destination = m_root / "two" / "copy";
    const auto everySecond = [number = 0]() mutable { return ++number % 2 == 1 ? EINTR : 0; };
    g_hooks.m_read = everySecond;
    g_hooks.m_write = everySecond;

    EXPECT_TRUE(TSFileSystem::CopyFile(source, destination, true));

    g_hooks = TSHooks();
    EXPECT_EQ(Read(destination), large);
    EXPECT_THAT(m_log.Lines(), IsEmpty()) << m_log.Text();
}

TEST_F(FileChanges, AFileThatVanishesBeforeACopyOpensItIsAFailureOrMadeAnew)
{
    const fs::path source = Write(m_root / "one" / "source", kText);
    const fs::path destination = Write(m_root / "two" / "copy", "old");
    const auto vanishes = [](const fs::path& vanishing) {
        g_hooks.m_open = [vanishing](const std::string& path) {
            if (path == vanishing.string()) {
                fs::remove(vanishing);
            }
        };
    };

    vanishes(destination);
    EXPECT_TRUE(TSFileSystem::CopyFile(source, destination, true));
    EXPECT_EQ(Read(destination), kText);
    EXPECT_THAT(m_log.Lines(), IsEmpty()) << m_log.Text();

    vanishes(source);
    EXPECT_FALSE(TSFileSystem::CopyFile(source, destination, true));
    EXPECT_EQ(Read(destination), kText);
    ExpectLog("CopyFile", kErrorPriority,
              {"Could not copy file: error code: No such file or directory"});
}

TEST_F(FileChanges, MovingOntoAUsbStickLeavesTheSourceInPlace)
{
    const Mount stick("/opt/media/USBDriveA", "size=1m");
    const fs::path source = Write(m_root / "one" / "source", kText);
    // Any path with the marker in it is a stick's.
    MakeDirectory(m_root / "one" / "multimedia" / "USBx");

    for (const fs::path& directory :
         {fs::path("/opt/media/USBDriveA"), m_root / "one" / "multimedia" / "USBx"}) {
        EXPECT_TRUE(TSFileSystem::MoveFile(source, directory / "moved", false));

        EXPECT_EQ(Read(directory / "moved"), kText);
        EXPECT_EQ(Read(source), kText);
    }
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileChanges, AMoveOntoAUsbStickMindsTheOverwriteFlag)
{
    const Mount stick("/opt/media/USBDriveA", "size=1m");
    const fs::path source = Write(m_root / "one" / "source", kText);
    const fs::path destination = Write("/opt/media/USBDriveA/there", "old");

    EXPECT_FALSE(TSFileSystem::MoveFile(source, destination, false));

    EXPECT_EQ(Read(destination), "old");
    std::vector<std::string> messages;
    for (const TSLogLine& line : m_log.Lines()) {
        messages.push_back(line.m_function + ": " + line.m_message);
        EXPECT_EQ(line.m_priority, kErrorPriority);
    }
    EXPECT_EQ(messages,
              (std::vector<std::string>{"CopyFile: Could not copy file: error code: File exists",
                                        "MoveFile: Failed to copy file: /tmp/tree/one/source"}));

    EXPECT_TRUE(TSFileSystem::MoveFile(source, destination, true));
    EXPECT_EQ(Read(destination), kText);
    EXPECT_TRUE(fs::exists(source));
}

TEST_F(FileChanges, AMoveElsewhereReplacesAFileWhateverTheFlag)
{
    const fs::path destination = Write(m_root / "one" / "there", "old");
    for (const bool overwrite : {false, true}) {
        const fs::path source = Write(m_root / "one" / "source", kText);

        EXPECT_TRUE(TSFileSystem::MoveFile(source, destination, overwrite));

        EXPECT_EQ(Read(destination), kText);
        EXPECT_FALSE(fs::exists(source));
    }
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileChanges, AMoveAcrossFileSystemsOrOfNothingFails)
{
    const fs::path source = Write(m_root / "one" / "source", kText);

    EXPECT_FALSE(TSFileSystem::MoveFile(source, m_root / "two" / "moved", true));
    EXPECT_FALSE(TSFileSystem::MoveFile(m_root / "missing", m_root / "moved", true));

    EXPECT_TRUE(fs::exists(source));
    EXPECT_FALSE(fs::exists(m_root / "two" / "moved"));
    ExpectLog("MoveFile", kErrorPriority,
              {"Could not move/rename file: error code: Invalid cross-device link",
               "Could not move/rename file: error code: No such file or directory"});
}

TEST_F(FileChanges, RemovingAFileTakesAFileALinkOrAnEmptyDirectory)
{
    const fs::path target = Write(m_root / "one" / "target");
    const fs::path file = Write(m_root / "one" / "file");
    fs::create_symlink(target, m_root / "one" / "link");
    MakeDirectory(m_root / "one" / "empty");

    for (const char* const name : {"file", "link", "empty", "missing"}) {
        EXPECT_TRUE(TSFileSystem::RemoveFile(m_root / "one" / name)) << name;
        EXPECT_FALSE(fs::exists(fs::symlink_status(m_root / "one" / name))) << name;
    }

    EXPECT_TRUE(fs::exists(target));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileChanges, RemovingAFolderTakesTheTreeButNotWhatLinksPointTo)
{
    const fs::path kept = Write(m_root / "two" / "kept");
    const fs::path top = m_root / "one" / "top";
    Write(top / "a" / "b" / "c");
    Write(top / "new\nline \xff");
    fs::create_directory_symlink(m_root / "two", top / "link");
    fs::create_symlink("nowhere", top / "a" / "dangling");
    ASSERT_EQ(mkfifo((top / "fifo").c_str(), 0600), 0);

    EXPECT_TRUE(TSFileSystem::RemoveFolder(top));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(top)) << "what is not there";

    EXPECT_FALSE(fs::exists(top));
    EXPECT_TRUE(fs::exists(kept));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileChanges, RemovingWhatHasEntriesOrMayNotBeChangedFails)
{
    const fs::path top = m_root / "one" / "top";
    Write(top / "file");
    EXPECT_FALSE(TSFileSystem::RemoveFile(top));
    ExpectLog(
        "RemoveFile", kErrorPriority,
        {"Couldnt delete file: /tmp/tree/one/top, boost error: " + std::to_string(ENOTEMPTY)});

    ChangeMode(top, 0500);
    const Unprivileged unprivileged;
    EXPECT_FALSE(TSFileSystem::RemoveFolder(top));
    ExpectLog("RemoveFolder", kErrorPriority,
              {"Could not delete folder: /tmp/tree/one/top, error code: Permission denied"});
    EXPECT_TRUE(fs::exists(top / "file"));
}

TEST_F(FileChanges, PermissionsReplaceTheModeOrAddToItOrTakeFromIt)
{
    const fs::path file = Write(m_root / "one" / "file");

    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::perms(0640), -1, -1));
    EXPECT_EQ(ModeOf(file), 0640u);
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::add_perms | fs::others_exe, -1, -1));
    EXPECT_EQ(ModeOf(file), 0641u);
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::remove_perms | fs::owner_write, -1, -1));
    EXPECT_EQ(ModeOf(file), 0441u);

    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_FALSE(TSFileSystem::SetPermissions(m_root / "missing", fs::perms(0640), 0, 0));
    ExpectLog("SetPermissions", kErrorPriority, {"Couldnt set permissions for: /tmp/tree/missing"});
    EXPECT_EQ(m_log.Lines().size(), 1u);
}

TEST_F(FileChanges, OwnershipNeedsBothIdentifiers)
{
    const fs::path file = Write(m_root / "one" / "file");

    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::perms(0600), -1, 0));
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::perms(0600), 0, -1));
    // Nobody may give a file away without the power to: chown() is not even called.
    const Unprivileged unprivileged;
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::perms(0640), 1, -1));
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::perms(0644), -1, 1));

    EXPECT_EQ(ModeOf(file), 0644u);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileChanges, OwnershipIsSet)
{
    const fs::path file = Write(m_root / "one" / "file");
    if (chown(file.c_str(), 1, 1) != 0 || chown(file.c_str(), 0, 0) != 0) {
        GTEST_SKIP() << "this user namespace has no second user to give a file to";
    }

    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::perms(0600), 1, 1));
    EXPECT_EQ(OwnerOf(file), 1u);
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::perms(0600), 0, 0));
    EXPECT_EQ(OwnerOf(file), 0u);
}

TEST_F(FileChanges, AnOwnerThatCannotBeSetIsAFailureAfterTheBits)
{
    const fs::path file = Write(m_root / "one" / "file");

    const Unprivileged unprivileged;
    EXPECT_FALSE(TSFileSystem::SetPermissions(file, fs::perms(0640), 1, 1));

    EXPECT_EQ(ModeOf(file), 0640u);
    // EINVAL: in a user namespace that knows no such user.
    ASSERT_EQ(chown(file.c_str(), 1, 1), -1);
    const int error = errno;
    EXPECT_TRUE(error == EPERM || error == EINVAL) << error;
    ExpectLog("SetPermissions", kErrorPriority,
              {"Couldnt change ownership of /tmp/tree/one/file. Errno: " + std::to_string(error)
               + ", " + strerror(error)});
}

TEST_F(FileChanges, ANewDirectoryGetsItsParentsAndAloneTheFullMode)
{
    EXPECT_TRUE(TSFileSystem::MakeDir(m_root / "one" / "a" / "b" / "c", true));
    EXPECT_TRUE(TSFileSystem::MakeDir(m_root / "one" / "a" / "d", false));

    EXPECT_EQ(ModeOf(m_root / "one" / "a"), 0755u);
    EXPECT_EQ(ModeOf(m_root / "one" / "a" / "b"), 0755u);
    EXPECT_EQ(ModeOf(m_root / "one" / "a" / "b" / "c"), 0777u);
    EXPECT_EQ(ModeOf(m_root / "one" / "a" / "d"), 0755u);
    ExpectLog("FolderExists", kErrorPriority,
              {"File /tmp/tree/one/a/b/c does not exist", "File /tmp/tree/one/a/d does not exist"});
    EXPECT_EQ(m_log.Lines().size(), 2u);

    // One that is there is left as it is.
    EXPECT_TRUE(TSFileSystem::MakeDir(m_root / "one" / "a" / "d", true));
    EXPECT_EQ(ModeOf(m_root / "one" / "a" / "d"), 0755u);
    EXPECT_EQ(m_log.Lines().size(), 2u);
    EXPECT_FALSE(TSFileSystem::MakeDir(fs::path(), true));
}

TEST_F(FileChanges, ADirectoryMadeByAnotherMeanwhileIsAsGood)
{
    const fs::path directory = m_root / "one" / "new";
    g_hooks.m_mkdir = [](const std::string& path) { fs::create_directory(path); };

    EXPECT_TRUE(TSFileSystem::MakeDir(directory, true));

    EXPECT_EQ(ModeOf(directory), 0777u);
    ExpectLog("FolderExists", kErrorPriority, {"File /tmp/tree/one/new does not exist"});
    ExpectLog("MakeDir", kErrorPriority, {"Dir created by other process /tmp/tree/one/new"});
}

TEST_F(FileChanges, ADirectoryThatComesAndGoesMeanwhileIsAFailureWithoutAReason)
{
    const fs::path directory = m_root / "one" / "new";
    // Another makes it first, and it is gone again once mkdir() has found it there.
    g_hooks.m_mkdir = [](const std::string& path) {
        fs::create_directory(path);
        g_hooks.m_stat = [path, looks = 0](const std::string& asked) mutable {
            if (asked == path && ++looks == 2) {
                rmdir(path.c_str());
            }
        };
    };

    EXPECT_FALSE(TSFileSystem::MakeDir(directory, true));

    const std::string missing = "File /tmp/tree/one/new does not exist";
    ExpectLog("FolderExists", kErrorPriority, {missing, missing});
    EXPECT_EQ(m_log.Lines().size(), 2u) << m_log.Text();
}

TEST_F(FileChanges, ADirectoryThatCannotBeMadeTellsTheSpaceLeft)
{
    Write(m_root / "one" / "file");
    const fs::path taken = m_root / "one" / "file";

    EXPECT_FALSE(TSFileSystem::MakeDir(taken, true));
    EXPECT_FALSE(TSFileSystem::MakeDir(taken / "below", true));

    std::vector<std::string> messages;
    for (const TSLogLine& line : m_log.Lines()) {
        messages.push_back(line.m_function + ": " + line.m_message);
    }
    EXPECT_EQ(messages.front(),
              "FolderExists: Path /tmp/tree/one/file exists but it is not a directory");
    EXPECT_THAT(messages.back(), testing::MatchesRegex(
                                     "MakeDir: Unable to create directory: /tmp/tree/one/file/below"
                                     ", error: .*, free space: 1\\.000000 mb"));

    EXPECT_FALSE(TSFileSystem::MakeDir(taken / "a" / "b", false));
    ExpectLog("GetFreeSpaceSize", kErrorPriority,
              {"Error checking free space: boost error " + std::to_string(ENOTDIR)});
    EXPECT_THAT(m_log.Lines().back().m_message, testing::EndsWith("free space: -1.000000 mb"));
}

TEST_F(FileChanges, ADirectoryOnAFullFileSystemFails)
{
    const Mount full((m_root / "full").string(), "size=1m,nr_inodes=1");

    EXPECT_FALSE(TSFileSystem::MakeDir(m_root / "full" / "new", true));

    ExpectLog("FolderExists", kErrorPriority,
              {"File /tmp/tree/full/new does not exist", "File /tmp/tree/full/new does not exist"});
    ExpectLog("MakeDir", kErrorPriority,
              {"Unable to create directory: /tmp/tree/full/new, error: No space left on device, "
               "free space: 1.000000 mb"});
}

TEST_F(FileChanges, AModeThatCannotBeSetFailsButNotBelowTheUsbMountPoint)
{
    const Mount stick("/opt/media/USBDriveA", "size=1m");
    g_hooks.m_chmod = [] { return EPERM; };

    EXPECT_TRUE(TSFileSystem::MakeDir("/opt/media/USBDriveA/new", true));
    EXPECT_FALSE(TSFileSystem::MakeDir(m_root / "one" / "new", true));

    EXPECT_EQ(ModeOf(m_root / "one" / "new"), 0755u);
    ExpectLog("SetPermissions", kErrorPriority,
              {"Couldnt set permissions for: /opt/media/USBDriveA/new",
               "Couldnt set permissions for: /tmp/tree/one/new"});
}

TEST_F(FileChanges, AUniqueNameCountsUpBeforeTheLastDot)
{
    const fs::path directory = m_root / "one";
    fs::path result;
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(directory, "log.txt", result));
    EXPECT_EQ(result, directory / "log.txt");

    Write(directory / "log.txt");
    Write(directory / "log_1.txt");
    Write(directory / "report.tar.gz");
    Write(directory / ".hidden");
    Write(directory / "end.");
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(directory, "log.txt", result));
    EXPECT_EQ(result, directory / "log_2.txt");
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(directory, "report.tar.gz", result));
    EXPECT_EQ(result, directory / "report.tar_1.gz");
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(directory, ".hidden", result));
    EXPECT_EQ(result, directory / "_1.hidden");
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(directory, "end.", result));
    EXPECT_EQ(result, directory / "end_1.");
    for (int i = 2; i <= 120; ++i) {
        Write(directory / ("log_" + std::to_string(i) + ".txt"), "");
    }
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(directory, "log.txt", result));
    EXPECT_EQ(result, directory / "log_121.txt");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileChanges, AUniqueNameMayBeThatOfALinkToNowhereOrInAMissingDirectory)
{
    fs::create_symlink("nowhere", m_root / "one" / "link.txt");
    fs::path result;

    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(m_root / "one", "link.txt", result));
    EXPECT_EQ(result, m_root / "one" / "link.txt");
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(m_root / "missing", "a.txt", result));
    EXPECT_EQ(result, m_root / "missing" / "a.txt");
}

TEST_F(FileChanges, ANameWithoutADotIsUniqueOrThrows)
{
    fs::path result;
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(m_root / "one", "name", result));
    EXPECT_EQ(result, m_root / "one" / "name");

    Write(m_root / "one" / "name");
    EXPECT_THROW(TSFileSystem::GenerateUniqueName(m_root / "one", "name", result),
                 std::out_of_range);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FileChanges, AUniqueNameCannotBeFoundWhereNothingCanBe)
{
    const fs::path file = Write(m_root / "one" / "file");
    Write(m_root / "one" / "closed" / "a.txt");
    ChangeMode(m_root / "one" / "closed", 0600);
    fs::path result;

    const Unprivileged unprivileged;
    EXPECT_FALSE(TSFileSystem::GenerateUniqueName(file, "a.txt", result));
    EXPECT_EQ(result, file / "a.txt");
    EXPECT_FALSE(TSFileSystem::GenerateUniqueName(m_root / "one" / "closed", "a.txt", result));
    EXPECT_EQ(result, m_root / "one" / "closed" / "a.txt");

    ExpectLog("GenerateUniqueName", kDebugPriority,
              {"Not expected boost error " + std::to_string(ENOTDIR),
               "Not expected boost error " + std::to_string(EACCES)});
}

} // namespace

} // namespace kel::test
