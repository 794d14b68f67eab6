// kelctl reports: what a person or a program reads of the agent's directory of state.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"
#include "support/Mount.h"

namespace kel::test {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

// Where a word begins, in characters.
size_t Column(const std::string& line, const std::string& word)
{
    const std::string before = line.substr(0, line.find(word));
    return static_cast<size_t>(std::count_if(before.begin(), before.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80;
    }));
}

} // namespace

class KelctlReports : public KelctlTest
{
protected:
    // The output of one that succeeds.
    static std::string Output(const TWords& arguments = {})
    {
        TWords all{"reports", "--state-dir", kState};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return KelctlTest::Output(all);
    }
    static json Json(const TWords& arguments = {})
    {
        TWords all{"--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return json::parse(Output(all));
    }
};

TEST_F(KelctlReports, ListsALineAReportBelowTheHeadTheOldestFirst)
{
    json second = WholeReport(10);
    second["artefact"] = {{"reason", "Permission denied"}};
    second["request"]["reboot"] = false;
    second["request"]["mode"] = nullptr;
    json third = WholeReport(11);
    third["artefact"] = nullptr;
    WriteReport("0000000123", {{"id", 123}});
    WriteReport("0000000011", third);
    WriteReport("0000000010", second);
    WriteReport("0000000007", WholeReport(7));

    EXPECT_EQ(Output(), "ID   COLLECTED                 PROCESS  THREAD   MODE       REBOOT  "
                        "ARTEFACT                       DIRECTORY\n"
                        "7    2026-11-21T09:30:00.250Z  player   decoder  ONCE_ONLY  yes     "
                        "1234 bytes                     /tmp/the state/reports/0000000007\n"
                        "10   2026-11-21T09:30:00.250Z  player   decoder  -          no      "
                        "not copied: Permission denied  /tmp/the state/reports/0000000010\n"
                        "11   2026-11-21T09:30:00.250Z  player   decoder  ONCE_ONLY  yes     "
                        "-                              /tmp/the state/reports/0000000011\n"
                        "123                                                                 "
                        "-                              /tmp/the state/reports/0000000123\n");
}

TEST_F(KelctlReports, TheLinesAreAlignedHoweverManyBytesACharacterHas)
{
    WriteReport("0000000001", WholeReport(1, "p"));
    WriteReport("0000000002", WholeReport(2, "a\xef\xbf\xbdprocess"));
    WriteReport("0000000003", WholeReport(3, "pl\xc3\xa4yer"));

    const TWords lines = Lines(Output());

    ASSERT_EQ(lines.size(), 4U);
    for (const std::string& line : lines) {
        const char* const word = &line == &lines[0] ? "THREAD" : "decoder";
        EXPECT_EQ(Column(line, word), Column(lines[0], "THREAD")) << line;
    }
}

TEST_F(KelctlReports, ControlCharactersDoNotReachATerminal)
{
    const std::string name = "a\n\x1b[31m\x7f\xc2\x9b"
                             "b";
    WriteReport("0000000001", WholeReport(1, name));

    const std::string list = Output();
    const std::string one = Output({"1"});

    EXPECT_EQ(Lines(list).size(), 2U);
    for (const std::string& output : {list, one}) {
        EXPECT_THAT(output, HasSubstr("a\\x0a\\x1b[31m\\x7f\\xc2\\x9bb"));
        EXPECT_EQ(output.find_first_of("\x1b\x7f\x9b"), std::string::npos);
    }
    EXPECT_EQ(Json({"1"}).at("request").at("process"), name);
}

TEST_F(KelctlReports, AsJsonTheyAreAnArrayOfWhatTheAgentWrote)
{
    json expected = json::array({WholeReport(1), WholeReport(2)});
    WriteReport("0000000001", expected[0]);
    WriteReport("0000000002", expected[1]);
    expected[0]["directory"] = kReports / "0000000001";
    expected[1]["directory"] = kReports / "0000000002";

    EXPECT_EQ(Json(), expected);
}

TEST_F(KelctlReports, AsJsonEveryMemberIsKeptAtItsPlace)
{
    WriteText("0000000001", R"({"z": 18446744073709551615, "id": 1, "a": [1.5, null, {}],
                                "name": "\u001b\u009b\n\u20ac"})");

