// Where nobody may make a namespace, tests that had to fail emptied the machine's /tmp and replaced
// its /etc/os-release all the same: a fixture that is refused in SetUp() is torn down, too.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>

#include "support/ChildProcess.h"
#include "support/Sandbox.h"

namespace kel::test {

namespace {

namespace fs = std::filesystem;

// What tests write to, with something of the machine's in it.
const char* const kMachines[] = {"/etc/debug",
                                 "/opt/usr/share/dlog/default_kel_policy.xml",
                                 "/run/kel-vconf/memory/kel/ndf_one",
                                 "/tmp/Device_Tracker.log",
                                 "/tmp/devices/file",
                                 "/tmp/file",
                                 "/tmp/kel_NDF/proc-main-ALWAYS.log",
                                 "/tmp/kel_NDF_reboot/proc-main-ALWAYS.log",
                                 "/tmp/store/file",
                                 "/tmp/the state/policy.xml",
                                 "/tmp/tools/dmesg",
                                 "/tmp/tree/file"};

std::string Contents(const fs::path& path)
{
    std::stringstream contents;
    contents << std::ifstream(path).rdbuf();
    return contents.str();
}

// A name and where it leads for each of what tests write to, and the contents of the machine's.
std::map<std::string, std::string> TheMachine()
{
    std::map<std::string, std::string> all;
    for (const char* const directory : {"/etc", "/opt", "/run", "/tmp"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            all[entry.path()] = entry.is_symlink() ? fs::read_symlink(entry.path()).string() : "";
        }
    }
    for (const char* const path : kMachines) {
        all[path] = Contents(path);
    }
    return all;
}

class TestsWithoutASandbox : public SandboxTest, public testing::WithParamInterface<const char*>
{
protected:
    TestsWithoutASandbox()
    {
        for (const fs::path path : kMachines) {
            fs::create_directories(path.parent_path());
            std::ofstream(path) << "the machine's";
        }
    }
};

TEST_P(TestsWithoutASandbox, AreSkippedAndLeaveTheMachineAsItIs)
{
    const auto before = TheMachine();

    const TSFinished ended = RunProgram({GetParam()}, {{"KEL_TEST_SANDBOX", "none"}});

    // With the word as it is, CTest takes a failure that shows it for a test that was skipped.
    const std::string said = std::regex_replace(ended.m_output, std::regex("SKIPPED"), "skipped");
    EXPECT_EQ(ended.m_exit, 0) << said;
    EXPECT_THAT(said, testing::HasSubstr(": Skipped\nnobody may make a mount namespace here\n"));
    EXPECT_EQ(TheMachine(), before);
}

INSTANTIATE_TEST_SUITE_P(Program, TestsWithoutASandbox, testing::Values(KEL_TEST_PROGRAMS),
                         [](const auto& program) {
                             std::string name = fs::path(program.param).filename();
                             name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                             return name;
                         });

} // namespace

} // namespace kel::test
