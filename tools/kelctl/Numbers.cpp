#include "Numbers.h"

#include <cstdlib>

namespace kel {
namespace ctl {

namespace {

// Of the plain forms alone, as they are told: neither 1e3 nor 0x10, nor "nan", which is in every
// range.
bool IsWithin(const std::string& text, const char* characters, double least, double most)
{
    char* pEnd = nullptr;
    const double value = std::strtod(text.c_str(), &pEnd);
    return text.find_first_not_of(characters) == std::string::npos && !text.empty() && *pEnd == '\0'
           && value >= least && value <= most;
}

} // namespace

std::string CheckCount(const std::string& text)
{
    return IsWithin(text, "0123456789", 1, 2147483648.0)
               ? ""
               : text + " is no number from 1 to 2147483648";
}

// The milliseconds of a main loop have 32 bits.
std::string CheckSeconds(const std::string& text)
{
    return IsWithin(text, "0123456789.", 0.001, 4000000)
               ? ""
               : text + " is no number of seconds from 0.001 to 4000000";
}

std::string CheckFactor(const std::string& text)
{
    return IsWithin(text, "0123456789.", 0.001, 1000000)
               ? ""
               : text + " is no number from 0.001 to 1000000";
}

} // namespace ctl
} // namespace kel
