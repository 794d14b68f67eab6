#include "doctor/DoctorFiles.h"

#include <fcntl.h>

#include <algorithm>

#include "common/RequestFormat.h"

namespace kel {
namespace ctl {

namespace {

constexpr int64_t kSlack = 60; // s

struct TSUnit
{
    uint64_t m_size;
    const char* m_name;
};

// In the largest unit of which there are two.
template <size_t count> std::string InUnits(uint64_t amount, const TSUnit (&units)[count])
{
    const TSUnit* const unit = std::find_if(
        units, units + count - 1, [amount](const TSUnit& one) { return amount >= 2 * one.m_size; });
    return std::to_string(amount / unit->m_size) + unit->m_name;
}

constexpr TSUnit kTimes[] = {{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}};
constexpr TSUnit kSizes[]
    = {{1U << 30, " GiB"}, {1U << 20, " MiB"}, {1U << 10, " KiB"}, {1, " bytes"}};

} // namespace

void CheckFiles(const TSDoctorOptions& options, TFindings& findings)
{
    CheckDrops(findings);
    CheckRequests(findings);
    CheckTmpfiles(findings);
    CheckState(options, findings);
    CheckReports(options, findings);
    CheckKernelLog(findings);
    CheckIdleClass(findings);
    CheckPolicyFiles(options, findings);
}

void TCCheck::Good(const std::string& what) const
{
    m_findings.push_back({m_name, EHealth::Good, what, ""});
}

void TCCheck::Warn(const std::string& what, const std::string& advice) const
{
    m_findings.push_back({m_name, EHealth::Warning, what, advice});
}

void TCCheck::Fail(const std::string& what, const std::string& advice) const
{
    m_findings.push_back({m_name, EHealth::Fault, what, advice});
}

void TCCheck::Judge(const TSTally& found, const std::string& good, const std::string& one,
                    const std::string& several, const std::string& meaning,
                    const std::string& advice) const
{
    if (found.m_count == 0) {
        Good(good);
    } else {
        Warn(CountText(found.m_count, one, several) + ", such as " + found.m_example + ": "
                 + meaning,
             advice);
    }
}

void TCCheck::OnlyRoot(const std::string& what) const
{
    Warn("only root may see " + what, "sudo kelctl doctor");
}

void TSTally::Add(const std::string& example)
{
    if (m_count++ == 0) {
        m_example = example;
    }
}

std::string CountText(size_t count, const std::string& one, const std::string& several)
{
    return count == 0 ? "no " + one : std::to_string(count) + " " + (count == 1 ? one : several);
}

bool IsOfTheFuture(int64_t time, int64_t now) { return time > now + kSlack; }

std::string AgeText(int64_t seconds)
{
    return InUnits(static_cast<uint64_t>(std::max<int64_t>(seconds, 0)), kTimes);
}

std::string SizeText(uint64_t bytes) { return InUnits(bytes, kSizes); }

tools::TCDescriptor OpenTemporary()
{
    return tools::TCDescriptor(open(tools::kTemporaryDirectory, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

} // namespace ctl
} // namespace kel
