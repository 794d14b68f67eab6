#include "reports/ArtefactReader.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <iterator>
#include <vector>

#include "common/Files.h"

namespace kel {
namespace agent {

using tools::GetStatus;

namespace {

constexpr gid_t kNobodysGroup = 65534;
constexpr size_t kMostOfAnEntry = 1U << 20; // of the user database

// From here on to RightsOf() all is for the reader: it may be a process with one of the threads
// that the agent has, so that nothing in it may take a lock or reserve memory.

struct TSBlock
{
    TSFrame m_frame;
    char m_data[kMostOfAFrame];
};
TSBlock block; // not on a stack of unknown size; each reader has its own

[[noreturn]] void Say(TSFrame::EKind kind, uint64_t number = 0, size_t size = 0)
{
    const TSFrame last = {kind, static_cast<uint32_t>(size), number};
    _exit(write(kReadersSocket, &last, sizeof(last)) == sizeof(last) ? 0 : 1);
}

[[noreturn]] void SayFailed(int error) { Say(TSFrame::Failed, 0, static_cast<size_t>(error)); }

// Sends what is in the block. Whoever does not want it ends the reader with SIGPIPE.
void SendBlock(uint64_t offset, size_t size)
{
    block.m_frame = {TSFrame::Data, static_cast<uint32_t>(size), offset};
    const char* next = reinterpret_cast<const char*>(&block);
    const char* const end = block.m_data + size;
    while (next < end) {
        const ssize_t n = write(kReadersSocket, next, static_cast<size_t>(end - next));
        if (n < 0 && errno != EINTR) {
            _exit(1);
        }
        next += std::max<ssize_t>(n, 0);
    }
}

bool HasCapabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, sets) != 0
           || std::any_of(std::begin(sets), std::end(sets), [](const __user_cap_data_struct& set) {
                  return (set.effective | set.permitted) != 0;
              });
}

// For good. The agent's own user reads with the agent's rights.
bool Become(const TSRights& rights)
{
    const uid_t user = rights.m_user;
    return user == geteuid()
           || (setgroups(static_cast<size_t>(rights.m_count), rights.m_groups) == 0
               && setresgid(rights.m_group, rights.m_group, rights.m_group) == 0
               && setresuid(user, user, user) == 0 && !HasCapabilities());
}

void Limit(int resource, rlim_t most)
{
    const rlimit limit = {most, most};
    setrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
}

// Nobody else of the same user gets at its memory, which was the agent's, and it has no other life
// than to read.
void Confine(const TSReading& reading, pid_t parent)
{
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0); // void when the user changes: so after that
    if (getppid() != parent) {
        _exit(1);
    }
    Limit(RLIMIT_CPU, reading.m_time);
    Limit(RLIMIT_DATA, 0);
    Limit(RLIMIT_CORE, 0);
    Limit(RLIMIT_FSIZE, 0);
    Limit(RLIMIT_NPROC, 0);
}

