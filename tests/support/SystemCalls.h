#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>

namespace kel::test {

/// How many system calls the threads of a process begin in a time, as a debugger sees it.
size_t CountSystemCalls(pid_t process, std::chrono::milliseconds time);

/// How often one of its threads goes to sleep in a time, as the kernel counts it.
size_t CountSleeps(pid_t process, std::chrono::milliseconds time);

} // namespace kel::test
