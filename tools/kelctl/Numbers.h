#pragma once

#include <string>

namespace kel {
namespace ctl {

/// What is wrong with the text of a number of things, from 1 on; empty when nothing is.
std::string CheckCount(const std::string& text);

/// The same of a time in seconds.
std::string CheckSeconds(const std::string& text);

/// The same of a factor.
std::string CheckFactor(const std::string& text);

} // namespace ctl
} // namespace kel