// A regular file alone: to open some devices has effects.
int OpenFile(const char* path, struct stat& status)
{
    const int place = open(path, O_PATH | O_CLOEXEC); // without opening the file
    if (place < 0 || !GetStatus(place, status)) {
        SayFailed(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        Say(TSFrame::NoFile);
    }
    // The kernel has regular files that wait for content, when they are let. The place is the
    // lowest free descriptor, for all others are closed.
    const int file = open("/proc/self/fd/1", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) {
        SayFailed(errno);
    }
    return file;
}

// The data from a place on, up to the next hole. Many a file knows of no holes, and many a file of
// the kernel's of no size.
struct TSExtent
{
    off_t m_begin;
    off_t m_end;
};
constexpr off_t kNoEnd = INT64_MAX;

// Nothing is there when it begins at the end of all.
TSExtent NextExtent(int file, const struct stat& status, off_t from)
{
    if (status.st_size == 0) {
        return {from, kNoEnd};
    }
    const off_t begin = lseek(file, from, SEEK_DATA);
    if (begin < 0 && errno == ENXIO) {
        return {kNoEnd, kNoEnd};
    }
    const off_t end = begin < from ? -1 : lseek(file, begin, SEEK_HOLE);
    return end > begin ? TSExtent{begin, end} : TSExtent{from, kNoEnd};
}

// What is in there without the holes; the size where that is not known.
uint64_t DataIn(int file, const struct stat& status)
{
    uint64_t data = 0;
    off_t next = 0;
    for (;;) {
        const TSExtent extent = NextExtent(file, status, next);
        if (extent.m_begin == kNoEnd) {
            return data;
        }
        if (extent.m_end == kNoEnd) {
            return static_cast<uint64_t>(status.st_size);
        }
        data += static_cast<uint64_t>(extent.m_end - extent.m_begin);
        next = extent.m_end;
    }
}

off_t LengthOf(int file)
{
    struct stat status;
    if (!GetStatus(file, status)) {
        SayFailed(errno);
    }
    return status.st_size;
}

// Ends it then, as the agent must not: it has no CAP_KILL. Its user may stop it, which holds up
// every signal but this one. Nor can its user have taken all signals that may be pending: as long
// as it is the agent's, they are counted for that.
void EndIn(unsigned int seconds)
{
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    const itimerspec time = {{0, 0}, {static_cast<time_t>(seconds), 0}};
    timer_t timer;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0
        || timer_settime(timer, 0, &time, nullptr) != 0) {
        SayFailed(errno);
    }
}

[[noreturn]] void Read(const TSReading& reading)
{
    struct stat status;
    const int file = OpenFile(reading.m_path, status);
    const auto length = static_cast<uint64_t>(status.st_size);
    if (length > reading.m_longest) {
        Say(TSFrame::TooLarge, length);
    }
    const uint64_t data = length > reading.m_room ? DataIn(file, status) : 0;
    if (data > reading.m_room) {
        Say(TSFrame::TooLarge, data);
    }
    off_t next = 0;
    for (;;) {
        const TSExtent extent = NextExtent(file, status, next);
        if (extent.m_begin == kNoEnd) {
            Say(TSFrame::End, static_cast<uint64_t>(std::max(LengthOf(file), next)));
        }
        next = extent.m_begin;
        while (next < extent.m_end) {
            const auto size = std::min<off_t>(extent.m_end - next, sizeof(block.m_data));
            const ssize_t n = pread(file, block.m_data, static_cast<size_t>(size), next);
            if (n == 0) {
                Say(TSFrame::End, static_cast<uint64_t>(next)); // it has become shorter
            }
            if (n > 0) {
                SendBlock(static_cast<uint64_t>(next), static_cast<size_t>(n));
                next += n;
            } else if (errno != EINTR) {
                SayFailed(errno);
            }
        }
    }
}

} // namespace

TSRights RightsOf(uid_t user)
{
    TSRights rights = {user, kNobodysGroup, 0, {}};
    std::vector<char> text(1U << 10);
    passwd entry;
    passwd* found = nullptr;
    while (getpwuid_r(user, &entry, text.data(), text.size(), &found) == ERANGE
           && text.size() < kMostOfAnEntry) {
        text.resize(2 * text.size());
    }
    if (found != nullptr) {
        rights.m_group = found->pw_gid;
        rights.m_count = TSRights::kMostGroups;
        getgrouplist(found->pw_name, found->pw_gid, rights.m_groups, &rights.m_count);
        rights.m_count = std::min(rights.m_count, TSRights::kMostGroups);
    }
    return rights;
}

void BeReader(const TSReading& reading, pid_t parent)
{
    EndIn(reading.m_time);
    if (!Become(reading.m_rights)) {
        Say(TSFrame::Foreign);
    }
    Confine(reading, parent);
    Read(reading);
}

} // namespace agent
} // namespace kel
