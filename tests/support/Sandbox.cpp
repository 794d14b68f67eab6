#include "support/Sandbox.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>

namespace kel::test {

namespace {

constexpr char kVariable[] = "KEL_TEST_SANDBOX"; // "entering", then "entered"

void Check(bool ok, const std::string& what)
{
    if (!ok) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

void MountEmpty(const char* directory, const char* mode)
{
    const std::string options = std::string("mode=") + mode;
    Check(mount("tmpfs", directory, "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0,
          std::string("mounting on ") + directory);
}

// A writable "/etc" with links to the host's entries, which stay reachable below it. Made in the
// private "/tmp", because nothing reaches the host's any more once something is mounted on it.
void MountEtc()
{
    const std::string staging = "/tmp/etc";
    Check(mkdir(staging.c_str(), 0755) == 0, "making " + staging);
    MountEmpty(staging.c_str(), "0755");
    const std::string host = staging + "/.host";
    Check(mkdir(host.c_str(), 0755) == 0, "making " + host);
    Check(mount("/etc", host.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
          "mounting the host's /etc");
    for (const auto& entry : std::filesystem::directory_iterator(host)) {
        const std::string name = entry.path().filename();
        if (name != "debug" && name != "release") {
            std::filesystem::create_symlink(".host/" + name, staging + "/" + name);
        }
    }
    Check(mount(staging.c_str(), "/etc", nullptr, MS_MOVE, nullptr) == 0, "mounting on /etc");
    Check(rmdir(staging.c_str()) == 0, "removing " + staging);
}

// The source and build trees stay visible at their place, should that be inside a directory that is
// hidden: what the tests read was not put there by chance. The sources cannot be written then, so
// that a test which empties its private "/tmp" leaves them alone.
class KeptDirectories
{
public:
    KeptDirectories()
        : m_source(open(KEL_SOURCE_DIR, O_PATH | O_DIRECTORY | O_CLOEXEC)),
          m_build(open(KEL_BINARY_DIR, O_PATH | O_DIRECTORY | O_CLOEXEC))
    {}
    ~KeptDirectories()
    {
        close(m_source);
        close(m_build);
    }
    KeptDirectories(const KeptDirectories&) = delete;
    KeptDirectories& operator=(const KeptDirectories&) = delete;

    /// Call it when the others are hidden.
    void Restore()
    {
        const bool sourceIsHidden = !std::filesystem::exists(KEL_SOURCE_DIR);
        const bool buildIsHidden = !std::filesystem::exists(KEL_BINARY_DIR);
        if (sourceIsHidden) {
            Bind(m_source, KEL_SOURCE_DIR);
            struct statvfs status;
            Check(statvfs(KEL_SOURCE_DIR, &status) == 0, "looking at the sources");
            // What holds for the machine's mount has to hold for this one.
            const unsigned long kept = status.f_flag & (MS_NOSUID | MS_NODEV | MS_NOEXEC);
            Check(mount(nullptr, KEL_SOURCE_DIR, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | kept,
                        nullptr)
                      == 0,
                  "protecting the sources");
        }
        if (buildIsHidden) { // behind the sources, which may have it inside
            Bind(m_build, KEL_BINARY_DIR);
        }
    }

private:
    static void Bind(int hidden, const char* path)
    {
        std::filesystem::create_directories(path);
        const std::string source = "/proc/self/fd/" + std::to_string(hidden);
        Check(mount(source.c_str(), path, nullptr, MS_BIND | MS_REC, nullptr) == 0,
              std::string("mounting ") + path);
    }

    const int m_source;
    const int m_build;
};

// Whether this machine lets the command make a namespace.
bool Works(const std::string& command)
{
    return system((command + " true 2>/dev/null").c_str()) == 0;
}

} // namespace

void Sandbox::Enter(char** arguments)
{
    const char* const state = getenv(kVariable);
    if (state != nullptr && strcmp(state, "entering") == 0) {
        KeptDirectories kept;
        MountEmpty("/tmp", "1777");
        MountEmpty("/opt", "0755");
        MountEmpty("/run", "0755");
        MountEtc();
        kept.Restore();
        setenv(kVariable, "entered", 1);
        return;
    }
    if (state != nullptr) {
        return;
    }

    const std::string option = geteuid() == 0 ? "-m" : "-rm";
    if (!Works("unshare " + option)) {
        return;
    }
    setenv(kVariable, "entering", 1);
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<char*> command;
    for (const char* word : {"unshare", option.c_str(), "--", self.c_str()}) {
        command.push_back(const_cast<char*>(word));
    }
    for (char** argument = arguments + 1; *argument != nullptr; ++argument) {
        command.push_back(*argument);
    }
    command.push_back(nullptr);
    execvp(command[0], command.data());
    Check(false, "starting unshare");
}

bool Sandbox::IsEntered()
{
    const char* const state = getenv(kVariable);
    return state != nullptr && strcmp(state, "entered") == 0;
}

void Sandbox::Need()
{
    if (!IsEntered()) {
        Skip("nobody may make a mount namespace here");
    }
}

void Sandbox::NeedOtherUsers()
{
    std::ifstream map("/proc/self/uid_map");
    unsigned long first = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    map >> first >> outside >> count;
    if (count == 1) {
        Skip("a user namespace of one user");
    }
}

void Skip(const std::string& reason)
{
    [&] { GTEST_SKIP() << reason; }();
    // GoogleTest takes it for something that it knows of. It leaves constructors, too.
    throw testing::AssertionException(testing::TestPartResult(testing::TestPartResult::kSkip,
                                                              __FILE__, __LINE__, reason.c_str()));
}

int RunTestsInSandbox(int argumentCount, char** arguments)
{
    bool listing = false;
    for (int i = 1; i < argumentCount; ++i) {
        listing = listing || strcmp(arguments[i], "--gtest_list_tests") == 0;
    }
    if (!listing) {
        Sandbox::Enter(arguments);
    }
    return RunTests(argumentCount, arguments);
}

int RunTests(int argumentCount, char** arguments)
{
    testing::InitGoogleMock(&argumentCount, arguments);
    return RUN_ALL_TESTS();
}

} // namespace kel::test
