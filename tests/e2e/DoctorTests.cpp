// kelctl doctor: what it prints, and how it ends.

#include <algorithm>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "e2e/Findings.h"

namespace kel::test {

using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

namespace {

const ChildProcess::TEnvironment kNoBus
    = {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/none,x=\033[2J"}};

TSFinished Doctor(std::vector<std::string> arguments, const ChildProcess::TEnvironment& changes)
{
    arguments.insert(arguments.begin(), {KEL_CTL, "doctor"});
    return RunProgram(arguments, changes);
}

long CountOfHealth(const json& findings, const std::string& health)
{
    return std::count_if(findings.begin(), findings.end(),
                         [&health](const json& finding) { return finding.at("health") == health; });
}

// A count, and what is counted: "1 warning", "2 warnings".
std::string Counted(long count, const std::string& what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

} // namespace

class DoctorOutput : public SandboxTest
{
};

TEST_F(DoctorOutput, IsALineForEachFindingWithItsAdviceBelowAndACountAtTheEnd)
{
    const json findings = json::parse(Doctor({"--json"}, kNoBus).m_output);

    const TSFinished text = Doctor({}, kNoBus);

    std::istringstream lines(text.m_output);
    std::string line;
    for (const json& finding : findings) {
        const std::string health = finding.at("health");
        ASSERT_TRUE(std::getline(lines, line)) << text.m_output;
        EXPECT_THAT(line, testing::StartsWith(health + std::string(9 - health.size(), ' ')
                                              + finding.at("check").get<std::string>() + ": "));
        EXPECT_EQ(finding.at("advice").empty() || finding.at("advice") == "", health == "good");
        if (health != "good") {
            ASSERT_TRUE(std::getline(lines, line)) << text.m_output;
            EXPECT_TRUE(std::regex_match(line, std::regex(" {9}[^ ].*"))) << line;
        }
    }
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line, std::to_string(CountOfHealth(findings, "good")) + " good, "
                        + Counted(CountOfHealth(findings, "warning"), "warning") + ", "
                        + Counted(CountOfHealth(findings, "fault"), "fault"));
    EXPECT_FALSE(std::getline(lines, line)) << line;
    EXPECT_EQ(text.m_errorOutput, "");
}

TEST_F(DoctorOutput, EndsWith1WhenThereIsAFault)
{
    const TSFinished text = Doctor({}, kNoBus);
    const TSFinished asJson = Doctor({"--json"}, kNoBus);

    EXPECT_EQ(text.m_exit, 1) << Text(text);
    EXPECT_EQ(asJson.m_exit, 1) << Text(asJson);
    EXPECT_GT(CountOfHealth(json::parse(asJson.m_output), "fault"), 0);
}

TEST_F(DoctorOutput, HasStrangersTextsAsPlainOnes)
{
    const TSFinished text = Doctor({}, kNoBus);

    EXPECT_THAT(text.m_output, HasSubstr("x=\\x1b[2J"));
    EXPECT_THAT(text.m_output, Not(HasSubstr("\033")));
    EXPECT_THAT(Doctor({"--json"}, kNoBus).m_output, HasSubstr("x=\\u001b[2J"));
}

TEST_F(DoctorOutput, IsNoneAfterWrongUsage)
{
    const TSFinished ended = Doctor({"--jsn"}, kNoBus);

    EXPECT_EQ(ended.m_exit, 2);
    EXPECT_EQ(ended.m_output, "");
    EXPECT_TRUE(IsOneLine(ended.m_errorOutput, "kelctl: ")) << Text(ended);
}

} // namespace kel::test
