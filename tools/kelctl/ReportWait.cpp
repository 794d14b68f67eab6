#include "ReportWait.h"

#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <thread>
#include <vector>

#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr std::chrono::milliseconds kPause(100);

// By the clock that dates files, which lags behind the one that tells the time.
std::string FileTime()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return tools::IsoTime(now);
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
    std::vector<std::string> names;
    const tools::TCOutcome listed = m_directory.List(names);
    if (!listed) {
        std::fprintf(stderr, "kelctl: the report could not be waited for: %s\n",
                     tools::Printable(listed.Reason()).c_str());
        return false;
    }
    m_known = names.empty() ? 0 : TCReportDirectory::IdOf(names.back());
    return true;
}

EStatus TCReportWait::Run(const TSAwaited& awaited)
{
    std::fflush(stdout); // what the library has said need not wait
    const auto start = std::chrono::steady_clock::now();
    const std::chrono::duration<double> timeout(m_timeout);
    for (;;) {
        if (const std::optional<uint64_t> number = m_Find(awaited)) {
            std::printf("report %" PRIu64 "\n", *number);
            return EStatus::Success;
        }
        if (m_timeout > 0 && std::chrono::steady_clock::now() - start > timeout) {
            std::fprintf(stderr, "kelctl: the time is over, and the request is no report yet\n");
            return EStatus::TooFewEvents;
        }
        std::this_thread::sleep_for(kPause);
    }
}

std::optional<uint64_t> TCReportWait::m_Find(const TSAwaited& awaited)
{
    std::vector<std::string> names;
    if (!m_directory.List(names)) {
        return std::nullopt; // there is another look
    }
    for (const std::string& name : names) {
        if (TCReportDirectory::IdOf(name) <= m_known) {
            continue;
        }
        m_known = TCReportDirectory::IdOf(name);
        if (m_Is(name, awaited)) {
            return m_known;
        }
    }
    return std::nullopt;
}

// A report is there at once, and whole.
bool TCReportWait::m_Is(const std::string& name, const TSAwaited& awaited) const
{
    TJson report;
    if (m_directory.Read(name, report) != TCReportDirectory::ERead::Done
        || !report["request"].is_object()) {
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