    EXPECT_EQ(Output({"--json", "1"}), "{\n"
                                       "  \"z\": 18446744073709551615,\n"
                                       "  \"id\": 1,\n"
                                       "  \"a\": [\n"
                                       "    1.5,\n"
                                       "    null,\n"
                                       "    {}\n"
                                       "  ],\n"
                                       "  \"name\": \"\\u001b\\u009b\\n\\u20ac\",\n"
                                       "  \"directory\": \"/tmp/the state/reports/0000000001\"\n"
                                       "}\n");
}

TEST_F(KelctlReports, TheAgentsUnfinishedAndDroppedOnesAreNotListed)
{
    for (const char* const name : {".new-0000000002", ".old-0000000001", "1", "00000000003",
                                   "000000000x", "0000000003.bak"}) {
        WriteReport(name, WholeReport(1));
    }
    WriteReport("0000000004", WholeReport(4));

    EXPECT_EQ(Directories(Json()), TWords{kReports / "0000000004"});
}

TEST_F(KelctlReports, MembersThatAreMissingOrOfAnotherKindAreNoFault)
{
    WriteText("0000000001", "{}");
    WriteText("0000000002",
              R"({"id": "x", "request": [1, {}], "artefact": 5, "time": {"a": null}})");
    WriteText("0000000003", R"({"request": {"process": null, "reboot": [true]}, "artefact": {}})");

    EXPECT_EQ(Lines(Output()).size(), 4U);
    EXPECT_EQ(Json().size(), 3U);
    EXPECT_THAT(Output({"2"}), HasSubstr("id: x\n"));
}

TEST_F(KelctlReports, OneThatTheAgentDropsMeanwhileIsSimplyNotThere)
{
    // The first is read as soon as we write it, when all have been listed.
    fs::create_directories(kReports / "0000000001");
    const fs::path first = kReports / "0000000001" / "report.json";
    ASSERT_EQ(mkfifo(first.c_str(), 0600), 0);
    WriteReport("0000000002", WholeReport(2));
    WriteReport("0000000003", WholeReport(3));
    ChildProcess kelctl({KEL_CTL, "reports", "--state-dir", kState, "--json"});
    const int writer = open(first.c_str(), O_WRONLY | O_CLOEXEC); // when kelctl has opened it
    ASSERT_GE(writer, 0);

    fs::rename(kReports / "0000000001", kReports / ".old-0000000001");
    fs::rename(kReports / "0000000002", kReports / ".old-0000000002");
    close(writer);

    EXPECT_EQ(kelctl.Wait(), 0) << kelctl.ErrorOutput();
    EXPECT_EQ(kelctl.ErrorOutput(), "");
    EXPECT_EQ(Directories(json::parse(kelctl.Output())), TWords{kReports / "0000000003"});
}

TEST_F(KelctlReports, OneThatIsAskedForAndDroppedMeanwhileIsToldOf)
{
    fs::create_directories(kReports / "0000000001");
    const fs::path file = kReports / "0000000001" / "report.json";
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    ChildProcess kelctl({KEL_CTL, "reports", "--state-dir", kState, "1"});
    const int writer = open(file.c_str(), O_WRONLY | O_CLOEXEC); // when kelctl has opened it
    ASSERT_GE(writer, 0);

    fs::rename(kReports / "0000000001", kReports / ".old-0000000001");
    close(writer);

    EXPECT_EQ(kelctl.Wait(), 1);
    EXPECT_EQ(kelctl.ErrorOutput(), "kelctl: there is no report 1\n");
}

