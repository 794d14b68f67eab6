#include "Commands.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ReportView.h"

namespace kel {
namespace ctl {

namespace {

namespace fs = std::filesystem;

constexpr char kDefaultStateDirectory[] = "/var/lib/kel-agent";
constexpr size_t kDigits = 10; // of a report's directory

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

// The whole file, or as much of one that is too large as tells so.
std::string ReadText(const fs::path& path)
{
    std::ifstream file(path);
    std::string text;
    char block[1U << 14];
    while (text.size() <= TSReportView::kMostBytes && file) {
        file.read(block, sizeof(block));
        text.append(block, static_cast<size_t>(file.gcount()));
    }
    return text;
}

// Adds a report to the list. False, with a line on standard error, when it cannot be read; one that
// the agent has dropped meanwhile is no failure.
bool ReadReport(const fs::path& directory, TJson& reports)
{
    TJson report;
    if (TSReportView::Read(ReadText(directory / "report.json"), report)) {
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

    std::string text;
    if (options.m_json) {
        text = TSReportView::Json(one ? reports[0] : reports);
    } else if (one) {
        text = TSReportView::Members(reports[0]);
    } else if (!reports.empty()) {
        text = TSReportView::Table(reports);
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    return allRead ? EStatus::Success : EStatus::Negative;
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
