#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace kel {
namespace agent {

// As much of JSON (RFC 8259) as a report is written with: objects of named values and other
// objects. The document of a whole library is a third of the agent's size.

/// A text as JSON. Bytes that are not UTF-8 are replaced, by one U+FFFD for as many as begin a
/// character.
std::string ToJson(std::string_view text);

inline std::string ToJson(std::nullptr_t) { return "null"; }

template <typename Scalar, typename = std::enable_if_t<std::is_integral_v<Scalar>>>
std::string ToJson(Scalar value)
{
    if constexpr (std::is_same_v<Scalar, bool>) {
        return value ? "true" : "false";
    } else {
        return std::to_string(value);
    }
}

std::string ToJson(const std::vector<int>& numbers);

template <typename Value> std::string ToJson(const std::optional<Value>& value)
{
    return value ? ToJson(*value) : ToJson(nullptr);
}

/// Writes an object, a member a line.
class TCJsonWriter
{
public:
    /// Begins the outermost object.
    TCJsonWriter() : m_text("{"), m_depth(1) {}

    template <typename Value> void Add(const char* name, const Value& value)
    {
        m_Add(name, ToJson(value));
    }

    /// Begins an object inside: members are its own until its End().
    void Begin(const char* name);
    void End();

    /// Of all objects, once they have ended.
    const std::string& Text() const { return m_text; }

private:
    void m_Add(const char* name, std::string_view json);
    void m_BeginLine();

    std::string m_text;
    size_t m_depth;
};

} // namespace agent
} // namespace kel
