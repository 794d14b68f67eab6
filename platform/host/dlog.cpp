// The system logger of a plain Linux host: the journal or syslog, whichever reads /dev/log.

#include <dlog.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Logging does not disturb what is being logged.
struct TSKeptErrno
{
    ~TSKeptErrno() { errno = m_errno; }

    const int m_errno = errno;
};

enum class ESink { System, Stderr, None };

ESink ChooseSink()
{
    const char* const choice = secure_getenv("KEL_HOST_LOG"); // nobody else's choice
    if (choice == nullptr) {
        return ESink::System;
    }
    if (strcmp(choice, "stderr") == 0) {
        return ESink::Stderr;
    }
    return strcmp(choice, "none") == 0 ? ESink::None : ESink::System;
}

int SyslogPriority(int priority)
{
    switch (priority) {
    case DLOG_INFO:
        return LOG_INFO;
    case DLOG_WARN:
        return LOG_WARNING;
    case DLOG_ERROR:
        return LOG_ERR;
    case DLOG_FATAL:
        return LOG_CRIT;
    default:
        return LOG_DEBUG;
    }
}

char Letter(int priority)
{
    static const char letters[] = "??VDIWEFS"; // by log_priority
    const bool known = priority >= 0 && priority <= DLOG_SILENT;
    return known ? letters[priority] : '?';
}

// The reader's queue may hold ten lines only, so a burst has to wait a little.
constexpr timeval kPatience{0, 100000}; // microseconds

// The last line was given up: the reader hangs, and is not worth another wait until it reads again.
std::atomic<bool> readerHangs{false};

// One line to whoever reads /dev/log. Not through syslog(), which waits for a hanging reader for
// good. The reader dates the line. The socket lives as long as the line does: a program that closes
// what it does not know, or forks, cannot upset it, and none is left over.
void SendToSystem(int priority, const char* tag, const char* line, size_t length)
{
    char head[256];
    const int written
        = snprintf(head, sizeof(head), "<%d>%s[%ld]: %s: ", LOG_USER | SyslogPriority(priority),
                   program_invocation_short_name, static_cast<long>(getpid()), tag);
    if (written < 0) {
        return;
    }

    sockaddr_un reader{AF_UNIX, "/dev/log"};
    iovec parts[] = {{head, std::min(static_cast<size_t>(written), sizeof(head) - 1)},
                     {const_cast<char*>(line), length}}; // read only, but not declared so
    msghdr message{};
    message.msg_name = &reader;
    message.msg_namelen = sizeof(reader);
    message.msg_iov = parts;
    message.msg_iovlen = 2;

    const int handle = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (handle < 0) {
        return;
    }
    ssize_t sent = sendmsg(handle, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EAGAIN && !readerHangs
        && setsockopt(handle, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience)) == 0) {
        sent = sendmsg(handle, &message, MSG_NOSIGNAL);
    }
    readerHangs = sent < 0 && errno == EAGAIN;
    close(handle);
}

} // namespace

extern "C" __attribute__((visibility("default"))) int
__dlog_print(log_id_t, int prio, const char* tag, const char* fmt, ...)
{
    const TSKeptErrno kept;
    static const ESink sink = ChooseSink();
    if (sink == ESink::None) {
        return 0;
    }

    char line[4096]; // the device's logger cuts lines there, too
    va_list arguments;
    va_start(arguments, fmt);
    const int formatted = vsnprintf(line, sizeof(line), fmt, arguments);
    va_end(arguments);
    if (formatted < 0) {
        return formatted;
    }
    const int length = std::min(formatted, static_cast<int>(sizeof(line)) - 1);

    if (sink == ESink::Stderr) {
        fprintf(stderr, "%c/%s: %s\n", Letter(prio), tag, line); // one write: lines do not mix
    } else {
        SendToSystem(prio, tag, line, static_cast<size_t>(length));
    }
    return length;
}
