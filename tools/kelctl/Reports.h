#pragma once

#include <string>
#include <vector>

#include "Commands.h"
#include "ReportDirectory.h"
#include "ReportSelection.h"

namespace kel {
namespace ctl {

/// What "kelctl reports" was asked for.
struct TSReportsOptions
{
    std::vector<std::string> m_ids; // of those that are asked for; empty for all
    TSReportSelection m_selection;
    std::string m_stateDirectory;
    std::string m_page; // the file; empty for none
    bool m_json = false;
    bool m_reverse = false;
    bool m_follow = false;
    bool m_remove = false;
};

/// Prints the reports, and then each new one, until a signal comes or nobody reads the output.
EStatus FollowReports(const TSReportsOptions& options);

/// Writes a page of these reports, of which those that are not selected are left out.
///
/// @param names  the oldest first.
EStatus WriteReportPage(const TSReportsOptions& options, const std::vector<std::string>& names);

/// Reads one that is to be shown. One that cannot be read is told of.
///
/// @param allRead  set to false when it cannot.
/// @return whether there is one, and it is selected.
bool ReadSelected(const TSReportsOptions& options, const TCReportDirectory& directory,
                  const std::string& name, TJson& report, bool& allRead);

} // namespace ctl
} // namespace kel
