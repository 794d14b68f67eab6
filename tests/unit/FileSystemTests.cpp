#include "FileSystemTests.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kel::test {

TSHooks g_hooks;
size_t g_statusQueries;

namespace {

template <typename Function> Function* Next(const char* name)
{
    void* const next = dlsym(RTLD_NEXT, name);
    if (next == nullptr) {
        throw std::runtime_error(std::string("no function ") + name);
    }
    return reinterpret_cast<Function*>(next);
}

// Whether a hook wants the call to fail, with the error that it has set then.
bool Fails(const std::function<int()>& hook)
{
    const int error = hook ? hook() : 0;
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

void Check(bool ok, const std::string& what)
{
    if (!ok) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

} // namespace

Unprivileged::Unprivileged()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    Check(syscall(SYS_capget, &header, data) == 0, "capget");
    for (int i = 0; i < 2; ++i) {
        m_effective[i] = data[i].effective;
        data[i].effective = 0;
    }
    Check(syscall(SYS_capset, &header, data) == 0, "capset");
}

Unprivileged::~Unprivileged()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    syscall(SYS_capget, &header, data);
    for (int i = 0; i < 2; ++i) {
        data[i].effective = m_effective[i];
    }
    if (syscall(SYS_capset, &header, data) != 0) {
        ADD_FAILURE() << "still unprivileged: " << strerror(errno);
    }
}

FileSystemTest::FileSystemTest() : m_root("/tmp/tree")
{
    umask(022);
    fs::create_directory(m_root);
}

FileSystemTest::~FileSystemTest()
{
    g_hooks = TSHooks();
    boost::system::error_code code;
    fs::remove_all(m_root, code);
    EXPECT_FALSE(code) << code.message();
}

fs::path FileSystemTest::Write(const fs::path& path, const std::string& content)
{
    fs::create_directories(path.parent_path());
    std::ofstream stream(path.string(), std::ios::binary);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("writing " + path.string());
    }
    return path;
}

fs::path FileSystemTest::MakeDirectory(const fs::path& path)
{
    fs::create_directories(path);
    return path;
}

void FileSystemTest::ExpectLog(const std::string& function, int priority,
                               const std::vector<std::string>& messages)
{
    std::vector<std::string> logged;
    for (const TSLogLine& line : m_log.Lines()) {
        if (line.m_function == function && line.m_priority == priority) {
            EXPECT_EQ(line.m_buffer, 2);
            EXPECT_EQ(line.m_tag, "KEL");
            EXPECT_EQ(line.m_source.substr(0, line.m_source.find(':')), "KELFileSystem");
            logged.push_back(line.m_message);
        }
    }
    EXPECT_EQ(logged, messages) << m_log.Text();
}

