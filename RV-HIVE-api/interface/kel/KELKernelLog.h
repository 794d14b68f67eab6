#pragma once

#include <pthread.h>

#include <string>
#include <vector>

#include <kel/KELExport.h>

/// @file
/// New lines of the kernel log, and a shell.
///
/// @snippet class-examples.cpp DumpKernelLog

/// Reserved: DumpKernelLog() takes it and does not look at it.
enum DumpCondition : int {
    DUMP_CONDITION_NONE = 0 ///< What a caller passes.
};

/// Collects the lines of the kernel log that are new since the last call in this process: at most
/// the last 512 lines, without empty ones, by way of "/tmp/Device_Tracker.log", which takes the
/// place of a link, a FIFO or a file with a second name.
///
/// Leaves the calling thread in the idle scheduling class, on purpose: a collector is to run in
/// idle time from then on. Thread-safe: calls wait for one another on DTLock.
///
/// @param lines      replaced when there are new lines, untouched otherwise.
/// @param condition  without effect.
/// @return whether there are new lines. When the last line of the call before occurs several times,
///         everything after its first occurrence is new, on purpose.
KEL_EXPORT bool DumpKernelLog(std::vector<std::string>& lines, DumpCondition condition);

/// Runs a command with /bin/sh and waits for it. Thread-safe.
///
/// @return the wait status, as waitpid() gives it; -1 when the shell could not be started or
///         waited for.
KEL_EXPORT int runShell(const char* command);

/// The last line that DumpKernelLog() has delivered; a single space before the first. Guarded by
/// DTLock.
extern KEL_EXPORT std::string lastShared;

/// Held for the whole of a DumpKernelLog().
extern KEL_EXPORT pthread_mutex_t DTLock;
