#pragma once

#include <string>
#include <vector>

namespace kel {
namespace testbus {

/// What the command line asks for.
struct TSOptions
{
    std::string m_agent = "reference"; // or "none", or the file of a script
    bool m_test = false;
    bool m_verbose = false;
    std::vector<std::string> m_command;
};

/// What this program ends with when it is the one that fails.
constexpr int kOwnFailure = 125;

/// Runs the command with a bus and an agent of its own. What is wrong goes to standard error.
///
/// @return the exit status.
int RunSession(const TSOptions& options);

} // namespace testbus
} // namespace kel
