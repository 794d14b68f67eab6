// What other tests rely on without looking.

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/Sandbox.h"

namespace kel::test {

namespace {

// One that has ended may stay a zombie for as long as the machine's first process likes.
bool IsRunning(pid_t process)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/stat");
    std::string id;
    std::string name;
    std::string state;
    return (status >> id >> name >> state) && state != "Z";
}

TEST(Sandbox, HidesWhatTestsWriteAndTheMarkersOfADevice)
{
    Sandbox::Need();
    for (const char* const path : {"/etc/release", "/etc/debug", "/opt/x", "/run/x", "/tmp/x"}) {
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
        std::ofstream(path) << "written";

        const std::string outside = "/proc/" + std::to_string(getppid()) + "/root" + path;
        struct stat mine;
        struct stat theirs;
        ASSERT_EQ(stat(path, &mine), 0) << path;
        EXPECT_TRUE(stat(outside.c_str(), &theirs) != 0 || theirs.st_dev != mine.st_dev) << path;
    }
    EXPECT_TRUE(std::filesystem::exists("/etc/passwd"));
}

TEST(ChildProcess, TakesItsChildrenAlong)
{
    pid_t grandchild = 0;
    {
        ChildProcess child({"sh", "-c", "sleep 1000 & echo $!; wait"});
        ASSERT_TRUE(child.WaitForOutput("\n"));
        grandchild = std::stoi(child.Output());
        EXPECT_TRUE(IsRunning(grandchild));
    }

    EXPECT_TRUE(WaitUntil([grandchild] { return !IsRunning(grandchild); }));
}

TEST(ChildProcess, TellsHowItEndedAndWhatItWrote)
{
    const TSFinished finished = RunProgram({"sh", "-c", "cat; echo bad >&2; exit 3"}, {}, "good");
    const TSFinished killed = RunProgram({"sh", "-c", "kill -9 $$"});
    const TSFinished endless = RunProgram({"sleep", "1000"}, {}, {}, std::chrono::milliseconds(50));

    EXPECT_EQ(finished.m_exit, 3);
    EXPECT_EQ(finished.m_output, "good");
    EXPECT_EQ(finished.m_errorOutput, "bad\n");
    EXPECT_EQ(killed.m_exit, 128 + SIGKILL);
    EXPECT_EQ(endless.m_exit, std::nullopt);
}

TEST(PrivateBus, LeavesNothingBehind)
{
    std::string directory;
    {
        const PrivateBus bus;
        directory = bus.Directory();
        EXPECT_TRUE(std::filesystem::exists(directory + "/bus"));
    }

    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_EQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), nullptr);
}

} // namespace

} // namespace kel::test
