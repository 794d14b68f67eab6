// Files with odd names stayed in the drop: the agent looked at each of them once a second,
// remembered it, and wrote a line about it.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Stranger.h"

namespace kel::test {

namespace {

constexpr int kMany = 50'000;

// The most that the process has had, in KiB.
long Memory(const ChildProcess& process)
{
    const std::string status = ReadFile("/proc/" + std::to_string(process.Id()) + "/status");
    return std::stol(status.substr(status.find("VmHWM:") + 6));
}

} // namespace

TEST_F(ReportRoad, OfManyOddNamesNothingIsLeftButAFewLines)
{
    const auto agent = StartCollector();
    File(kGood);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    const long before = Memory(*agent);
    const Stranger stranger([] {
        for (int i = 0; i < kMany; ++i) {
            const std::string name = kDrop / ("odd-" + std::to_string(i));
            if (i % 3 == 0) {
                static_cast<void>(symlink("/nowhere", name.c_str()) == 0);
            } else {
                close(open(name.c_str(), O_WRONLY | O_CREAT, 0666));
            }
        }
    });

    File("proc-late-ALWAYS.log");

    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    ASSERT_TRUE(WaitUntil([] { return NamesIn(kDrop).empty(); }, kCollected));
    EXPECT_LT(Memory(*agent) - before, 10'000);
    const std::string log = agent->ErrorOutput();
    EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 10) << log;
    agent->Signal(SIGTERM);
    ASSERT_EQ(agent->Wait(), 0);
    EXPECT_EQ(CountOf(agent->ErrorOutput(), std::to_string(kMany - 1) + " more of user "), 1U)
        << agent->ErrorOutput();
}

} // namespace kel::test
