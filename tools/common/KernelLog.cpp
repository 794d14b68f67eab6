#include "KernelLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kel/KELKernelLog.h>

#include "common/Files.h"

namespace kel {
namespace tools {

namespace {

constexpr char kSnapshot[] = "/tmp/Device_Tracker.log";
constexpr char kAside[] = "/tmp/.Device_Tracker.XXXXXX";
constexpr int kTries = 8; // somebody may put another thing there as fast as it is removed

// Of what somebody has put into a directory. What is beyond stays, in a directory of ours.
constexpr size_t kMostRemoved = 10000;
constexpr int kDeepest = 32;

void Remove(int parent, const char* name, int depth, size_t& count) // NOLINT(misc-no-recursion)
{
    if (unlinkat(parent, name, 0) == 0 || errno != EISDIR || depth > kDeepest) {
        return;
    }
    const TCDescriptor directory(
        openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (directory.IsOpen() && Freeze(directory.Get())) {
        ForEachName(directory.Get(), [&](const std::string& entry, unsigned char) {
            if (count > 0) {
                --count;
                Remove(directory.Get(), entry.c_str(), depth + 1, count);
            }
            return count > 0;
        });
    }
    unlinkat(parent, name, AT_REMOVEDIR);
}

// In one step, whatever is in there; then what was there is removed. False with errno set when it
// cannot be moved.
bool MoveDirectoryAway()
{
    char aside[sizeof(kAside)];
    std::memcpy(aside, kAside, sizeof(kAside));
    if (mkdtemp(aside) == nullptr) {
        return false;
    }
    const bool moved = rename(kSnapshot, aside) == 0;
    const int error = errno;
    size_t count = kMostRemoved;
    Remove(AT_FDCWD, aside, 0, count);
    errno = error;
    return moved;
}

// Has an empty file of its own there. Anybody may have been there before: a link would lead what is
// written elsewhere, a FIFO would stop us for good, a directory would keep the file out, and a
// file's content would pass for the kernel's. Nobody else can replace what we have made, because
// /tmp is sticky.
class TCSnapshotPlace
{
public:
    TCSnapshotPlace()
    {
        for (int i = 0; i < kTries && !m_file.IsOpen() && m_IsFreed(); ++i) {
            m_file.Reset(open(kSnapshot, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        }
        if (!m_file.IsOpen()) {
            m_outcome = TCOutcome::Failed(std::string(kSnapshot)
                                          + ": what is in its place cannot be removed: "
                                          + std::strerror(errno));
        }
    }
    ~TCSnapshotPlace()
    {
        if (m_file.IsOpen()) {
            unlink(kSnapshot);
        }
    }
    TCSnapshotPlace(const TCSnapshotPlace&) = delete;
    TCSnapshotPlace& operator=(const TCSnapshotPlace&) = delete;

    const TCOutcome& Outcome() const { return m_outcome; }

    // How many lines the snapshot has, without the empty ones.
    size_t CountLines() const
    {
        size_t lines = 0;
        char last = '\n';
        char text[4096];
        off_t offset = 0;
        for (ssize_t n; (n = pread(m_file.Get(), text, sizeof(text), offset)) > 0; offset += n) {
            for (const char* next = text; next < text + n; last = *next++) {
                lines += last == '\n' && *next != '\n' ? 1 : 0;
            }
        }
        return lines;
    }

private:
    static bool m_IsFreed()
    {
        return unlink(kSnapshot) == 0 || errno == ENOENT
               || (errno == EISDIR && MoveDirectoryAway());
    }

    TCDescriptor m_file;
    TCOutcome m_outcome;
};

bool IsAnyDelivered()
{
    pthread_mutex_lock(&DTLock);
    const bool delivered = lastShared != " ";
    pthread_mutex_unlock(&DTLock);
    return delivered;
}

} // namespace

TCOutcome ReadKernelLog(TSKernelLines& read)
{
    read = TSKernelLines();
    const TCSnapshotPlace place;
    if (!place.Outcome()) {
        return place.Outcome();
    }
    const bool delivered = IsAnyDelivered();
    DumpKernelLog(read.m_lines, DUMP_CONDITION_NONE);
    const size_t there = place.CountLines();
    read.m_isMute = there == 0;
    // The last known line and all before it are left out; where none is, it was not there.
    read.m_gap = delivered && there > 0 && read.m_lines.size() == there;
    return TCOutcome();
}

} // namespace tools
} // namespace kel
