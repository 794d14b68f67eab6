#include "common/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <memory>
#include <utility>

namespace kel {
namespace tools {

namespace {

constexpr uint64_t kBlock = 512; // what st_blocks counts

constexpr const char* kAcls[] = {"system.posix_acl_access", "system.posix_acl_default"};

// Fails with ENOSYS where there is no such system call, and with EPERM where it is forbidden.
int OpenBeneath(int directory, const char* name, int flags)
{
#if defined(SYS_openat2) && defined(RESOLVE_BENEATH)
    open_how how = {};
    how.flags = static_cast<unsigned int>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
    return static_cast<int>(syscall(SYS_openat2, directory, name, &how, sizeof(how)));
#else
    static_cast<void>(directory), static_cast<void>(name), static_cast<void>(flags);
    errno = ENOSYS;
    return -1;
#endif
}

timespec ToTime(const statx_timestamp& time)
{
    typedef std::numeric_limits<time_t> TLimits;
    const auto seconds = std::clamp<int64_t>(time.tv_sec, TLimits::min(), TLimits::max());
    return {static_cast<time_t>(seconds), static_cast<long>(time.tv_nsec)};
}

// By the one query whose times have 8 bytes everywhere.
bool GetWideStatus(int directory, const char* name, int flags, struct stat& status)
{
    struct statx wide;
    if (statx(directory, name, flags, STATX_BASIC_STATS, &wide) != 0) {
        return false;
    }
    status = {};
    status.st_dev = makedev(wide.stx_dev_major, wide.stx_dev_minor);
    status.st_ino = wide.stx_ino;
    status.st_mode = wide.stx_mode;
    status.st_nlink = wide.stx_nlink;
    status.st_uid = wide.stx_uid;
    status.st_gid = wide.stx_gid;
    status.st_size = static_cast<off_t>(wide.stx_size);
    status.st_blocks = static_cast<blkcnt_t>(wide.stx_blocks);
    status.st_mtim = ToTime(wide.stx_mtime);
    status.st_ctim = ToTime(wide.stx_ctime);
    return true;
}

bool IsOfOneFileSystem(int a, int b)
{
    struct stat first;
    struct stat second;
    return GetStatus(a, first) && GetStatus(b, second) && first.st_dev == second.st_dev;
}

} // namespace

TCDescriptor::TCDescriptor(TCDescriptor&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1))
{}

TCDescriptor& TCDescriptor::operator=(TCDescriptor&& other) noexcept
{
    Reset(std::exchange(other.m_descriptor, -1));
    return *this;
}

void TCDescriptor::Reset(int descriptor)
{
    if (IsOpen()) {
        close(m_descriptor);
    }
    m_descriptor = descriptor;
}

bool GetStatus(int file, struct stat& status)
{
    return fstat(file, &status) == 0
           || (errno == EOVERFLOW && GetWideStatus(file, "", AT_EMPTY_PATH, status));
}

bool GetStatus(int directory, const std::string& name, struct stat& status, int flags)
{
    flags |= AT_SYMLINK_NOFOLLOW;
    return fstatat(directory, name.c_str(), &status, flags) == 0
           || (errno == EOVERFLOW && GetWideStatus(directory, name.c_str(), flags, status));
}

bool WriteAll(int descriptor, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = write(descriptor, text.data() + written, text.size() - written);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        written += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

bool WriteNewFile(int directory, const std::string& name, const std::string& text, mode_t mode)
{
    unlinkat(directory, name.c_str(), 0);
    const TCDescriptor file(openat(directory, name.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    return file.IsOpen() && WriteAll(file.Get(), text) && fsync(file.Get()) == 0;
}

TCDescriptor OpenIn(int directory, const std::string& name, int flags)
{
    if (name.empty() || name == ".." || name.find('/') != std::string::npos) {
        errno = EINVAL;
        return TCDescriptor();
    }
    flags |= O_NOFOLLOW | O_CLOEXEC;
    TCDescriptor file(OpenBeneath(directory, name.c_str(), flags));
    if (file.IsOpen() || (errno != ENOSYS && errno != EPERM)) {
        return file;
    }
    // A single component: there is nothing to resolve but itself.
    file.Reset(openat(directory, name.c_str(), flags));
    if (file.IsOpen() && !IsOfOneFileSystem(directory, file.Get())) {
        file.Reset();
        errno = EXDEV;
    }
    return file;
}

bool HasAcl(int file)
{
    return std::any_of(std::begin(kAcls), std::end(kAcls), [file](const char* acl) {
        ssize_t size = fgetxattr(file, acl, nullptr, 0);
        if (size < 0 && errno == EBADF) { // it is open as a place alone
            const std::string place = "/proc/self/fd/" + std::to_string(file);
            size = getxattr(place.c_str(), acl, nullptr, 0);
        }
        return size >= 0 || (errno != ENODATA && errno != EOPNOTSUPP);
    });
}

bool RemoveAcl(int file)
{
    for (const char* const acl : kAcls) {
        fremovexattr(file, acl);
    }
    return !HasAcl(file);
}

// The ACLs go after the owner, who could give himself others until then.
bool Freeze(int directory)
{
    struct stat status;
    if (!GetStatus(directory, status)) {
        return false;
    }
    if (status.st_uid != geteuid() && fchown(directory, geteuid(), getegid()) != 0) {
        return false;
    }
    return RemoveAcl(directory) && fchmod(directory, S_IRWXU) == 0;
}

bool ForEachName(int directory,
                 const std::function<bool(const std::string& name, unsigned char type)>& visit)
{
    // Opened anew: what is open already may be shared, and goes on where its last reader stopped.
    const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(own >= 0 ? fdopendir(own) : nullptr,
                                                     &closedir); // the descriptor's, too
    if (!stream) {
        return false;
    }
    for (;;) {
        errno = 0; // the function may have set it
        const dirent* const entry = readdir(stream.get());
        if (entry == nullptr) {
            return errno == 0;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && !visit(name, entry->d_type)) {
            return true;
        }
    }
}

bool ListNames(int directory, std::vector<std::string>& names)
{
    return ForEachName(directory, [&names](const std::string& name, unsigned char) {
        names.push_back(name);
        return true;
    });
}

uint64_t WrittenSize(int directory)
{
    uint64_t size = 0;
    ForEachName(directory, [&](const std::string& name, unsigned char) {
        struct stat status;
        if (GetStatus(directory, name, status)) {
            size += std::min(static_cast<uint64_t>(status.st_size),
                             static_cast<uint64_t>(status.st_blocks) * kBlock);
        }
        return true;
    });
    return size;
}

// Without waiting: for a FIFO's other end, or for who has a lease on a file.
bool ReadRegularFile(int directory, const std::string& name, int flags, size_t most,
                     std::string& text)
{
    const TCDescriptor file(
        openat(directory, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags));
    struct stat status;
    if (!file.IsOpen() || !GetStatus(file.Get(), status)) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return false;
    }
    std::string content;
    char block[1U << 14];
    bool isEnd = false;
    while (!isEnd && content.size() < most) {
        const size_t wanted = std::min(sizeof(block), most - content.size());
        const ssize_t size = read(file.Get(), block, wanted);
        if (size < 0) {
            return false;
        }
        content.append(block, static_cast<size_t>(size));
        // What is shorter is the end, but of the kernel's own texts, which have no size.
        isEnd = status.st_size > 0 ? static_cast<size_t>(size) < wanted : size == 0;
    }
    text = std::move(content);
    return true;
}

std::optional<std::string> ReadText(const std::string& path, size_t most)
{
    std::string text;
    if (!ReadRegularFile(AT_FDCWD, path, 0, most + 1, text)) {
        return std::nullopt;
    }
    if (text.size() > most) {
        errno = EFBIG;
        return std::nullopt;
    }
    return text;
}

bool ListNames(const std::string& path, std::vector<std::string>& names)
{
    const TCDescriptor directory(
        open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    return directory.IsOpen() && ListNames(directory.Get(), names);
}

} // namespace tools
} // namespace kel
