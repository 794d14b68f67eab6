// A copy of a file that tells no length, as those of /proc, was empty, and passed for a success.

#include "FileSystemTests.h"

namespace kel::test {

namespace {

class CopyOfAFileWithoutALength : public FileSystemTest
{
};

TEST_F(CopyOfAFileWithoutALength, HasItsBytes)
{
    ASSERT_EQ(fs::file_size("/proc/version"), 0u);

    EXPECT_TRUE(TSFileSystem::CopyFile("/proc/version", m_root / "copy", false));

    EXPECT_FALSE(Read(m_root / "copy").empty());
    EXPECT_EQ(Read(m_root / "copy"), Read("/proc/version"));
}

} // namespace

} // namespace kel::test
