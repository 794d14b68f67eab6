// kelctl reports: which ones, in which order, those that come, and those that are to go.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"
#include "support/Stranger.h"

namespace kel::test {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

class KelctlReportsChoice : public KelctlTest
{
protected:
    struct TSOne
    {
        int m_id;
        const char* m_time;
        const char* m_process;
        json m_mode;
        json m_user;
        json m_bytes;
    };

    static std::string NameOf(int id)
    {
        const std::string digits = std::to_string(id);
        return std::string(10 - digits.size(), '0') + digits;
    }

    static void Write(const TSOne& one)
    {
        json report = WholeReport(one.m_id, one.m_process);
        report["time"] = one.m_time;
        report["request"]["mode"] = one.m_mode;
        report["request"]["user"] = one.m_user;
        report["artefact"]["bytes"] = one.m_bytes;
        WriteReport(NameOf(one.m_id), report);
    }

    static void WriteSome()
    {
        Write({1, "2026-11-20T10:00:00.000Z", "player", "ONCE_ONLY", 1000, 30});
        Write({2, "2026-11-21T09:59:59.999Z", "tuner", "ALWAYS", nullptr, 9});
        Write({3, "2026-11-21T10:00:00.000Z", "browser", nullptr, 0, nullptr});
        Write({4, "-", "player", "POLICY", 1000, 200});
    }

