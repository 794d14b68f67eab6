#pragma once

#include <dlog.h>

#include <kel/KELDebug.h>

// The library's log lines. A source file names itself once with KEL_LOG_SOURCE; the message text
// stays literal at the call site, so that whoever reads a device log can search for it.

/// Names the source file and the class of the log lines below it, right after the includes.
#define KEL_LOG_SOURCE(source, className)                                                          \
    namespace {                                                                                    \
    [[maybe_unused]] constexpr char kLogSource[] = source;                                         \
    [[maybe_unused]] constexpr char kLogClass[] = className;                                       \
    [[maybe_unused]] constexpr char kLogPath[] = "RV-HIVE-api/impl/src/" source;                   \
    }

// The sinks are tested here, so that a line costs one call while none is on.
#define KEL_LOG(priority, format, ...)                                                             \
    do {                                                                                           \
        __dlog_print(LOG_ID_SYSTEM, priority, "KEL", "%s: %s(%d) > " format, kLogSource, __func__, \
                     __LINE__, ##__VA_ARGS__);                                                     \
        if (kel::TCDebug::m_instance.m_stdoutLogEnabled.load(std::memory_order_relaxed)            \
            || kel::TCDebug::m_instance.m_fileLogEnabled.load(std::memory_order_relaxed)) {        \
            kel::TCDebug::m_instance.External(kLogClass, __func__, __LINE__, format,               \
                                              ##__VA_ARGS__);                                      \
        }                                                                                          \
    } while (false)

/// Progress and state.
#define KEL_DEBUG(format, ...) KEL_LOG(DLOG_DEBUG, format, ##__VA_ARGS__)

/// Failures.
#define KEL_ERROR(format, ...) KEL_LOG(DLOG_ERROR, format, ##__VA_ARGS__)

/// Reports a failed check of this source file. The number names the check for whoever reads a
/// device log; it is not the line of the statement.
#define KEL_REPORT(check) kel::TCDebug::Assert(kLogPath, check)
