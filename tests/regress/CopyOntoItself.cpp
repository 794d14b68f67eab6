// A copy of a file onto itself failed, and left the file empty.

#include "FileSystemTests.h"

namespace kel::test {

namespace {

class CopyOntoItself : public FileSystemTest
{
};

TEST_F(CopyOntoItself, FailsAndLeavesTheFile)
{
    const fs::path file = Write(m_root / "file", "text");
    fs::create_hard_link(file, m_root / "other name");
    fs::create_symlink(file, m_root / "link");

    for (const char* const name : {"file", "other name", "link"}) {
        EXPECT_FALSE(TSFileSystem::CopyFile(file, m_root / name, true));
        EXPECT_EQ(Read(file), "text") << name;
    }

    const std::string exists = "Could not copy file: error code: File exists";
    ExpectLog("CopyFile", kErrorPriority, {exists, exists, exists});
}

} // namespace

} // namespace kel::test
