#pragma once

#include <chrono>
#include <functional>

namespace kel::test {

/// How long a test waits for a fact that must come true. Long, because the machine may be loaded;
/// a passing test never waits for it.
constexpr std::chrono::seconds kDeadline(30);

/// Waits until the predicate holds; false when it did not in time.
bool WaitUntil(const std::function<bool()>& predicate,
               std::chrono::milliseconds deadline = kDeadline);

/// What runs in this process, to show that nothing was left behind.
size_t CountThreads();
size_t CountDescriptors();

} // namespace kel::test
