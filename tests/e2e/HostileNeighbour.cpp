// A hostile neighbour: an ordinary user who does to the agent, all at once, whatever the system
// lets him do. It runs until it is ended.
//
//   hostile-neighbour before    what can be there before the agent is
//   hostile-neighbour beside    what can be done beside it

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* kDrops[] = {"/tmp/kel_NDF", "/tmp/kel_NDF_reboot"};
const std::string kDrop = kDrops[0];
constexpr size_t kOddNames = 20'000;
constexpr int kRequests = 500;
constexpr off_t kSparse = off_t(256) << 20;

void Write(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

void MakeFullDirectory(const std::string& path)
{
    mkdir(path.c_str(), 0777);
    Write(path + "/file", "x");
    mkdir((path + "/deep").c_str(), 0);
}

// An ACL as the kernel takes it (linux/posix_acl_xattr.h): everybody may do everything.
void OpenToAll(const std::string& directory)
{
    struct TSEntry
    {
        uint16_t m_tag;
        uint16_t m_permissions;
        uint32_t m_id;
    };
    constexpr uint32_t none = UINT32_MAX;
    const struct
    {
        uint32_t m_version = 2;
        TSEntry m_entries[5]
            = {{1, 7, none}, {2, 7, 65534}, {4, 7, none}, {16, 7, none}, {32, 7, none}};
    } acl;
    setxattr(directory.c_str(), "system.posix_acl_default", &acl, sizeof(acl), 0);
}

// The places of the agent, made by us, opened to all, locked, and full.
void Before()
{
    for (const std::string drop : kDrops) {
        mkdir(drop.c_str(), 0777);
        chmod(drop.c_str(), 0777);
        OpenToAll(drop);
        flock(open(drop.c_str(), O_RDONLY), LOCK_EX);
        for (const std::string& taken : {drop + "/.taken", drop + ".taken"}) {
            MakeFullDirectory(taken);
            MakeFullDirectory(taken + "/first-0.0-ONCE_ONLY.log");
            flock(open(taken.c_str(), O_RDONLY), LOCK_EX);
        }
        MakeFullDirectory(drop + "/second-0.0-ONCE_ONLY.log");
        mkfifo((drop + "/third-0.0-ONCE_ONLY.log").c_str(), 0666);
    }
    MakeFullDirectory("/tmp/Device_Tracker.log");
}

void FileJunk()
{
    for (size_t i = 0; i < kOddNames; ++i) {
        const std::string name = kDrop + "/odd " + std::to_string(i);
        switch (i % 5) {
        case 0:
            MakeFullDirectory(name);
            break;
        case 1:
            mkfifo((name + "-x-ALWAYS.log").c_str(), 0666);
            break;
        case 2:
            if (symlink("/etc/shadow", (name + "-x-ALWAYS.log").c_str()) != 0) {
            }
            break;
        default:
            close(creat(name.c_str(), 0644));
        }
    }
}

// Writers that never end.
void KeepWriting()
{
    std::vector<int> files;
    for (int i = 0; i < 50; ++i) {
        const std::string name = kDrop + "/endless-" + std::to_string(i) + "-ALWAYS.log";
        files.push_back(creat(name.c_str(), 0644));
    }
    for (;;) {
        for (const int file : files) {
            if (pwrite(file, "/", 1, 0) < 0) {
                return;
            }
        }
        usleep(10'000);
    }
}

void FileRequests()
{
    const std::string artefact = "/tmp/sparse";
    const int file = creat(artefact.c_str(), 0644);
    if (ftruncate(file, kSparse) == 0) {
        close(file);
    }
    const std::string artefacts[]
        = {artefact, "/proc/1/maps", "/etc/shadow", "/dev/zero", "/proc/kmsg", "NO_PATH"};
    for (int i = 0; i < kRequests; ++i) {
        Write("/tmp/hostile.new", artefacts[static_cast<size_t>(i) % std::size(artefacts)]);
        rename("/tmp/hostile.new",
               (kDrop + "/hostile-" + std::to_string(i) + "-ALWAYS.log").c_str());
    }
}

} // namespace

int main(int argumentCount, char** arguments)
{
    umask(0);
    if (argumentCount == 2 && std::strcmp(arguments[1], "before") == 0) {
        Before();
        std::puts("done");
        std::fflush(stdout);
        pause(); // the locks are ours as long
    }
    std::thread writers(KeepWriting);
    std::thread junk(FileJunk);
    FileRequests();
    junk.join();
    std::puts("done");
    std::fflush(stdout);
    writers.join();
    pause();
}
