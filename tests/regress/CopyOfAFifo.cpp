// A copy from or onto a FIFO waited for its other end, for good.

#include "FileSystemTests.h"

namespace kel::test {

namespace {

class CopyOfAFifo : public FileSystemTest
{
};

TEST_F(CopyOfAFifo, FailsAsThatOfAnythingElseThatIsNoFile)
{
    const fs::path file = Write(m_root / "file", "text");
    const fs::path fifo = m_root / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    EXPECT_FALSE(TSFileSystem::CopyFile("/dev/null", m_root / "copy", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(m_root, m_root / "copy", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(file, "/dev/null", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(fifo, m_root / "copy", true));
    EXPECT_FALSE(TSFileSystem::CopyFile(file, fifo, true));
    EXPECT_FALSE(TSFileSystem::CopyFile(file, fifo, false));

    EXPECT_FALSE(fs::exists(m_root / "copy"));
    const std::string refused = "Could not copy file: error code: Function not implemented";
    ExpectLog("CopyFile", kErrorPriority,
              {refused, refused, refused, refused, refused,
               "Could not copy file: error code: File exists"});
}

} // namespace

} // namespace kel::test
