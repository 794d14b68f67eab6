// kelctl reports overflowed its stack on a deep report, took seconds for a broad one, printed half
// a gigabyte of blanks, and made bytes that are no UTF-8 of what it escaped.

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/KelctlTest.h"

namespace kel::test {

using nlohmann::json;

namespace fs = std::filesystem;

namespace {

std::string Nested(size_t depth)
{
    return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

std::string Broad(size_t members)
{
    std::string text = "{";
    for (size_t i = 0; i < members; ++i) {
        text += (i == 0 ? "\"a" : ",\"a") + std::to_string(i) + "\":[]";
    }
    return text + "}";
}

} // namespace

TEST_F(KelctlTest, AReportBeyondItsBoundsIsNone)
{
    WriteText("0000000001", Nested(100'000));
    WriteText("0000000002", Nested(10'000));
    WriteText("0000000003", Nested(65));
    WriteText("0000000004", Broad(40'000));
    WriteText("0000000005", "{\"a\": \"" + std::string(1 << 20, 'x') + "\"}");
    WriteText("0000000006", std::string(300'000, '[')); // and no end
    WriteText("0000000007", Nested(64));
    WriteText("0000000008", Broad(500));
    WriteText("0000000009", "{\"a\": \"" + std::string((1 << 20) - 9, 'x') + "\"}");
    fs::create_directories(kReports / "0000000010");
    fs::create_symlink("/dev/zero", kReports / "0000000010" / "report.json");

    const TSFinished array = Reports({"--json"});
    const TSFinished list = Reports();

    EXPECT_EQ(array.m_exit, 1) << array.m_errorOutput;
    EXPECT_EQ(Directories(json::parse(array.m_output)),
              (TWords{kReports / "0000000007", kReports / "0000000008", kReports / "0000000009"}));
    EXPECT_LT(array.m_output.size(), 2U << 20);
    EXPECT_EQ(list.m_exit, 1) << Text(list);
    EXPECT_EQ(Lines(list.m_output).size(), 4U);
    for (const TSFinished& ended : {array, list}) {
        const TWords errors = Lines(ended.m_errorOutput);
        ASSERT_EQ(errors.size(), 7U) << ended.m_errorOutput;
        for (const std::string& error : errors) {
            EXPECT_THAT(error, testing::EndsWith(": it has no report that can be read"));
        }
    }
    EXPECT_EQ(Reports({"7"}).m_exit, 0);
}

TEST_F(KelctlTest, WhateverAReportHoldsATerminalGetsPlainText)
{
    const std::string name = "\x7f\xc2\x9b\xe2\x80\xae\\x0a";
    json report = WholeReport(1, name);
    report[name] = json::array({name});
    WriteReport("0000000001", report);

    const std::string outputs[]
        = {Reports().m_output, Reports({"1"}).m_output, Reports({"--json"}).m_output};

    for (const std::string& output : outputs) {
        EXPECT_EQ(output.find_first_not_of("\n !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRS"
                                           "TUVWXYZ[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~"),
                  std::string::npos)
            << output;
    }
    EXPECT_THAT(outputs[0], testing::HasSubstr(" \\x7f\\xc2\\x9b\\xe2\\x80\\xae\\x5cx0a "));
    EXPECT_EQ(json::parse(outputs[2])[0].at("request").at("process"), name);
}

} // namespace kel::test
