// Who had left thousands of requests made everybody else wait for all of their reports.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Stranger.h"

namespace kel::test {

TEST_F(ReportRoad, BehindAFloodOfAnotherUserARequestComesSoon)
{
    Sandbox::NeedOtherUsers();
    constexpr int kFlood = 5000;
    StartCollector(); // makes the directories
    const Stranger stranger([] {
        for (int i = 0; i < kFlood; ++i) {
            const std::string name = kDrop / ("a-" + std::to_string(i) + "-ALWAYS.log");
            const int file = open(name.c_str(), O_WRONLY | O_CREAT, 0666);
            static_cast<void>(write(file, "NO_PATH", 7) == 7);
            close(file);
        }
    });
    const auto agent = StartCollector();
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();

    Request(ALWAYS, "proc", "good");

    ASSERT_TRUE(Says(*agent, std::string(kGood) + " in /tmp/kel_NDF collected\n"))
        << agent->ErrorOutput();
    const TNames ids = Ids();
    EXPECT_LT(ids.size(), 2000U);
    EXPECT_TRUE(Says(*agent, " removed: too many requests of its user wait\n"))
        << agent->ErrorOutput();
}

} // namespace kel::test
