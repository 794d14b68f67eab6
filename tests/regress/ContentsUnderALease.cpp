// GetFileContents() failed at once on a file under another process's lease, where an open waits.

#include "FileSystemTests.h"
#include "Lessee.h"

namespace kel::test {

namespace {

class ContentsUnderALease : public FileSystemTest
{
};

TEST_F(ContentsUnderALease, AreReadWhenTheLeaseIsGivenBack)
{
    const fs::path path = Write(m_root / "file", "text");
    Lessee lessee(path);
    if (!lessee.HasLease()) {
        GTEST_SKIP() << "this machine grants no leases";
    }
    const size_t before = CountDescriptors();
    std::vector<unsigned char> contents;

    EXPECT_TRUE(TSFileSystem::GetFileContents(path.string(), contents));

    EXPECT_THAT(contents, testing::ElementsAre('t', 'e', 'x', 't'));
    EXPECT_EQ(lessee.End(), SIGIO);
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_THAT(m_log.Lines(), testing::IsEmpty());
}

TEST_F(ContentsUnderALease, StayWhenAFifoTakesTheFilesPlaceMeanwhile)
{
    const fs::path path = Write(m_root / "file", "text");
    Lessee lessee(path);
    if (!lessee.HasLease()) {
        GTEST_SKIP() << "this machine grants no leases";
    }
    g_hooks.m_open = [&, number = 0](const std::string& opened) mutable {
        if (opened == path.string() && ++number == 2) {
            fs::remove(path);
            EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        }
    };
    std::vector<unsigned char> contents{1, 2};

    EXPECT_FALSE(TSFileSystem::GetFileContents(path.string(), contents));

    EXPECT_THAT(contents, testing::ElementsAre(1, 2));
    ExpectLog("GetFileContents", kDebugPriority, {"File /tmp/tree/file opening failed"});
}

} // namespace

} // namespace kel::test
