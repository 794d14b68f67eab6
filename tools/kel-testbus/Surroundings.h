#pragma once

#include <string>
#include <vector>

#include "common/Outcome.h"

namespace kel {
namespace testbus {

/// Gives this process, and all that it starts, a "/tmp" and an "/etc" of their own, in a mount
/// namespace: nobody else sees what is written there, and all of it is gone with the last of them.
///
/// "/tmp" is empty, but for what lies there of the paths in use. "/etc" shows the machine's
/// entries, except for the marker files of a device image. Nothing is changed when it cannot be
/// done.
///
/// @param inUse  paths; of those in "/tmp" the uppermost directory stays, unless an agent has made
///               it.
/// @return failed with the reason when this machine does not allow it.
tools::TCOutcome EnterPrivateDirectories(const std::vector<std::string>& inUse);

/// Whether an agent, or the library in a program, makes entries of this name in "/tmp".
bool IsOfAgents(const std::string& name);

} // namespace testbus
} // namespace kel
