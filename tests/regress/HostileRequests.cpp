// A request could stop the agent, delay or mislead its reports of others, or fill its disk.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "requests/TakenName.h"
#include "support/Mount.h"
#include "support/Threads.h"

namespace kel::test {

namespace fs = std::filesystem;
using namespace std::string_literals;

typedef ReportRoad HostileRequests;

TEST_F(HostileRequests, OneOfATimeThatCannotBeToldIsCollected)
{
    const auto agent = StartCollector();
    WriteFile(m_scratch / "far", "NO_PATH");
    // By a program that has large times, on every machine.
    const std::string command
        = "touch -m --date=@288230376151711744 " + (m_scratch / "far").string();
    ASSERT_EQ(system(command.c_str()), 0);

    fs::rename(m_scratch / "far", kDrop / kGood);

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/request/filed"], "-");
}

TEST_F(HostileRequests, OneThatCannotBeRemovedHasOneReport)
{
    StartCollector(); // makes the directories
    const fs::path request = kTaken / agent::TSTakenName{1, 1, false, kGood}.Text();
    WriteFile(request, "NO_PATH");
    // Between its reading and its removal.
    WriteFile(m_bus.Directory() + "/tools/dmesg",
              "#!/bin/sh\nmkdir " + (m_scratch / "once").string() + " && mount --bind "
                  + (m_scratch / "mounted").string() + " " + request.string() + "\n");
    WriteFile(m_scratch / "mounted", "NO_PATH");
    const auto agent = StartCollector();

    EXPECT_TRUE(
        Says(*agent, "kel-agent: "s + kGood + " in /tmp/kel_NDF waits: it cannot be removed: "))
        << agent->ErrorOutput();
    LetItLook();
    EXPECT_EQ(Names(), (TNames{"look-once-ALWAYS.log", "look-twice-ALWAYS.log", kGood}));
    EXPECT_EQ(CountOf(agent->ErrorOutput(), " waits: "), 1U) << agent->ErrorOutput();
    ASSERT_EQ(umount2(request.c_str(), MNT_DETACH), 0);

    EXPECT_TRUE(WaitUntil([&] { return !fs::exists(request); }));
}

TEST_F(HostileRequests, OneThatIsNeverClosedIsTakenInTheEnd)
{
    const auto agent = StartCollector();
    const int patient = creat((kDrop / "a-patient-ALWAYS.log").c_str(), 0644);
    ASSERT_EQ(write(patient, "/nowhere", 8), 8);
    File(kGood);
    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Names(), TNames{kGood});

    EXPECT_TRUE(WaitForReports(2)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(1)["/request/upload-path"], "/nowhere");
    close(patient);
}

// A file of the system's that tells of no size, and has hundreds of gigabytes.
TEST_F(HostileRequests, WhatHasNoEndIsCopiedNoFurtherThanTheLimit)
{
    const Mount state(m_stateDir, "size=64m");
    const auto agent = StartCollector({"--max-bytes", "1000000"});
    uintmax_t leastSpace = fs::space(m_stateDir).free;
    {
        const Repeat watch([&] {
            leastSpace = std::min(leastSpace, fs::space(m_stateDir).free);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        });
        File(kGood, "/proc/self/pagemap");
        EXPECT_TRUE(Says(*agent, "artefact /proc/self/pagemap not copied: it has more bytes than "
                                 "it tells of, and there is room for "))
            << agent->ErrorOutput();
    }
    EXPECT_GT(leastSpace, 60U << 20U);
}

} // namespace kel::test
