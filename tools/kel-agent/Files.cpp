#include "Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

namespace kel {
namespace agent {

namespace {

constexpr mode_t kPermissions = 07777;

bool IsSameFile(int a, int b)
{
    struct stat first;
    struct stat second;
    return fstat(a, &first) == 0 && fstat(b, &second) == 0 && first.st_dev == second.st_dev
           && first.st_ino == second.st_ino;
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

bool ListNames(int directory, std::vector<std::string>& names)
{
    // Opened anew: what is open already may be shared, and goes on where its last reader stopped.
    const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(own >= 0 ? fdopendir(own) : nullptr,
                                                     &closedir); // the descriptor's, too
    if (!stream) {
        return false;
    }
    errno = 0;
    while (const dirent* const entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    return errno == 0;
}

TCOwnDirectory::TCOwnDirectory(std::string path, mode_t mode, EMode existing)
    : m_path(std::move(path)), m_mode(mode), m_existing(existing), m_locked(false)
{}

bool TCOwnDirectory::Open(std::string& reason)
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    TCDescriptor found(open(m_path.c_str(), flags));
    bool made = false;
    if (!found.IsOpen() && errno == ENOENT && mkdir(m_path.c_str(), m_mode & ACCESSPERMS) == 0) {
        made = true;
        found.Reset(open(m_path.c_str(), flags));
    }
    struct stat status;
    if (!found.IsOpen() || fstat(found.Get(), &status) != 0) {
        reason = std::strerror(errno);
        return false;
    }
    if (status.st_uid != geteuid() && fchown(found.Get(), geteuid(), getegid()) != 0) {
        reason = "it belongs to user " + std::to_string(status.st_uid);
        return false;
    }
    if ((made || m_existing == EMode::Given) && (status.st_mode & kPermissions) != m_mode
        && fchmod(found.Get(), m_mode) != 0) {
        reason = std::strerror(errno);
        return false;
    }
    if (!m_descriptor.IsOpen() || !IsSameFile(found.Get(), m_descriptor.Get())) {
        m_descriptor = std::move(found); // another one is there, or none was: the lock is void
        m_locked = false;
    }
    return true;
}

bool TCOwnDirectory::Lock(std::string& reason)
{
    if (!m_locked && flock(m_descriptor.Get(), LOCK_EX | LOCK_NB) != 0) {
        reason = errno == EWOULDBLOCK ? "another agent uses it" : std::strerror(errno);
        return false;
    }
    m_locked = true;
    return true;
}

void TCOwnDirectory::Unlock()
{
    if (m_locked) {
        flock(m_descriptor.Get(), LOCK_UN);
        m_locked = false;
    }
}

} // namespace agent
} // namespace kel
