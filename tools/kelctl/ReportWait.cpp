#include "ReportWait.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "ReportView.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

namespace fs = std::filesystem;

constexpr size_t kDigits = 10; // of a report's directory
constexpr std::chrono::milliseconds kPause(100);

// By the clock that dates files, which lags behind the one that tells the time.
std::string FileTime()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return tools::IsoTime(now);
}

bool IsReport(const std::string& name)
{
    return name.size() == kDigits && name.find_first_not_of("0123456789") == std::string::npos;
}

template <typename Value> bool Has(const TJson& members, const char* name, const Value& value)
{
    const auto found = members.find(name);
    return found != members.end() && *found == value;
}

} // namespace

TCReportWait::TCReportWait(const std::string& stateDirectory, double timeout)
    : m_directory(stateDirectory), m_timeout(timeout), m_since(FileTime())
{}

bool TCReportWait::Begin()
{
    std::error_code failure;
    for (fs::directory_iterator entry(m_directory, failure), end; !failure && entry != end;
         entry.increment(failure)) {
    }
    if (failure) {
        std::fprintf(stderr, "kelctl: the report could not be waited for: %s: %s\n",
                     tools::Printable(m_directory).c_str(), failure.message().c_str());
        return false;
    }
    for (const std::string& name : m_NewReports()) {
        m_known = std::max(m_known, std::strtoull(name.c_str(), nullptr, 10));
    }
    return true;
}

EStatus TCReportWait::Run(const TSAwaited& awaited)
{
    std::fflush(stdout); // what the library has said need not wait
    const auto start = std::chrono::steady_clock::now();
    const std::chrono::duration<double> timeout(m_timeout);
    for (;;) {
        if (const std::optional<unsigned long long> number = m_Find(awaited)) {
            std::printf("report %llu\n", *number);
            return EStatus::Success;
        }
        if (m_timeout > 0 && std::chrono::steady_clock::now() - start > timeout) {
            std::fprintf(stderr, "kelctl: the time is over, and the request is no report yet\n");
            return EStatus::TooFewEvents;
        }
        std::this_thread::sleep_for(kPause);
    }
}

// An agent that has collected nothing yet has no directory of reports; one that is dropped at this
// moment is not the one.
std::vector<std::string> TCReportWait::m_NewReports() const
{
    std::vector<std::string> names;
    std::error_code failure;
    for (fs::directory_iterator entry(m_directory + "/reports", failure), end;
         !failure && entry != end; entry.increment(failure)) {
        const std::string name = entry->path().filename();
        if (IsReport(name) && std::strtoull(name.c_str(), nullptr, 10) > m_known) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<unsigned long long> TCReportWait::m_Find(const TSAwaited& awaited)
{
    for (const std::string& name : m_NewReports()) {
        m_known = std::strtoull(name.c_str(), nullptr, 10);
        if (m_Is(name, awaited)) {
            return m_known;
        }
    }
    return std::nullopt;
}

// A report is there at once, and whole.
bool TCReportWait::m_Is(const std::string& name, const TSAwaited& awaited) const
{
    std::ifstream file(m_directory + "/reports/" + name + "/report.json");
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    TJson report;
    if (!TSReportView::Read(text, report) || !report["request"].is_object()) {
        return false;
    }
    const TJson& request = report["request"];
    const auto user = request.find("user"); // of a key nobody can tell
    const auto filed = request.find("filed");
    return Has(request, "source", awaited.m_source) && Has(request, "name", awaited.m_name)
           && (user == request.end() || !user->is_number() || *user == geteuid())
           && filed != request.end() && filed->is_string() && filed->get<std::string>() >= m_since;
}

} // namespace ctl
} // namespace kel
