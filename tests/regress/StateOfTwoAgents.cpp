// Two agents with the same state, one of the test channel, could both serve no request any more.

#include <signal.h>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

// Each has what the other needs as soon as the one has the drop directories and the other the
// state.
TEST_F(ReportRoad, BesideOneOfTheTestChannelWithTheSameStateNoRequestWaitsForEver)
{
    const auto agent = StartCollector();
    const auto tester = StartAgent({"--test"});
    ASSERT_TRUE(Says(*tester, "kel-agent: /tmp/.kel_NDF.taken cannot be used: another agent "
                              "uses it\n"))
        << tester->ErrorOutput();

    agent->Signal(SIGSTOP);
    RequestSlot("proc", "slot");
    // Only the tester can have it now; it need not.
    WaitUntil([] { return Slot().empty(); }, std::chrono::milliseconds(1500));
    agent->Signal(SIGCONT);
    for (int i = 0; i < 10; ++i) {
        File("proc-" + std::to_string(i) + "-ALWAYS.log");
    }

    EXPECT_TRUE(WaitForReports(11)) << agent->ErrorOutput() << tester->ErrorOutput();
    LetItLook();
    EXPECT_EQ(Ids().size(), 13U);
}

} // namespace kel::test
