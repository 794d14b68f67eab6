// Two requests for a file without content, of the length of all the room, removed every report of
// everybody; a flood of one user's removed those of the others.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <gmock/gmock.h>

#include "e2e/ReportRoad.h"

namespace kel::test {

namespace fs = std::filesystem;
using testing::StartsWith;

class SharesOfReports : public ReportRoad
{
protected:
    static constexpr uid_t kStranger = 65533;
    static constexpr uintmax_t kRoom = 1 << 20;

    void Collect(const ChildProcess& agent, const std::string& name, const fs::path& artefact,
                 uid_t user)
    {
        File(name, artefact, user);
        ASSERT_TRUE(Says(agent, ": " + name + " in /tmp/kel_NDF collected\n"))
            << agent.ErrorOutput();
    }

    // Root's reports, and how many of them there are.
    void CollectSome(const ChildProcess& agent)
    {
        WriteFile(m_scratch / "some", std::string(100000, 'x'));
        for (const char* const name : {"r-1-ALWAYS.log", "r-2-ALWAYS.log", "r-3-ALWAYS.log"}) {
            Collect(agent, name, m_scratch / "some", 0);
        }
    }
    size_t CountSome() const
    {
        const TNames names = Names();
        return static_cast<size_t>(
            std::count_if(names.begin(), names.end(),
                          [](const std::string& name) { return name.rfind("r-", 0) == 0; }));
    }
};

TEST_F(SharesOfReports, HolesTakeNoneAndAreNotWritten)
{
    constexpr uintmax_t kLength = kRoom - 60000; // a report's text has room beside it
    const fs::path sparse = m_scratch / "sparse";
    WriteFile(sparse, "begin");
    fs::resize_file(sparse, kLength);
    const auto agent = StartCollector({"--max-bytes", std::to_string(kRoom)});
    CollectSome(*agent);

    for (const char* const name : {"s-1-ALWAYS.log", "s-2-ALWAYS.log", "s-3-ALWAYS.log"}) {
        Collect(*agent, name, sparse, kStranger);
    }

    EXPECT_EQ(CountSome(), 3U) << agent->ErrorOutput();
    const std::vector<TSReport> reports = Reports();
    ASSERT_EQ(reports.size(), 6U);
    for (size_t i = 3; i < reports.size(); ++i) {
        const fs::path copy = reports[i].m_directory / "artefact";
        EXPECT_EQ(reports[i]["/artefact/bytes"], std::to_string(kLength));
        EXPECT_EQ(ReadFile(copy), ReadFile(sparse));
        struct stat status = {};
        ASSERT_EQ(stat(copy.c_str(), &status), 0);
        EXPECT_LT(status.st_blocks * 512, 100000);
    }
}

TEST_F(SharesOfReports, ALargeOneIsNotAtTheExpenseOfWhoHoldsLess)
{
    WriteFile(m_scratch / "large", std::string(800000, 'x'));
    WriteFile(m_scratch / "fair", std::string(400000, 'x'));
    const auto agent = StartCollector({"--max-bytes", std::to_string(kRoom)});
    CollectSome(*agent);

    Collect(*agent, "s-1-ALWAYS.log", m_scratch / "large", kStranger);
    Collect(*agent, "s-2-ALWAYS.log", m_scratch / "fair", kStranger);
    Collect(*agent, "s-3-ALWAYS.log", m_scratch / "fair", kStranger);

    EXPECT_EQ(CountSome(), 3U) << agent->ErrorOutput();
    const std::vector<TSReport> reports = Reports();
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back()["/artefact/bytes"], "400000");
    EXPECT_EQ(CountOf(agent->ErrorOutput(),
                      "/large not copied: it has 800000 bytes, and there is room for "),
              1U)
        << agent->ErrorOutput();
}

TEST_F(SharesOfReports, OfAFloodOnlyItsOwnGiveWay)
{
    const auto agent = StartCollector({"--max-reports", "5"});
    CollectSome(*agent);

    for (int i = 0; i < 20; ++i) {
        Collect(*agent, "s-" + std::to_string(i) + "-ALWAYS.log", "NO_PATH", kStranger);
    }

    EXPECT_EQ(CountSome(), 3U) << agent->ErrorOutput();
    EXPECT_EQ(Ids().size(), 5U);
}

TEST_F(SharesOfReports, AreTheSameForTheNextAgent)
{
    {
        const auto agent = StartCollector();
        CollectSome(*agent);
        for (int i = 0; i < 6; ++i) {
            Collect(*agent, "s-" + std::to_string(i) + "-ALWAYS.log", "NO_PATH", kStranger);
        }
    }
    const auto agent = StartCollector({"--max-reports", "4"});
    File("s-last-ALWAYS.log", "NO_PATH", kStranger);

    ASSERT_TRUE(Says(*agent, ": s-last-ALWAYS.log in /tmp/kel_NDF collected\n"))
        << agent->ErrorOutput();
    EXPECT_EQ(Ids().size(), 4U);
    EXPECT_EQ(CountSome(), 2U) << "two users share four";
}

} // namespace kel::test
