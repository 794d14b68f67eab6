#include "soak/Footprint.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/WaitUntil.h"

namespace kel::test {

namespace {

// A leak of a hundred bytes per round or restart is far above it in an hour.
constexpr size_t kAllocatorsShare = 4096; // KiB per process

// A sanitizer keeps what has been freed, and an emulator what it has translated.
#if defined(__SANITIZE_ADDRESS__) || defined(KEL_EMULATED)
constexpr bool kIsMemoryJudged = false;
#elif defined(__has_feature)
constexpr bool kIsMemoryJudged = !__has_feature(thread_sanitizer);
#else
constexpr bool kIsMemoryJudged = true;
#endif

size_t CountEntries(const std::string& directory)
{
    std::error_code gone;
    const std::filesystem::directory_iterator entries(directory, gone);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

size_t ResidentKibibytes(const std::string& status)
{
    std::ifstream lines(status);
    for (std::string word; lines >> word;) {
        if (word == "VmRSS:") {
            size_t kibibytes = 0;
            lines >> kibibytes;
            return kibibytes;
        }
    }
    return 0;
}

} // namespace

TSFootprint FootprintOf(const std::vector<pid_t>& processes)
{
    TSFootprint sum;
    for (const pid_t process : processes) {
        const std::string directory = "/proc/" + std::to_string(process);
        sum.m_descriptors += CountEntries(directory + "/fd");
        sum.m_threads += CountEntries(directory + "/task");
        sum.m_kibibytes += ResidentKibibytes(directory + "/status");
    }
    return sum;
}

bool HasNotGrown(const std::string& name, const TSFootprint& before,
                 const std::vector<pid_t>& processes)
{
    TSFootprint after;
    bool hasNotGrown = WaitUntil([&] {
        after = FootprintOf(processes);
        return after.m_descriptors <= before.m_descriptors && after.m_threads <= before.m_threads;
    });
    if (kIsMemoryJudged
        && after.m_kibibytes > before.m_kibibytes + kAllocatorsShare * processes.size()) {
        hasNotGrown = false;
    }
    std::printf("  %-16s %4zu -> %4zu descriptors, %4zu -> %4zu threads, %7zu -> %7zu KiB%s\n",
                name.c_str(), before.m_descriptors, after.m_descriptors, before.m_threads,
                after.m_threads, before.m_kibibytes, after.m_kibibytes,
                hasNotGrown ? "" : ": HAS GROWN");
    return hasNotGrown;
}

} // namespace kel::test
