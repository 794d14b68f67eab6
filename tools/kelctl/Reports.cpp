#include "Reports.h"

#include <pwd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "common/RequestFormat.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kDefaultStateDirectory[] = "/var/lib/kel-agent";
constexpr char kUnknownUser[] = "-";

typedef TSReportSelection::EOrder EOrder;
constexpr std::pair<const char*, EOrder> kOrders[]
    = {{"id", EOrder::Id},     {"time", EOrder::Time}, {"process", EOrder::Process},
       {"user", EOrder::User}, {"mode", EOrder::Mode}, {"size", EOrder::Size}};

struct TSShown
{
    TSReportSelection::TKey m_key;
    TJson m_report; // unless it is a row
    TSReportView::TRow m_row;
};

void TellMissing(const std::string& id)
{
    std::fprintf(stderr, "kelctl: there is no report %s\n", id.c_str());
}

// Leaves the reports that are asked for. False when one of them is not there; it is told of.
bool Choose(const TSReportsOptions& options, std::vector<std::string>& names)
{
    if (options.m_ids.empty()) {
        return true;
    }
    bool all = true;
    std::set<std::string> chosen;
    for (const std::string& id : options.m_ids) {
        const std::string name = TCReportDirectory::NameOf(id);
        if (std::binary_search(names.begin(), names.end(), name)) {
            chosen.insert(name);
        } else {
            TellMissing(id);
            all = false;
        }
    }
    names.assign(chosen.begin(), chosen.end());
    return all;
}

std::string TextOf(const TSReportsOptions& options, std::vector<TSShown>& shown)
{
    const bool one = options.m_ids.size() == 1;
    std::string text;
    if (options.m_json) {
        TJson reports = TJson::array();
        for (TSShown& each : shown) {
            reports.push_back(std::move(each.m_report));
        }
        return one && reports.empty() ? "" : TSReportView::Json(one ? reports[0] : reports);
    }
    if (!options.m_ids.empty()) {
        for (const TSShown& each : shown) {
            text += (text.empty() ? "" : "\n") + TSReportView::Members(each.m_report);
        }
        return text;
    }
    TSReportView::TWidths widths = {};
    TSReportView::Widen(widths, TSReportView::kHead);
    for (const TSShown& each : shown) {
        TSReportView::Widen(widths, each.m_row);
    }
    text = shown.empty() ? "" : TSReportView::Line(TSReportView::kHead, widths);
    for (const TSShown& each : shown) {
        text += TSReportView::Line(each.m_row, widths);
    }
    return text;
}

// A report is several times as large in memory as its row: of thousands only rows are kept.
bool Show(const TSReportsOptions& options, const TCReportDirectory& directory,
          const std::vector<std::string>& names)
{
    const bool rows = !options.m_json && options.m_ids.empty();
    bool allRead = true;
    std::vector<TSShown> shown;
    for (const std::string& name : names) {
        TJson report;
        if (!ReadSelected(options, directory, name, report, allRead)) {
            continue;
        }
        shown.emplace_back();
        shown.back().m_key = options.m_selection.KeyOf(report);
        if (rows) {
            shown.back().m_row = TSReportView::Row(report);
        } else {
            shown.back().m_report = std::move(report);
        }
    }
    std::stable_sort(shown.begin(), shown.end(),
                     [](const TSShown& a, const TSShown& b) { return a.m_key < b.m_key; });
    if (options.m_reverse) {
        std::reverse(shown.begin(), shown.end());
    }
    const std::string text = TextOf(options, shown);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return allRead;
}

bool Remove(const TSReportsOptions& options, const TCReportDirectory& directory,
            const std::vector<std::string>& names)
{
    bool done = true;
    for (const std::string& name : names) {
        TJson report;
        if (!options.m_selection.IsEmpty()
            && !ReadSelected(options, directory, name, report, done)) {
            continue;
        }
        const tools::TCOutcome outcome = directory.Remove(name);
        if (outcome) {
            std::printf("report %llu removed\n",
                        static_cast<unsigned long long>(TCReportDirectory::IdOf(name)));
        } else {
            std::fprintf(stderr, "kelctl: %s\n", outcome.Reason().c_str());
            done = false;
        }
    }
    return done;
}

