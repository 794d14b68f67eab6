// Each artefact had the agent copy the page tables of all its memory, which grows with the largest
// message of a stranger: a crowd's requests with artefacts waited for that.

#include <signal.h>

#include <fstream>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

namespace fs = std::filesystem;

class ReadersOfALargeAgent : public ReportRoad
{
protected:
    static constexpr char kRestarted[] = "the process that starts readers of artefacts has ended";

    // A number in /proc/PID/status.
    static long Read(const fs::path& status, const std::string& name)
    {
        std::ifstream file(status);
        for (std::string word; file >> word;) {
            if (word == name + ":") {
                long number = -1;
                file >> number;
                return number;
            }
        }
        return -1;
    }
    static fs::path StatusOf(pid_t process)
    {
        return "/proc/" + std::to_string(process) + "/status";
    }

    TSReport Collect(const ChildProcess& agent, const std::string& name,
                     const std::string& artefact) const
    {
        const size_t before = Ids().size();
        File(name, artefact);
        EXPECT_TRUE(WaitForReports(before + 1)) << agent.ErrorOutput();
        return Reports().at(before);
    }
};

TEST_F(ReadersOfALargeAgent, HaveNoneOfItsMemory)
{
    constexpr long kLarge = 20 << 10; // KiB, of the message
    const auto agent = StartCollector();
    WriteFile(m_scratch / "large", std::string(30U << 20U, '<'));
    const ChildProcess sender({KEL_CTL, "set-policy", m_scratch / "large"});
    ASSERT_TRUE(Says(*agent, " bytes refused: too large\n")) << agent->ErrorOutput();
    const long agents = Read(StatusOf(agent->Id()), "RssAnon");
    ASSERT_GT(agents, kLarge);

    const TSReport report = Collect(*agent, kGood, "/proc/self/status");

    const fs::path status = report.m_directory / "artefact";
    EXPECT_EQ(Read(status, "PPid"), ReaderServerOf(agent->Id()));
    EXPECT_GT(Read(status, "RssAnon"), 0);
    EXPECT_LT(Read(status, "RssAnon"), agents - kLarge);
}

TEST_F(ReadersOfALargeAgent, ComeFromAnotherProcessWhenTheirsIsKilled)
{
    const auto agent = StartCollector();
    const pid_t first = ReaderServerOf(agent->Id());
    ASSERT_GT(first, 0);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
        kill(first, signal);
    }
    EXPECT_EQ(Collect(*agent, "r-1-ALWAYS.log", "/etc/hostname")["/artefact/file"], "artefact");
    EXPECT_EQ(ReaderServerOf(agent->Id()), first) << "it ends with the agent alone";

    kill(first, SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return Read(StatusOf(first), "VmSize") < 0; }));
    for (const char* const name : {"r-2-ALWAYS.log", "r-3-ALWAYS.log"}) {
        EXPECT_EQ(Collect(*agent, name, "/etc/hostname")["/artefact/file"], "artefact");
    }

    EXPECT_NE(ReaderServerOf(agent->Id()), first);
    EXPECT_EQ(CountOf(agent->ErrorOutput(), kRestarted), 1U) << agent->ErrorOutput();
}

TEST_F(ReadersOfALargeAgent, LeaveNoProcessWhenItEnds)
{
    for (const int signal : {SIGTERM, SIGKILL}) {
        const auto agent = StartCollector();
        const pid_t server = ReaderServerOf(agent->Id());
        ASSERT_GT(server, 0);

        agent->Signal(signal);
        agent->Wait();

        EXPECT_TRUE(WaitUntil([&] { return Read(StatusOf(server), "VmSize") < 0; }));
    }
}

} // namespace kel::test
