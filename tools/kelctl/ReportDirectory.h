#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ReportView.h"
#include "common/Files.h"
#include "common/Outcome.h"

namespace kel {
namespace ctl {

/// Where the agent keeps its reports: a directory each, whose name is the report's number in ten
/// digits. The agent adds and drops some meanwhile.
class TCReportDirectory
{
public:
    /// How reading a report has ended.
    enum class ERead { Done, Gone, Unreadable };

    static constexpr char kName[] = "reports"; // in the agent's directory of state
    static constexpr char kReportFile[] = "report.json";

    explicit TCReportDirectory(std::string stateDirectory);

    /// The directory of state, and the one of reports in it.
    const std::string& State() const { return m_state; }
    const std::string& Path() const { return m_path; }

    std::string PathOf(const std::string& name) const { return m_path + "/" + name; }

    /// The names of the reports, the oldest first. An agent that has collected nothing yet has no
    /// such directory, and no reports.
    ///
    /// @return failed, with the path, when they cannot be listed.
    tools::TCOutcome List(std::vector<std::string>& names) const;

    /// Reads a report.
    ///
    /// @param report  replaced on success, with its directory among its members.
    ERead Read(const std::string& name, TJson& report) const;

    /// Opens the directory of a report, unless it is a link.
    tools::TCDescriptor Open(const std::string& name) const;

    /// Takes a report away: in one step it is none any more, then its files go. No link is
    /// followed, and nothing that is mounted is entered, whoever else may write there. What a kill
    /// leaves behind is removed by the agent, as its own.
    tools::TCOutcome Remove(const std::string& name) const;

    /// The name of the report with a number: decimal digits, however many zeros they begin with.
    static std::string NameOf(const std::string& number);

    /// Whether a text is the number of a report; the name of one is, too.
    static bool IsNumber(const std::string& text);

    static bool IsReport(const std::string& name);

    /// The number of a report of this name.
    static uint64_t IdOf(const std::string& name);

private:
    const std::string m_state;
    const std::string m_path;
};

} // namespace ctl
} // namespace kel
