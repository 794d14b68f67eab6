#pragma once

#include <string>
#include <vector>

#include "common/Outcome.h"

namespace kel {
namespace tools {

/// What is new in the kernel log.
struct TSKernelLines
{
    std::vector<std::string> m_lines;
    bool m_gap = false;    // lines may be missing before them: the last known one has scrolled out
    bool m_isMute = false; // "dmesg" has given no line at all, neither old nor new
};

/// DumpKernelLog(), with nobody else's file in the place of its snapshot in /tmp: what is there is
/// removed first, a directory with all that is in it, and the snapshot itself afterwards.
///
/// Threads: one at a time.
///
/// @param read  replaced; without a line when there is no new one, or on failure.
/// @return failed when the snapshot has no place.
TCOutcome ReadKernelLog(TSKernelLines& read);

} // namespace tools
} // namespace kel
