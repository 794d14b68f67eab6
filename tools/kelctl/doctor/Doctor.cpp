#include "doctor/Doctor.h"

#include <array>
#include <cstdio>
#include <memory>

#include "Commands.h"
#include "ReportView.h"
#include "StoredPolicy.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr std::array<const char*, 3> kNames = {"good", "warning", "fault"}; // by EHealth
typedef std::array<size_t, kNames.size()> TCounts;

size_t IndexOf(EHealth health) { return static_cast<size_t>(health); }

TCounts Count(const TFindings& findings)
{
    TCounts counts = {};
    for (const TSFinding& finding : findings) {
        ++counts[IndexOf(finding.m_health)];
    }
    return counts;
}

std::string Json(const TFindings& findings)
{
    TJson all = TJson::array();
    for (const TSFinding& finding : findings) {
        all.push_back({{"check", finding.m_check},
                       {"health", kNames[IndexOf(finding.m_health)]},
                       {"what", finding.m_what},
                       {"advice", finding.m_advice}});
    }
    return TSReportView::Json(all);
}

std::string Text(const TFindings& findings, const TCounts& counts)
{
    std::string text;
    for (const TSFinding& finding : findings) {
        const std::string health = kNames[IndexOf(finding.m_health)];
        text += health + std::string(9 - health.size(), ' ') + finding.m_check + ": "
                + tools::Printable(finding.m_what) + "\n";
        if (!finding.m_advice.empty()) {
            text += std::string(9, ' ') + tools::Printable(finding.m_advice) + "\n";
        }
    }
    return text + std::to_string(counts[0]) + " good, " + std::to_string(counts[1])
           + (counts[1] == 1 ? " warning, " : " warnings, ") + std::to_string(counts[2])
           + (counts[2] == 1 ? " fault\n" : " faults\n");
}

EStatus Doctor(const TSDoctorOptions& options)
{
    TFindings findings;
    CheckChannel(options, findings);
    CheckFiles(options, findings);
    const TCounts counts = Count(findings);
    const std::string text = options.m_json ? Json(findings) : Text(findings, counts);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return counts[IndexOf(EHealth::Fault)] == 0 ? EStatus::Success : EStatus::Negative;
}

} // namespace

void AddDoctor(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command
        = program.add_subcommand("doctor", "Look at this machine, and tell what is wrong");
    const auto options = std::make_shared<TSDoctorOptions>();
    command->add_flag("--json", options->m_json, "Print a JSON array");
    command->add_option("--state-dir", options->m_stateDirectory, "The agent's directory")
        ->type_name("DIR")
        ->capture_default_str();
    command->callback([options, &common, &status] {
        options->m_test = common.m_test;
        status = Doctor(*options);
    });
}

} // namespace ctl
} // namespace kel
