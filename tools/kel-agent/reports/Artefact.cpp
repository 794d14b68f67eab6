#include "reports/Artefact.h"

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

#include "common/Files.h"

namespace kel {
namespace agent {

using tools::TCDescriptor;
using tools::WriteAll;

namespace {

constexpr mode_t kMode = 0600;
constexpr size_t kBlock = 64U << 10;
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
    // The kernel has regular files that wait for content, when they are let.
    TCDescriptor file(open(PathOf(place).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen()) {
        reason = std::strerror(errno);
    }
    return file;
}

// Copies all there is, to the disk, but no more than there is room for.
bool Copy(int from, int to, uint64_t room, uint64_t& size, std::string& reason)
{
    std::string block;
    uint64_t copied = 0;
    for (;;) {
        block.resize(kBlock);
        const ssize_t n = read(from, block.data(), block.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        block.resize(n > 0 ? static_cast<size_t>(n) : 0);
        if (copied + block.size() > room) {
            reason = "it has more bytes than it tells of, and there is room for "
                     + std::to_string(room);
            return false;
        }
        if (n < 0 || !WriteAll(to, block) || (n == 0 && fsync(to) != 0)) {
            reason = std::strerror(errno);
            return false;
        }
        if (n == 0) {
            size = copied;
            return true;
        }
        copied += block.size();
    }
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
    // Not the library's copy, which ends where the file ends: some have no end, and others grow.
    const TCDescriptor copy(
        open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
    if (copy.IsOpen() && Copy(file.Get(), copy.Get(), room, size, reason)) {
        return true;
    }
    if (!copy.IsOpen()) {
        reason = std::strerror(errno);
    }
    TSFileSystem::RemoveFile(destination);
    return false;
}

} // namespace agent
} // namespace kel
