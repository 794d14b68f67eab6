#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "ShippedUnit.h"
#include "common/Files.h"
#include "common/Text.h"
#include "doctor/DoctorChannel.h"
#include "doctor/Unit.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kUnitName[] = "kel-agent.service";
constexpr char kSystemd[] = "/run/systemd/system"; // is there when systemd runs the machine
constexpr size_t kMostStatus = 1U << 16;

// Settings with which an agent does not do its work, and why.
struct TSBreaking
{
    const char* m_setting;
    const char* m_why;
};
constexpr TSBreaking kBreaking[]
    = {{"PrivateTmp", "requests are left in the machine's own /tmp"},
       {"DynamicUser", "the bus lets nobody but root be the agent"},
       {"PrivateUsers", "requests have the machine's users as their owners"},
       {"ProtectKernelLogs", "the reports get no kernel log"}};

std::string Program(const TCUnit& unit)
{
    std::string command;
    for (const std::string& word : unit.Words("ExecStart")) {
        command += (command.empty() ? "" : " ") + word;
    }
    return command.substr(std::min(command.find_first_not_of("-@:+!"), command.size()));
}

TSFinding JudgeUnit(const TSInstalledUnit& installed)
{
    const TCUnit& unit = installed.m_unit;
    std::string program;
    if (installed.m_isMasked) {
        return {"unit", EHealth::Fault, installed.m_file + " is masked: systemd starts no agent",
                std::string("systemctl unmask ") + kUnitName};
    }
    if (installed.m_isUnreadable) {
        return {"unit", EHealth::Warning, installed.m_file + " cannot be read by this user",
                "ask again as root"};
    }
    const std::string fault = FaultOfProgram(Program(unit), program);
    if (!fault.empty()) {
        return {"unit", EHealth::Fault, installed.m_file + " starts no agent: " + fault,
                "install kel-agent again, or mend the line ExecStart="};
    }
    for (const TSBreaking& breaking : kBreaking) {
        if (unit.Is(breaking.m_setting)) {
            return {"unit", EHealth::Fault,
                    installed.m_file + ", with its drop-ins, has " + breaking.m_setting
                        + "=yes: " + breaking.m_why,
                    std::string("systemctl edit kel-agent, and take it back: [Service] ")
                        + breaking.m_setting + "=no"};
        }
    }
    if (!installed.m_isEnabled) {
        return {"unit", EHealth::Warning,
                installed.m_file
                    + " is not enabled: an agent runs from the first message on, and what is asked "
                      "for before is not collected",
                "systemctl enable --now kel-agent"};
    }
    return {"unit", EHealth::Good, installed.m_file + " is enabled, and starts " + program, ""};
}

// The settings that are not as they were shipped, how the agent is started apart.
std::vector<std::string> Differences(const TCUnit& unit)
{
    TCUnit shipped;
    shipped.Add(kShippedUnit);
    std::vector<std::string> settings;
    for (const std::string& setting : shipped.Settings()) {
        if (setting != "ExecStart" && unit.Words(setting) != shipped.Words(setting)) {
            settings.push_back(setting);
        }
    }
    return settings;
}

// Whether the kernel lets a process gain no rights; also when it does not tell.
bool HasNoNewPrivileges(unsigned int process)
{
    const std::string status
        = tools::ReadText("/proc/" + std::to_string(process) + "/status", kMostStatus).value_or("");
    return status.find("\nNoNewPrivs:\t0\n") == std::string::npos;
}

TSFinding JudgeHardening(const TSChannelSight& sight, const TCUnit& unit)
{
    const std::vector<std::string> differences = Differences(unit);
    if (!differences.empty()) {
        return {
            "hardening", EHealth::Warning,
            "the unit, with its drop-ins, is not as it was shipped in: "
                + tools::Joined(differences),
            "systemctl cat kel-agent; systemctl revert kel-agent takes back what was not meant"};
    }
    if (sight.HasAgent() && !HasNoNewPrivileges(sight.m_agent.m_process)) {
        return {"hardening", EHealth::Warning,
                "the unit is as it was shipped, but the agent that runs, process "
                    + std::to_string(sight.m_agent.m_process)
                    + ", may gain rights: the unit has not started it",
                "end it, and then: systemctl restart kel-agent"};
    }
    return {"hardening", EHealth::Good, "the unit is as it was shipped", ""};
}

} // namespace

void CheckUnit(const TSChannelSight& sight, TFindings& findings)
{
    const auto good = [&findings](const char* what) {
        findings.push_back({"unit", EHealth::Good, what, ""});
    };
    if (sight.m_isTest) {
        good("the test channel has no unit: kel-agent --test is started by hand");
        return;
    }
    if (access(kSystemd, F_OK) != 0) {
        good("systemd does not run this machine: there is no unit to look at");
        return;
    }
    const TSInstalledUnit installed(kUnitName);
    if (installed.m_file.empty()) {
        findings.push_back({"unit", EHealth::Warning,
                            std::string("systemd knows no ") + kUnitName
                                + ": nobody starts an agent at boot, nor hardens it",
                            "install kel-agent below /usr"});
        return;
    }
    findings.push_back(JudgeUnit(installed));
    if (!installed.m_isMasked && !installed.m_isUnreadable) {
        findings.push_back(JudgeHardening(sight, installed.m_unit));
    }
}

} // namespace ctl
} // namespace kel
