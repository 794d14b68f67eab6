// In a fresh clone scripts/arm made no sysroot: mmdebstrap wants the directory above its target.

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

namespace kel::test {

namespace {

namespace fs = std::filesystem;

// scripts/arm, in a project without a build directory, where nothing is fetched and nothing built.
TEST(ArmOfAFreshClone, HasASysroot)
{
    const fs::path project = MakeDirectory();
    const auto writeProgram = [&](const std::string& name, const std::string& commands) {
        std::ofstream(project / name) << "#!/bin/sh\n" + commands + "\n";
        fs::permissions(project / name, fs::perms::owner_all);
    };
    fs::create_directories(project / "scripts");
    fs::create_directory(project / "bin");
    fs::copy_file(KEL_ARM_SCRIPT, project / "scripts/arm");
    writeProgram("scripts/setup", "echo libsome-dev");
    writeProgram("bin/sed", "echo stable"); // the release, from /etc
    writeProgram("bin/apt-get", "echo mirror");
    writeProgram("bin/cmake", "exit 0");
    writeProgram("bin/sudo", "exec \"$@\"");
    writeProgram("bin/mmdebstrap",
                 "set -e\n"
                 "for word; do\n"
                 "    case $word in */build/*) mkdir \"$word\"; cd \"$word\" ;; esac\n"
                 "done\n"
                 "mkdir -p tmp usr/lib");

    const TSFinished ended = RunProgram({project / "scripts/arm", "armhf", "--build-only"},
                                        {{"PATH", project.string() + "/bin:" + getenv("PATH")}});

    EXPECT_EQ(ended.m_exit, 0) << ended.m_output << ended.m_errorOutput;
    EXPECT_TRUE(fs::is_directory(project / "build/sysroot-armhf/usr/lib"));
    EXPECT_FALSE(fs::exists(project / "build/sysroot-armhf/tmp"));
    fs::remove_all(project);
}

} // namespace

} // namespace kel::test
