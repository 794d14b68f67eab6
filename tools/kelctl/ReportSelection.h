#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "ReportView.h"

namespace kel {
namespace ctl {

/// A time of day in milliseconds since 1970, in UTC. It has 8 bytes everywhere.
typedef int64_t TMilliseconds;

/// Reads a time as a report has it, "2026-11-21T09:30:00.250Z", or the beginning of one, from its
/// day on.
std::optional<TMilliseconds> ParseTime(const std::string& text);

/// Reads an age: a number from 1 to 999999999 and "s", "m", "h", "d" or "w".
std::optional<TMilliseconds> ParseAge(const std::string& text);

/// Which reports are meant, and in which order they come. What a report does not tell it has not:
/// one without a readable time is neither new nor old.
struct TSReportSelection
{
    /// What they can be sorted by; of equal ones the older first.
    enum class EOrder { Id, Time, Process, User, Mode, Size };

    /// What one is sorted by.
    typedef std::pair<uint64_t, std::string> TKey;

    std::optional<TMilliseconds> m_since;
    std::optional<TMilliseconds> m_before;
    std::optional<std::string> m_process;
    std::optional<std::string> m_mode; // as the report has it
    std::optional<TJson> m_user;       // a number, or null for those whose user cannot be told
    EOrder m_order = EOrder::Id;

    /// Whether it chooses at all.
    bool IsEmpty() const;

    /// Whether a report is meant.
    bool Has(const TJson& report) const;

    TKey KeyOf(const TJson& report) const;
};

} // namespace ctl
} // namespace kel
