// A request whose writer went on and on was never collected, and had the agent look 20 times a
// second.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Stranger.h"

namespace kel::test {

TEST_F(ReportRoad, OfWritersWithoutEndTheRequestsAreCollectedAllTheSame)
{
    constexpr size_t kWriters = 12;
    const auto agent = StartCollector();
    int writers[kWriters] = {};
    const Stranger stranger(
        [&] {
            for (size_t i = 0; i < kWriters; ++i) {
                if (writers[i] == 0) {
                    const std::string name = kDrop / ("a-" + std::to_string(i) + "-ALWAYS.log");
                    writers[i] = open(name.c_str(), O_WRONLY | O_CREAT, 0666);
                    static_cast<void>(write(writers[i], "/nowhere", 8) == 8);
                }
                futimens(writers[i], nullptr);
            }
            usleep(10'000);
        },
        true);

    ASSERT_TRUE(WaitForReports(kWriters)) << agent->ErrorOutput();

    for (const TSReport& report : Reports()) {
        EXPECT_EQ(report["/request/upload-path"], "/nowhere");
    }
    EXPECT_LE(CountOf(agent->ErrorOutput(), "process information: "), kWriters)
        << "nobody is asked as long as none can be served";
}

} // namespace kel::test
