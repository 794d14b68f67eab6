// The snapshot of the kernel log, which anybody may have written.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <kel/KELKernelLog.h>

#include "Fuzz.h"
#include "support/Sandbox.h"

using kel::fuzz::Require;

namespace {

constexpr char kSnapshot[] = "/tmp/Device_Tracker.log";

const uint8_t* pBytes;
size_t bytesSize;

} // namespace

// In the library's place: what the kernel's log is said to be.
int runShell(const char*)
{
    const int file = open(kSnapshot, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Require(file >= 0 && write(file, pBytes, bytesSize) == static_cast<ssize_t>(bytesSize),
            "the snapshot can be written");
    close(file);
    return 0;
}

// The same: it would make this program one that runs when nothing else does, for good.
extern "C" int sched_getscheduler(pid_t) noexcept { return SCHED_IDLE; }

extern "C" int LLVMFuzzerInitialize(int*, char*** arguments)
{
    kel::test::Sandbox::Enter(*arguments);
    if (!kel::test::Sandbox::IsEntered()) {
        std::fprintf(stderr, "fuzz: this machine permits no namespaces\n");
        std::exit(1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    pBytes = data;
    bytesSize = size;
    std::vector<std::string> lines;
    const bool isNew = DumpKernelLog(lines, DUMP_CONDITION_NONE);
    Require(isNew == !lines.empty(), "there are lines when it says so");
    for (const std::string& line : lines) {
        Require(!line.empty() && line.find('\n') == std::string::npos, "a line is one");
    }
    return 0;
}
