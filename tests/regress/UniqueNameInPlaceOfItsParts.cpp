// GenerateUniqueName() read its arguments after it had begun to write a result that was one of
// them.

#include "FileSystemTests.h"

namespace kel::test {

namespace {

class UniqueName : public FileSystemTest
{
};

TEST_F(UniqueName, MayTakeThePlaceOfWhatItIsMadeOf)
{
    const fs::path directory = m_root;
    Write(directory / "log.txt");

    fs::path name = "log.txt";
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(directory, name, name));
    EXPECT_EQ(name, directory / "log_1.txt");

    fs::path place = directory;
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(place, "log.txt", place));
    EXPECT_EQ(place, directory / "log_1.txt");
}

} // namespace

} // namespace kel::test
