// kelctl report: what it leaves for the agent, and what it says of it.

#include <gmock/gmock.h>

#include "e2e/KelctlTest.h"
#include "support/Mount.h"

namespace kel::test {

using testing::EndsWith;
using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

const fs::path kSlot = "/tmp/store/run/memory/kel/ndf_one";

constexpr char kCut[] = "kelctl: the names are too long, and were cut";

} // namespace

class KelctlReport : public KelctlTest
{
protected:
    static TSFinished Report(TWords options, const ChildProcess::TEnvironment& changes = {})
    {
        options.insert(options.begin(), "report");
        return Run(options, changes);
    }

    static void ExpectFiled(const TSFinished& ended, const fs::path& request,
                            const std::string& content)
    {
        EXPECT_EQ(ended.m_exit, 0) << Text(ended);
        EXPECT_EQ(ended.m_errorOutput, "");
        EXPECT_EQ(ended.m_output, "[kel_courier] NDF2 api request = " + request.string()
                                      + ", uploadPath = " + content + "\n");
        EXPECT_EQ(NamesIn(request.parent_path()), TWords{request.filename()});
        EXPECT_EQ(ReadFile(request), content);
        fs::remove(request);
    }

    static void ExpectRefused(const TSFinished& ended, const std::string& reason)
    {
        EXPECT_EQ(ended.m_exit, 1) << Text(ended);
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the request could not be left: "))
            << Text(ended);
        EXPECT_THAT(ended.m_errorOutput, HasSubstr(reason));
    }

    static void ExpectWrongUsage(const TWords& options)
    {
        const TSFinished ended = Report(options);
        EXPECT_EQ(ended.m_exit, 2) << Text(ended);
        EXPECT_EQ(ended.m_output, "");
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: ")) << Text(ended);
    }
};

TEST_F(KelctlReport, LeavesAFileThatNamesProcessThreadAndMode)
{
    ExpectFiled(Report({"--process", "player", "--thread", "decoder"}),
                kDrop / "player-decoder-POLICY.log", "NO_PATH");
    ExpectFiled(Report({"--process", "player"}), kDrop / "player-player-POLICY.log", "NO_PATH");
    ExpectFiled(Report({"--thread", "decoder"}), kDrop / "decoder-decoder-POLICY.log", "NO_PATH");
}

TEST_F(KelctlReport, ARestartIsAskedForInADirectoryOfItsOwn)
{
    ExpectFiled(Report({"--process", "a", "--reboot"}), kRebootDrop / "a-a-POLICY.log", "NO_PATH");
    ExpectFiled(Report({"--process", "a", "--reboot", "--path", "/tmp/log"}),
                kRebootDrop / "a-a-POLICY.log", "/tmp/log");
    EXPECT_EQ(NamesIn(kDrop), TWords());
}

TEST_F(KelctlReport, TheModeIsOneOfFourHoweverItIsSpeltAndGoesWithAPathAndWithARestart)
{
    const std::pair<const char*, const char*> words[] = {
        {"oqc-always", "OQC_ALWAYS"}, {"OQC_ALWAYS", "OQC_ALWAYS"}, {"always", "ALWAYS"},
        {"Always", "ALWAYS"},         {"once-only", "ONCE_ONLY"},   {"ONCE_ONLY", "ONCE_ONLY"},
        {"policy", "POLICY"},         {"POLICY", "POLICY"},
    };
    for (const auto& [word, mode] : words) {
        const std::string name = std::string("a-b-") + mode + ".log";
        const TWords options{"--process", "a", "--thread", "b", "--mode", word};
        ExpectFiled(Report(options), kDrop / name, "NO_PATH");

        TWords more = options;
        more.insert(more.end(), {"--reboot", "--path", "/var/log/x"});
        ExpectFiled(Report(more), kRebootDrop / name, "/var/log/x");
    }
}

TEST_F(KelctlReport, ThePathIsHandedOnAndOfARelativeOneTheWhole)
{
    ExpectFiled(Report({"--process", "a", "--path", "/tmp/a log"}), kDrop / "a-a-POLICY.log",
                "/tmp/a log");

    fs::create_directory("/tmp/here");
    const TSFinished relative
        = RunProgram({"env", "-C", "/tmp/here", KEL_CTL, "report", "--process", "a", "--path",
                      "NO_PATH"}); // a file of this name, too

    ExpectFiled(relative, kDrop / "a-a-POLICY.log", "/tmp/here/NO_PATH");
}

