// What kel-testbus gives its command, and what it leaves: with a mount namespace and without.

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "e2e/TestbusTest.h"

namespace kel::test {

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;
const fs::path kDrop = "/tmp/kel_NDF";
const std::string kNoNamespace
    = "kel-testbus: no mount namespace here (Operation not permitted): the command has the "
      "machine's /tmp and /etc\n";

// For each of two users, on a machine where each may make a namespace, and on one where nobody may.
struct TSMachine
{
    const char* m_name;
    uid_t m_user;
    bool m_hasNamespaces;
};

class Surroundings : public Testbus, public testing::WithParamInterface<TSMachine>
{
protected:
    ~Surroundings() override { fs::remove_all(kDrop); }

    void SetUp() override
    {
        const std::string user = std::to_string(GetParam().m_user);
        if (GetParam().m_user != geteuid()) {
            m_prefix = {"setpriv", "--reuid=" + user, "--regid=" + user, "--clear-groups", "--"};
            if (RunProgram(With({"test", "-x", KEL_TESTBUS})).m_exit != 0) {
                GTEST_SKIP() << "there is no other user here, or none who reads this tree";
            }
        }
        if (!GetParam().m_hasNamespaces) {
            m_prefix.push_back(KEL_NO_NAMESPACES);
        }
    }

    TWords With(const TWords& command) const
    {
        TWords words = m_prefix;
        words.insert(words.end(), command.begin(), command.end());
        return words;
    }

    // The lines of its error output that are not the one about the machine.
    TSFinished RunHere(const TWords& options, const std::string& text) const
    {
        TSFinished ended = RunProgram(With(Line(options, {"sh", "-c", text, "sh", m_directory})));
        if (!GetParam().m_hasNamespaces) {
            EXPECT_THAT(ended.m_errorOutput, StartsWith(kNoNamespace));
            ended.m_errorOutput.erase(0, kNoNamespace.size());
        }
        return ended;
    }

private:
    TWords m_prefix;
};

} // namespace

TEST_P(Surroundings, TheCommandIsWhoHasStartedIt)
{
    EXPECT_EQ(RunHere({"--agent", "none"}, "id -u").m_output,
              std::to_string(GetParam().m_user) + "\n");
}

TEST_P(Surroundings, TheReferenceAgentAndItsReportsLeaveNothing)
{
    const TSFinished ended
        = RunHere({}, "echo '<policy/>' | " KEL_CTL " set-policy -\n" KEL_CTL
                      " report --process mine >/dev/null 2>&1\n"
                      "until grep -q ' collected$' $KEL_TESTBUS_LOG; do sleep 0.02; done\n" KEL_CTL
                      " reports --state-dir $KEL_TESTBUS_STATE | grep -c mine");

    EXPECT_EQ(Text(ended), Text({0, "0 (accepted)\n1\n", ""}));
    ExpectNothingLeft();
}

TEST_P(Surroundings, AScriptedAgentLeavesNothing)
{
    WriteScript("on set-policy handled 1\n");

    const TSFinished ended
        = RunHere({"--agent", m_script}, "echo '<policy/>' | " KEL_CTL " set-policy - 2>/dev/null");

    EXPECT_EQ(Text(ended), Text({1, "1 (not well-formed)\n", ""}));
    ExpectNothingLeft();
}

TEST_P(Surroundings, WhatTheCommandHasStartedEndsWithIt)
{
    const TSFinished ended
        = RunHere({"--agent", "none"}, "sleep 1000 & setsid sleep 1000 & \n"
                                       "(trap '' TERM; exec setsid sleep 1000) </dev/null "
                                       ">/dev/null 2>&1 & \n"
                                       "echo done");

    EXPECT_EQ(Text(ended), Text({0, "done\n", ""}));
    ExpectNothingLeft();
}

TEST_P(Surroundings, SignalsReachTheCommandAndNothingIsLeft)
{
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        const std::string number = std::to_string(signal);
        ChildProcess testbus(
            With(Line({}, {"sh", "-c",
                           "trap 'echo told; exit 9' " + number
                               + "; echo started; while :; do sleep 0.02; done"})));
        ASSERT_TRUE(testbus.WaitForOutput("started\n")) << testbus.ErrorOutput();

        testbus.Signal(signal);

        EXPECT_EQ(testbus.Wait(), 9);
        EXPECT_EQ(testbus.Output(), "started\ntold\n");
        ExpectNothingLeft();
    }
}

