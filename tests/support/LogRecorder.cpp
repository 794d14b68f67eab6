#include "support/LogRecorder.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <dlog.h>

namespace kel::test {

namespace {

constexpr char kPrefix[] = "%s: %s(%d) > ";

struct TSRecord
{
    std::mutex m_mutex;
    std::vector<TSLogLine> m_lines; // guarded by m_mutex
};

// Never freed: the library logs before main() and after exit().
TSRecord& Record()
{
    static TSRecord& record = *new TSRecord;
    return record;
}

std::string Format(const char* format, va_list arguments)
{
    char text[4096];
    vsnprintf(text, sizeof(text), format, arguments);
    return text;
}

} // namespace

LogRecorder::LogRecorder() { Clear(); }

std::vector<TSLogLine> LogRecorder::Lines() const
{
    const std::lock_guard<std::mutex> lock(Record().m_mutex);
    return Record().m_lines;
}

std::vector<TSLogLine> LogRecorder::Lines(const std::string& message) const
{
    std::vector<TSLogLine> found;
    for (TSLogLine& line : Lines()) {
        if (line.m_message == message) {
            found.push_back(std::move(line));
        }
    }
    return found;
}

bool LogRecorder::Has(int priority, const std::string& message) const
{
    for (const TSLogLine& line : Lines(message)) {
        if (line.m_priority == priority) {
            return true;
        }
    }
    return false;
}

bool LogRecorder::Mentions(const std::string& text) const
{
    return Text().find(text) != std::string::npos;
}

bool LogRecorder::WaitFor(const std::string& message, size_t count,
                          std::chrono::milliseconds deadline) const
{
    return WaitUntil([&] { return Count(message) >= count; }, deadline);
}

std::string LogRecorder::Text() const
{
    std::string text;
    for (const TSLogLine& line : Lines()) {
        text
            += std::to_string(line.m_priority) + " " + line.m_source + ": " + line.m_message + "\n";
    }
    return text;
}

void LogRecorder::Clear()
{
    const std::lock_guard<std::mutex> lock(Record().m_mutex);
    Record().m_lines.clear();
}

} // namespace kel::test

// In place of the platform's function of this name.
extern "C" __attribute__((visibility("default"))) int
__dlog_print(log_id_t buffer, int priority, const char* tag, const char* format, ...)
{
    using namespace kel::test;

    TSLogLine line{};
    line.m_buffer = buffer;
    line.m_priority = priority;
    line.m_tag = tag;
    line.m_format = format;

    va_list arguments;
    va_start(arguments, format);
    const char* message = format;
    if (strncmp(format, kPrefix, strlen(kPrefix)) == 0) {
        line.m_source = va_arg(arguments, const char*);
        line.m_function = va_arg(arguments, const char*);
        line.m_line = va_arg(arguments, int);
        message += strlen(kPrefix);
    }
    line.m_message = Format(message, arguments);
    va_end(arguments);

    const std::lock_guard<std::mutex> lock(Record().m_mutex);
    Record().m_lines.push_back(line);
    return static_cast<int>(line.m_message.size());
}
