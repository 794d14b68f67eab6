#include "ReportView.h"

#include <algorithm>
#include <utility>

#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

using tools::Printable;

constexpr int kIndent = 2;
constexpr int kOneLine = -1;
constexpr size_t kGap = 2; // between two columns

// Looks at what makes a text of JSON deep and large. Where it is no JSON, the parser ends before it
// is any deeper than was found here.
bool HasBounds(const std::string& text)
{
    size_t depth = 0;
    size_t values = 1;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            i += c == '\\' ? 1 : 0;
            inString = c != '"';
        } else if (c == '[' || c == '{') {
            ++values;
            if (++depth > TSReportView::kMostDepth) {
                return false;
            }
        } else if (c == ']' || c == '}') {
            depth -= depth > 0 ? 1 : 0;
        } else {
            inString = c == '"';
            values += c == ',' ? 1 : 0;
        }
    }
    return values <= TSReportView::kMostValues;
}

std::string Dump(const TJson& value, int indent)
{
    return value.dump(indent, ' ', true, TJson::error_handler_t::replace);
}

// A value for people: of one line, and without quotes.
std::string Text(const TJson& value)
{
    if (value.is_string()) {
        return Printable(value.get<std::string>());
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "yes" : "no";
    }
    return value.is_null() ? "-" : Dump(value, kOneLine);
}

// Empty where there is no such member.
std::string TextAt(const TJson& report, const char* pointer)
{
    const TJson::json_pointer place(pointer);
    return report.contains(place) ? Text(report[place]) : "";
}

std::string ArtefactOf(const TJson& report)
{
    const std::string bytes = TextAt(report, "/artefact/bytes");
    if (!bytes.empty()) {
        return bytes + " bytes";
    }
    const std::string reason = TextAt(report, "/artefact/reason");
    return reason.empty() ? "-" : "not copied: " + reason;
}

// How many characters a text has, most of which are as wide as one another.
size_t Width(const std::string& text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80; // no byte that goes on with one
    }));
}

std::string MembersAt(const TJson& object, size_t indent)
{
    std::string text;
    for (const auto& [name, value] : object.items()) {
        text += std::string(indent, ' ') + Printable(name) + ":";
        text += value.is_object() ? "\n" + MembersAt(value, indent + kIndent)
                                  : " " + Text(value) + "\n";
    }
    return text;
}

} // namespace

bool TSReportView::Read(const std::string& text, TJson& report)
{
    if (text.size() > kMostBytes || !HasBounds(text)) {
        return false;
    }
    TJson read = TJson::parse(text, nullptr, false);
    if (!read.is_object()) {
        return false;
    }
    report = std::move(read);
    return true;
}

const TSReportView::TRow TSReportView::kHead
    = {"ID", "COLLECTED", "PROCESS", "THREAD", "MODE", "REBOOT", "ARTEFACT", "DIRECTORY"};

TSReportView::TRow TSReportView::Row(const TJson& report)
{
    return {TextAt(report, "/id"),
            TextAt(report, "/time"),
            TextAt(report, "/request/process"),
            TextAt(report, "/request/thread"),
            TextAt(report, "/request/mode"),
            TextAt(report, "/request/reboot"),
            ArtefactOf(report),
            TextAt(report, "/directory")};
}

void TSReportView::Widen(TWidths& widths, const TRow& row)
{
    for (size_t i = 0; i < row.size(); ++i) {
        widths[i] = std::max(widths[i], Width(row[i]));
    }
}

std::string TSReportView::Line(const TRow& row, const TWidths& widths)
{
    std::string line;
    for (size_t i = 0; i + 1 < row.size(); ++i) {
        const size_t width = Width(row[i]);
        line += row[i] + std::string(std::max(widths[i], width) - width + kGap, ' ');
    }
    return line + row.back() + "\n";
}

std::string TSReportView::Members(const TJson& report) { return MembersAt(report, 0); }

std::string TSReportView::Json(const TJson& value) { return Dump(value, kIndent) + "\n"; }

std::string TSReportView::JsonLine(const TJson& value) { return Dump(value, kOneLine) + "\n"; }

} // namespace ctl
} // namespace kel
