#pragma once

#include <CLI/CLI.hpp>

namespace kel {
namespace ctl {

/// The program's exit statuses. They are an interface: scripts look at them.
enum class EStatus { Accepted = 0, Refused = 1, WrongUsage = 2, NoAnswer = 3 };

/// A subcommand adds itself to the program, in a source file of its own. When it is the one that
/// was called, it runs after parsing and sets the status; a failure is told in one line on
/// standard error.
void AddSetPolicy(CLI::App& program, EStatus& status);

} // namespace ctl
} // namespace kel
