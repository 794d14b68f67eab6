#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "Agent.h"
#include "Bus.h"
#include "ExitStatus.h"
#include "ReportView.h"

namespace kel {
namespace ctl {

/// The applications that an agent knows: what it tells of each, and what the bus and the kernel
/// tell this user of its process.
///
/// All of it is strangers' text, and printed as such.
class TCClients
{
public:
    /// Asks the agent, which runs, for all it knows.
    ///
    /// @return Success; otherwise the status to end with, and the reason.
    EStatus Ask(GDBusConnection* connection, const TSChannel& channel, const TSAgent& agent,
                std::string& reason);

    /// A column of the table for each thing that is told of one.
    typedef std::array<std::string, 13> TRow;
    static const TRow kHead;
    std::vector<TRow> Rows() const;

    /// The rows below their head, as wide as they need.
    std::string Table() const;

    /// An array of objects, as JSON in ASCII on one line.
    std::string Json() const;

private:
    TJson m_clients = TJson::array();
};

/// The applications in an agent's answer to AskClients: an object with a member for each, by unique
/// name. Nothing when the answer tells of none.
std::optional<TJson> ClientsIn(const std::optional<std::string>& answer);

/// What there is to say of an agent that runs: the rest of a line, and the members of an object of
/// JSON, without its braces.
std::string TextOf(const TSAgent& agent);
std::string JsonOf(const TSAgent& agent);

/// Shows the agent and its applications as they change, until SIGINT, SIGTERM, or the end of the
/// bus or of the reader: a table that is drawn again in its place, or, when the output is no
/// terminal, a line for each change.
EStatus WatchClients(const TSChannel& channel, bool json);

} // namespace ctl
} // namespace kel
