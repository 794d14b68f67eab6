#pragma once

#include <string>
#include <vector>

#include "support/LogRecorder.h"

/// The library's log lines as "priority message", and forgets them.
inline std::vector<std::string> TakeMessages(kel::test::LogRecorder& log)
{
    std::vector<std::string> messages;
    for (const kel::test::TSLogLine& line : log.Lines()) {
        messages.push_back(std::to_string(line.m_priority) + " " + line.m_message);
    }
    log.Clear();
    return messages;
}
