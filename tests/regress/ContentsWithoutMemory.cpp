// GetFileContents() left a descriptor open when there was no memory for a stream.

#include <cerrno>

#include "FileSystemTests.h"
#include "support/WaitUntil.h"

namespace kel::test {

namespace {

class ContentsWithoutMemory : public FileSystemTest
{
};

TEST_F(ContentsWithoutMemory, StayAndLeaveNoDescriptorOpen)
{
    Write(m_root / "file");
    std::vector<unsigned char> contents{1, 2};
    const size_t before = CountDescriptors();
    g_hooks.m_fdopen = [] { return ENOMEM; };

    EXPECT_FALSE(TSFileSystem::GetFileContents((m_root / "file").string(), contents));

    EXPECT_THAT(contents, testing::ElementsAre(1, 2));
    EXPECT_EQ(CountDescriptors(), before);
    ExpectLog("GetFileContents", kDebugPriority, {"File /tmp/tree/file opening failed"});
}

} // namespace

} // namespace kel::test