TEST_F(KelctlReport, WithoutADropDirectoryItTellsSo)
{
    fs::remove(kDrop);
    fs::remove(kRebootDrop);

    const TSFinished plain = Report({"--process", "a"});
    const TSFinished reboot = Report({"--process", "a", "--reboot"});

    ExpectRefused(plain, "/tmp/kel_NDF is missing");
    EXPECT_THAT(plain.m_output, EndsWith("[kel_courier] FILE OPEN FAILED \n"));
    ExpectRefused(reboot, "/tmp/kel_NDF_reboot is missing");
}

TEST_F(KelctlReport, ANameWithASlashCannotBeThatOfAFile)
{
    ExpectRefused(Report({"--process", "a/b", "--thread", "c"}), "a name has a slash");
    ExpectRefused(Report({"--thread", "../c"}), "a name has a slash");
}

TEST_F(KelctlReport, AFileThatCannotBeWrittenIsToldOf)
{
    fs::create_directory(kDrop / "a-a-POLICY.log");

    ExpectRefused(Report({"--process", "a"}), "its file cannot be written");
}

TEST_F(KelctlReport, ADropDirectoryThatMayNotBeWrittenToIsToldOf)
{
    fs::permissions(kDrop, fs::perms::owner_read | fs::perms::owner_exec);
    const TSFinished ended = RunAsPlainUser({"report", "--process", "a"});

    ExpectRefused(ended, "its file cannot be written");
    EXPECT_THAT(ended.m_output, EndsWith("[kel_courier] FILE OPEN FAILED \n"));
    EXPECT_EQ(NamesIn(kDrop), TWords());
}

TEST_F(KelctlReport, ADropDirectoryThatIsReadOnlyIsToldOf)
{
    const Mount readOnly(kRebootDrop, "ro");

    const TSFinished ended = Report({"--process", "a", "--reboot"});

    ExpectRefused(ended, "its file cannot be written");
}

TEST_F(KelctlReport, LongNamesAreCutWithAWarning)
{
    const std::string longest(126 - std::string("/tmp/kel_NDF/-b-POLICY.log").size(), 'a');

    const TSFinished fits = Report({"--process", longest, "--thread", "b"});
    ExpectFiled(fits, kDrop / (longest + "-b-POLICY.log"), "NO_PATH");

    const TSFinished cut = Report({"--process", longest + "a", "--thread", "b"});
    EXPECT_EQ(cut.m_exit, 0) << Text(cut);
    EXPECT_TRUE(IsOneLine(cut.m_errorOutput, kCut)) << Text(cut);
    EXPECT_EQ(NamesIn(kDrop), TWords{longest + "a-b-POLICY.lo"});
}

TEST_F(KelctlReport, TheSlotHoldsBothNamesAndTheRestart)
{
    const TSFinished plain = Report({"--slot", "--process", "player", "--thread", "decoder"});

    EXPECT_EQ(plain.m_exit, 0) << Text(plain);
    EXPECT_EQ(plain.m_errorOutput, "");
    EXPECT_EQ(plain.m_output, "[kel_courier] NDF request recieved. Process Name = player, "
                              "Thread Name = decoder, requestReboot = 0\n");
    EXPECT_EQ(ReadFile(kSlot), "player|decoder|0");
    EXPECT_EQ(NamesIn(kDrop), TWords());

    const TSFinished reboot = Report({"--slot", "--thread", "decoder", "--reboot"});

    EXPECT_EQ(reboot.m_exit, 0) << Text(reboot);
    EXPECT_EQ(ReadFile(kSlot), "decoder|decoder|1");
    EXPECT_EQ(NamesIn(kRebootDrop), TWords());

    const TSFinished latest = Report({"--slot", "--process", "player"});

    EXPECT_EQ(latest.m_exit, 0) << Text(latest);
    EXPECT_EQ(ReadFile(kSlot), "player|player|0");
}

