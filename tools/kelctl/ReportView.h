#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <tuple>

#include <nlohmann/json.hpp>

namespace kel {
namespace ctl {

using TJson = nlohmann::ordered_json;

/// A report as kelctl reads and shows it.
///
/// Its texts are strangers', and the file may be anybody's: it has bounds that are held before it
/// is parsed, because the parser's time grows with the square of an object's members, and its stack
/// with the depth. Whatever is in it, what is shown is plain text.
struct TSReportView
{
    /// The bytes of a file; the agent writes two thousand.
    static constexpr size_t kMostBytes = 1U << 20;

    /// The objects and arrays inside one another; the agent writes two.
    static constexpr size_t kMostDepth = 64;

    /// The values; the agent writes fifty.
    static constexpr size_t kMostValues = 1024;

    /// Reads the text of a report.
    ///
    /// @param report  replaced on success, untouched otherwise.
    /// @return false when it is no JSON object, or beyond a bound.
    static bool Read(const std::string& text, TJson& report);

    /// A line of the table: what it tells of a report.
    typedef std::array<std::string, 8> TRow;
    static const TRow kHead;
    static TRow Row(const TJson& report);

    /// The characters that each column takes.
    typedef std::array<size_t, std::tuple_size<TRow>::value> TWidths;

    /// Makes room for a row.
    static void Widen(TWidths& widths, const TRow& row);

    /// A row as it is printed; one that has no room is longer.
    static std::string Line(const TRow& row, const TWidths& widths);

    /// The members of one, a line each.
    static std::string Members(const TJson& report);

    /// A value as JSON in ASCII, over several lines or on one.
    static std::string Json(const TJson& value);
    static std::string JsonLine(const TJson& value);
};

} // namespace ctl
} // namespace kel