EStatus Reports(const TSReportsOptions& options)
{
    if (options.m_remove && options.m_ids.empty() && options.m_selection.IsEmpty()) {
        throw CLI::RequiredError("A report's number, or which ones --remove is to remove,");
    }
    if (options.m_follow) {
        return FollowReports(options);
    }
    const TCReportDirectory directory(options.m_stateDirectory);
    std::vector<std::string> names;
    const tools::TCOutcome outcome = directory.List(names);
    if (!outcome) {
        std::fprintf(stderr, "kelctl: %s\n", outcome.Reason().c_str());
        return EStatus::Negative;
    }
    bool done = Choose(options, names);
    if (!options.m_page.empty()) {
        const EStatus status = WriteReportPage(options, names);
        return status == EStatus::Success && !done ? EStatus::Negative : status;
    }
    done = (options.m_remove ? Remove : Show)(options, directory, names) && done;
    return done ? EStatus::Success : EStatus::Negative;
}

// An age, or a time.
std::optional<TMilliseconds> TimeOf(const std::string& text)
{
    const timespec now = tools::Now();
    const std::optional<TMilliseconds> age = ParseAge(text);
    if (!age) {
        return ParseTime(text);
    }
    return TMilliseconds(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000 - *age;
}

// A user's number, or null for the unknown one. Nothing where there is no such user.
std::optional<TJson> UserOf(const std::string& text)
{
    if (text == kUnknownUser) {
        return TJson();
    }
    if (text.size() <= 10 && TCReportDirectory::IsNumber(text)) {
        return TJson(std::strtoull(text.c_str(), nullptr, 10));
    }
    const passwd* const user = getpwnam(text.c_str());
    return user == nullptr ? std::optional<TJson>() : TJson(user->pw_uid);
}

// The name of a mode as a report has it; the words of file names are taken, too.
std::optional<std::string> ModeOf(std::string text)
{
    std::replace(text.begin(), text.end(), '-', '_');
    text = CLI::detail::to_lower(text);
    const auto* const mode
        = std::find_if(std::begin(tools::kRequestModes), std::end(tools::kRequestModes),
                       [&](const char* name) { return CLI::detail::to_lower(name) == text; });
    return mode == std::end(tools::kRequestModes) ? std::optional<std::string>() : *mode;
}

std::optional<EOrder> OrderOf(const std::string& text)
{
    const auto* const order
        = std::find_if(std::begin(kOrders), std::end(kOrders),
                       [&](const auto& candidate) { return text == candidate.first; });
    return order == std::end(kOrders) ? std::optional<EOrder>() : order->second;
}

constexpr char kAgeForm[] = "a number from 1 to 999999999 with s, m, h, d or w";

void AddSelection(CLI::App& command, TSReportsOptions& options)
{
    TSReportSelection& selection = options.m_selection;
    command
        .add_option_function<std::string>(
            "--since", [&selection](const std::string& text) { selection.m_since = TimeOf(text); },
            "Only those of this time or age, and newer ones")
        ->type_name("TIME")
        ->check([](const std::string& text) {
            return TimeOf(text) ? std::string()
                                : "neither a time as 2026-11-21T09:30, in UTC, nor "
                                      + std::string(kAgeForm) + ": " + tools::PrintableStart(text);
        });
    command
        .add_option_function<std::string>(
            "--older-than",
            [&selection](const std::string& text) { selection.m_before = TimeOf(text); },
            "Only those of more than this age")
        ->type_name("AGE")
        ->check([](const std::string& text) {
            return ParseAge(text) ? std::string()
                                  : std::string(kAgeForm) + ", not " + tools::PrintableStart(text);
        });
    command.add_option("--process", selection.m_process, "Only those about this process")
        ->type_name("NAME")
        ->check([](const std::string& text) { return std::string(text.empty() ? "no name" : ""); });
    command
        .add_option_function<std::string>(
            "--user", [&selection](const std::string& text) { selection.m_user = UserOf(text); },
            "Only those this user asked for: a name, a number, or - for an unknown one")
        ->type_name("USER")
        ->check([](const std::string& text) {
            return UserOf(text) ? std::string() : "no such user: " + tools::PrintableStart(text);
        });
    command
        .add_option_function<std::string>(
            "--mode", [&selection](const std::string& text) { selection.m_mode = ModeOf(text); },
            "Only those of the mode oqc-always, always, once-only or policy")
        ->type_name("MODE")
        ->check([](const std::string& text) {
            return ModeOf(text) ? std::string()
                                : "oqc-always, always, once-only or policy, not "
                                      + tools::PrintableStart(text);
        });
}

void AddOrder(CLI::App& command, TSReportsOptions& options)
{
    command
        .add_option_function<std::string>(
            "--sort",
            [&options](const std::string& text) { options.m_selection.m_order = *OrderOf(text); },
            "Sort by id, time, process, user, mode or size of the artefact")
        ->type_name("KEY")
        ->check([](const std::string& text) {
            return OrderOf(text) ? std::string()
                                 : "id, time, process, user, mode or size, not "
                                       + tools::PrintableStart(text);
        });
    command.add_flag("--reverse", options.m_reverse, "The other way round");
}

} // namespace

