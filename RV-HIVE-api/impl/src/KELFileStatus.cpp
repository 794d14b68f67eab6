#include "KELFileStatus.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <memory>
#include <string_view>

namespace fs = boost::filesystem;

namespace kel {

namespace {

timespec ToTime(const statx_timestamp& time)
{
    typedef std::numeric_limits<time_t> TLimits;
    const auto seconds = std::clamp<std::int64_t>(time.tv_sec, TLimits::min(), TLimits::max());
    return {static_cast<time_t>(seconds), static_cast<long>(time.tv_nsec)};
}

// By the one query whose times have 8 bytes everywhere.
bool GetWideStatus(int directory, const char* path, int flags, struct stat& status)
{
    struct statx wide;
    if (statx(directory, path, flags, STATX_BASIC_STATS, &wide) != 0) {
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
    status.st_mtim = ToTime(wide.stx_mtime);
    return true;
}

fs::file_status StatusOfAnyDate(const fs::path& path)
{
    struct stat status;
    if (!GetWideStatus(AT_FDCWD, path.c_str(), 0, status)) {
        return fs::file_status(fs::status_error);
    }
    return fs::file_status(S_ISDIR(status.st_mode)   ? fs::directory_file
                           : S_ISREG(status.st_mode) ? fs::regular_file
                                                     : fs::type_unknown);
}

boost::system::error_code ToCode(bool ok)
{
    return ok ? boost::system::error_code()
              : boost::system::error_code(errno, boost::system::system_category());
}

// Without a look: what cannot be unlinked is a directory, or stays.
bool RemoveTree(int parent, const char* name)
{
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) {
        return true;
    }
    const int refusal = errno;
    const int directory = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(directory < 0 ? nullptr : fdopendir(directory),
                                                     &closedir);
    if (stream == nullptr) {
        const int failure = errno;
        if (directory >= 0) { // nobody has it then
            close(directory);
        }
        errno = refusal == EISDIR ? failure : refusal;
        return false;
    }
    for (const dirent* entry = nullptr; (entry = readdir(stream.get())) != nullptr;) {
        const std::string_view entryName(entry->d_name);
        if (entryName != "." && entryName != ".." && !RemoveTree(directory, entry->d_name)) {
            return false;
        }
    }
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT;
}

bool IsOfDate(const boost::system::error_code& code)
{
    return code == boost::system::errc::value_too_large;
}

template <typename Query> fs::file_status Ask(const fs::path& path, Query query)
{
    try {
        return query();
    } catch (const fs::filesystem_error& failure) {
        if (!IsOfDate(failure.code())) {
            throw;
        }
        return StatusOfAnyDate(path);
    }
}

} // namespace

bool GetStatus(int file, struct stat& status)
{
    return fstat(file, &status) == 0
           || (errno == EOVERFLOW && GetWideStatus(file, "", AT_EMPTY_PATH, status));
}

bool GetStatus(int directory, const char* path, int flags, struct stat& status)
{
    return fstatat(directory, path, &status, flags) == 0
           || (errno == EOVERFLOW && GetWideStatus(directory, path, flags, status));
}

fs::file_status StatusOf(const fs::path& path, boost::system::error_code& code)
{
    fs::file_status status = fs::status(path, code);
    if (!IsOfDate(code)) {
        return status;
    }
    code.clear();
    return StatusOfAnyDate(path);
}

fs::file_status StatusOf(const fs::path& path)
{
    return Ask(path, [&] { return fs::status(path); });
}

fs::file_status StatusOf(const fs::directory_entry& entry)
{
    return Ask(entry.path(), [&] { return entry.status(); });
}

std::uintmax_t SizeOf(const fs::path& path)
{
    try {
        return fs::file_size(path);
    } catch (const fs::filesystem_error& failure) {
        struct stat status;
        if (!IsOfDate(failure.code()) || !GetWideStatus(AT_FDCWD, path.c_str(), 0, status)) {
            throw;
        }
        return static_cast<std::uintmax_t>(status.st_size);
    }
}

void Remove(const fs::path& path, boost::system::error_code& code)
{
    fs::remove(path, code);
    if (IsOfDate(code)) {
        code = ToCode(std::remove(path.c_str()) == 0);
    }
}

void RemoveAll(const fs::path& path, boost::system::error_code& code)
{
    fs::remove_all(path, code);
    if (IsOfDate(code)) {
        code = ToCode(RemoveTree(AT_FDCWD, path.c_str()));
    }
}

void SetPermissions(const fs::path& path, fs::perms bits, boost::system::error_code& code)
{
    fs::permissions(path, bits, code);
    struct stat status;
    if (!IsOfDate(code) || !GetWideStatus(AT_FDCWD, path.c_str(), 0, status)) {
        return;
    }
    mode_t mode = bits & fs::perms_mask;
    if ((bits & fs::add_perms) != 0) {
        mode |= status.st_mode;
    } else if ((bits & fs::remove_perms) != 0) {
        mode = status.st_mode & ~mode;
    }
    code = ToCode(chmod(path.c_str(), mode & fs::perms_mask) == 0);
}

} // namespace kel
