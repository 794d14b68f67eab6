#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ReportDirectory.h"
#include "ReportSelection.h"
#include "common/Text.h"
#include "doctor/DoctorFiles.h"
#include "reports/Shares.h"

namespace kel {
namespace ctl {

using tools::TCDescriptor;

namespace {

typedef std::chrono::steady_clock TClock;
typedef std::optional<uint32_t> TUser; // nothing for all whom no report tells

constexpr std::chrono::milliseconds kLongest(1000);
constexpr size_t kMostHolders = 5; // that are named
constexpr TMilliseconds kSecond = 1000;

struct TSHolding
{
    size_t m_reports = 0;
    uint64_t m_bytes = 0;
};

std::string NameOf(const TUser& user)
{
    return user ? "user " + std::to_string(*user) : "an unknown user";
}

// As the agent reads it. The report may be anything.
TUser UserOf(const TJson& report)
{
    static const TJson::json_pointer kUser("/request/user");
    const TJson user = report.contains(kUser) ? report[kUser] : TJson();
    return user.is_number_unsigned() && user <= std::numeric_limits<uint32_t>::max()
               ? TUser(user.get<uint32_t>())
               : std::nullopt;
}

// Reads every report, as far as there is time, and counts by the users who asked for them, as the
// agent does.
class TCReportCensus
{
public:
    explicit TCReportCensus(const TCReportDirectory& directory) : m_directory(directory) {}

    void Count(const std::vector<std::string>& names);
    void Tell(TFindings& findings) const;

private:
    void m_CountOne(const std::string& name);
    void m_JudgeTime(const std::string& name, const TJson& report);
    std::string m_HoldersText() const;
    void m_TellShares(const TCCheck& check) const;

    const TCReportDirectory& m_directory;
    const int64_t m_now = tools::Now().tv_sec;
    std::map<TUser, TSHolding> m_holdings;
    TSHolding m_all;
    size_t m_there = 0; // counted or not
    TSTally m_unreadable;
    TSTally m_future;
};

void TCReportCensus::Count(const std::vector<std::string>& names)
{
    const TClock::time_point end = TClock::now() + kLongest;
    m_there = names.size();
    for (auto name = names.rbegin(); name != names.rend() && TClock::now() < end; ++name) {
        m_CountOne(*name);
    }
}

void TCReportCensus::m_CountOne(const std::string& name)
{
    const TCDescriptor one = m_directory.Open(name);
    if (!one.IsOpen() && errno == ENOENT) {
        return; // the agent has just dropped it
    }
    std::string text;
    TJson report;
    TUser user;
    if (!tools::ReadRegularFile(one.Get(), TCReportDirectory::kReportFile, O_NOFOLLOW,
                                TSReportView::kMostBytes + 1, text)
        || !TSReportView::Read(text, report)) {
        m_unreadable.Add(name);
    } else {
        user = UserOf(report);
        m_JudgeTime(name, report);
    }
    const uint64_t bytes = tools::WrittenSize(one.Get());
    for (TSHolding* const holding : {&m_holdings[user], &m_all}) {
        ++holding->m_reports;
        holding->m_bytes += bytes;
    }
}

void TCReportCensus::m_JudgeTime(const std::string& name, const TJson& report)
{
    const auto time = report.find("time");
    const std::string when
        = time != report.end() && time->is_string() ? time->get<std::string>() : "";
    const std::optional<TMilliseconds> parsed = ParseTime(when);
    if (parsed && IsOfTheFuture(*parsed / kSecond, m_now)) {
        m_future.Add("number " + std::to_string(TCReportDirectory::IdOf(name)) + " of " + when);
    }
}

// Those who hold most.
std::string TCReportCensus::m_HoldersText() const
{
    std::vector<std::pair<TUser, TSHolding>> holders(m_holdings.begin(), m_holdings.end());
    std::sort(holders.begin(), holders.end(), [](const auto& one, const auto& other) {
        return one.second.m_bytes > other.second.m_bytes;
    });
    std::string text;
    for (size_t i = 0; i < std::min(holders.size(), kMostHolders); ++i) {
        const auto& [user, holding] = holders[i];
        text += (i == 0 ? ": " : ", ") + std::to_string(holding.m_reports) + " of " + NameOf(user)
                + " with " + SizeText(holding.m_bytes);
    }
    return text + (holders.size() > kMostHolders ? ", the others of users with less" : "");
}

void TCReportCensus::m_TellShares(const TCCheck& check) const
{
    const agent::TCShares::TSLimits limits;
    std::string text = CountText(m_there, "report", "reports");
    if (m_all.m_reports < m_there) {
        text += ", of which there was time for " + std::to_string(m_all.m_reports);
    }
    text += m_HoldersText();
    if (m_unreadable.m_count > 0) {
        check.Warn(CountText(m_unreadable.m_count, "report", "reports") + " of "
                       + std::to_string(m_there) + " cannot be read, such as "
                       + m_unreadable.m_example + ": no agent has written it so, or it is damaged",
                   "remove it: kelctl reports --remove " + m_unreadable.m_example);
    }
    // A tenth before the end.
    if (m_there >= limits.m_reports / 10 * 9 || m_all.m_bytes >= limits.m_bytes / 10 * 9) {
        check.Warn(text + ". kel-agent keeps " + std::to_string(limits.m_reports) + " reports and "
                       + SizeText(limits.m_bytes)
                       + ", unless it is told otherwise: who holds most loses the oldest for each "
                         "new one",
                   "take them away: kelctl reports --remove --older-than 1w; or start kel-agent "
                   "with --max-reports or --max-bytes");
    } else {
        check.Good(text);
    }
}

void TCReportCensus::Tell(TFindings& findings) const
{
    m_TellShares(TCCheck("shares", findings));
    TCCheck("clock", findings)
        .Judge(m_future, "no report is of the future", "report is of the future",
               "reports are of the future", "the clock was wrong then, or is now",
               "is the clock right? timedatectl");
}

} // namespace

void CheckReports(const TSDoctorOptions& options, TFindings& findings)
{
    const TCReportDirectory directory(options.m_stateDirectory);
    std::vector<std::string> names;
    if (!directory.List(names)) {
        if (errno == EACCES) {
            TCCheck("shares", findings).OnlyRoot("the reports: the users' shares and the times");
        }
        return; // otherwise the check of the state has told
    }
    TCReportCensus census(directory);
    census.Count(names);
    census.Tell(findings);
}

} // namespace ctl
} // namespace kel
