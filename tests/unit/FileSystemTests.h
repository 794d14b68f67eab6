#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <functional>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELFileSystem.h>

#include "support/LogRecorder.h"
#include "support/Mount.h"
#include "support/Sandbox.h"

namespace kel::test {

namespace fs = boost::filesystem;

constexpr int kDebugPriority = 3;
constexpr int kErrorPriority = 6;

/// What happens in place of the system's functions, or around them, in this process; Boost's calls
/// included. Empty: nothing.
struct TSHooks
{
    /// Gets what readdir() is about to return (null at the end); may change it, and set errno.
    std::function<dirent*(dirent*)> m_readdir;
    /// Before a stat() of this path, or an fstatat() or statx() of this name.
    std::function<void(const std::string&)> m_stat;
    /// Before a mkdir().
    std::function<void(const std::string&)> m_mkdir;
    /// In place of statvfs(); its result.
    std::function<int(struct statvfs&)> m_statvfs;
    /// The errno of an fchmod() or fdatasync() that is not even tried.
    std::function<int()> m_fchmod;
    std::function<int()> m_fdatasync;
    /// Before an open() of this path.
    std::function<void(const std::string&)> m_open;
    /// The errno of a call that is not even tried; 0 to try it.
    std::function<int()> m_chmod; // by path
    std::function<int()> m_fdopen;
    std::function<int()> m_fstat;
    std::function<int()> m_read;
    std::function<int()> m_write;
};

/// Those in force. Tests use one thread.
extern TSHooks g_hooks;

/// How many status queries there were, of either form.
extern size_t g_statusQueries;

/// Takes root's power over files from this thread: permissions count as they do for anybody.
class Unprivileged
{
public:
    Unprivileged();
    ~Unprivileged();
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

private:
    unsigned int m_effective[2];
};

/// An empty directory, in the sandbox's "/tmp", and a record of the log.
class FileSystemTest : public SandboxTest
{
protected:
    FileSystemTest();
    ~FileSystemTest() override;

    /// Makes a file, and the directories to it.
    fs::path Write(const fs::path& path, const std::string& content = "content");

    fs::path MakeDirectory(const fs::path& path);

    /// Expects exactly these lines, of one operation, with this priority.
    void ExpectLog(const std::string& function, int priority,
                   const std::vector<std::string>& messages);

    const fs::path m_root;
    LogRecorder m_log;
};

std::string Read(const fs::path& path);

/// The permission bits, 07777.
unsigned int ModeOf(const fs::path& path);

void ChangeMode(const fs::path& path, unsigned int mode);

} // namespace kel::test
