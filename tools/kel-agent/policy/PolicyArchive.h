#pragma once

#include <string>
#include <vector>

namespace kel {
namespace agent {

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
    /// @param archive  any bytes.
    /// @param policy   replaced by the string on success, untouched otherwise.
    /// @return false when this is no such archive. Needs no more memory than the archive itself.
    static bool Read(const TBytes& archive, std::string& policy);

    /// Replaces the bytes by the archive of one int.
    static void Write(int answer, TBytes& archive);
};

} // namespace agent
} // namespace kel
