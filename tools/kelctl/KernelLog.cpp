#include "Commands.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <kel/KELKernelLog.h>

namespace kel {
namespace ctl {

namespace {

constexpr int kPeriod = 1000; // ms between two looks

// SIGINT and SIGTERM are read from a descriptor, and so come when it suits.
class TCEndSignals
{
public:
    TCEndSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        m_descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
    }
    ~TCEndSignals() { close(m_descriptor); }
    TCEndSignals(const TCEndSignals&) = delete;
    TCEndSignals& operator=(const TCEndSignals&) = delete;

    int Get() const { return m_descriptor; }

private:
    int m_descriptor;
};

EStatus Print(const std::vector<std::string>& lines)
{
    for (const std::string& line : lines) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::putchar('\n');
    }
    return FlushOutput();
}

EStatus PrintOnce()
{
    std::vector<std::string> lines;
    if (!DumpKernelLog(lines, DUMP_CONDITION_NONE)) {
        std::fprintf(stderr, "kelctl: no line of the kernel log can be had\n");
        return EStatus::Negative;
    }
    return Print(lines);
}

EStatus Follow()
{
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes is seen otherwise
    const TCEndSignals signals;
    for (;;) {
        std::vector<std::string> lines;
        if (DumpKernelLog(lines, DUMP_CONDITION_NONE)) {
            const EStatus status = Print(lines);
            if (status != EStatus::Success) {
                return status;
            }
        }
        pollfd events[] = {{signals.Get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        poll(events, std::size(events), kPeriod);
        if (events[0].revents != 0) {
            return EStatus::Success;
        }
        if (events[1].revents != 0) {
            std::fprintf(stderr, "kelctl: nobody reads the output\n");
            return EStatus::NoOutput;
        }
    }
}

} // namespace

void AddKernelLog(CLI::App& program, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("klog", "Print the kernel log");
    const auto follow = std::make_shared<bool>(false);
    command->add_flag("--follow", *follow, "Go on with the lines that are new");
    command->callback([follow, &status] { status = *follow ? Follow() : PrintOnce(); });
}

} // namespace ctl
} // namespace kel
