// A test that had seen the report did not see the line that the agent had written before: it was in
// the pipe still, until the thread that reads it had a turn.

#include <unistd.h>

#include <chrono>
#include <filesystem>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"

namespace kel::test {

TEST(LinesOfAChildProcess, AreSeenAsSoonAsTheyAreWritten)
{
    const std::string seen = "/tmp/seen." + std::to_string(getpid());
    ChildProcess child(
        {"sh", "-c", "while read -r x; do echo $x >&2; echo $x >>" + seen + "; done"});
    std::error_code none;
    for (size_t bytes = 2; bytes <= 1000; bytes += 2) {
        child.Write("x\n");
        const auto end = std::chrono::steady_clock::now() + kDeadline;
        while (std::filesystem::file_size(seen, none) != bytes) { // without a pause for the thread
            ASSERT_LT(std::chrono::steady_clock::now(), end);
        }
        ASSERT_EQ(child.ErrorOutput().size(), bytes);
    }
    std::filesystem::remove(seen);
}

} // namespace kel::test
