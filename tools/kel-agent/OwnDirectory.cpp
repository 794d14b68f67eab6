#include "OwnDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace kel {
namespace agent {

using tools::GetStatus;
using tools::TCDescriptor;

namespace {

bool IsSameFile(int a, int b)
{
    struct stat first;
    struct stat second;
    return GetStatus(a, first) && GetStatus(b, second) && first.st_dev == second.st_dev
           && first.st_ino == second.st_ino;
}

} // namespace

TCOwnDirectory::TCOwnDirectory(std::string path, mode_t mode)
    : m_path(std::move(path)), m_mode(mode), m_locked(false)
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
    if (!found.IsOpen() || !GetStatus(found.Get(), status)) {
        reason = std::strerror(errno);
        return false;
    }
    if (status.st_uid != geteuid()) {
        reason = "it belongs to user " + std::to_string(status.st_uid);
        return false;
    }
    if (made && fchmod(found.Get(), m_mode) != 0) { // whatever the umask is
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
