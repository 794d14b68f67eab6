#include "requests/TakenRequests.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/RequestFormat.h"
#include "requests/Places.h"
#include "requests/TakenName.h"

namespace kel {
namespace agent {

using tools::GetStatus;
using tools::HasAcl;
using tools::OpenIn;
using tools::TCDescriptor;
using tools::TCOutcome;

namespace {

bool IsSameFile(int a, int b)
{
    struct stat first;
    struct stat second;
    return a >= 0 && GetStatus(a, first) && GetStatus(b, second) && first.st_dev == second.st_dev
           && first.st_ino == second.st_ino;
}

EFound Judge(const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) {
        return EFound::NoFile;
    }
    return status.st_nlink > 1 ? EFound::ManyNames : EFound::Request;
}

// Not with fstatat(), which would wait for the answer of a file system that is mounted there.
EFound Look(int directory, const std::string& name, struct stat& status)
{
    const TCDescriptor found = OpenIn(directory, name, O_PATH);
    if (found.IsOpen() && GetStatus(found.Get(), status)) {
        return Judge(status);
    }
    switch (errno) {
    case ENOENT:
        return EFound::Gone;
    case EXDEV:
        return EFound::Mounted;
    case ELOOP:
        return EFound::NoFile;
    default:
        return EFound::NotNow;
    }
}

// The content of a request file, up to a size that no path has.
std::string ReadContent(int file)
{
    char content[PATH_MAX + 1];
    size_t size = 0;
    while (size < sizeof(content)) {
        const ssize_t n = read(file, content + size, sizeof(content) - size);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            break;
        }
        size += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return {content, size};
}

} // namespace

TCTakenRequests::TCTakenRequests()
    : m_place(kTakenName, kTakenMode, std::string(kAsidePrefix) + kAsideTaken),
      m_number(TSTakenName::FirstNumber())
{}

TCOutcome TCTakenRequests::Make(int parent) const
{
    TCDescriptor unused;
    bool moved = false;
    return m_place.Open(parent, unused, moved);
}

TCOutcome TCTakenRequests::Open(int parent, bool& anew)
{
    TCDescriptor found;
    bool moved = false;
    TCOutcome opened = m_place.Open(parent, found, moved);
    if (!opened || IsSameFile(m_directory.Get(), found.Get())) {
        return opened;
    }
    m_directory.Reset(); // another one is there, or none was: the lock is void
    if (flock(found.Get(), LOCK_EX | LOCK_NB) != 0) {
        return TCOutcome::Failed(errno == EWOULDBLOCK ? "another agent uses it"
                                                      : std::strerror(errno));
    }
    m_directory = std::move(found);
    anew = true;
    return TCOutcome();
}

EFound TCTakenRequests::Take(int directory, const std::string& name, const std::string& original,
                             bool reboot, const THasRoom& hasRoom, std::string& taken,
                             struct stat& status)
{
    status = {};
    const EFound found = Look(directory, name, status);
    if (found != EFound::Request) {
        return found;
    }
    if (!hasRoom(status.st_uid)) {
        return EFound::TooMany;
    }
    TSTakenName own = {TSTakenName::Filed(status), m_number++, reboot, original};
    while (
        renameat2(directory, name.c_str(), m_directory.Get(), own.Text().c_str(), RENAME_NOREPLACE)
        != 0) {
        if (errno != EEXIST) {
            return errno == ENOENT ? EFound::Gone : EFound::NotNow;
        }
        own.m_number = m_number++;
    }
    // It may have been replaced in the moment before; what it is now it stays.
    const std::string text = own.Text();
    struct stat moved;
    if (!GetStatus(m_directory.Get(), text, moved)) {
        return EFound::Gone;
    }
    status = moved;
    taken = text;
    return Judge(moved);
}

bool TCTakenRequests::Read(int file, const std::string& taken, const struct stat& status,
                           TSRequest& request)
{
    TSTakenName name;
    TSRequest read;
    if (!TSTakenName::Read(taken, name)
        || !ReadFileName(name.m_name, Drop(name.m_reboot).NameSize(), read)) {
        return false;
    }
    read.m_source = Drop(name.m_reboot).m_path;
    read.m_name = name.m_name;
    read.m_reboot = name.m_reboot;
    read.m_user = status.st_uid;
    read.m_filed = status.st_mtim;
    read.m_stamp = taken;
    const std::string content = ReadContent(file);
    if (content.size() > PATH_MAX || content.find('\0') != std::string::npos) {
        read.m_noPath = "what was given is no path";
    } else if (content != tools::kNoArtefactPath && HasAcl(file)) {
        read.m_noPath = "others could write the request";
    } else if (content != tools::kNoArtefactPath) {
        read.m_uploadPath = content;
    }
    request = std::move(read);
    return true;
}

TCOutcome TCTakenRequests::Remove(const std::string& taken) const
{
    if (unlinkat(m_directory.Get(), taken.c_str(), 0) != 0 && errno != ENOENT) {
        return TCOutcome::Failed(std::string("it cannot be removed: ") + std::strerror(errno));
    }
    return TCOutcome();
}

} // namespace agent
} // namespace kel
