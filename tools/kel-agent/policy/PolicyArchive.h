#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kel {
namespace agent {

/// What a message that should carry a policy is.
enum class EPolicyArchive {
    Policy,
    NoPolicy,
    TooLarge,
    Foreign // of another word size, or of a newer Boost
};

/// Reads the archive that carries a policy, and writes the one that carries the answer to it. Both
/// are Boost.Serialization binary archives in this machine's own word size and byte order.
///
/// An archive states the lengths of its own parts, and the archive library reserves memory for
/// them before it looks whether there is that much. Whoever sends a policy is a stranger, so here
/// every length is held against the bytes that came.
struct TSPolicyArchive
{
    typedef std::vector<unsigned char> TBytes;

    /// Reads the archive of one string, which has to fill it to the end.
    ///
    /// @param archive    any bytes.
    /// @param mostBytes  the longest string that is wanted. Of a longer one nothing is copied.
    /// @param policy     replaced by the string when there is one, untouched otherwise.
    static EPolicyArchive Read(const TBytes& archive, size_t mostBytes, std::string& policy);

    /// Replaces the bytes by the archive of one int.
    static void Write(int answer, TBytes& archive);
};

} // namespace agent
} // namespace kel
