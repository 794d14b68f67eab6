#include "Surroundings.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

#include "common/Files.h"

namespace kel {
namespace testbus {

namespace {

namespace fs = std::filesystem;
using tools::TCDescriptor;
using tools::TCOutcome;

void Check(int result)
{
    if (result != 0) {
        throw std::system_error(errno, std::generic_category());
    }
}

void Write(const char* path, const std::string& text)
{
    const TCDescriptor file(open(path, O_WRONLY | O_CLOEXEC));
    Check(file.IsOpen() && tools::WriteAll(file.Get(), text) ? 0 : -1);
}

// Root may have one at once. Others, and a root without rights, get it in a user namespace, in
// which they are who they are.
void EnterNamespace()
{
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWNS) != 0) {
        Check(unshare(CLONE_NEWUSER | CLONE_NEWNS));
        Write("/proc/self/setgroups", "deny");
        Write("/proc/self/uid_map", user + " " + user + " 1");
        Write("/proc/self/gid_map", group + " " + group + " 1");
    }
    Check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
}

void MountEmpty(const std::string& directory, const char* options)
{
    Check(mount("tmpfs", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options));
}

// Links to the machine's entries, which stay reachable below. Made in the private "/tmp", because
// nothing reaches the machine's any more once something is mounted on it.
void MountEtc()
{
    const std::string staging = "/tmp/etc";
    const std::string machines = staging + "/.machine";
    Check(mkdir(staging.c_str(), 0755));
    MountEmpty(staging, "mode=0755");
    Check(mkdir(machines.c_str(), 0755));
    Check(mount("/etc", machines.c_str(), nullptr, MS_BIND | MS_REC, nullptr));
    for (const auto& entry : fs::directory_iterator(machines)) {
        const std::string name = entry.path().filename();
        if (name != ".machine" && name != "debug" && name != "release") {
            fs::create_symlink(fs::path(".machine") / name, fs::path(staging) / name);
        }
    }
    Check(mount(staging.c_str(), "/etc", nullptr, MS_MOVE, nullptr));
    Check(rmdir(staging.c_str()));
}

// Each entry of "/tmp" that is to stay, open.
std::map<std::string, TCDescriptor> OpenKept(const std::vector<std::string>& inUse)
{
    const std::string start = "/tmp/";
    std::map<std::string, TCDescriptor> kept;
    for (const std::string& path : inUse) {
        const std::string normal = fs::path(path).lexically_normal();
        const std::string name
            = normal.substr(0, start.size()) == start
                  ? normal.substr(start.size(), normal.find('/', start.size()) - start.size())
                  : "";
        if (!name.empty() && !IsOfAgents(name)) {
            TCDescriptor entry(open((start + name).c_str(), O_PATH | O_CLOEXEC));
            if (entry.IsOpen()) {
                kept.emplace(name, std::move(entry));
            }
        }
    }
    return kept;
}

void ShowKept(const std::map<std::string, TCDescriptor>& kept)
{
    for (const auto& [name, entry] : kept) {
        const std::string path = "/tmp/" + name;
        struct stat status;
        Check(fstat(entry.Get(), &status));
        if (S_ISDIR(status.st_mode)) {
            Check(mkdir(path.c_str(), 0755));
        } else {
            Check(TCDescriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644))
                          .IsOpen()
                      ? 0
                      : -1);
        }
        const std::string source = "/proc/self/fd/" + std::to_string(entry.Get());
        Check(mount(source.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr));
    }
}

void Enter(const std::vector<std::string>& inUse)
{
    std::error_code none; // of a directory that is gone
    const fs::path current = fs::current_path(none);
    EnterNamespace();
    const std::map<std::string, TCDescriptor> kept = OpenKept(inUse); // of this namespace's mounts
    MountEmpty("/tmp", "mode=1777");
    MountEtc();
    ShowKept(kept);
    fs::current_path(current, none); // the one that is seen now
}

} // namespace

TCOutcome EnterPrivateDirectories(const std::vector<std::string>& inUse)
{
    // In a child first: a namespace without its mounts would be neither the one nor the other.
    const pid_t probe = fork();
    if (probe == 0) {
        try {
            Enter(inUse);
        } catch (const std::system_error& failure) {
            _exit(failure.code().value());
        }
        _exit(EXIT_SUCCESS);
    }
    int status = 0;
    if (probe < 0 || waitpid(probe, &status, 0) != probe || !WIFEXITED(status)) {
        return TCOutcome::Failed("it cannot be tried");
    }
    if (WEXITSTATUS(status) != 0) {
        return TCOutcome::Failed(std::strerror(WEXITSTATUS(status)));
    }
    Enter(inUse);
    return TCOutcome();
}

bool IsOfAgents(const std::string& name)
{
    return name.rfind("kel_", 0) == 0 || name.rfind(".kel_", 0) == 0
           || name == "Device_Tracker.log";
}

} // namespace testbus
} // namespace kel
