#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kel::test {

/// What some processes hold, together.
struct TSFootprint
{
    size_t m_descriptors = 0;
    size_t m_threads = 0;
    size_t m_kibibytes = 0; // of memory
};

TSFootprint FootprintOf(const std::vector<pid_t>& processes);

/// Prints what the processes held before and hold now. False when that is more: any descriptor, any
/// thread, or more memory than an allocator takes for itself. Waits for what is still being closed.
bool HasNotGrown(const std::string& name, const TSFootprint& before,
                 const std::vector<pid_t>& processes);

} // namespace kel::test
