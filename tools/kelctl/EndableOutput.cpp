#include "EndableOutput.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace kel {
namespace ctl {

namespace {

constexpr int kForever = -1;

std::atomic<int> toldOf{-1}; // where a signal is told of, and read by nobody

void Tell(int)
{
    const int error = errno;
    eventfd_write(toldOf, 1);
    errno = error;
}

void SetHandler(void (*handler)(int))
{
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, handler);
    }
}

} // namespace

TCEndableOutput::TCEndableOutput(bool bySignals)
    : m_signals(bySignals ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1)
{
    if (m_signals.IsOpen()) { // without one a signal ends the program
        toldOf = m_signals.Get();
        SetHandler(&Tell);
    }
}

TCEndableOutput::~TCEndableOutput()
{
    if (m_signals.IsOpen()) {
        SetHandler(SIG_DFL);
    }
}

// Nothing is written but what there is room for, and a signal counts when there is none: no line is
// lost that can be had.
void TCEndableOutput::Print(const std::string& text)
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

// True when the event of the output has come; a signal that has come, too, is seen the next time.
bool TCEndableOutput::m_Wait(short output, int time)
{
    if (m_status) {
        return false;
    }
    pollfd events[] = {{m_signals.Get(), POLLIN, 0}, {STDOUT_FILENO, output, 0}};
    while (poll(events, std::size(events), time) < 0 && errno == EINTR) { // by such a signal
    }
    if ((events[1].revents & ~output) != 0) {
        m_status = EStatus::NoOutput;
    } else if (events[1].revents != 0) {
        return true;
    } else if (events[0].revents != 0) {
        m_status = EStatus::Success;
    }
    return false;
}

} // namespace ctl
} // namespace kel
