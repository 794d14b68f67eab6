#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/WaitUntil.h"

namespace kel::test {

/// One line that the library gave to the system logger.
struct TSLogLine
{
    int m_buffer;
    int m_priority;
    std::string m_tag;
    std::string m_format; // whole, prefix included
    std::string m_source; // the prefix's source file, function and line
    std::string m_function;
    int m_line;
    std::string m_message; // what follows the prefix
};

/// Records the library's log lines in place of the system logger. A program that uses this class
/// preempts the platform's logger from its start to its end; the lines of all threads are in one
/// list, which a new recorder empties.
class LogRecorder
{
public:
    LogRecorder();

    /// All lines since then, or those with exactly this message.
    std::vector<TSLogLine> Lines() const;
    std::vector<TSLogLine> Lines(const std::string& message) const;

    /// How many lines have exactly this message.
    size_t Count(const std::string& message) const { return Lines(message).size(); }

    /// Whether there is a line with this priority and exactly this message.
    bool Has(int priority, const std::string& message) const;

    /// Whether a message contains this text.
    bool Mentions(const std::string& text) const;

    /// Waits for a line with exactly this message, or for so many of them.
    bool WaitFor(const std::string& message, size_t count = 1,
                 std::chrono::milliseconds deadline = kDeadline) const;

    /// The messages, one per line, to show in a failed test.
    std::string Text() const;

    void Clear();
};

} // namespace kel::test
