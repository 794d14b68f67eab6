// A walk followed links from the directory that it had opened, where the links on the way there did
// not count: one level farther than any path leads, and then 0 in place of the exception.

#include "FileWalkTests.h"

namespace kel::test {

namespace {

TEST_F(FileWalk, LinksThatLoop)
{
    m_chances = kChances;

    Write(m_root / "self" / "a.log");
    fs::create_symlink("loop", m_root / "self" / "loop");
    EXPECT_NE(Files(m_root / "self").m_thrown, "");
    Both(m_root / "self");

    Write(m_root / "cycle" / "a.log");
    fs::create_directory_symlink(".", m_root / "cycle" / "loop");
    EXPECT_NE(Files(m_root / "cycle").m_thrown, "");
    Both(m_root / "cycle");
    Both(m_root / "cycle" / "loop" / "loop");

    Write(m_root / "one" / "a.log");
    Write(m_root / "two" / "b.log");
    fs::create_directory_symlink("../two", m_root / "one" / "link");
    fs::create_directory_symlink("../one", m_root / "two" / "link");
    Both(m_root / "one");

    // As many links as the system follows, and no more than that.
    Write(m_root / "end" / "a.log");
    fs::create_directory_symlink("end", m_root / "link40");
    for (int i = 39; i >= 1; --i) {
        fs::create_directory_symlink("link" + std::to_string(i + 1),
                                     m_root / ("link" + std::to_string(i)));
    }
    Both(m_root / "link1");
    Both(m_root / "link2");
    fs::create_symlink("a.log", m_root / "end" / "b.log");
    fs::create_directory_symlink(m_root / "two", m_root / "end" / "more");
    fs::remove(m_root / "two" / "link");
    Both(m_root / "link1");
    Both(m_root / "link2");
    Both(m_root / "link3");
}

} // namespace

} // namespace kel::test
