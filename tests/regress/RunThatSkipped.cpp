// A run that had skipped half of the tests ended with "100% tests passed", and CI took it for good.

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

namespace kel::test {

namespace {

namespace fs = std::filesystem;

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr char kSkipped[] = "test: 1 of 2 tests were skipped (1: this machine has no moon)\n";

// scripts/test, in a project of two tests.
class RunThatSkipped : public testing::Test
{
protected:
    RunThatSkipped()
    {
        fs::create_directories(m_project / "scripts");
        fs::create_directory(m_project / "bin");
        fs::copy_file(KEL_TEST_SCRIPT, m_project / "scripts/test");
        WriteProgram("scripts/setup", "exit 0");
        WriteProgram("bin/moon", "echo 'moon.cpp:1: Skipped'\n"
                                 "echo 'this machine has no moon'\n"
                                 "echo '[  SKIPPED ] Rises'");
        Write("CMakeLists.txt", R"(
cmake_minimum_required(VERSION 3.16)
project(two NONE)
enable_testing()
add_test(NAME Moon.Rises COMMAND ${CMAKE_SOURCE_DIR}/bin/moon)
add_test(NAME Sun.Rises COMMAND true)
set_tests_properties(Moon.Rises Sun.Rises PROPERTIES SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
)");
        Write("CMakePresets.json", R"({
  "version": 2,
  "configurePresets": [{"name": "dev", "generator": "Ninja", "binaryDir": "${sourceDir}/build/dev"}],
  "buildPresets": [{"name": "dev", "configurePreset": "dev"}],
  "testPresets": [{"name": "dev", "configurePreset": "dev"}]
})");
    }
    ~RunThatSkipped() override { fs::remove_all(m_project); }

    void Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(m_project / name) << text;
    }
    void WriteProgram(const std::string& name, const std::string& command) const
    {
        Write(name, "#!/bin/sh\n" + command + "\n");
        fs::permissions(m_project / name, fs::perms::owner_all);
    }

    TSFinished Run(const std::vector<std::string>& arguments,
                   ChildProcess::TEnvironment environment = {}) const
    {
        std::vector<std::string> command{m_project / "scripts/test"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        // This run's own may be others.
        environment["KEL_PRESET"] = "dev";
        environment.emplace("KEL_SKIPPED", "");
        environment["PATH"] = m_project.string() + "/bin:" + getenv("PATH");
        return RunProgram(command, environment);
    }

    const fs::path m_project = MakeDirectory();
};

TEST_F(RunThatSkipped, EndsWithHowManyAndWhy)
{
    const TSFinished ended = Run({});

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_THAT(ended.m_output, HasSubstr("100% tests passed"));
    EXPECT_THAT(ended.m_output, EndsWith(kSkipped));
}

TEST_F(RunThatSkipped, FailsWhereThatIsAFailureAndNamesTheTests)
{
    const TSFinished ended = Run({}, {{"KEL_SKIPPED", "fail"}});

    EXPECT_EQ(ended.m_exit, 1);
    EXPECT_THAT(ended.m_output,
                EndsWith("\ntest: skipped: Moon.Rises this machine has no moon\n"s + kSkipped));
}

TEST_F(RunThatSkipped, IsNoneWhenAllHaveRun)
{
    const TSFinished ended = Run({"-R", "Sun"}, {{"KEL_SKIPPED", "fail"}});

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_THAT(ended.m_output, Not(HasSubstr("tests were skipped")));
}

TEST_F(RunThatSkipped, BeginsWithHowToHaveANamespaceWhereThereIsNone)
{
    WriteProgram("bin/unshare", "exit 1");

    const TSFinished ended = Run({"-R", "Sun"});

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_THAT(ended.m_output,
                testing::ContainsRegex("^test: [^\n]* may make no mount namespace here"));
    EXPECT_THAT(ended.m_output, HasSubstr("\ntest:   in a container: "));
    EXPECT_THAT(ended.m_output, HasSubstr("\ntest:   on a machine: "));
}

} // namespace

} // namespace kel::test
