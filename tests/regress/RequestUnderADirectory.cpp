// A directory under a request's name among what the agent had taken blocked that name for ever, and
// had the agent ask all applications once a second.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"
#include "support/Stranger.h"

namespace kel::test {

namespace fs = std::filesystem;

typedef ReportRoad RequestUnderADirectory;

TEST_F(RequestUnderADirectory, MadeBeforeTheFirstAgentStopsNothing)
{
    const Stranger stranger([] {
        for (const fs::path& taken : {kDrop / ".taken", kTaken}) {
            fs::create_directories(taken / kGood / "deep");
            fs::create_directories(
                taken / "00000000000000010000000000016e612d622d414c574159532e6c6f67" / "deep");
            fs::create_directories(taken / "trash" / "deep");
        }
    });
    const auto agent = StartCollector();

    Request(ALWAYS, "proc", "good");

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_TRUE(WaitUntil([] { return NamesIn(kTaken / "trash").empty(); }));
    LetItLook();
    EXPECT_EQ(Ids().size(), 3U);
    EXPECT_LE(CountOf(agent->ErrorOutput(), "process information: "), 3U) << agent->ErrorOutput();
    EXPECT_EQ(NamesIn(kTaken), TNames{"trash"});
}

TEST_F(RequestUnderADirectory, SwappedInBetweenListAndTakeStopsNothing)
{
    const auto agent = StartCollector();
    {
        const Stranger stranger(
            [] {
                // A request, and a directory that is not empty, in turns under one name.
                const fs::path name = kDrop / kGood;
                const fs::path other = kDrop / "a-swap-ALWAYS.log";
                close(open(other.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
                mkdir(name.c_str(), 0777);
                mkdir((name / "deep").c_str(), 0777);
                renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
            },
            true);
        ASSERT_TRUE(WaitForReports(50)) << agent->ErrorOutput();
    }
    const size_t before
        = CountOf(agent->ErrorOutput(), kGood + std::string(" in /tmp/kel_NDF coll"));

    ASSERT_TRUE(WaitUntil([] { return Request(ALWAYS, "proc", "good") == 1; }));

    EXPECT_TRUE(WaitUntil([&] {
        return CountOf(agent->ErrorOutput(), kGood + std::string(" in /tmp/kel_NDF coll")) > before;
    })) << agent->ErrorOutput();
    EXPECT_TRUE(WaitUntil([] { return NamesIn(kDrop).empty() && Taken().empty(); }));
    LetItLook();
    const size_t asked = CountOf(agent->ErrorOutput(), "process information: ");
    LetItLook();
    EXPECT_LE(CountOf(agent->ErrorOutput(), "process information: "), asked + 2);
}

} // namespace kel::test