TEST_F(KelctlReports, WithANumberItPrintsAllOfOne)
{
    WriteReport("0000000007", WholeReport(7, "other"));
    WriteReport("0000000008", WholeReport(8));

    const std::string text = Output({"8"});

    for (const char* const line :
         {"id: 8\n", "request:\n", "  process: player\n", "  reboot: yes\n", "  user: 1000\n",
          "  upload-path: /var/log/x.log\n", "  bytes: 1234\n", "  file: kernel.log\n",
          "  handled: 2\n", "  device-mode: 3\n", "  machine: arm\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    EXPECT_THAT(text, HasSubstr("directory: " + (kReports / "0000000008").string() + "\n"));
    EXPECT_THAT(text, Not(HasSubstr("other")));

    json expected = WholeReport(8);
    expected["directory"] = kReports / "0000000008";
    EXPECT_EQ(Json({"8"}), expected);
}

TEST_F(KelctlReports, ANumberThatNoReportHasIsToldOf)
{
    WriteReport("0000000001", WholeReport(1));
    WriteText("0000000002", "half of");

    const TSFinished none = Reports({"3"});
    const TSFinished unreadable = Reports({"2"});
    const TSFinished other = Reports({"1"}); // the second is not asked for

    EXPECT_EQ(none.m_exit, 1) << Text(none);
    EXPECT_EQ(none.m_output, "");
    EXPECT_EQ(none.m_errorOutput, "kelctl: there is no report 3\n");
    EXPECT_EQ(unreadable.m_exit, 1) << Text(unreadable);
    EXPECT_EQ(unreadable.m_output, "");
    EXPECT_TRUE(IsOneLine(unreadable.m_errorOutput, "kelctl: ")) << Text(unreadable);
    EXPECT_EQ(other.m_exit, 0) << Text(other);
}

TEST_F(KelctlReports, WithoutAnyReportTheListIsEmpty)
{
    EXPECT_EQ(Output(), "");
    EXPECT_EQ(Json(), json::array());

    fs::create_directory(kReports);

    EXPECT_EQ(Output(), "");
    EXPECT_EQ(Json(), json::array());
}

TEST_F(KelctlReports, ADirectoryOfStateThatCannotBeReadIsToldOf)
{
    fs::remove_all(kState);
    const TSFinished missing = Reports();
    std::ofstream(kState) << "no directory";
    const TSFinished file = Reports({"--json"});
    fs::remove(kState);

    for (const TSFinished& ended : {missing, file}) {
        EXPECT_EQ(ended.m_exit, 1) << Text(ended);
        EXPECT_EQ(ended.m_output, "");
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: /tmp/the state: ")) << Text(ended);
    }
    EXPECT_THAT(missing.m_errorOutput, HasSubstr("No such file or directory"));
    EXPECT_THAT(file.m_errorOutput, HasSubstr("Not a directory"));
}

TEST_F(KelctlReports, ADirectoryThatMayNotBeReadIsToldOf)
{
    WriteReport("0000000001", WholeReport(1));
    fs::permissions(kState, fs::perms::none);

    const TSFinished ended = RunAsPlainUser({"reports", "--state-dir", kState});
    fs::permissions(kState, fs::perms::owner_all);

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_EQ(ended.m_errorOutput, "kelctl: " + kReports.string() + ": Permission denied\n");
}

TEST_F(KelctlReports, AReportThatMayNotBeReadIsToldOfAndTheOthersAreListed)
{
    for (int id = 1; id <= 3; ++id) {
        WriteReport("000000000" + std::to_string(id), WholeReport(id));
    }
    fs::permissions(kReports / "0000000001" / "report.json", fs::perms::none);
    fs::permissions(kReports / "0000000002", fs::perms::none);

    const TSFinished ended = RunAsPlainUser({"reports", "--state-dir", kState});

    EXPECT_EQ(ended.m_exit, 1) << Text(ended);
    EXPECT_EQ(Lines(ended.m_errorOutput).size(), 2U) << Text(ended);
    EXPECT_THAT(ended.m_errorOutput, HasSubstr("/0000000001: "));
    EXPECT_THAT(ended.m_errorOutput, HasSubstr("/0000000002: "));
    EXPECT_EQ(Lines(ended.m_output).size(), 2U) << Text(ended);
    EXPECT_THAT(ended.m_output, HasSubstr("/0000000003\n"));
}

TEST_F(KelctlReports, WithoutTheOptionItReadsTheAgentsOwnDirectory)
{
    WriteReport("0000000001", WholeReport(1));
    const Mount machines("/var/lib");
    fs::copy(kState, "/var/lib/kel-agent", fs::copy_options::recursive);

    const TSFinished ended = RunProgram({KEL_CTL, "reports", "--json"});

    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_EQ(Directories(json::parse(ended.m_output)),
              TWords{"/var/lib/kel-agent/reports/0000000001"});
}

} // namespace kel::test
