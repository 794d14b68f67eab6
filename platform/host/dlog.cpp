// The system logger of a plain Linux host: the journal or syslog, whichever reads /dev/log.

#include <dlog.h>

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

enum class ESink { System, Stderr, None };

ESink ChooseSink()
{
    const char* const choice = getenv("KEL_HOST_LOG");
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

} // namespace

extern "C" __attribute__((visibility("default"))) int
__dlog_print(log_id_t, int prio, const char* tag, const char* fmt, ...)
{
    static const ESink sink = ChooseSink();
    if (sink == ESink::None) {
        return 0;
    }

    char line[4096]; // the device's logger cuts lines there, too
    va_list arguments;
    va_start(arguments, fmt);
    const int length = vsnprintf(line, sizeof(line), fmt, arguments);
    va_end(arguments);
    if (length < 0) {
        return length;
    }

    if (sink == ESink::Stderr) {
        fprintf(stderr, "%c/%s: %s\n", Letter(prio), tag, line); // one write: lines do not mix
    } else {
        syslog(LOG_USER | SyslogPriority(prio), "%s: %s", tag, line);
    }
    return length;
}
