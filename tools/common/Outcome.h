#pragma once

#include <string>
#include <utility>

namespace kel {
namespace tools {

/// How something ended: done, or not and why.
class [[nodiscard]] TCOutcome
{
public:
    /// Done.
    TCOutcome() = default;

    /// Not done.
    ///
    /// @param reason  one line, for a log.
    static TCOutcome Failed(std::string reason) { return TCOutcome(std::move(reason)); }

    bool IsDone() const { return m_done; }
    explicit operator bool() const { return m_done; }

    /// Empty when it was done.
    const std::string& Reason() const { return m_reason; }

private:
    explicit TCOutcome(std::string reason) : m_done(false), m_reason(std::move(reason)) {}

    bool m_done = true;
    std::string m_reason;
};

} // namespace tools
} // namespace kel
