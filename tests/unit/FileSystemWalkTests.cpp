#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "FileWalkTests.h"

namespace kel::test {

namespace {

void MakeSocket(const fs::path& path)
{
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.string().size(), sizeof(address.sun_path));
    strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(descriptor);
}

TEST_F(FileWalk, StartsThatAreNoDirectory)
{
    Write(m_root / "file.log");
    fs::create_symlink("nowhere", m_root / "dangling");
    fs::create_symlink("loop", m_root / "loop");
    ASSERT_EQ(mkfifo((m_root / "fifo").c_str(), 0600), 0);

    for (const fs::path& start :
         {fs::path(), m_root / "missing", m_root / "file.log", m_root / "file.log/",
          m_root / "file.log" / "below", m_root / "dangling", m_root / "loop", m_root / "fifo",
          fs::path(std::string(300, 'x')), fs::path(std::string(5000, 'x'))}) {
        EXPECT_EQ(Files(start).m_result, "0");
        EXPECT_EQ(Size(start).m_result, "0");
    }
}

TEST_F(FileWalk, ATreeOfEverything)
{
    Write(m_root / "large.log");
    fs::resize_file(m_root / "large.log", (4ull << 30) + 3);
    for (const char* const name :
         {"plain", ".hidden", "end.", "x.log", "..log", "...", "sp ace.log", "new\nline.log",
          "\xff\xfe.log", "%s%n.log", "x.log.gz"}) {
        Write(m_root / name, name);
        Write(m_root / "below" / name / name, name);
    }
    fs::create_symlink(m_root / "x.log", m_root / "file-link.log");
    fs::create_directory_symlink(m_root / "below", m_root / "link.log");
    Both(m_root);
    EXPECT_EQ(Files(m_root).m_names.size(), 20u);

    ASSERT_EQ(mkfifo((m_root / "fifo.log").c_str(), 0600), 0);
    Both(m_root);

    MakeSocket(m_root / "below" / "socket.log");
    Both(m_root);
    fs::remove(m_root / "fifo.log");
    // Boost's versions differ in what is wrong with it.
    boost::system::error_code code;
    fs::file_size(m_root / "below" / "socket.log", code);
    EXPECT_TRUE(code);
    EXPECT_THAT(Size(m_root).m_thrown, testing::HasSubstr(code.message()));
    EXPECT_EQ(Files(m_root).m_names.size(), 20u);
}

TEST_F(FileWalk, LinksToNowhere)
{
    fs::create_symlink("nowhere", m_root / "dangling");
    EXPECT_EQ(Files(m_root).m_result, "0");
    EXPECT_NE(Size(m_root).m_thrown, "");

    // The directory's order decides which query is the last.
    for (const char* const name : {"a.log", "z.log", "0.log"}) {
        Write(m_root / name);
        Both(m_root);
    }
    fs::create_symlink("nowhere", m_root / "another");
    Both(m_root);
    MakeDirectory(m_root / "directory");
    EXPECT_EQ(Files(m_root).m_result, "1");
    Both(m_root);
    fs::create_symlink("nowhere", m_root / "directory" / "third");
    EXPECT_EQ(Files(m_root).m_result, "0");
    Both(m_root);
}

TEST_F(FileWalk, DirectoriesThatCannotBeOpenedOrSearched)
{
    Write(m_root / "a.log");
    Write(m_root / "middle" / "b.log");
    MakeDirectory(m_root / "middle" / "directory");
    Write(m_root / "z" / "c.log");
    fs::create_symlink("b.log", m_root / "middle" / "link.log");

    for (const unsigned int mode : {0u, 0100u, 0200u, 0300u, 0400u, 0500u, 0600u}) {
        ChangeMode(m_root / "middle", mode);
        const Unprivileged unprivileged;
        Both(m_root);
        Both(m_root / "middle");
        Both(m_root / "middle" / "directory");
    }
    ChangeMode(m_root / "middle", 0);
    ChangeMode(m_root / "z", 0);
    {
        const Unprivileged unprivileged;
        EXPECT_EQ(Files(m_root).m_result, "0");
        EXPECT_EQ(Size(m_root).m_lines,
                  (std::vector<std::string>{ErrorLine("Error getting dir size, boost error 13")}));
    }
    ChangeMode(m_root / "middle", 0400);
    MakeDirectory(m_root / "top" / "below");
    ChangeMode(m_root / "top", 0400);
    const Unprivileged unprivileged;
    EXPECT_NE(Files(m_root).m_thrown, "");
    EXPECT_NE(Size(m_root).m_thrown, "");
    Both(m_root / "top");
}

TEST_F(FileWalk, PathsAtTheSystemsLimitAndBeyond)
{
    // Down to a directory whose path leaves room for names of seven bytes.
    const std::string name(200, 'd');
    const fs::path before = fs::current_path();
    fs::current_path(m_root);
    size_t length = m_root.string().size();
    for (; length + 201 + 8 <= 4087; length += 201) {
        ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
    }
    const std::string rest(4087 - length - 1, 'r');
    ASSERT_EQ(mkdir(rest.c_str(), 0755), 0);
    ASSERT_EQ(chdir(rest.c_str()), 0);
    Both(m_root);

    const auto add = [](const std::string& entry, char kind) {
        switch (kind) {
        case 'f':
            close(open(entry.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
            break;
        case 'd':
            EXPECT_EQ(mkdir(entry.c_str(), 0755), 0);
            break;
        default:
            EXPECT_EQ(symlink("..", entry.c_str()), 0);
        }
    };
    for (const char kind : {'f', 'd', 'l'}) {
        for (size_t size = 5; size <= 9; ++size) {
            const std::string entry = std::string(size - 4, 'x') + kExtension;
            add(entry, kind);
            if (kind != 'l') {
                Both(m_root);
            }
            // Alone, and with one that is within reach before or after it.
            add("y.log", 'f');
            if (kind != 'l') {
                Both(m_root);
            }
            // A link to the parent begins the same tree anew: from near the end only.
            Both(fs::path(fs::current_path().parent_path()) / rest);
            EXPECT_EQ(unlinkat(AT_FDCWD, entry.c_str(), kind == 'd' ? AT_REMOVEDIR : 0), 0);
            unlink("y.log");
        }
    }
    // Directories beyond what any path can name.
    ASSERT_EQ(mkdir("xxxxxxx", 0755), 0);
    ASSERT_EQ(chdir("xxxxxxx"), 0);
    add("beyond.log", 'f');
    add("beyond", 'd');
    Both(m_root);
    EXPECT_EQ(unlink("beyond.log"), 0);
    Both(m_root);
    EXPECT_EQ(rmdir("beyond"), 0);
    fs::current_path(before);
}

TEST_F(FileWalk, DirectoriesThatCannotBeReadOn)
{
    for (const char* const name : {"a.log", "b/c.log", "b/d.log", "e/f.log", "g.log"}) {
        Write(m_root / name);
    }
    int calls = 0;
    for (int failing = 1; failing <= 16; ++failing) {
        m_prepare = [&] { calls = 0; };
        g_hooks.m_readdir = [&](dirent* entry) -> dirent* {
            if (++calls != failing) {
                return entry;
            }
            errno = EIO;
            return nullptr;
        };
        Both(m_root);
    }
    EXPECT_GE(calls, 13);
}

TEST_F(FileWalk, FileSystemsThatDoNotTellTypes)
{
    for (const char* const name : {"a.log", "b/c.log", "b/d.log", "e/f.log"}) {
        Write(m_root / name);
    }
    fs::create_directory_symlink(m_root / "b", m_root / "link");
    g_hooks.m_readdir = [](dirent* entry) {
        if (entry != nullptr) {
            entry->d_type = DT_UNKNOWN;
        }
        return entry;
    };
    Both(m_root);
    EXPECT_EQ(Files(m_root).m_names.size(), 6u);

    fs::create_symlink("nowhere", m_root / "e" / "dangling");
    Both(m_root);
    fs::create_directory_symlink(".", m_root / "loop");
    m_chances = kChances;
    Both(m_root);
}

TEST_F(FileWalk, MountedDirectories)
{
    Write(m_root / "mount" / "hidden.log");
    const Mount mount((m_root / "mount").string(), "mode=0");
    Write(m_root / "mount" / "a.log");
    Write(m_root / "z" / "b.log");
    Both(m_root);

    const Unprivileged unprivileged;
    Both(m_root);
}

// Trees of all of the above at random, reproducibly.
TEST_F(FileWalk, RandomTrees)
{
    for (unsigned int seed = 1; seed <= 150; ++seed) {
        std::mt19937 random(seed);
        const auto upTo = [&](size_t limit) { return random() % (limit + 1); };
        const fs::path top = m_root / std::to_string(seed);
        std::vector<fs::path> directories{MakeDirectory(top)};
        std::vector<fs::path> all;
        const size_t entries = 3 + upTo(9);
        for (size_t i = 0; i < entries; ++i) {
            const fs::path path = directories[upTo(directories.size() - 1)]
                                  / (std::string(1, static_cast<char>('a' + upTo(25)))
                                     + std::to_string(i) + (upTo(3) != 0 ? kExtension : ""));
            switch (upTo(11)) {
            case 0:
            case 1:
            case 2:
                directories.push_back(MakeDirectory(path));
                break;
            case 3:
                // To something older that is not above: no loops, since those may branch.
                if (!all.empty()) {
                    const fs::path target = all[upTo(all.size() - 1)];
                    if (path.string().compare(0, target.string().size(), target.string()) != 0) {
                        fs::create_symlink(target, path);
                    }
                }
                break;
            case 4:
                fs::create_symlink(upTo(1) != 0 ? "nowhere" : "a/b", path);
                break;
            case 5:
                ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
                break;
            default:
                Write(path, std::string(upTo(20), 'x'));
            }
            if (fs::exists(fs::symlink_status(path)) && !fs::is_symlink(path)) {
                all.push_back(path);
            }
        }
        for (const fs::path& path : all) {
            if (fs::is_directory(path) && upTo(7) == 0) {
                ChangeMode(path, static_cast<unsigned int>(upTo(7)) << 6);
            }
        }
        Both(top);
        {
            const Unprivileged unprivileged;
            Both(top);
        }
        if (HasFailure()) {
            FAIL() << "seed " << seed;
        }
    }
}

} // namespace

} // namespace kel::test