TEST_F(KelctlReport, ASlotThatIsThisUsersAloneIsToldOf)
{
    Sandbox::NeedOtherUsers();
    const fs::path home = "/tmp/running";
    fs::create_directory(home);
    fs::permissions(home, fs::perms(0777));
    const TWords command = {"setpriv", "--reuid=65534", "--clear-groups", KEL_CTL,
                            "report",  "--slot",        "--process",      "a"};

    const TSFinished own = RunProgram(command, {{"XDG_RUNTIME_DIR", home}});
    fs::permissions(kStore, fs::perms(0777));
    const TSFinished common
        = RunProgram(command, {{"XDG_RUNTIME_DIR", home}, {"KEL_HOST_VCONF_DIR", kStore}});

    EXPECT_EQ(own.m_exit, 0) << Text(own);
    EXPECT_EQ(own.m_errorOutput, "kelctl: nobody will collect it but an agent of this user: the "
                                 "key-value store is the user's own\n");
    EXPECT_EQ(common.m_exit, 0) << Text(common);
    EXPECT_EQ(common.m_errorOutput, "");
}

TEST_F(KelctlReport, AStoreThatTakesNothingIsToldOf)
{
    const TSFinished ended
        = Report({"--slot", "--process", "a"}, {{"KEL_HOST_VCONF_DIR", "/proc/none"}});

    ExpectRefused(ended, "the key-value store");
    EXPECT_THAT(ended.m_output, EndsWith("requestReboot = 0[kel_courier] VCONF NDF NOT SET\n"));
    EXPECT_THAT(ended.m_output, testing::Not(EndsWith("\n\n")));
}

TEST_F(KelctlReport, WhatIsTooLongForTheSlotIsCutWithAWarning)
{
    const std::string longest(511 - std::string("|b|0").size(), 'a');

    const TSFinished fits = Report({"--slot", "--process", longest, "--thread", "b"});
    EXPECT_EQ(fits.m_exit, 0) << Text(fits);
    EXPECT_EQ(fits.m_errorOutput, "");
    EXPECT_EQ(ReadFile(kSlot), longest + "|b|0");

    const TSFinished cut = Report({"--slot", "--process", longest + "a", "--thread", "b"});
    EXPECT_EQ(cut.m_exit, 0) << Text(cut);
    EXPECT_TRUE(IsOneLine(cut.m_errorOutput, kCut)) << Text(cut);
    EXPECT_EQ(ReadFile(kSlot), longest + "a|b|");
}

TEST_F(KelctlReport, WrongUsageLeavesNothing)
{
    ExpectWrongUsage({});
    ExpectWrongUsage({"--mode", "always"});
    ExpectWrongUsage({"--slot"});
    ExpectWrongUsage({"--process", "a", "operand"});
    ExpectWrongUsage({"--process"});
    ExpectWrongUsage({"--process", "a", "--process", "b"});
    ExpectWrongUsage({"--process", "a", "--mode", "never"});
    ExpectWrongUsage({"--process", "a", "--mode", "1"});
    ExpectWrongUsage({"--process", "a", "--mode", ""});
    ExpectWrongUsage({"--process", "a", "--path", ""});
    ExpectWrongUsage({"--process", ""});
    ExpectWrongUsage({"--process", "a", "--thread", ""});
    ExpectWrongUsage({"--process", "a", "--timeout", "1"});
    ExpectWrongUsage({"--process", "a", "--wait", "--timeout", "0"});
    ExpectWrongUsage({"--process", "a", "--state-dir", "/tmp"});
    ExpectWrongUsage({"--process", "a", "--slot", "--mode", "always"});
    ExpectWrongUsage({"--process", "a", "--slot", "--path", "/tmp/log"});

    EXPECT_EQ(NamesIn(kDrop), TWords());
    EXPECT_EQ(NamesIn(kRebootDrop), TWords());
    EXPECT_FALSE(fs::exists(kSlot));
}

TEST_F(KelctlReport, OutputThatCannotBeWrittenIsToldOf)
{
    const TSFinished file = RunInShell("exec '" KEL_CTL "' report --process a >/dev/full");
    const TSFinished slot = RunInShell("exec '" KEL_CTL "' report --process a --slot >/dev/full");

    for (const TSFinished& ended : {file, slot}) {
        EXPECT_EQ(ended.m_exit, 5) << Text(ended);
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the output cannot be written: "))
            << Text(ended);
    }
    EXPECT_EQ(NamesIn(kDrop), TWords{"a-a-POLICY.log"}); // they were left all the same
    EXPECT_EQ(ReadFile(kSlot), "a|a|0");
}

} // namespace kel::test
