// The demonstration failed for everybody but root where nobody may make a namespace: its bus let
// the user own the agent's name, but not send events.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <gmock/gmock.h>

#include "e2e/DemoTest.h"

namespace kel::test {

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;
const fs::path kDrop = "/tmp/kel_NDF";

std::vector<std::string> AgentsEntriesInTmp()
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        if (name.rfind("kel_", 0) == 0 || name.rfind(".kel_", 0) == 0) {
            names.push_back(name);
        }
    }
    return names;
}

// A machine on which nobody may make a namespace, for each of two users.
class DemoWithoutNamespaces : public Demo, public testing::WithParamInterface<uid_t>
{
protected:
    DemoWithoutNamespaces()
    {
        fs::create_directory(m_tools);
        std::ofstream(m_tools / "unshare") << "#!/bin/sh\nexit 1\n";
        fs::permissions(m_tools / "unshare", fs::perms(0755));
        fs::permissions(m_scratch, fs::perms::all);
    }
    ~DemoWithoutNamespaces() override { fs::remove_all(kDrop); }

    void SetUp() override
    {
        if (GetParam() != geteuid() && Run({"test", "-x", KEL_BINARIES "/tools"}).m_exit != 0) {
            GTEST_SKIP() << "there is no other user here, or none who reads this tree";
        }
    }

    TSFinished Run(const std::vector<std::string>& program) const
    {
        std::vector<std::string> command;
        if (GetParam() != geteuid()) {
            const std::string id = std::to_string(GetParam());
            command = {"setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups", "--"};
        }
        command.insert(command.end(), program.begin(), program.end());
        auto environment = Environment(KEL_BINARIES);
        environment["PATH"] = m_tools.string() + ":" + getenv("PATH");
        return RunProgram(command, environment);
    }

    void MakeDrop(uid_t owner) const
    {
        fs::create_directory(kDrop);
        fs::permissions(kDrop, fs::perms(01733));
        ASSERT_EQ(chown(kDrop.c_str(), owner, owner), 0);
    }

private:
    const fs::path m_tools = m_directory + "/tools";
};

TEST_P(DemoWithoutNamespaces, ShowsTheRoadAndLeavesNothing)
{
    const TSFinished ended = Run({KEL_DEMO});

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_EQ(ended.m_errorOutput, "");
    EXPECT_THAT(ended.m_output, StartsWith("  This machine lets user "));
    EXPECT_THAT(ended.m_output, EndsWith("\nResult: OK: a policy accepted, refused, and accepted "
                                         "by a new agent; a report collected.\n"));
    EXPECT_THAT(AgentsEntriesInTmp(), IsEmpty());
    ExpectNothingLeft();
}

TEST_P(DemoWithoutNamespaces, LeavesTheReportOutWhereADropIsInTheWay)
{
    MakeDrop(0);

    const TSFinished ended = Run({KEL_DEMO});

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_THAT(ended.m_output, EndsWith("\nResult: OK in part: a policy accepted, refused, and "
                                         "accepted by a new agent; no report, because "
                                         "/tmp/kel_NDF is there already, of user root.\n"));
    EXPECT_THAT(AgentsEntriesInTmp(), testing::ElementsAre("kel_NDF"));
    ExpectNothingLeft();
}

TEST_P(DemoWithoutNamespaces, TakesNobodysRequests)
{
    MakeDrop(GetParam());
    const fs::path request = kDrop / "proc-main-ALWAYS.log";
    std::ofstream(request) << "NO_PATH";

    const TSFinished ended = Run({KEL_DEMO});

    EXPECT_EQ(ended.m_exit, 1);
    EXPECT_THAT(ended.m_errorOutput, HasSubstr("\nResult: FAILED: requests wait in /tmp/kel_NDF"));
    EXPECT_TRUE(fs::exists(request));
    ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(User, DemoWithoutNamespaces, testing::Values(0, kNobody),
                         [](const auto& user) { return user.param == 0 ? "Root" : "Nobody"; });

} // namespace

} // namespace kel::test
