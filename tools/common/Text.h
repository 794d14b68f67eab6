#pragma once

#include <ctime>
#include <string>

namespace kel {
namespace tools {

/// A time as ISO 8601 has it, in UTC with milliseconds.
std::string IsoTime(const timespec& time);

/// A stranger's name or path for a line of a log or a terminal: control characters as "\x0a".
std::string Printable(const std::string& text);

} // namespace tools
} // namespace kel