bool ReadSelected(const TSReportsOptions& options, const TCReportDirectory& directory,
                  const std::string& name, TJson& report, bool& allRead)
{
    const TCReportDirectory::ERead read = directory.Read(name, report);
    if (read == TCReportDirectory::ERead::Unreadable) {
        std::fprintf(stderr, "kelctl: %s: it has no report that can be read\n",
                     directory.PathOf(name).c_str());
        allRead = false;
    }
    if (read == TCReportDirectory::ERead::Gone && !options.m_ids.empty()) {
        TellMissing(std::to_string(TCReportDirectory::IdOf(name)));
        allRead = false;
    }
    return read == TCReportDirectory::ERead::Done && options.m_selection.Has(report);
}

void AddReports(CLI::App& program, EStatus& status)
{
    CLI::App* const command
        = program.add_subcommand("reports", "List the reports that the agent has collected");
    const auto options = std::make_shared<TSReportsOptions>();
    options->m_stateDirectory = kDefaultStateDirectory;
    CLI::Option* const ids
        = command->add_option("ID", options->m_ids, "Print all of this one, or of several")
              ->check([](const std::string& text) { // decimal, however many zeros it begins with
                  return std::string(TCReportDirectory::IsNumber(text) ? "" : "no report's number");
              });
    AddSelection(*command, *options);
    AddOrder(*command, *options);
    CLI::Option* const json
        = command->add_flag("--json", options->m_json, "Print a JSON array, or the one object");
    CLI::Option* const follow
        = command->add_flag("--follow", options->m_follow, "Go on with those that are new")
              ->excludes(ids);
    CLI::Option* const page
        = command->add_option("--html", options->m_page, "Write them to a page for a browser")
              ->type_name("FILE")
              ->excludes(json)
              ->excludes(follow);
    CLI::Option* const remove
        = command->add_flag("--remove", options->m_remove, "Remove them, as root")
              ->excludes(json)
              ->excludes(follow)
              ->excludes(page);
    for (const char* const order : {"--sort", "--reverse"}) {
        for (CLI::Option* const other : {follow, page, remove}) {
            command->get_option(order)->excludes(other);
        }
    }
    command->get_option("--older-than")->excludes(follow);
    command->add_option("--state-dir", options->m_stateDirectory, "The agent's directory")
        ->type_name("DIR")
        ->capture_default_str();
    command->callback([options, &status] { status = Reports(*options); });
}

} // namespace ctl
} // namespace kel
