// What the tools offer is what their man pages and the completion say.

#include <set>
#include <sstream>

#include <gmock/gmock.h>

#include "e2e/AgentRoad.h"

namespace kel::test {

using testing::Contains;
using testing::HasSubstr;

namespace {

typedef std::set<std::string> TWords;

// The words in a text that follow this, of small letters and hyphens, beginning with a letter.
TWords WordsAfter(const std::string& start, const std::string& text)
{
    TWords words;
    for (size_t at = 0; (at = text.find(start, at)) != std::string::npos;) {
        at += start.size();
        const std::string word
            = text.substr(at, text.find_first_not_of("abcdefghijklmnopqrstuvwxyz-", at) - at);
        if (!word.empty() && word[0] != '-') {
            words.insert(word);
        }
    }
    return words;
}

// The long options that a program, or one of its commands, tells of.
TWords Options(std::vector<std::string> command)
{
    command.push_back("--help");
    const TSFinished help = RunProgram(command);
    EXPECT_EQ(help.m_exit, 0) << Text(help);
    TWords options;
    for (const std::string& word : WordsAfter("--", help.m_output)) {
        options.insert("--" + word);
    }
    EXPECT_THAT(options, Contains("--help"));
    return options;
}

// A man page as a reader sees it, without emphasis. What the formatter complains of is a failure.
std::string Rendered(const std::string& page)
{
    const TSFinished rendered
        = RunProgram({"groff", "-mdoc", "-ww", "-Tascii", "-P-cbou", KEL_TOOLS "/" + page});
    EXPECT_EQ(rendered.m_exit, 0) << Text(rendered);
    EXPECT_EQ(rendered.m_errorOutput, "");
    return rendered.m_output;
}

// What the shell offers for the last of these words, by the function of a tool.
TWords Completed(const std::string& words, const std::string& tool = "kelctl",
                 const std::string& function = "_kelctl")
{
    const TSFinished ended
        = RunProgram({"bash", "-c",
                      "source '" KEL_TOOLS "/" + tool + "/" + tool
                          + ".bash'\n"
                            "COMP_WORDS=("
                          + words
                          + ")\n"
                            "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                          + function + " " + tool
                          + " \"${COMP_WORDS[COMP_CWORD]}\" \"${COMP_WORDS[COMP_CWORD-1]}\"\n"
                            "printf '%s\\n' \"${COMPREPLY[@]}\""});
    EXPECT_EQ(ended.m_exit, 0) << Text(ended);
    TWords offered;
    std::istringstream lines(ended.m_output);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) {
            offered.insert(line);
        }
    }
    return offered;
}

const std::vector<std::string> kCommands{"set-policy", "monitor", "status", "report",
                                         "reports",    "klog",    "policy", "process-info",
                                         "trace",      "replay",  "doctor"};

} // namespace

TEST(ToolDocuments, TheManPagesHaveEveryOption)
{
    const std::string kelctl = Rendered("kelctl/kelctl.1");
    const std::string agent = Rendered("kel-agent/kel-agent.8");

    for (const std::string& option : Options({KEL_CTL})) {
        EXPECT_THAT(kelctl, HasSubstr(option));
    }
    for (const std::string& command : kCommands) {
        EXPECT_THAT(kelctl, HasSubstr("kelctl " + command));
        for (const std::string& option : Options({KEL_CTL, command})) {
            EXPECT_THAT(kelctl, HasSubstr(option));
        }
    }
    for (const std::string& option : Options({KEL_AGENT})) {
        EXPECT_THAT(agent, HasSubstr(option));
    }
}

TEST(ToolDocuments, TheHelpTellsOfTheCommandsThatAreTestedHere)
{
    const std::string help = RunProgram({KEL_CTL, "--help"}).m_output;

    EXPECT_EQ(WordsAfter("\n  ", help), TWords(kCommands.begin(), kCommands.end()));
}

TEST(ToolDocuments, TheCompletionOffersTheCommandsAndEveryOption)
{
    TWords first = Options({KEL_CTL});
    first.insert(kCommands.begin(), kCommands.end());

    EXPECT_EQ(Completed("kelctl ''"), first);
    EXPECT_EQ(Completed("kelctl mo"), TWords{"monitor"});
    for (const std::string& command : kCommands) {
        EXPECT_EQ(Completed("kelctl " + command + " --"), Options({KEL_CTL, command}));
    }
}

