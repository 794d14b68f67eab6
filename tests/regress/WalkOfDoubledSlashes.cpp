// Doubled slashes at the end of a walk's start came back in the paths of its exceptions, and the
// entries of a root in that spelling were sought in the working directory.

#include <fcntl.h>
#include <unistd.h>

#include "FileWalkTests.h"

namespace kel::test {

namespace {

// A directory as "/", while this object lives.
class NewRoot
{
public:
    explicit NewRoot(const fs::path& path) : m_old(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC))
    {
        m_entered = chroot(path.c_str()) == 0 && chdir("/") == 0;
    }
    ~NewRoot()
    {
        m_entered = fchdir(m_old) == 0 && chroot(".") == 0;
        close(m_old);
    }
    NewRoot(const NewRoot&) = delete;
    NewRoot& operator=(const NewRoot&) = delete;

    bool IsEntered() const { return m_entered; }

private:
    int m_old;
    bool m_entered;
};

TEST_F(FileWalk, StartsInEverySpelling)
{
    const fs::path top = m_root / "top";
    Write(top / "a.log", "1");
    Write(top / "b.log", "22");
    Write(top / "c" / "d.log", "333");
    Write(top / "e" / "f.log", "4444");
    fs::create_directory_symlink(top / "e", top / "link");
    fs::create_symlink("nowhere", top / "dangling");
    const fs::path before = fs::current_path();
    fs::current_path(top);

    const std::string path = top.string();
    for (const char* const ending :
         {"", "/", "//", "///", "/.", "/./", "/c/..", "/link", "/link/", "/link//"}) {
        Both(path + ending);
    }
    for (const std::string& start : {"/" + path, "/" + m_root.string() + "//top", "//" + path}) {
        Both(start);
    }
    for (const char* const start : {".", "./", ".//", "..", "c", "c/", "c//", "link"}) {
        Both(start);
    }
    EXPECT_EQ(Files(top).m_names.size(), 5u);
    fs::current_path(before);
}

TEST_F(FileWalk, TheRootInEverySpelling)
{
    Write(m_root / "a.log", "1");
    Write(m_root / "b.log", "22");
    Write(m_root / "c" / "d.log", "333");
    Write(m_root / "c" / "c" / "e.log", "4444");
    Write(m_root / "c" / "a.log", "55555");
    const fs::path before = fs::current_path();
    {
        const NewRoot root(m_root);
        ASSERT_TRUE(root.IsEntered());
        for (const char* const directory : {"/", "/c"}) {
            fs::current_path(directory);
            for (const char* const start : {"/", "//", "///", "////", "/.", "//c", "//c//", "/c"}) {
                Both(start);
            }
        }
    }
    fs::current_path(before);
}

} // namespace

} // namespace kel::test
