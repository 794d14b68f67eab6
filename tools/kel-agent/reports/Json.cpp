#include "reports/Json.h"

#include <cstdio>

namespace kel {
namespace agent {

namespace {

constexpr size_t kIndent = 2;

// A letter that stands for a character behind a backslash, and the characters in the same order.
constexpr std::string_view kLetters = "\"\\bfnrt";
constexpr std::string_view kCharacters = "\"\\\b\f\n\r\t";

// How many bytes at the beginning of a text are a character's, or the beginning of one.
size_t SizeOfNext(std::string_view text, bool& isWhole)
{
    const auto byte = [text](size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned int lead = byte(0);
    const size_t whole = lead < 0x80    ? 1
                         : lead < 0xc2  ? 0 // goes on with one, or is a longer way to write ASCII
                         : lead < 0xe0  ? 2
                         : lead < 0xf0  ? 3
                         : lead <= 0xf4 ? 4
                                        : 0;
    // The second byte: no longer way to write it, no surrogate, and no more than U+10FFFF.
    unsigned int least = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    unsigned int most = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    size_t size = 1;
    while (size < whole && size < text.size() && byte(size) >= least && byte(size) <= most) {
        ++size;
        least = 0x80;
        most = 0xbf;
    }
    isWhole = size == whole;
    return size;
}

void Escape(char c, std::string& json)
{
    const size_t at = kCharacters.find(c);
    if (at != std::string_view::npos) {
        json += {'\\', kLetters[at]};
    } else if (static_cast<unsigned char>(c) < ' ') {
        char escape[sizeof("\\u0000")];
        std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned char>(c));
        json += escape;
    } else {
        json += c;
    }
}

} // namespace

std::string ToJson(std::string_view text)
{
    std::string json = "\"";
    while (!text.empty()) {
        bool isWhole = false;
        const size_t size = SizeOfNext(text, isWhole);
        if (!isWhole) {
            json += "\xef\xbf\xbd";
        } else if (size == 1) {
            Escape(text[0], json);
        } else {
            json += text.substr(0, size);
        }
        text.remove_prefix(size);
    }
    return json += '"';
}

std::string ToJson(const std::vector<int>& numbers)
{
    std::string json = "[";
    for (const int number : numbers) {
        json += (json.size() > 1 ? ", " : "") + std::to_string(number);
    }
    return json += ']';
}

void TCJsonWriter::Begin(const char* name)
{
    m_Add(name, "{");
    ++m_depth;
}

void TCJsonWriter::End()
{
    --m_depth;
    if (m_text.back() != '{') {
        m_BeginLine();
    }
    m_text += '}';
}

void TCJsonWriter::m_Add(const char* name, std::string_view json)
{
    if (m_text.back() != '{') { // whatever a value ends with, it is not this
        m_text += ',';
    }
    m_BeginLine();
    m_text.append("\"").append(name).append("\": ").append(json);
}

void TCJsonWriter::m_BeginLine() { m_text.append("\n").append(m_depth * kIndent, ' '); }

} // namespace agent
} // namespace kel
