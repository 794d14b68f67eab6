#pragma once

#include <cstring>

#include <dlog.h>

#include <kel/KELDebug.h>

// The library's log lines. A source file names itself once with KEL_LOG_SOURCE; the message text
// stays literal at the call site, so that whoever reads a device log can search for it.

/// Names the source file and the class of the log lines below it, right after the includes.
#define KEL_LOG_SOURCE(source, className)                                                          \
    namespace {                                                                                    \
    [[maybe_unused]] constexpr char kLogNames[] = source "\0" className;                           \
    [[maybe_unused]] constexpr char kLogPath[] = "RV-HIVE-api/impl/src/" source;                   \
    }

#define KEL_LOG_PREFIX "%s: %s(%d) > "

namespace kel {

/// Not there: shows the compiler a statement's own format and arguments.
void CheckLogFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Writes a line for the system's logger, and for the sinks when one is on. One function for all
/// statements with arguments of the same types, which take two calls each otherwise.
///
/// @param names   of the source file and, behind its end, of the class.
/// @param format  with the prefix.
template <typename... Arguments>
__attribute__((noinline)) void WriteLog(const char* names, int priority, const char* function,
                                        int line, const char* format, Arguments... arguments)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security" // it has been a literal: see KEL_LOG
    __dlog_print(LOG_ID_SYSTEM, priority, "KEL", format, names, function, line, arguments...);
    TCDebug& sinks = TCDebug::m_instance;
    if (sinks.m_stdoutLogEnabled.load(std::memory_order_relaxed)
        || sinks.m_fileLogEnabled.load(std::memory_order_relaxed)) {
        sinks.External(names + std::strlen(names) + 1, function, static_cast<unsigned int>(line),
                       format + sizeof(KEL_LOG_PREFIX) - 1, arguments...);
    }
#pragma GCC diagnostic pop
}

} // namespace kel

#define KEL_LOG(priority, format, ...)                                                             \
    do {                                                                                           \
        if (false) {                                                                               \
            kel::CheckLogFormat(format, ##__VA_ARGS__);                                            \
        }                                                                                          \
        kel::WriteLog(kLogNames, priority, __func__, __LINE__, KEL_LOG_PREFIX format,              \
                      ##__VA_ARGS__);                                                              \
    } while (false)

/// Progress and state.
#define KEL_DEBUG(format, ...) KEL_LOG(DLOG_DEBUG, format, ##__VA_ARGS__)

/// Failures.
#define KEL_ERROR(format, ...) KEL_LOG(DLOG_ERROR, format, ##__VA_ARGS__)

/// Reports a failed check of this source file. The number names the check for whoever reads a
/// device log; it is not the line of the statement.
#define KEL_REPORT(check) kel::TCDebug::Assert(kLogPath, check)
