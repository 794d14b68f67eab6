#include "Artefact.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <kel/KELFileSystem.h>

#include "Files.h"

namespace kel {
namespace agent {

namespace {

constexpr boost::filesystem::perms kPermissions
    = boost::filesystem::owner_read | boost::filesystem::owner_write;
constexpr uint64_t kSpareRoom = 1U << 20; // for the rest of the report

// This thread's access to files is another user's, for the length of a scope.
class TCBorrowedRights
{
public:
    explicit TCBorrowedRights(const TSRequester& requester)
        : m_borrowed(requester.m_user == geteuid())
    {
        if (m_borrowed) {
            return; // they are ours
        }
        setfsgid(requester.m_group);
        setfsuid(requester.m_user);
        // They tell of no failure, but what is in force: an invalid id changes nothing.
        m_borrowed = static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == requester.m_user
                     && static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == requester.m_group
                     && getgroups(0, nullptr) == 0; // see LeaveGroups()
    }
    ~TCBorrowedRights()
    {
        setfsuid(geteuid());
        setfsgid(getegid());
    }
    TCBorrowedRights(const TCBorrowedRights&) = delete;
    TCBorrowedRights& operator=(const TCBorrowedRights&) = delete;

    bool AreBorrowed() const { return m_borrowed; }

private:
    bool m_borrowed;
};

// What is open already, by the path under which this process can open it again.
std::string PathOf(const TCDescriptor& file)
{
    return "/proc/self/fd/" + std::to_string(file.Get());
}

// Opens a regular file for reading, with the rights of the requester.
TCDescriptor Open(const std::string& path, const TSRequester& requester, struct stat& status,
                  std::string& reason)
{
    const TCBorrowedRights rights(requester);
    if (!rights.AreBorrowed()) {
        reason = "the agent must not read it for user " + std::to_string(requester.m_user);
        return TCDescriptor();
    }
    const TCDescriptor place(open(path.c_str(), O_PATH | O_CLOEXEC)); // without opening the file
    if (!place.IsOpen() || fstat(place.Get(), &status) != 0) {
        reason = std::strerror(errno);
        return TCDescriptor();
    }
    if (!S_ISREG(status.st_mode)) {
        reason = "it is no regular file";
        return TCDescriptor();
    }
    TCDescriptor file(open(PathOf(place).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        reason = std::strerror(errno);
    }
    return file;
}

uint64_t FreeSpace(const std::string& path)
{
    const double mebibytes = TSFileSystem::GetFreeSpaceSize(path);
    return mebibytes > 0 ? static_cast<uint64_t>(mebibytes) << 20 : 0;
}

} // namespace

void LeaveGroups()
{
    // Not setgroups(), which speaks for all threads of the process. Without the privilege it fails,
    // and nobody else's rights are taken.
    syscall(SYS_setgroups, 0, nullptr);
}

bool CopyArtefact(const std::string& path, const TSRequester& requester,
                  const std::string& destination, uint64_t room, uint64_t& size,
                  std::string& reason)
{
    if (path.empty() || path[0] != '/') {
        reason = "its path is not absolute";
        return false;
    }
    struct stat status;
    const TCDescriptor file = Open(path, requester, status, reason);
    if (!file.IsOpen()) {
        return false;
    }

    const auto parent = boost::filesystem::path(destination).parent_path().string();
    const uint64_t space = FreeSpace(parent);
    room = std::min(room, space - std::min(space, kSpareRoom));
    const auto expected = static_cast<uint64_t>(status.st_size);
    if (expected > room) {
        reason = "it has " + std::to_string(expected) + " bytes, and there is room for "
                 + std::to_string(room);
        return false;
    }
    // The library copies the mode, too, which is the stranger's.
    const bool done = TSFileSystem::CopyFile(PathOf(file), destination, false)
                      && TSFileSystem::SetPermissions(destination, kPermissions, -1, -1);
    const TCDescriptor copy(open(destination.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat copied;
    if (!done || !copy.IsOpen() || fsync(copy.Get()) != 0 || fstat(copy.Get(), &copied) != 0) {
        reason = "it could not be copied";
    } else if (static_cast<uint64_t>(copied.st_size) > room) {
        reason = "it has grown, and there is no room for it";
    } else {
        size = static_cast<uint64_t>(copied.st_size);
        return true;
    }
    TSFileSystem::RemoveFile(destination);
    return false;
}

} // namespace agent
} // namespace kel
