// kelctl reports --html, as a file: what a browser makes of it is checked with a browser.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"

namespace kel::test {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

class KelctlReportsPage : public KelctlTest
{
protected:
    KelctlReportsPage() { fs::create_directory(m_place); }

    TSFinished Write(const TWords& arguments = {})
    {
        TWords all{"--html", m_page};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Reports(all);
    }

    static void WriteFile(const fs::path& path, const std::string& text)
    {
        std::ofstream(path) << text;
    }

    // What the page's script reads of a report, or of a file of it.
    json DataOf(const std::string& attributes)
    {
        const std::string page = ReadFile(m_page);
        const std::string start = "<script type=\"application/json\" " + attributes + ">";
        const size_t at = page.find(start);
        return at == std::string::npos
                   ? json()
                   : json::parse(page.substr(at + start.size(),
                                             page.find("</script>", at) - at - start.size()));
    }

    size_t EntriesBeside() const // with the page itself
    {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(m_place), fs::directory_iterator()));
    }

    const fs::path m_place = kState / "pages";
    const fs::path m_page = m_place / "page.html";
};

TEST_F(KelctlReportsPage, HoldsTheReportsAndTheirFiles)
{
    WriteReport("0000000001", WholeReport(1));
    WriteReport("0000000002", WholeReport(2, "tuner"));
    WriteFile(kReports / "0000000002" / "artefact", "a text\n");
    WriteFile(kReports / "0000000002" / "kernel.log", "a line\n");
    WriteFile(kReports / "0000000001" / "artefact", std::string("\0\xff", 2));

    const TSFinished ended = Write();

    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    EXPECT_EQ(ended.m_output + ended.m_errorOutput, "");
    const json newest = DataOf("data-report");
    EXPECT_EQ(newest.at("id"), 2);
    EXPECT_EQ(newest.at("report").at("request"), WholeReport(2, "tuner").at("request"));
    EXPECT_EQ(newest.at("artefact"), (json{{"bytes", 7}, {"state", "whole"}, {"kind", "text"}}));
    EXPECT_EQ(newest.at("log"), (json{{"bytes", 7}, {"state", "whole"}}));
    EXPECT_EQ(DataOf("id=\"artefact-2\""), "a text\n");
    EXPECT_EQ(DataOf("id=\"log-2\""), "a line\n");
    EXPECT_EQ(DataOf("id=\"artefact-1\""), "AP8=");
}

TEST_F(KelctlReportsPage, HoldsThoseThatAreChosen)
{
    for (int id = 1; id <= 3; ++id) {
        WriteReport("000000000" + std::to_string(id),
                    WholeReport(id, id == 2 ? "tuner" : "player"));
    }

    EXPECT_EQ(Write({"1", "2", "--process", "player"}).m_exit, 0);
    EXPECT_EQ(CountOf(ReadFile(m_page), "data-report>"), 1U);
    EXPECT_EQ(DataOf("data-report").at("id"), 1);
    EXPECT_EQ(Write({"1", "7"}).m_exit, 1);
    EXPECT_EQ(DataOf("data-report").at("id"), 1);
}

