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

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
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
    std::set<int> types;
    for (size_t offset = 0; bytes.size() - offset >= kTypeSize; offset += kTypeSize) {
        int type;
        std::memcpy(&type, bytes.data() + offset, kTypeSize);
        types.insert(types.end(), type); // a hint: our own clients send them in ascending order
    }
    return types;
}

} // namespace kel
