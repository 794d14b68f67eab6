#pragma once

// A fuzzer's program calls its LLVMFuzzerTestOneInput() with bytes that it makes up, and looks for
// a crash, an error that a sanitizer sees, a leak, and too much time or memory. What else has to
// hold of the bytes' reader is required in it.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <glib.h>

namespace kel::fuzz {

typedef std::vector<unsigned char> TBytes;

inline TBytes BytesFrom(const uint8_t* data, size_t size) { return TBytes(data, data + size); }

inline std::string TextFrom(const uint8_t* data, size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size);
}

/// Ends the program, which is a finding.
inline void Require(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "fuzz: it does not hold that %s\n", what);
        std::abort();
    }
}

/// Whether a terminal shows this as it is: UTF-8 without what steers a terminal, turns the
/// direction of a line or ends it, but for the newlines that are our own.
inline bool IsPlain(const std::string& text)
{
    if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
        return false;
    }
    const char* const end = text.data() + text.size();
    for (const char* at = text.data(); at != end; at = g_utf8_next_char(at)) {
        const gunichar c = g_utf8_get_char(at);
        if ((c < ' ' && c != '\n') || (c >= 0x7f && c < 0xa0) || c == 0x061c || c == 0x200e
            || c == 0x200f || (c >= 0x2028 && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069)
            || c == 0xfeff) {
            return false;
        }
    }
    return true;
}

} // namespace kel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
