// kelctl report --wait, with the real agent.

#include <signal.h>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

using testing::EndsWith;

class ReportWait : public ReportRoad
{
protected:
    TNames Command(const TNames& options) const
    {
        TNames command{KEL_CTL, "report", "--wait", "--state-dir", m_stateDir};
        command.insert(command.end(), options.begin(), options.end());
        return command;
    }

    TSFinished Wait(const TNames& options) const { return RunProgram(Command(options)); }
};

TEST_F(ReportWait, EndsWithTheNumberOfItsOwnReport)
{
    const std::unique_ptr<ChildProcess> agent = StartCollector();
    File(kGood);
    ASSERT_TRUE(WaitForReports(1));

    const TSFinished file = Wait({"--process", "player", "--thread", "decoder"});
    const TSFinished again = Wait({"--process", "player", "--thread", "decoder"});
    const TSFinished reboot = Wait({"--process", std::string(300, 'p'), "--reboot"});
    const TSFinished slot = Wait({"--process", "slotted", "--slot"});

    int number = 2;
    for (const TSFinished& ended : {file, again, reboot, slot}) {
        EXPECT_EQ(ended.m_exit, 0) << Text(ended);
        EXPECT_THAT(ended.m_output, EndsWith("\nreport " + std::to_string(number) + "\n"));
        ++number;
    }
    EXPECT_EQ(Reports().back().Name(), "slotted|slotted|0");
}

TEST_F(ReportWait, AnotherReportIsNotItsOwn)
{
    const std::unique_ptr<ChildProcess> agent = StartCollector();
    agent->Signal(SIGSTOP);
    ChildProcess waiting(Command({"--process", "player", "--mode", "once-only"}));
    ASSERT_TRUE(waiting.WaitForOutput("uploadPath = NO_PATH\n")) << waiting.ErrorOutput();
    File("player-decoder-ONCE_ONLY.log");
    File("player-player-ALWAYS.log");

    agent->Signal(SIGCONT);

    EXPECT_EQ(waiting.Wait(), 0) << waiting.ErrorOutput();
    ASSERT_TRUE(WaitForReports(3));
    for (const TSReport& report : Reports()) {
        const bool isOwn = report.Name() == "player-player-ONCE_ONLY.log";
        EXPECT_EQ(isOwn,
                  waiting.Output().find("\nreport " + report["/id"] + "\n") != std::string::npos)
            << report.Name();
    }
}

TEST_F(ReportWait, TheTimeEndsIt)
{
    const std::unique_ptr<ChildProcess> agent = StartCollector();
    agent->Signal(SIGTERM);
    ASSERT_EQ(agent->Wait(), 0);

    const TSFinished ended = Wait({"--process", "player", "--timeout", "0.2"});

    EXPECT_EQ(ended.m_exit, 4) << Text(ended);
    EXPECT_EQ(ended.m_errorOutput, "kelctl: the time is over, and the request is no report yet\n");
    EXPECT_EQ(NamesIn(kDrop), TNames{"player-player-POLICY.log"}); // and stays
}

TEST_F(ReportWait, NothingIsLeftWhereReportsCannotBeSeen)
{
    const std::unique_ptr<ChildProcess> agent = StartCollector();

    const TSFinished ended
        = RunProgram({KEL_CTL, "report", "--process", "a", "--wait", "--state-dir", "/tmp/none"});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_EQ(ended.m_errorOutput, "kelctl: the report could not be waited for: /tmp/none: No such "
                                   "file or directory\n");
}

} // namespace kel::test
