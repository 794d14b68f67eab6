#include "Commands.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/KernelLog.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr int kPeriod = 1000; // ms between two looks
constexpr int kForever = -1;

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

// The kernel's log has strangers' names in it. The backslash stays: dmesg writes escapes of its
// own.
std::string Text(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += tools::Printable(line, "\t\\") + '\n';
    }
    return text;
}

EStatus PrintOnce()
{
    tools::TSKernelLines read;
    const tools::TCOutcome outcome = tools::ReadKernelLog(read);
    if (read.m_lines.empty()) {
        std::fprintf(stderr, "kelctl: no line of the kernel log can be had%s%s\n",
                     outcome ? "" : ": ", outcome.Reason().c_str());
        return EStatus::Negative;
    }
    const std::string text = Text(read.m_lines);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return EStatus::Success;
}

// Goes on until its end has a status.
class TCFollower
{
public:
    EStatus Run();

private:
    bool m_Wait(short output, int time);
    void m_Print(const std::string& text);

    const TCEndSignals m_signals;
    std::optional<EStatus> m_status; // from its end on
};

EStatus TCFollower::Run()
{
    std::string known; // the reason that was told
    while (!m_status) {
        tools::TSKernelLines read;
        const tools::TCOutcome outcome = tools::ReadKernelLog(read);
        m_Print(Text(read.m_lines));
        if (!outcome && outcome.Reason() != known) {
            std::fprintf(stderr, "kelctl: the kernel log is not read: %s\n",
                         outcome.Reason().c_str());
        }
        known = outcome.Reason();
        m_Wait(0, kPeriod);
    }
    return *m_status;
}

// Waits for an event of the output, for a time or without end. True when it has come; a signal that
// has come, too, is seen the next time.
bool TCFollower::m_Wait(short output, int time)
{
    if (m_status) {
        return false;
    }
    pollfd events[] = {{m_signals.Get(), POLLIN, 0}, {STDOUT_FILENO, output, 0}};
    poll(events, std::size(events), time);
    if ((events[1].revents & ~output) != 0) {
        m_status = EStatus::NoOutput;
    } else if (events[1].revents != 0) {
        return true;
    } else if (events[0].revents != 0) {
        m_status = EStatus::Success;
    }
    return false;
}

// A reader that has stopped must not keep a signal from ending this. So nothing is written but what
// there is room for, and a signal counts when there is none: no line is lost that can be had.
void TCFollower::m_Print(const std::string& text)
{
    size_t printed = 0;
    while (!m_status && printed < text.size()) {
        if (!m_Wait(POLLOUT, kForever)) {
            continue;
        }
        const ssize_t size = write(STDOUT_FILENO, text.data() + printed,
                                   std::min<size_t>(text.size() - printed, PIPE_BUF));
        if (size >= 0) {
            printed += static_cast<size_t>(size);
        } else if (errno != EINTR && errno != EAGAIN) {
            if (errno != EPIPE) { // who has gone knows
                std::fprintf(stderr, "kelctl: the output cannot be written: %s\n",
                             std::strerror(errno));
            }
            m_status = EStatus::NoOutput;
        }
    }
}

EStatus Follow() { return TCFollower().Run(); }

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
