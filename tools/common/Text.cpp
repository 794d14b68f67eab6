#include "common/Text.h"

#include <cstdio>
#include <ctime>
#include <limits>

#include <glib.h>

namespace kel {
namespace tools {

namespace {

constexpr time_t kLastTime = std::numeric_limits<time_t>::max();
constexpr gunichar kLastCharacter = 0x10ffff; // what is none is told by greater numbers

bool IsPlain(gunichar character)
{
    const GUnicodeType type = g_unichar_type(character);
    return g_unichar_isprint(character) && type != G_UNICODE_LINE_SEPARATOR
           && type != G_UNICODE_PARAGRAPH_SEPARATOR && character != '\\';
}

// The next character as it is to be printed, and how many bytes of the text it takes.
std::string NextPrintable(std::string_view text, std::string_view kept, size_t& size)
{
    const gunichar character
        = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    const bool isCharacter = character <= kLastCharacter;
    size = isCharacter ? static_cast<size_t>(g_unichar_to_utf8(character, nullptr)) : 1;
    if ((isCharacter && IsPlain(character)) || kept.find(text[0]) != std::string_view::npos) {
        return std::string(text.substr(0, size));
    }
    std::string escapes;
    for (const char byte : text.substr(0, size)) {
        char escape[sizeof("\\x00")];
        std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(byte));
        escapes += escape;
    }
    return escapes;
}

} // namespace

timespec Now()
{
    timespec now;
    return clock_gettime(CLOCK_REALTIME, &now) == 0 ? now : timespec{kLastTime, 0};
}

std::string IsoTime(const timespec& time)
{
    tm parts = {};
    if (time.tv_sec == kLastTime || gmtime_r(&time.tv_sec, &parts) == nullptr) {
        return "-"; // of a file: its owner may have set any time, also of no year that can be told
    }
    char seconds[sizeof("-2147483648-01-01T00:00:00")];
    std::strftime(seconds, sizeof(seconds), "%Y-%m-%dT%H:%M:%S", &parts);
    char text[sizeof(seconds) + sizeof(".000Z")];
    std::snprintf(text, sizeof(text), "%s.%03uZ", seconds,
                  static_cast<unsigned int>(time.tv_nsec / 1'000'000) % 1000U);
    return text;
}

std::string Printable(const std::string& text, std::string_view kept)
{
    std::string printable;
    for (size_t at = 0, size = 0; at < text.size(); at += size) {
        printable += NextPrintable(std::string_view(text).substr(at), kept, size);
    }
    return printable;
}

std::string PrintableStart(const std::string& text, size_t most)
{
    std::string printable;
    for (size_t at = 0, size = 0; at < text.size(); at += size) {
        const std::string next = NextPrintable(std::string_view(text).substr(at), {}, size);
        if (printable.size() + next.size() > most) {
            return printable + "... (" + std::to_string(text.size()) + " bytes)";
        }
        printable += next;
    }
    return printable;
}

std::string Joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

bool EndsWith(const std::string& text, std::string_view end)
{
    return text.size() >= end.size()
           && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace tools
} // namespace kel