    // The numbers of those that are listed, in their order.
    static std::string Listed(const TWords& arguments)
    {
        TWords all{"--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const TSFinished ended = Reports(all);
        EXPECT_EQ(ended.m_exit, 0) << Text(ended);
        std::string numbers;
        for (const json& report : json::parse(ended.m_output)) {
            numbers += (numbers.empty() ? "" : " ") + report.at("id").dump();
        }
        return numbers;
    }

    // As the agent makes one: whole, in one step.
    static void Make(int id, const std::string& process = "player")
    {
        WriteReport(".new-1", WholeReport(id, process));
        fs::rename(kReports / ".new-1", kReports / NameOf(id));
    }

    static std::unique_ptr<ChildProcess> Follow(const TWords& arguments = {})
    {
        TWords command{KEL_CTL, "reports", "--follow", "--state-dir", kState};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return std::make_unique<ChildProcess>(command);
    }

    static TWords LeftIn(const fs::path& directory)
    {
        TWords names;
        for (const auto& entry : fs::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(KelctlReportsChoice, AnOptionLeavesThoseThatItMeans)
{
    WriteSome();

    EXPECT_EQ(Listed({"--since", "2026-11-21T10:00"}), "3");
    EXPECT_EQ(Listed({"--since", "2026-11-21"}), "2 3");
    EXPECT_EQ(Listed({"--since", "2026-11-20T10:00:00.000Z"}), "1 2 3");
    EXPECT_EQ(Listed({"--since", "999999999w"}), "1 2 3"); // the fourth tells no time
    EXPECT_EQ(Listed({"--older-than", "999999999w"}), "");
    EXPECT_EQ(Listed({"--process", "player"}), "1 4");
    EXPECT_EQ(Listed({"--process", "play"}), "");
    EXPECT_EQ(Listed({"--user", "1000"}), "1 4");
    EXPECT_EQ(Listed({"--user", "root"}), "3");
    EXPECT_EQ(Listed({"--user", "-"}), "2");
    EXPECT_EQ(Listed({"--mode", "once-only"}), "1");
    EXPECT_EQ(Listed({"--mode", "POLICY"}), "4");
    EXPECT_EQ(Listed({"--process", "player", "--mode", "policy"}), "4");
    EXPECT_EQ(Reports({"--process", "nobody"}).m_output, "");
}

TEST_F(KelctlReportsChoice, AnAgeIsCountedFromNow)
{
    const auto ago = [](int seconds) {
        const time_t time = std::time(nullptr) - seconds;
        char text[32];
        std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S.000Z", std::gmtime(&time));
        return std::string(text);
    };
    Write({1, ago(3 * 86400).c_str(), "player", "POLICY", 0, 1});
    Write({2, ago(3 * 3600).c_str(), "player", "POLICY", 0, 1});
    Write({3, ago(0).c_str(), "player", "POLICY", 0, 1});

    EXPECT_EQ(Listed({"--older-than", "2d"}), "1");
    EXPECT_EQ(Listed({"--older-than", "2h"}), "1 2");
    EXPECT_EQ(Listed({"--since", "1w"}), "1 2 3");
    EXPECT_EQ(Listed({"--since", "240m"}), "2 3");
    EXPECT_EQ(Listed({"--since", "4h", "--older-than", "600s"}), "2");
}

TEST_F(KelctlReportsChoice, TheyAreSortedAndOfEqualOnesTheOlderIsFirst)
{
    WriteSome();

    EXPECT_EQ(Listed({"--sort", "id", "--reverse"}), "4 3 2 1");
    EXPECT_EQ(Listed({"--sort", "time"}), "4 1 2 3");
    EXPECT_EQ(Listed({"--sort", "process"}), "3 1 4 2");
    EXPECT_EQ(Listed({"--sort", "user"}), "2 3 1 4");
    EXPECT_EQ(Listed({"--sort", "mode"}), "3 2 1 4");
    EXPECT_EQ(Listed({"--sort", "size"}), "3 2 1 4");
    EXPECT_THAT(Lines(Reports({"--sort", "size", "--reverse"}).m_output).at(1), StartsWith("4 "));
}

TEST_F(KelctlReportsChoice, SeveralNumbersPrintAllOfEach)
{
    WriteSome();

    const TSFinished two = Reports({"3", "01"});
    const TSFinished missing = Reports({"3", "7", "8"});

    EXPECT_EQ(two.m_exit, 0) << Text(two);
    EXPECT_LT(two.m_output.find("\nid: 1\n"), two.m_output.find("\n\n"));
    EXPECT_GT(two.m_output.find("\nid: 3\n"), two.m_output.find("\n\n"));
    EXPECT_EQ(Listed({"3", "1"}), "1 3");
    EXPECT_EQ(missing.m_exit, 1);
    EXPECT_EQ(missing.m_errorOutput,
              "kelctl: there is no report 7\nkelctl: there is no report 8\n");
    EXPECT_THAT(missing.m_output, HasSubstr("\nid: 3\n"));
}

TEST_F(KelctlReportsChoice, AMessageOfARangeHasPlainNumbers)
{
    EXPECT_EQ(Reports({"--older-than", "0d"}).m_errorOutput,
              "kelctl: --older-than: a number from 1 to 999999999 with s, m, h, d or w, not 0d\n");
    EXPECT_EQ(Reports({"--since", "2026-13-01"}).m_errorOutput,
              "kelctl: --since: neither a time as 2026-11-21T09:30, in UTC, nor a number from 1 to "
              "999999999 with s, m, h, d or w: 2026-13-01\n");
}

TEST_F(KelctlReportsChoice, FollowsWithThoseThatAreNew)
{
    Make(1);
    const auto kelctl = Follow();
    ASSERT_TRUE(kelctl->WaitForOutput("/0000000001\n")) << kelctl->ErrorOutput();

    Make(2);
    ASSERT_TRUE(kelctl->WaitForOutput("/0000000002\n")) << kelctl->ErrorOutput();
    fs::rename(kReports / "0000000002", kReports / ".old-0000000002");
    Make(3, "a process with a longer name");
    ASSERT_TRUE(kelctl->WaitForOutput("/0000000003\n")) << kelctl->ErrorOutput();
    Make(2); // a number may be given again

    ASSERT_TRUE(WaitUntil([&] { return CountOf(kelctl->Output(), "/0000000002\n") == 2; }));
    kelctl->Signal(SIGTERM);
    EXPECT_EQ(kelctl->Wait(), 0);
    EXPECT_EQ(Lines(kelctl->Output()).size(), 5U) << kelctl->Output();
    EXPECT_THAT(kelctl->Output(), StartsWith("ID "));
    EXPECT_EQ(kelctl->ErrorOutput(), "");
}

TEST_F(KelctlReportsChoice, FollowsBeforeThereIsAnyAndWhenTheDirectoryIsAnother)
{
    const auto kelctl = Follow({"--json", "--process", "player"});
    Make(1, "tuner"); // makes the directory, too
    Make(2);
    ASSERT_TRUE(kelctl->WaitForOutput("\"id\":2")) << kelctl->ErrorOutput();

    fs::rename(kReports, kState / "before");
    Make(3);
    ASSERT_TRUE(kelctl->WaitForOutput("\"id\":3")) << kelctl->ErrorOutput();

    kelctl->Signal(SIGINT);
    EXPECT_EQ(kelctl->Wait(), 0);
    const TWords lines = Lines(kelctl->Output());
    ASSERT_EQ(lines.size(), 2U) << kelctl->Output();
    EXPECT_EQ(json::parse(lines[1]).at("directory"), (kReports / "0000000003").string());
}

TEST_F(KelctlReportsChoice, FollowingEndsWithTheDirectoryOfStateAndWithItsReader)
{
    Make(1);
    const auto kelctl = Follow();
    ASSERT_TRUE(kelctl->WaitForOutput("/0000000001\n")) << kelctl->ErrorOutput();
    fs::rename(kState, "/tmp/the state before");
    EXPECT_EQ(kelctl->Wait(), 1);
    EXPECT_EQ(kelctl->ErrorOutput(), "kelctl: /tmp/the state: No such file or directory\n");
    fs::rename("/tmp/the state before", kState);

    const TSFinished unread
        = RunInShell("'" KEL_CTL "' reports --follow --state-dir '" + kState.string()
                     + "' | head -n 1; exit ${PIPESTATUS[0]}");
    EXPECT_EQ(unread.m_exit, 5) << Text(unread);
    EXPECT_EQ(unread.m_errorOutput, ""); // who has gone knows
}

TEST_F(KelctlReportsChoice, ASignalEndsFollowingAlsoWhenItsReaderHasStopped)
{
    for (int id = 1; id <= 1000; ++id) { // more than a pipe holds
        WriteReport(NameOf(id), WholeReport(id));
    }

    const TSFinished ended
        = RunInShell("mkfifo /tmp/pipe && exec 3<>/tmp/pipe || exit 99\n'" KEL_CTL
                     "' reports --follow --state-dir '"
                     + kState.string() + "' >&3 &\nread -r -n 1 -u 3; kill $!; wait $!");

    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_EQ(ended.m_errorOutput, "");
}

TEST_F(KelctlReportsChoice, RemovesWhatIsNamedAndTellsWhatIsNotThere)
{
    WriteSome();
    std::ofstream(kReports / NameOf(1) / "artefact") << "text";
    fs::create_directories(kReports / NameOf(1) / "a" / "b" / "c");
    fs::create_directories(kReports / (".old-" + NameOf(1)) / "left by one that was killed");
    WriteText(NameOf(5), "no report");

    const TSFinished ended = Reports({"--remove", "1", "7", "5"});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_output, "report 1 removed\nreport 5 removed\n");
    EXPECT_EQ(ended.m_errorOutput, "kelctl: there is no report 7\n");
    EXPECT_EQ(LeftIn(kReports), (TWords{NameOf(2), NameOf(3), NameOf(4)}));
}

TEST_F(KelctlReportsChoice, RemovesThoseThatAnOptionMeans)
{
    WriteSome();
    WriteText(NameOf(5), "no report");

    const TSFinished none = Reports({"--remove", "--older-than", "999999999w", "1", "2", "3", "4"});
    const TSFinished all = Reports({"--remove", "--older-than", "1s", "--process", "player"});

    EXPECT_EQ(none.m_exit, 0) << Text(none);
    EXPECT_EQ(none.m_output, "");
    EXPECT_EQ(all.m_exit, 1) << "one cannot be read: " << Text(all);
    EXPECT_EQ(all.m_output, "report 1 removed\n");
    EXPECT_EQ(LeftIn(kReports), (TWords{NameOf(2), NameOf(3), NameOf(4), NameOf(5)}));
}

TEST_F(KelctlReportsChoice, RemovingFollowsNoLinkAndEntersNoMount)
{
    WriteSome();
    const fs::path other = kState / "not a report's";
    fs::create_directories(other / "kept");
    fs::create_directory_symlink(other, kReports / NameOf(1) / "link");
    fs::remove_all(kReports / NameOf(2));
    fs::create_directory_symlink(other, kReports / NameOf(2));

    const TSFinished ended = Reports({"--remove", "1", "2"});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_output, "report 1 removed\n");
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: " + (kReports / NameOf(2)).string() + ": "))
        << Text(ended);
    EXPECT_EQ(LeftIn(kReports), (TWords{NameOf(2), NameOf(3), NameOf(4)}));
    EXPECT_TRUE(fs::exists(other / "kept"));
}

TEST_F(KelctlReportsChoice, AStrangerWhoOwnsTheDirectoryLeadsNobodyAstray)
{
    Sandbox::NeedOtherUsers();
    const fs::path other = kState / "not a report's";
    fs::create_directories(other / "kept");
    const uid_t stranger = Stranger::kNobody;
    for (int round = 0; round < 20; ++round) {
        WriteReport(NameOf(1), WholeReport(1));
        fs::create_directories(kReports / NameOf(1) / "deep");
        for (const fs::path& path :
             {kState, kReports, kReports / NameOf(1), kReports / NameOf(1) / "deep"}) {
            ASSERT_EQ(chown(path.c_str(), stranger, stranger), 0);
        }
        const Stranger swapper(
            [&] {
                const fs::path deep = kReports / NameOf(1) / "deep";
                std::error_code failure;
                fs::rename(deep, kReports / NameOf(1) / "away", failure);
                fs::create_directory_symlink(other, deep, failure);
                fs::remove(deep, failure);
                fs::rename(kReports / NameOf(1) / "away", deep, failure);
            },
            true);

        Reports({"--remove", "1"});

        ASSERT_TRUE(fs::exists(other / "kept"));
        ASSERT_FALSE(fs::exists(kReports / NameOf(1) / "report.json"));
    }
}

TEST_F(KelctlReportsChoice, WhoMayNotRemoveIsToldAndNothingIsHalf)
{
    WriteSome();
    fs::permissions(kReports, fs::perms::owner_read | fs::perms::owner_exec);
    const TSFinished ended
        = RunAsPlainUser({"reports", "--state-dir", kState, "--remove", "1", "3"});
    fs::permissions(kReports, fs::perms::owner_all);

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_EQ(ended.m_errorOutput,
              "kelctl: " + (kReports / NameOf(1)).string() + ": Permission denied\n"
                  + "kelctl: " + (kReports / NameOf(3)).string() + ": Permission denied\n");
    EXPECT_EQ(Listed({}), "1 2 3 4");
}

} // namespace kel::test