// These shells are not on each machine that builds: the words have to be there.
TEST(ToolDocuments, TheCompletionsOfOtherShellsHaveTheCommandsAndEveryOption)
{
    const std::string zsh = ReadFile(KEL_TOOLS "/kelctl/kelctl.zsh");
    const std::string fish = ReadFile(KEL_TOOLS "/kelctl/kelctl.fish");

    std::set<std::string> options = Options({KEL_CTL});
    for (const std::string& command : kCommands) {
        EXPECT_THAT(zsh, HasSubstr("'" + command + ":"));
        EXPECT_THAT(fish, HasSubstr(" -a " + command + " -d"));
        options.merge(Options({KEL_CTL, command}));
    }
    for (const std::string& option : options) {
        EXPECT_THAT(zsh, HasSubstr(option));
        EXPECT_THAT(fish, HasSubstr(" -l " + option.substr(2) + " "));
    }
}

TEST(ToolDocuments, TheCompletionOffersFilesWhereFilesAreMeantAndNothingForANumber)
{
    EXPECT_EQ(Completed("kelctl set-policy '" KEL_EXAMPLES "/pol'"),
              TWords{KEL_EXAMPLES "/policy.xml"});
    EXPECT_EQ(Completed("kelctl monitor --count ''"), TWords{});
    EXPECT_EQ(Completed("kelctl report --path '" KEL_EXAMPLES "/pol'"),
              TWords{KEL_EXAMPLES "/policy.xml"});
    EXPECT_EQ(Completed("kelctl report --thread ''"), TWords{});
    EXPECT_EQ(Completed("kelctl report --mode on"), TWords{"once-only"});
    EXPECT_EQ(Completed("kelctl reports --mode on"), TWords{"once-only"});
    EXPECT_EQ(Completed("kelctl reports --sort p"), TWords{"process"});
    EXPECT_EQ(Completed("kelctl reports --since ''"), TWords{});
    EXPECT_EQ(Completed("kelctl reports --user roo"), TWords{"root"});
    EXPECT_EQ(Completed("kelctl reports --html '" KEL_EXAMPLES "/pol'"),
              TWords{KEL_EXAMPLES "/policy.xml"});
    EXPECT_EQ(Completed("kelctl reports --state-dir '" KEL_TOOLS "/kelc'"),
              TWords{KEL_TOOLS "/kelctl"});
    EXPECT_EQ(Completed("kelctl doctor --state-dir '" KEL_TOOLS "/kelc'"),
              TWords{KEL_TOOLS "/kelctl"});
    EXPECT_EQ(Completed("kelctl trace --input '" KEL_EXAMPLES "/pol'"),
              TWords{KEL_EXAMPLES "/policy.xml"});
    EXPECT_EQ(Completed("kelctl replay '" KEL_EXAMPLES "/pol'"),
              TWords{KEL_EXAMPLES "/policy.xml"});
    EXPECT_EQ(Completed("kelctl replay --as ag"), TWords{"agent"});
    EXPECT_EQ(Completed("kelctl replay --speed ''"), TWords{});
    EXPECT_EQ(Completed("kelctl unknown ''"), TWords{});
}

TEST(ToolDocuments, TheTestbusIsToldOfAsItIs)
{
    const TWords options = Options({KEL_TESTBUS});
    const std::string page = Rendered("kel-testbus/kel-testbus.1");
    const std::string zsh = ReadFile(KEL_TOOLS "/kel-testbus/kel-testbus.zsh");
    const std::string fish = ReadFile(KEL_TOOLS "/kel-testbus/kel-testbus.fish");
    const auto completed = [](const std::string& words) {
        return Completed("kel-testbus " + words, "kel-testbus", "_kel_testbus");
    };

    for (const std::string& option : options) {
        EXPECT_THAT(page, HasSubstr(option));
        EXPECT_THAT(zsh, HasSubstr(option));
        EXPECT_THAT(fish, HasSubstr(" -l " + option.substr(2) + " "));
    }
    TWords first = options;
    first.insert("--");
    EXPECT_EQ(completed("--"), first);
    EXPECT_EQ(completed("--agent ref"), TWords{"reference"});
    EXPECT_EQ(completed("--agent '" KEL_EXAMPLES "/testbus/sl'"),
              TWords{KEL_EXAMPLES "/testbus/slow.agent"});
    EXPECT_THAT(completed("--test -- dbus-dae"), Contains("dbus-daemon"));
    EXPECT_EQ(completed("--test -- cat '" KEL_EXAMPLES "/testbus/sl'"),
              TWords{KEL_EXAMPLES "/testbus/slow.agent"});
}

} // namespace kel::test