TEST_F(KelctlReportsPage, WhatHasNoRoomIsTold)
{
    json report = WholeReport(1);
    report["long"] = std::string(5000, 'x');
    WriteReport("0000000001", report);
    WriteFile(kReports / "0000000001" / "artefact", std::string(5'000'000, 'x') + "\xc3\xa4");
    WriteFile(kReports / "0000000001" / "kernel.log", std::string(200'000, 'y') + "\n");
    WriteReport("0000000002", WholeReport(2));
    WriteFile(kReports / "0000000002" / "artefact", std::string(5'000'000, '\xff'));

    EXPECT_EQ(Write().m_exit, 0);

    EXPECT_EQ(DataOf("id=\"artefact-1\"").get<std::string>().size(), 1U << 17);
    EXPECT_EQ(DataOf("id=\"log-1\"").get<std::string>().size(), 1U << 17);
    EXPECT_EQ(DataOf("data-report").at("artefact"),
              (json{{"bytes", 5'000'000}, {"state", "out"}, {"kind", "binary"}}));
    EXPECT_THAT(ReadFile(m_page), HasSubstr("x... (5000 bytes)"));
    EXPECT_LT(fs::file_size(m_page), 500'000U);
}

TEST_F(KelctlReportsPage, NothingInItIsMarkupOrFollowsALink)
{
    const std::string hostile = "</script><!--<script>&lt;\xff\xe2\x80\xae";
    json report = WholeReport(1, "</script><!--<script>&lt;\u202e");
    report["</script>"] = "<script>";
    WriteReport("0000000001", report);
    WriteFile(kReports / "0000000001" / "kernel.log", hostile);
    fs::create_symlink("/etc/passwd", kReports / "0000000001" / "artefact");
    WriteReport("0000000002", WholeReport(2));
    ASSERT_EQ(mkfifo((kReports / "0000000002" / "artefact").c_str(), 0600), 0);

    EXPECT_EQ(Write().m_exit, 0);

    const std::string page = ReadFile(m_page);
    EXPECT_EQ(CountOf(page, "<script"), CountOf(page, "</script>"));
    EXPECT_EQ(CountOf(page, "<script"), 5U) << "two reports, a log, what it is about, its own";
    EXPECT_EQ(CountOf(page, "<!--"), 0U);
    EXPECT_THAT(page, Not(HasSubstr("root:")));
    EXPECT_EQ(DataOf("data-report").at("artefact").at("state"), "unreadable");
    EXPECT_EQ(DataOf("id=\"log-1\""), "</script><!--<script>&lt;\ufffd\u202e");
}

TEST_F(KelctlReportsPage, TakesThePlaceOfAFileWhenItIsWholeAndIsItsOwnersAlone)
{
    WriteReport("0000000001", WholeReport(1));
    WriteFile(m_page, "before");
    fs::permissions(m_page, fs::perms::all);
    const int reader = open(m_page.c_str(), O_RDONLY | O_CLOEXEC);

    EXPECT_EQ(Write().m_exit, 0);

    char before[6];
    EXPECT_EQ(read(reader, before, sizeof(before)), 6) << "it was written to";
    close(reader);
    EXPECT_EQ(fs::status(m_page).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(EntriesBeside(), 1U);
}

TEST_F(KelctlReportsPage, WhatIsNoFileStaysAsItIs)
{
    WriteReport("0000000001", WholeReport(1));
    WriteFile(kState / "other", "kept");
    fs::create_symlink(kState / "other", m_page);

    const TSFinished link = Write();
    const TSFinished directory = Reports({"--html", kState});
    const TSFinished missing = Reports({"--html", kState / "none" / "page"});

    for (const TSFinished& ended : {link, directory, missing}) {
        EXPECT_EQ(ended.m_exit, 5) << Text(ended);
        EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the page cannot be written: "))
            << Text(ended);
    }
    EXPECT_EQ(ReadFile(kState / "other"), "kept");
    EXPECT_EQ(EntriesBeside(), 1U);
}

TEST_F(KelctlReportsPage, OneThatCannotBeWrittenLeavesNothing)
{
    WriteReport("0000000001", WholeReport(1));
    WriteFile(m_page, "before");

    const TSFinished ended
        = RunInShell("trap '' XFSZ; ulimit -f 4; exec '" KEL_CTL "' reports --state-dir '"
                     + kState.string() + "' --html '" + m_page.string() + "'");

    EXPECT_EQ(ended.m_exit, 5) << Text(ended);
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: the page cannot be written: "))
        << Text(ended);
    EXPECT_EQ(ReadFile(m_page), "before");
    EXPECT_EQ(EntriesBeside(), 1U);
}

} // namespace kel::test
