#pragma once

/* The device's system logger, as the library calls it. ../README.md states the contract. */

#ifdef __cplusplus
extern "C" {
#endif

/* Log buffers. */
typedef enum { LOG_ID_MAIN = 0, LOG_ID_RADIO = 1, LOG_ID_SYSTEM = 2 } log_id_t;

/* Priorities, ascending. The library uses DLOG_DEBUG, DLOG_INFO and DLOG_ERROR. */
typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT = 1,
    DLOG_VERBOSE = 2,
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6,
    DLOG_FATAL = 7,
    DLOG_SILENT = 8
} log_priority;

/*
 * Writes one line to a log buffer.
 *
 * fmt is printf-style. Returns the number of bytes written, or a negative value; the library does
 * not look at it. Callable from any thread.
 */
int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
