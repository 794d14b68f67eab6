#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace kel {
namespace tools {

/// The time of day. Where it cannot be told, as after 2038 in 4 bytes, the last that time_t holds.
timespec Now();

/// A time as ISO 8601 has it, in UTC with milliseconds; "-" for one that cannot be told, of which
/// the last that time_t holds is one.
std::string IsoTime(const timespec& time);

/// A stranger's text for a line of a log or a terminal: UTF-8 of one line, and as wide as it looks.
///
/// What is no UTF-8, what steers a terminal or turns the direction of a line, and the backslash
/// itself come as escapes, one a byte: "\x0a". No two texts look the same.
///
/// @param kept  characters of ASCII that stay as they are.
std::string Printable(const std::string& text, std::string_view kept = {});

/// The same, of the beginning of a text that is long, with the size of the whole behind it: for a
/// log, which is not to be filled.
///
/// @param most  the bytes of the beginning, escapes included.
std::string PrintableStart(const std::string& text, size_t most = 200);

/// Words with a comma between each two.
std::string Joined(const std::vector<std::string>& words);

bool EndsWith(const std::string& text, std::string_view end);

} // namespace tools
} // namespace kel
