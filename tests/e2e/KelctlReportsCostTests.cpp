// What listing many reports costs, and waiting for one.

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"
#include "support/SystemCalls.h"

namespace kel::test {

using namespace std::chrono_literals;

typedef KelctlTest KelctlReportsCost;

TEST_F(KelctlReportsCost, AReportMoreIsOpenedReadAndClosed)
{
    const auto calls = [] {
        return CountSystemCallsOf({KEL_CTL, "reports", "--state-dir", kState});
    };
    const auto write = [](int from, int to) {
        for (int id = from; id < to; ++id) {
            WriteReport(std::to_string(1000000000 + id), WholeReport(id));
        }
    };
    write(0, 100);
    const size_t few = calls();
    write(100, 600);
    const size_t many = calls();

    EXPECT_GE(many - few, 500U * 4) << "they were not read";
    EXPECT_LT(many - few, 500U * 5);
}

TEST_F(KelctlReportsCost, OneThatFollowsIsWokenByNothing)
{
    WriteReport("0000000001", WholeReport(1));
    ChildProcess kelctl({KEL_CTL, "reports", "--follow", "--state-dir", kState});
    ASSERT_TRUE(kelctl.WaitForOutput("/0000000001\n")) << kelctl.ErrorOutput();
    ASSERT_TRUE(WaitUntil([&] { return CountSleeps(kelctl.Id(), 1s) == 0; }));

    EXPECT_EQ(CountSystemCalls(kelctl.Id(), 3s), 0U);
    WriteReport(".new-1", WholeReport(2));
    std::filesystem::rename(kReports / ".new-1", kReports / "0000000002");
    EXPECT_TRUE(kelctl.WaitForOutput("/0000000002\n")) << "it was not waiting";
}

} // namespace kel::test
