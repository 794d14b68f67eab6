// A test ended with std::terminate when a process ended between the opening of its file in /proc
// and the reading of it: "basic_filebuf::underflow error reading the file: No such process".

#include <gtest/gtest.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

TEST(FilesOfAnEndedProcess, AreEmpty)
{
    EXPECT_EQ(ReadFile("/"), ""); // opens, and refuses to be read, as such a file does
    EXPECT_EQ(ReadFile("/proc/self/none"), "");
    EXPECT_NE(ReadFile("/proc/self/status"), "");
}

} // namespace kel::test
