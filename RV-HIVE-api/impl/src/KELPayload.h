#pragma once

// The byte layouts of the channel. One array of bytes is the whole body of every call and every
// reply; its own length is the only framing.
//
//   "Send" request   type: int32   flag: 1 byte   data: the rest
//   "Send" reply     result: 1 byte               data: the rest
//   "Hello" request  type: int32, repeated
//
// An int32 is the memory image of a 32-bit signed integer in host order: both ends run on the same
// device. A flag or result is any byte; 0 is false, everything else is true.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <set>
#include <string_view>
#include <vector>

namespace kel {

static_assert(sizeof(int) == sizeof(std::int32_t), "message types travel as 32-bit integers");

constexpr size_t kTypeSize = sizeof(std::int32_t);
constexpr size_t kRequestHeaderSize = kTypeSize + 1;
constexpr size_t kReplyHeaderSize = 1;

/// The truth of a bool that may hold a stranger's byte: to the language, one that holds 2 is
/// neither true nor false.
inline bool Truth(const bool& fromTheWire)
{
    static_assert(sizeof(bool) == 1, "a flag travels as one byte");
    unsigned char byte;
    std::memcpy(&byte, &fromTheWire, 1);
    return byte != 0;
}

/// The message types of a "Hello"; up to 3 trailing bytes are ignored.
inline std::set<int> ReadTypes(const std::vector<unsigned char>& bytes)
{
    std::vector<int> types(bytes.size() / kTypeSize);
    if (!types.empty()) {
        std::memcpy(types.data(), bytes.data(), types.size() * kTypeSize);
    }
    // A set grows fast at its end alone. Our own clients send their types in order; a stranger's
    // message of 32 MiB in disorder would take half a minute.
    if (!std::is_sorted(types.begin(), types.end())) {
        std::sort(types.begin(), types.end());
    }
    return std::set<int>(types.begin(), types.end());
}

constexpr size_t kMebibyte = 1'048'576;

/// The largest message, header included, that a stock system bus takes: max_message_size in
/// dbus-daemon(1) and in the defaults of a bus of type "system". It disconnects who sends a larger
/// one, and the process ends with its connection. What to do on a bus with another limit:
/// docs/porting.md.
constexpr size_t kBusMessageLimit = 32 * kMebibyte;
static_assert(kBusMessageLimit <= 64 * kMebibyte, "the body is one array, and D-Bus ends it there");

/// The size of a message on the bus, by D-Bus's rules of marshalling: 16 bytes, the header's
/// fields, each padded to 8 bytes, and the body, which is one array of bytes.
///
/// @param names   the object path and names in the header, the destination among them.
/// @param serial  whether there is the number of the call that a reply is for.
/// @param bytes   how many bytes the array holds.
inline size_t MessageSize(std::initializer_list<std::string_view> names, bool serial, size_t bytes)
{
    constexpr size_t kFixed = 16;
    constexpr size_t kNumberField = 8;    // code, signature "u", the number
    constexpr size_t kSignatureField = 8; // code, signature "g", the signature "ay"
    constexpr size_t kNameOverhead = 9;   // code, signature "s", length, NUL
    constexpr size_t kArrayLength = 4;

    size_t size = kFixed + kSignatureField + (serial ? kNumberField : 0);
    for (const std::string_view name : names) {
        size += (kNameOverhead + name.size() + 7) / 8 * 8;
    }
    return size + kArrayLength + bytes;
}

} // namespace kel
