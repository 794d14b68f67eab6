#pragma once

#include <string>

namespace kel {
namespace agent {

/// Tells whether a policy's text is well-formed XML in UTF-8. What the policy says is not judged.
///
/// The parser is GLib's, which knows the predefined entities and character references only: a text
/// that declares entities of its own and uses them is refused.
struct TSPolicyText
{
    /// @param reason  replaced by one line, when the text is not well-formed; untouched otherwise.
    static bool IsWellFormed(const std::string& text, std::string& reason);
};

} // namespace agent
} // namespace kel
