#include "Commands.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

namespace fs = std::filesystem;

using TJson = nlohmann::ordered_json;
using tools::Printable;

constexpr char kDefaultStateDirectory[] = "/var/lib/kel-agent";
constexpr size_t kDigits = 10; // of a report's directory
constexpr int kIndent = 2;
constexpr size_t kGap = 2; // between two columns

struct TSOptions
{
    std::string m_id; // of the one that is asked for; empty for all
    bool m_json = false;
    std::string m_stateDirectory = kDefaultStateDirectory;
};

bool IsNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool IsReport(const std::string& name) { return name.size() == kDigits && IsNumber(name); }

// The directories of reports, the oldest first. False, with a line on standard error, when they
// cannot be listed; an agent that has collected nothing yet has none.
bool ListReports(const std::string& stateDirectory, std::vector<fs::path>& directories)
{
    std::error_code failure;
    fs::path place = stateDirectory;
    if (fs::is_directory(place, failure)) {
        place /= "reports";
        if (!fs::exists(place, failure) && !failure) {
            return true;
        }
    }
    for (fs::directory_iterator entry(place, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        std::error_code gone; // an entry that the agent drops at this moment is none
        if (IsReport(entry->path().filename()) && entry->is_directory(gone)) {
            directories.push_back(entry->path());
        }
    }
    if (failure) {
        std::fprintf(stderr, "kelctl: %s: %s\n", place.c_str(), failure.message().c_str());
        return false;
    }
    std::sort(directories.begin(), directories.end());
    return true;
}

// Adds a report to the list. False, with a line on standard error, when it cannot be read; one that
// the agent has dropped meanwhile is no failure.
bool ReadReport(const fs::path& directory, TJson& reports)
{
    std::ifstream file(directory / "report.json");
    std::ostringstream text;
    text << file.rdbuf(); // the parser would not survive what cannot be read
    TJson report = TJson::parse(text.str(), nullptr, false);
    if (report.is_object()) {
        report["directory"] = directory.string();
        reports.push_back(std::move(report));
        return true;
    }
    std::error_code failure;
    if (!fs::exists(directory, failure)) {
        return true;
    }
    std::fprintf(stderr, "kelctl: %s: it has no report that can be read\n", directory.c_str());
    return false;
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
    return value.is_null() ? "-" : Printable(value.dump());
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

void PrintTable(const TJson& reports)
{
    typedef std::array<std::string, 8> TRow;
    std::vector<TRow> rows
        = {{"ID", "COLLECTED", "PROCESS", "THREAD", "MODE", "REBOOT", "ARTEFACT", "DIRECTORY"}};
    for (const TJson& report : reports) {
        rows.push_back({TextAt(report, "/id"), TextAt(report, "/time"),
                        TextAt(report, "/request/process"), TextAt(report, "/request/thread"),
                        TextAt(report, "/request/mode"), TextAt(report, "/request/reboot"),
                        ArtefactOf(report), TextAt(report, "/directory")});
    }
    size_t widths[std::tuple_size<TRow>::value] = {};
    for (const TRow& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    }
    for (const TRow& row : rows) {
        for (size_t i = 0; i + 1 < row.size(); ++i) {
            const std::string blanks(widths[i] - Width(row[i]) + kGap, ' ');
            std::printf("%s%s", row[i].c_str(), blanks.c_str());
        }
        std::printf("%s\n", row.back().c_str());
    }
}

void PrintMembers(const TJson& object, int indent)
{
    for (const auto& [name, value] : object.items()) {
        std::printf("%*s%s:", indent, "", Printable(name).c_str());
        if (value.is_object()) {
            std::printf("\n");
            PrintMembers(value, indent + kIndent);
        } else {
            std::printf(" %s\n", Text(value).c_str());
        }
    }
}

EStatus Reports(const TSOptions& options)
{
    std::vector<fs::path> directories;
    if (!ListReports(options.m_stateDirectory, directories)) {
        return EStatus::Negative;
    }
    const bool one = !options.m_id.empty();
    if (one) {
        const std::string name = std::string(kDigits - options.m_id.size(), '0') + options.m_id;
        directories.erase(
            std::remove_if(directories.begin(), directories.end(),
                           [&](const fs::path& other) { return other.filename() != name; }),
            directories.end());
    }

    TJson reports = TJson::array();
    bool allRead = true;
    for (const fs::path& directory : directories) {
        allRead = ReadReport(directory, reports) && allRead;
    }
    if (one && reports.empty()) {
        if (allRead) {
            std::fprintf(stderr, "kelctl: there is no report %s\n", options.m_id.c_str());
        }
        return EStatus::Negative;
    }

    if (options.m_json) {
        const TJson& printed = one ? reports[0] : reports;
        std::printf("%s\n",
                    printed.dump(kIndent, ' ', false, TJson::error_handler_t::replace).c_str());
    } else if (one) {
        PrintMembers(reports[0], 0);
    } else if (!reports.empty()) {
        PrintTable(reports);
    }
    const EStatus status = FlushOutput();
    return status == EStatus::Success && !allRead ? EStatus::Negative : status;
}

} // namespace

void AddReports(CLI::App& program, EStatus& status)
{
    CLI::App* const command
        = program.add_subcommand("reports", "List the reports that the agent has collected");
    const auto options = std::make_shared<TSOptions>();
    command->add_option("ID", options->m_id, "Print all of this one")
        ->check([](const std::string& text) { // decimal, however many zeros it begins with
            return std::string(IsNumber(text) && text.size() <= kDigits ? ""
                                                                        : "no report's number");
        });
    command->add_flag("--json", options->m_json, "Print a JSON array, or the one object");
    command->add_option("--state-dir", options->m_stateDirectory, "The agent's directory")
        ->type_name("DIR")
        ->capture_default_str();
    command->callback([options, &status] { status = Reports(*options); });
}

} // namespace ctl
} // namespace kel
