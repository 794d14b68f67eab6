#pragma once

#include <atomic>
#include <cstdio>

#include <kel/KELExport.h>

namespace kel {

/// The library's diagnostics: optional copies of its log lines in a per-process file and on
/// standard output, soft assertions, and kernel performance traces.
///
/// Every line goes to the system logger in any case; all switches are off until the hosting
/// program turns them on. Threads: every operation from any thread. No heap allocation while a
/// line is written.
///
/// @snippet class-examples.cpp TCDebug
class KEL_EXPORT TCDebug
{
public:
    /// All switches off. The library has the one object: see m_instance.
    TCDebug();

    /// Turns the copy to "/tmp/kel_<program>_<pid>.log" on or off.
    ///
    /// The file is opened for appending the first time only, and stays open for the life of the
    /// process. When it cannot be opened, or a link or another thing that is no file has its name,
    /// the switch is on all the same, and nothing is written.
    void EnableFileLog(bool enable);

    /// Turns the copy to standard output on or off.
    void EnableStdoutLog(bool enable);

    /// Stores the program's wish for performance traces; Perf() does not look at it.
    void EnablePerfLog(bool enable);

    /// Writes one line, of 255 characters at most, to the enabled sinks.
    ///
    /// @param className     the namespace-qualified class that logs.
    /// @param functionName  the bare name of the function.
    /// @param line          the source line of the statement.
    /// @param format        printf-style, with its arguments.
    void External(const char* className, const char* functionName, unsigned int line,
                  const char* format, ...) __attribute__((format(printf, 5, 6)));

    /// Hands one line, built as in External(), to the platform kernel's performance trace,
    /// whatever the switches say. Without effect on other kernels.
    void Perf(const char* className, const char* functionName, unsigned int line,
              const char* format, ...) __attribute__((format(printf, 5, 6)));

    /// Reports a failed internal check, unless "/etc/release" marks a released image. Never stops
    /// the process.
    ///
    /// @param file  the path of the source file, without its ending.
    /// @param line  names the check.
    static void Assert(const char* file, unsigned int line);

    // Read by every thread that logs while the program may set them: atomic, at the price of a
    // plain byte.
    std::atomic<bool> m_perfLogEnabled;   ///< What EnablePerfLog() was told last.
    std::atomic<bool> m_stdoutLogEnabled; ///< What EnableStdoutLog() was told last.
    std::atomic<bool> m_fileLogEnabled;   ///< What EnableFileLog() was told last.

    /// Opened by EnableFileLog(), never closed: lines may be written until the process is gone.
    std::atomic<FILE*> m_logFile;

    /// The one object of the process.
    static TCDebug m_instance;
};

} // namespace kel