std::string Read(const fs::path& path)
{
    std::ifstream stream(path.string(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

unsigned int ModeOf(const fs::path& path)
{
    struct stat status;
    Check(stat(path.c_str(), &status) == 0, "stat of " + path.string());
    return status.st_mode & 07777;
}

void ChangeMode(const fs::path& path, unsigned int mode)
{
    Check(chmod(path.c_str(), mode) == 0, "chmod of " + path.string());
}

} // namespace kel::test

// In place of the C library's functions. The build sees large files: the symbols are those with a
// 64 in the name where there are two.

using namespace kel::test;

#define KEL_PREEMPTS extern "C" __attribute__((visibility("default")))

KEL_PREEMPTS dirent* readdir(DIR* directory)
{
    static const auto next = Next<dirent*(DIR*)>("readdir64");
    dirent* const entry = next(directory);
    return g_hooks.m_readdir ? g_hooks.m_readdir(entry) : entry;
}

KEL_PREEMPTS int stat(const char* path, struct stat* status) noexcept
{
    static const auto next = Next<int(const char*, struct stat*)>("stat64");
    ++g_statusQueries;
    if (g_hooks.m_stat) {
        g_hooks.m_stat(path);
    }
    return next(path, status);
}

KEL_PREEMPTS int fstatat(int directory, const char* name, struct stat* status, int flags) noexcept
{
    static const auto next = Next<int(int, const char*, struct stat*, int)>("fstatat64");
    ++g_statusQueries;
    if (g_hooks.m_stat) {
        g_hooks.m_stat(name);
    }
    return next(directory, name, status, flags);
}

// In place of stat() in newer Boosts.
KEL_PREEMPTS int statx(int directory, const char* name, int flags, unsigned int mask,
                       struct statx* status) noexcept
{
    static const auto next = Next<int(int, const char*, int, unsigned int, struct statx*)>("statx");
    ++g_statusQueries;
    if (g_hooks.m_stat) {
        g_hooks.m_stat(name);
    }
    return next(directory, name, flags, mask, status);
}

KEL_PREEMPTS int mkdir(const char* path, mode_t mode) noexcept
{
    static const auto next = Next<int(const char*, mode_t)>("mkdir");
    if (g_hooks.m_mkdir) {
        // Whoever else makes a directory meanwhile calls mkdir() as well.
        const auto hook = std::move(g_hooks.m_mkdir);
        g_hooks.m_mkdir = nullptr;
        hook(path);
    }
    return next(path, mode);
}

KEL_PREEMPTS int statvfs(const char* path, struct statvfs* result) noexcept
{
    static const auto next = Next<int(const char*, struct statvfs*)>("statvfs64");
    return g_hooks.m_statvfs ? g_hooks.m_statvfs(*result) : next(path, result);
}

KEL_PREEMPTS int fchmod(int descriptor, mode_t mode) noexcept
{
    static const auto next = Next<int(int, mode_t)>("fchmod");
    if (g_hooks.m_fchmod) {
        errno = g_hooks.m_fchmod();
        return -1;
    }
    return next(descriptor, mode);
}

// Boosts set the mode of a path by either.
KEL_PREEMPTS int chmod(const char* path, mode_t mode) noexcept
{
    static const auto next = Next<int(const char*, mode_t)>("chmod");
    return Fails(g_hooks.m_chmod) ? -1 : next(path, mode);
}

KEL_PREEMPTS int fchmodat(int directory, const char* name, mode_t mode, int flags) noexcept
{
    static const auto next = Next<int(int, const char*, mode_t, int)>("fchmodat");
    return Fails(g_hooks.m_chmod) ? -1 : next(directory, name, mode, flags);
}

KEL_PREEMPTS int fdatasync(int descriptor)
{
    static const auto next = Next<int(int)>("fdatasync");
    if (g_hooks.m_fdatasync) {
        errno = g_hooks.m_fdatasync();
        return -1;
    }
    return next(descriptor);
}

KEL_PREEMPTS int open(const char* path, int flags, ...)
{
    static const auto next = Next<int(const char*, int, ...)>("open64");
    if (g_hooks.m_open) {
        g_hooks.m_open(path);
    }
    va_list arguments;
    va_start(arguments, flags);
    const unsigned int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned int) : 0;
    va_end(arguments);
    return next(path, flags, mode);
}

KEL_PREEMPTS FILE* fdopen(int descriptor, const char* mode) noexcept
{
    static const auto next = Next<FILE*(int, const char*)>("fdopen");
    return Fails(g_hooks.m_fdopen) ? nullptr : next(descriptor, mode);
}

KEL_PREEMPTS int fstat(int descriptor, struct stat* status) noexcept
{
    static const auto next = Next<int(int, struct stat*)>("fstat64");
    return Fails(g_hooks.m_fstat) ? -1 : next(descriptor, status);
}

KEL_PREEMPTS ssize_t read(int descriptor, void* bytes, size_t size)
{
    static const auto next = Next<ssize_t(int, void*, size_t)>("read");
    return Fails(g_hooks.m_read) ? -1 : next(descriptor, bytes, size);
}

KEL_PREEMPTS ssize_t write(int descriptor, const void* bytes, size_t size)
{
    static const auto next = Next<ssize_t(int, const void*, size_t)>("write");
    return Fails(g_hooks.m_write) ? -1 : next(descriptor, bytes, size);
}
