// kelctl reports --follow printed a report twice that came while it looked: it saw the report, and
// then took the event of its coming for another one of that number.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"

namespace kel::test {

namespace fs = std::filesystem;

TEST_F(KelctlTest, AReportThatComesDuringALookIsToldOnce)
{
    const auto nameOf = [](int id) { return "0000000" + std::to_string(id); };
    const auto told = [](const ChildProcess& kelctl) { return Lines(kelctl.Output()).size(); };
    constexpr int kBefore = 300; // a look at them takes a while
    constexpr int kAll = 600;
    int id = 100;
    for (; id < 100 + kBefore; ++id) {
        WriteReport(nameOf(id), WholeReport(id));
    }
    ChildProcess kelctl({KEL_CTL, "reports", "--follow", "--json", "--state-dir", kState});
    ASSERT_TRUE(WaitUntil([&] { return told(kelctl) == kBefore; })) << kelctl.ErrorOutput();

    for (; id < 100 + kAll; ++id) {
        WriteReport(".new-1", WholeReport(id));
        fs::rename(kReports / ".new-1", kReports / nameOf(id));
    }

    ASSERT_TRUE(kelctl.WaitForOutput("\"id\":" + std::to_string(id - 1)));
    WriteReport(".new-1", WholeReport(id)); // a look after the last event
    fs::rename(kReports / ".new-1", kReports / nameOf(id));
    ASSERT_TRUE(kelctl.WaitForOutput("\"id\":" + std::to_string(id)));
    kelctl.Signal(SIGTERM);
    EXPECT_EQ(kelctl.Wait(), 0);
    EXPECT_EQ(told(kelctl), kAll + 1U);
}

} // namespace kel::test
