#include <kel/KELDebug.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

#include <boost/filesystem.hpp>

#include <dlog.h>

#include <kel/KELLocks.h>

#include "KELDescriptor.h"
#include "KELFileStatus.h"

extern "C" char* __progname; // the C library's short program name

namespace kel {

namespace {

constexpr size_t kLineSize = 256;
constexpr int kTraceOption = 666; // "record this text", on the platform's kernel alone

// Two threads that turn the file on at once must not open it twice.
TCMutex fileMutex;

// "KEL >class:function:line< message", cut to what fits.
void FormatLine(char (&buffer)[kLineSize], const char* className, const char* functionName,
                unsigned int line, const char* format, va_list arguments)
{
    snprintf(buffer, sizeof(buffer), "KEL >%s:%s:%zu< ", className, functionName,
             static_cast<size_t>(line));

    const size_t prefix = strlen(buffer);
    vsnprintf(buffer + prefix, sizeof(buffer) - prefix, format, arguments);
}

} // namespace

TCDebug::TCDebug()
    : m_perfLogEnabled(false), m_stdoutLogEnabled(false), m_fileLogEnabled(false),
      m_logFile(nullptr)
{}

void TCDebug::EnableFileLog(bool enable)
{
    const TCLock file(fileMutex);

    if (enable && m_logFile == nullptr) {
        std::string program(__progname);
        std::replace(program.begin(), program.end(), '/', '_');

        char path[256];
        snprintf(path, sizeof(path), "/tmp/kel_%s_%d.log", program.c_str(), getpid());

        // Anybody may have put a link there, for the name can be guessed.
        m_logFile = ToStream(OpenOwnFile(path, O_RDWR | O_APPEND | O_CLOEXEC), "a+");
        if (m_logFile == nullptr) {
            // To the main buffer at info, and without a second copy, on purpose: this line is for
            // the program that asked, and the sink it asked for is the one that failed.
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "KEL",
                         "%s: %s(%d) > Unable to create file %s - errno %d", "KELDebug", __func__,
                         __LINE__, path, errno);
        }
    }
    m_fileLogEnabled = enable;
}

void TCDebug::EnableStdoutLog(bool enable) { m_stdoutLogEnabled = enable; }

void TCDebug::EnablePerfLog(bool enable) { m_perfLogEnabled = enable; }

void TCDebug::External(const char* className, const char* functionName, unsigned int line,
                       const char* format, ...)
{
    const bool toFile = m_fileLogEnabled;
    const bool toStdout = m_stdoutLogEnabled;
    if (!toFile && !toStdout) {
        return;
    }

    char buffer[kLineSize];
    va_list arguments;
    va_start(arguments, format);
    FormatLine(buffer, className, functionName, line, format, arguments);
    va_end(arguments);

    FILE* const file = m_logFile;
    if (toFile && file != nullptr) {
        fprintf(file, "%s\n", buffer);
        fflush(file);
    }
    if (toStdout) {
        printf("%s\n", buffer);
    }
}

void TCDebug::Perf(const char* className, const char* functionName, unsigned int line,
                   const char* format, ...)
{
    char buffer[kLineSize];
    va_list arguments;
    va_start(arguments, format);
    FormatLine(buffer, className, functionName, line, format, arguments);
    va_end(arguments);

    prctl(kTraceOption, buffer, strlen(buffer));
}

void TCDebug::Assert(const char* file, unsigned int line)
{
    boost::system::error_code error;
    const boost::filesystem::file_status status = StatusOf("/etc/release", error);

    // Silent on a released image, on purpose.
    if (boost::filesystem::exists(status)) {
        return;
    }
    // As the macros of the log do it, which stand on this class.
    constexpr int kLine = __LINE__;
    __dlog_print(LOG_ID_SYSTEM, DLOG_ERROR, "KEL", "%s: %s(%d) > Error for %s file in line %zu.",
                 "KELDebug", __func__, kLine, file, static_cast<size_t>(line));
    if (m_instance.m_stdoutLogEnabled || m_instance.m_fileLogEnabled) {
        m_instance.External("kel::TCDebug", __func__, kLine, "Error for %s file in line %zu.", file,
                            static_cast<size_t>(line));
    }
}

} // namespace kel
