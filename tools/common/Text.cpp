#include "common/Text.h"

#include <cstdio>

namespace kel {
namespace tools {

namespace {

// Those of UTF-8's two-byte characters that control a terminal begin with this byte.
constexpr unsigned char kControlLead = 0xc2;

bool IsControl(unsigned char byte, unsigned char before)
{
    return byte < ' ' || byte == 0x7f || (before == kControlLead && byte >= 0x80 && byte < 0xa0);
}

} // namespace

std::string IsoTime(const timespec& time)
{
    tm parts = {};
    if (gmtime_r(&time.tv_sec, &parts) == nullptr) {
        return "-"; // of a file: its owner may have set any time, also of no year that can be told
    }
    char seconds[sizeof("-2147483648-01-01T00:00:00")];
    std::strftime(seconds, sizeof(seconds), "%Y-%m-%dT%H:%M:%S", &parts);
    char text[sizeof(seconds) + sizeof(".000Z")];
    std::snprintf(text, sizeof(text), "%s.%03dZ", seconds,
                  static_cast<int>(time.tv_nsec / 1'000'000));
    return text;
}

std::string Printable(const std::string& text)
{
    std::string printable;
    unsigned char before = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (IsControl(byte, before)) {
            char escape[sizeof("\\x00")];
            std::snprintf(escape, sizeof(escape), "\\x%02x", byte);
            printable += escape;
        } else {
            printable += c;
        }
        before = byte;
    }
    return printable;
}

} // namespace tools
} // namespace kel
