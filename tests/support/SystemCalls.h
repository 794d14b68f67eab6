#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace kel::test {

/// How many system calls the threads of a process begin in a time, as a debugger sees it.
size_t CountSystemCalls(pid_t process, std::chrono::milliseconds time);

/// How many a program of one thread begins from its start to its end. What it prints is not kept.
size_t CountSystemCallsOf(const std::vector<std::string>& command);

/// How often one of its threads goes to sleep in a time, as the kernel counts it.
size_t CountSleeps(pid_t process, std::chrono::milliseconds time);

} // namespace kel::test
