#pragma once

#include <string>
#include <vector>

namespace kel {
namespace tools {

/// DumpKernelLog(), with nobody else's file in the place of its snapshot in /tmp: what is there is
/// removed first, and the snapshot itself afterwards.
///
/// @param lines   replaced by the new lines on success; untouched otherwise.
/// @param reason  replaced by one line when the snapshot has no place; untouched otherwise.
/// @return true when there are new lines.
bool ReadKernelLog(std::vector<std::string>& lines, std::string& reason);

} // namespace tools
} // namespace kel
