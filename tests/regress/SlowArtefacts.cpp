// A file that never answers, or trickles, kept the reports of all other users waiting.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Threads.h"

namespace kel::test {

namespace fs = std::filesystem;

class SlowArtefacts : public ReportRoad
{
protected:
    static constexpr uid_t kStranger = 65533;

    SlowArtefacts()
    {
        WriteFile(m_scratch / "large", std::string(64U << 20U, 'x'));
        WriteFile(m_scratch / "small", "text");
    }

    // Of a process that is the stranger's.
    static bool IsStrangers(pid_t process)
    {
        std::ifstream list("/proc/" + std::to_string(process) + "/status");
        for (std::string word; list >> word;) {
            if (word == "Uid:") {
                uid_t user = 0;
                return list >> user && user == kStranger;
            }
        }
        return false;
    }

    // As if their files did not answer.
    static void StopStrangersReaders(const ChildProcess& agent)
    {
        for (const pid_t child : ReadersOf(agent.Id())) {
            if (IsStrangers(child)) {
                kill(child, SIGSTOP);
            }
        }
    }

    void FileStrangers(const std::string& name) { File(name, m_scratch / "large", kStranger); }

    std::string ReasonOf(size_t report) const { return Reports().at(report)["/artefact/reason"]; }
};

TEST_F(SlowArtefacts, AreGivenUp)
{
    const auto agent = StartCollector();
    const Repeat stop([&] { StopStrangersReaders(*agent); });

    FileStrangers("s-1-ALWAYS.log");
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(ReasonOf(0), "its reading takes too long");

    // Its reader is there until it ends itself.
    FileStrangers("s-2-ALWAYS.log");
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    EXPECT_EQ(ReasonOf(1), "the reading of another file of user 65533 cannot be ended");
    EXPECT_TRUE(WaitUntil([&] { return ReadersOf(agent->Id()).empty(); }));
}

TEST_F(SlowArtefacts, KeepTheirUserWaitingAlone)
{
    const auto agent = StartCollector();
    {
        const Repeat trickle([&] {
            StopStrangersReaders(*agent);
            usleep(300'000);
            for (const pid_t child : ReadersOf(agent->Id())) {
                kill(child, SIGCONT);
            }
        });
        FileStrangers("s-1-ALWAYS.log");
        ASSERT_TRUE(WaitUntil([&] { return !ReadersOf(agent->Id()).empty(); }));
        FileStrangers("s-2-ALWAYS.log");
        File("r-1-ALWAYS.log", m_scratch / "small");

        ASSERT_TRUE(Says(*agent, ": r-1-ALWAYS.log in /tmp/kel_NDF collected\n"));
        EXPECT_EQ(Names(), TNames{"r-1-ALWAYS.log"});
        EXPECT_EQ(Reports().at(0)["/artefact/file"], "artefact");
    }
    ASSERT_TRUE(WaitForReports(3)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(1).Name(), "s-1-ALWAYS.log");
    EXPECT_EQ(Reports().at(2)["/artefact/file"], "artefact");
}

TEST_F(SlowArtefacts, WaitForTheNextAgentWhenThisOneEnds)
{
    auto agent = StartCollector();
    {
        const Repeat stop([&] { StopStrangersReaders(*agent); });
        FileStrangers("s-1-ALWAYS.log");
        ASSERT_TRUE(WaitUntil([&] { return !ReadersOf(agent->Id()).empty(); }));
        agent->Signal(SIGTERM);
        EXPECT_EQ(agent->Wait(), 0);
    }
    EXPECT_EQ(Names(), TNames{});

    agent = StartCollector();
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/artefact/file"], "artefact");
    EXPECT_EQ(NamesIn(m_reports), Ids()) << "an unfinished one is left";
}

} // namespace kel::test
