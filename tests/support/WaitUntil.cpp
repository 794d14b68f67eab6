#include "support/WaitUntil.h"

#include <filesystem>
#include <iterator>
#include <thread>

namespace kel::test {

namespace {

size_t CountEntries(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

} // namespace

bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

size_t CountThreads() { return CountEntries("/proc/self/task"); }

size_t CountDescriptors() { return CountEntries("/proc/self/fd"); }

} // namespace kel::test
