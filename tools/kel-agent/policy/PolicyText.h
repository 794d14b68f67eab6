#pragma once

#include <cstddef>
#include <string>

namespace kel {
namespace agent {

/// What a policy's text is.
enum class EPolicyText { WellFormed, NotWellFormed, TooLarge };

/// Tells whether a policy's text is well-formed XML in UTF-8. What the policy says is not judged.
///
/// Whoever sends a policy is a stranger, so its text has bounds: of bytes, of elements inside one
/// another, and of what entities and declared attributes make of it. Nothing outside the text is
/// ever read for it.
struct TSPolicyText
{
    /// The bytes of a text.
    static constexpr size_t kMostBytes = 1U << 20;

    /// The elements inside one another, and the entities that are made of other entities.
    static constexpr size_t kMostDepth = 256;

    /// The bytes of a text with what its entities stand for.
    static constexpr size_t kMostExpandedBytes = 8 * kMostBytes;

    /// @param reason  replaced by one short line, for a log, unless the text is well-formed;
    ///                untouched otherwise. It quotes nothing of the text.
    static EPolicyText Judge(const std::string& text, std::string& reason);
};

} // namespace agent
} // namespace kel
