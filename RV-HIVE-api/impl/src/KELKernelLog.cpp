#include <kel/KELKernelLog.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include <kel/KELLocks.h>

#include "KELDescriptor.h"
#include "KELFileStatus.h"

pthread_mutex_t DTLock; // zero-initialised is a valid state: PTHREAD_MUTEX_INITIALIZER is all zero

namespace {

constexpr char kShell[] = "/bin/sh";
constexpr char kSnapshotCommand[] = "dmesg | tail -n 512 > /tmp/Device_Tracker.log";
constexpr char kSnapshot[] = "/tmp/Device_Tracker.log";

// DTLock, whose type is part of the interface, as the compiler's lock checks know it.
class KEL_CAPABILITY("mutex") TCDumpMutex
{
public:
    void lock() KEL_ACQUIRE() { pthread_mutex_lock(&DTLock); }
    void unlock() KEL_RELEASE() { pthread_mutex_unlock(&DTLock); }
};
TCDumpMutex dumpMutex;

void RunWhenIdle()
{
    if (sched_getscheduler(0) != SCHED_IDLE) {
        sched_param parameters;
        sched_getparam(0, &parameters);
        parameters.sched_priority = 0; // the idle class knows no other
        sched_setscheduler(0, SCHED_IDLE, &parameters);
    }
}

// Clears the snapshot's place of what is no file, which anybody may have put there: the shell would
// write through a link and wait for the other end of a FIFO. False when it cannot. What comes there
// after this look meets the kernel's own protection of links and FIFOs in "/tmp", or none.
bool ClearPlace()
{
    struct stat status;
    return !kel::GetStatus(AT_FDCWD, kSnapshot, AT_SYMLINK_NOFOLLOW, status)
           || S_ISDIR(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink < 2)
           || unlink(kSnapshot) == 0;
}

// The snapshot's lines but the empty ones; false when it cannot be opened.
bool ReadSnapshot(std::vector<std::string>& lines)
{
    const std::unique_ptr<FILE, kel::TSClose> snapshot(fopen(kSnapshot, "re"));
    if (snapshot == nullptr) {
        return false;
    }
    std::string line;
    const auto keep = [&] {
        if (!line.empty()) {
            lines.push_back(line);
            line.clear();
        }
    };
    for (int c = 0; (c = getc_unlocked(snapshot.get())) != EOF;) {
        if (c == '\n') {
            keep();
        } else {
            line += static_cast<char>(c);
        }
    }
    if (ferror(snapshot.get()) != 0) {
        printf("Error Opening File Device_Tracker.log");
    } else {
        keep(); // the last one needs no newline
    }
    return true;
}

} // namespace

extern std::string lastShared KEL_GUARDED_BY(dumpMutex);

bool DumpKernelLog(std::vector<std::string>& lines, DumpCondition)
{
    RunWhenIdle();

    const kel::TCExclusiveScope<TCDumpMutex> dump(dumpMutex);
    if (!ClearPlace()) {
        return false;
    }
    runShell(kSnapshotCommand);

    std::vector<std::string> snapshot;
    if (!ReadSnapshot(snapshot)) {
        return false;
    }
    // At the first of several equal lines, on purpose: rather a line twice than one lost.
    const auto delivered = std::find(snapshot.begin(), snapshot.end(), lastShared);
    if (delivered != snapshot.end()) {
        snapshot.erase(snapshot.begin(), delivered + 1);
    }
    if (snapshot.empty()) {
        return false;
    }
    lastShared = snapshot.back();
    lines.swap(snapshot);
    return true;
}

int runShell(const char* command)
{
    // Not fork(): that would need the agent's memory twice for a moment, on a device with little.
    const pid_t child = vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child == 0) {
        execl(kShell, kShell, "-c", command, static_cast<char*>(nullptr));
        _exit(1);
    }
    if (child < 0) {
        return -1;
    }
    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(child, &status, 0); // a signal must not leave a zombie behind
    } while (waited == -1 && errno == EINTR);
    return waited == child ? status : -1;
}
