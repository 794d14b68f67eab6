// kelctl reports ended with what it could not read, and took a number with a zero for an octal one.

#include <fstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"

namespace kel::test {

using nlohmann::json;

namespace fs = std::filesystem;

TEST_F(KelctlTest, AFileWithAReportsNameIsNoReport)
{
    WriteReport("0000000001", WholeReport(1));
    std::ofstream(kReports / "0000000002") << WholeReport(2).dump();
    fs::create_symlink("nowhere", kReports / "0000000003");
    fs::create_directory(kReports / "0000000004");

    const TSFinished list = Reports({"--json"});
    const TSFinished one = Reports({"2"});

    EXPECT_EQ(list.m_exit, 1) << Text(list); // for the directory that has no report
    EXPECT_EQ(list.m_errorOutput, "kelctl: " + (kReports / "0000000004").string()
                                      + ": it has no report that can be read\n");
    EXPECT_EQ(Directories(json::parse(list.m_output)), TWords{kReports / "0000000001"});
    EXPECT_EQ(one.m_exit, 1) << Text(one);
    EXPECT_EQ(one.m_errorOutput, "kelctl: there is no report 2\n");
}

TEST_F(KelctlTest, WhatCannotBeReadIsToldOfAndTheOthersAreListed)
{
    WriteReport("0000000001", WholeReport(1));
    fs::create_directory(kReports / "0000000002");                     // no file
    WriteText("0000000003", WholeReport(3).dump().substr(0, 100));     // half of one
    WriteText("0000000004", "[]");                                     // no object
    WriteText("0000000005", "");                                       // nothing
    fs::create_directories(kReports / "0000000006" / "report.json");   // no file either
    WriteText("0000000007", "{\"request\": {\"process\": \"\xff\"}}"); // no UTF-8
    WriteReport("0000000008", WholeReport(8));

    const TSFinished list = Reports();
    const TSFinished array = Reports({"--json"});

    EXPECT_EQ(list.m_exit, 1) << Text(list);
    EXPECT_EQ(Lines(list.m_output).size(), 3U);
    const TWords errors = Lines(list.m_errorOutput);
    ASSERT_EQ(errors.size(), 6U) << list.m_errorOutput;
    for (size_t i = 0; i < errors.size(); ++i) {
        EXPECT_THAT(errors[i], testing::StartsWith("kelctl: " + kReports.string() + "/000000000"
                                                   + std::to_string(i + 2) + ": "));
    }
    EXPECT_EQ(array.m_exit, 1) << Text(array);
    EXPECT_EQ(array.m_errorOutput, list.m_errorOutput);
    EXPECT_EQ(Directories(json::parse(array.m_output)),
              (TWords{kReports / "0000000001", kReports / "0000000008"}));
}

TEST_F(KelctlTest, TheNumberIsADecimalOneWithAndWithoutZeros)
{
    const auto IdOf = [](const char* number) {
        return json::parse(Reports({"--json", number}).m_output).at("id");
    };
    WriteReport("0000000008", WholeReport(8));
    WriteReport("0000000009", WholeReport(9));
    WriteReport("0000000010", WholeReport(10));

    EXPECT_EQ(IdOf("0000000010"), 10);
    EXPECT_EQ(IdOf("010"), 10);
    EXPECT_EQ(IdOf("10"), 10);
    EXPECT_EQ(IdOf("0000000009"), 9);
}

} // namespace kel::test
