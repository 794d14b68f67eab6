// A file that never answers stopped the agent for as long as its file system liked.

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

    SlowArtefacts() { WriteFile(m_scratch / "large", std::string(64U << 20U, 'x')); }

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

    // The report of the stranger's request for the large file, whose reader is stopped meanwhile:
    // as if the file did not answer.
    TSReport ReportOfOneThatDoesNotAnswer(const ChildProcess& agent, const std::string& name)
    {
        const size_t before = Ids().size();
        const Repeat stop([&] {
            for (const pid_t child : ReadersOf(agent.Id())) {
                if (IsStrangers(child)) {
                    kill(child, SIGSTOP);
                }
            }
        });
        File(name, m_scratch / "large", kStranger);
        EXPECT_TRUE(WaitForReports(before + 1)) << agent.ErrorOutput();
        return Reports().at(before);
    }
};

TEST_F(SlowArtefacts, AreGivenUpAndTheirUsersOthersAfterSome)
{
    const auto agent = StartCollector();

    EXPECT_EQ(ReportOfOneThatDoesNotAnswer(*agent, "s-0-ALWAYS.log")["/artefact/reason"],
              "its reading takes too long");
    File("r-1-ALWAYS.log", m_scratch / "large");
    ASSERT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(1)["/artefact/file"], "artefact");
    EXPECT_TRUE(WaitUntil([&] { return ReadersOf(agent->Id()).empty(); }));

    // Another's do not wait for them for good.
    std::string reason;
    for (int i = 1; i < 20 && reason != "other files of user 65533 have taken too long"; ++i) {
        reason = ReportOfOneThatDoesNotAnswer(*agent, "s-" + std::to_string(i)
                                                          + "-ALWAYS.log")["/artefact/reason"];
    }
    EXPECT_EQ(reason, "other files of user 65533 have taken too long");
    File("r-2-ALWAYS.log", m_scratch / "large");
    ASSERT_TRUE(Says(*agent, ": r-2-ALWAYS.log in /tmp/kel_NDF collected\n"));
    EXPECT_EQ(Reports().back()["/artefact/file"], "artefact");
}

} // namespace kel::test
