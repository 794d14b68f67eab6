#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ExitStatus.h"
#include "ReportDirectory.h"

namespace kel {
namespace ctl {

/// What the report of a request can be known by.
struct TSAwaited
{
    std::string m_source; // the directory or key where it was left
    std::string m_name;   // of its file, or the key's value, as the library has cut it
};

/// Waits until the agent has made a report of a request. Made before the request is left: what is
/// there then is not its report.
class TCReportWait
{
public:
    /// @param stateDirectory  the agent's.
    /// @param timeout         in seconds; 0 for none.
    TCReportWait(const std::string& stateDirectory, double timeout);

    /// Whether this user can see reports there; otherwise with one line on standard error.
    bool Begin();

    /// Prints the report's number.
    ///
    /// @return the status to end with.
    EStatus Run(const TSAwaited& awaited);

private:
    std::optional<uint64_t> m_Find(const TSAwaited& awaited);
    bool m_Is(const std::string& name, const TSAwaited& awaited) const;

    const TCReportDirectory m_directory;
    const double m_timeout;
    const std::string m_since; // as a report tells when its request was left
    uint64_t m_known = 0;      // the newest report that need not be looked at any more
};

} // namespace ctl
} // namespace kel
