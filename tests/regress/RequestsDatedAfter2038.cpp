// With a time_t of 4 bytes, a request that anybody had dated after 2038 was never collected,
// mentioned or removed, a directory of such a date in the drops' place stayed, and an artefact of
// such a date was not copied.

#include <cstdlib>

#include "e2e/ReportRoad.h"
#include "support/Stranger.h"

namespace kel::test {

namespace {

namespace fs = std::filesystem;

// By a program that has large times: this one may have none.
void Date(const fs::path& path)
{
    EXPECT_EQ(system(("touch --date=2100-01-01T00:00Z " + path.string()).c_str()), 0);
}

std::string ExpectedTime() { return sizeof(time_t) > 4 ? "2100-01-01T00:00:00.000Z" : "-"; }

typedef ReportRoad RequestsDatedAfter2038;

TEST_F(RequestsDatedAfter2038, AreCollected)
{
    const auto agent = StartCollector();
    WriteFile(m_scratch / "late", "NO_PATH");
    Date(m_scratch / "late");

    fs::rename(m_scratch / "late", kDrop / kGood);

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/request/filed"], ExpectedTime());
    EXPECT_TRUE(WaitUntil([] { return NamesIn(kTaken) == TNames{"trash"}; }));
}

TEST_F(RequestsDatedAfter2038, ADropIsReplaced)
{
    const Stranger stranger([] {
        fs::create_directory(kDrop);
        Date(kDrop);
    });
    const auto agent = StartCollector();

    Request(ALWAYS, "proc", "good");

    EXPECT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
}

TEST_F(RequestsDatedAfter2038, AnArtefactIsCopied)
{
    const auto agent = StartCollector();
    WriteFile(m_scratch / "artefact", "text");
    Date(m_scratch / "artefact");

    File(kGood, m_scratch / "artefact");

    ASSERT_TRUE(WaitForReports(1)) << agent->ErrorOutput();
    EXPECT_EQ(Reports().at(0)["/artefact/bytes"], "4");
}

} // namespace

} // namespace kel::test