TEST_P(Surroundings, ACommandThatASignalEndsIsToldByItsStatus)
{
    ChildProcess testbus(With(Line({}, {"sh", "-c", "echo started; exec sleep 1000"})));
    ASSERT_TRUE(testbus.WaitForOutput("started\n")) << testbus.ErrorOutput();

    testbus.Signal(SIGTERM);

    EXPECT_EQ(testbus.Wait(), 128 + SIGTERM);
    ExpectNothingLeft();
}

TEST_P(Surroundings, ACommandThatTakesNoNoticeIsKilledByTheSecondSignal)
{
    ChildProcess testbus(
        With(Line({"--agent", "none"}, {"sh", "-c",
                                        "trap 'echo no' TERM\n"
                                        "echo started; while :; do sleep 0.02; done"})));
    ASSERT_TRUE(testbus.WaitForOutput("started\n")) << testbus.ErrorOutput();

    testbus.Signal(SIGTERM);
    ASSERT_TRUE(testbus.WaitForOutput("no\n"));
    testbus.Signal(SIGTERM);

    EXPECT_EQ(testbus.Wait(), 128 + SIGKILL);
    ExpectNothingLeft();
}

TEST_P(Surroundings, AKilledOneLeavesNoProcess)
{
    WriteScript("");
    for (const std::string& agent : {std::string("reference"), m_script}) {
        ChildProcess testbus(
            With(Line({"--agent", agent}, {"sh", "-c", "echo started; exec sleep 1000"})));
        ASSERT_TRUE(testbus.WaitForOutput("started\n")) << testbus.ErrorOutput();

        testbus.Signal(SIGKILL);

        EXPECT_EQ(testbus.Wait(), 128 + SIGKILL);
        EXPECT_TRUE(WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
        if (GetParam().m_hasNamespaces) { // which take all with them
            EXPECT_EQ(NamesIn("/tmp"), m_before);
        }
    }
    for (const std::string& name : NamesIn("/tmp")) { // a killed one cannot
        if (name.rfind("kel", 0) == 0 || name.rfind(".kel", 0) == 0) {
            if ("/tmp/" + name != m_directory) {
                fs::remove_all("/tmp/" + name);
            }
        }
    }
}

TEST_P(Surroundings, ItsKeyValueStoreIsItsOwn)
{
    const TSFinished ended
        = RunHere({"--agent", "none"}, "case $KEL_HOST_VCONF_DIR in /tmp/kel-testbus.*/store) "
                                       "[ -d $KEL_HOST_VCONF_DIR ] && echo own;; esac");

    EXPECT_EQ(Text(ended), Text({0, "own\n", ""}));
}

TEST_P(Surroundings, OneRunsInsideAnother)
{
    const TSFinished ended = RunHere({"--agent", "none"},
                                     KEL_TESTBUS " -- " KEL_CTL " status | sed 's/:.*//'\n" KEL_CTL
                                                 " status; cat /etc/passwd >/dev/null");

    // Who has no namespace says so for itself.
    const std::string inner = GetParam().m_hasNamespaces ? "" : kNoNamespace;
    EXPECT_EQ(Text(ended), Text({0, "running\n", inner + "kelctl: no agent runs\n"}));
    ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Of, Surroundings,
                         testing::Values(TSMachine{"Root", 0, true},
                                         TSMachine{"Nobody", kNobody, true},
                                         TSMachine{"RootWithoutNamespaces", 0, false},
                                         TSMachine{"NobodyWithoutNamespaces", kNobody, false}),
                         [](const auto& machine) { return machine.param.m_name; });

TEST_F(Testbus, TmpAndEtcAreTheCommandsOwn)
{
    std::ofstream("/tmp/theirs") << "theirs";
    std::ofstream("/etc/release") << "an image";
    m_before = NamesIn("/tmp");

    const TSFinished ended = Shell({}, "ls /tmp/theirs /etc/release; touch /tmp/mine /etc/debug\n"
                                       "ls /etc/debug /etc/passwd; cmp /etc/passwd "
                                       "/etc/.machine/passwd");
    fs::remove("/tmp/theirs");
    fs::remove("/etc/release");
    m_before = NamesIn("/tmp");

    EXPECT_EQ(ended.m_output, "/etc/debug\n/etc/passwd\n");
    EXPECT_THAT(ended.m_errorOutput, HasSubstr("/tmp/theirs"));
    EXPECT_THAT(ended.m_errorOutput, HasSubstr("/etc/release"));
    EXPECT_FALSE(fs::exists("/etc/debug"));
    ExpectNothingLeft();
}

TEST_F(Testbus, WhatTheCommandIsToldOfInTmpStays)
{
    fs::create_directories(m_directory + "/inside");
    std::ofstream(m_directory + "/inside/file") << "text";
    fs::create_symlink("/bin/cat", m_directory + "/show");

    // By a word, by the working directory, and by the place of the program.
    const std::string file = m_directory + "/inside/file";
    EXPECT_EQ(Run({"--agent", "none"}, {"cat", file}).m_output, "text");
    const TSFinished inside
        = RunProgram({"env", "-C", m_directory + "/inside", KEL_TESTBUS, "--agent", "none", "--",
                      "sh", "-c", "pwd; cat file; echo >new"});
    EXPECT_EQ(inside.m_output, m_directory + "/inside\ntext") << Text(inside);
    EXPECT_TRUE(fs::exists(m_directory + "/inside/new"));
    const TSFinished program
        = RunProgram({KEL_TESTBUS, "--agent", "none", "--", "show", "/proc/self/comm"},
                     {{"PATH", m_directory + ":" + getenv("PATH")}});
    EXPECT_EQ(program.m_output, "show\n") << Text(program);
}

TEST_F(Testbus, WithoutANamespaceNobodysRequestsAreTaken)
{
    fs::create_directory(kDrop);
    std::ofstream(kDrop / "theirs-main-ALWAYS.log") << "theirs";

    const TSFinished ended = RunProgram({KEL_NO_NAMESPACES, KEL_TESTBUS, "--", "echo", "started"});
    const bool isThere = fs::exists(kDrop / "theirs-main-ALWAYS.log");
    fs::remove_all(kDrop);

    EXPECT_EQ(Text(ended), Text({125, "",
                                 kNoNamespace
                                     + "kel-testbus: requests wait in /tmp/kel_NDF, "
                                       "and the agent of this run would take them\n"}));
    EXPECT_TRUE(isThere);
    ExpectNothingLeft();
}

TEST_F(Testbus, WithoutABusDaemonItSaysSo)
{
    fs::create_directory(m_directory + "/empty");
    const TSFinished ended
        = RunProgram({KEL_TESTBUS, "--agent", "none", "--", "/bin/echo", "started"},
                     {{"PATH", m_directory + "/empty"}});

    EXPECT_EQ(ended.m_exit, 125);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_EQ(ended.m_errorOutput, "kel-testbus: dbus-daemon: No such file or directory\n"
                                   "kel-testbus: the private bus does not start\n");
    ExpectNothingLeft();
}

TEST_F(Testbus, ASignalBeforeTheCommandStartsEndsIt)
{
    WriteProgram(m_directory + "/dbus-daemon", "echo waiting >&2; exec sleep 1000");
    ChildProcess testbus(Line({"--verbose"}, {"echo", "started"}),
                         {{"PATH", m_directory + ":" + getenv("PATH")}});
    ASSERT_TRUE(Says(testbus, "waiting\n"));

    testbus.Signal(SIGTERM);

    EXPECT_EQ(testbus.Wait(), 128 + SIGTERM);
    EXPECT_EQ(testbus.Output(), "");
    ExpectNothingLeft();
}

TEST_F(Testbus, ReferenceAgentThatDoesNotStartIsToldOfWithWhatItSaid)
{
    // The one that is installed beside this program.
    fs::create_directories(m_directory + "/bin");
    fs::create_directories(m_directory + "/sbin");
    fs::copy_file(KEL_TESTBUS, m_directory + "/bin/kel-testbus");
    WriteProgram(m_directory + "/sbin/kel-agent", "echo broken >&2; exit 1");

    const TSFinished ended
        = RunProgram({m_directory + "/bin/kel-testbus", "--", "echo", "started"});

    EXPECT_EQ(ended.m_exit, 125);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_THAT(ended.m_errorOutput, HasSubstr("broken\n"));
    EXPECT_THAT(ended.m_errorOutput, EndsWith("\nkel-testbus: the agent does not start\n"));
    ExpectNothingLeft();
}

} // namespace kel::test
