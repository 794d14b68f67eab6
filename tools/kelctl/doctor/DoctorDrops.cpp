#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "doctor/DoctorFiles.h"
#include "requests/Places.h"

namespace kel {
namespace ctl {

using tools::GetStatus;
using tools::OpenIn;
using tools::TCDescriptor;

namespace {

constexpr mode_t kPermissions = 07777;
constexpr char kMakeIt[] = "start an agent, which makes it: systemctl start kel-agent";
constexpr char kReplaceIt[]
    = "start an agent, which puts a fresh one in its place: systemctl start kel-agent";

std::string ModeText(mode_t mode)
{
    char text[sizeof("07777")];
    std::snprintf(text, sizeof(text), "%04o", mode & kPermissions);
    return text;
}

std::string UserText(const struct stat& status) { return "user " + std::to_string(status.st_uid); }

// How it is as the agent makes it, and nobody else could have; otherwise what is wrong with it.
std::string Fault(int found, mode_t mode)
{
    struct stat status;
    if (!GetStatus(found, status)) {
        return std::string("cannot be looked at: ") + std::strerror(errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        return "is no directory, but something of " + UserText(status) + "'s";
    }
    if (status.st_uid != 0) {
        return "belongs to " + UserText(status) + ", and not to root";
    }
    if ((status.st_mode & kPermissions) != mode) {
        return "has the mode " + ModeText(status.st_mode) + ", and not " + ModeText(mode);
    }
    return tools::HasAcl(found) ? "has an ACL, which gives others rights" : "";
}

// A directory of the agent's own in the directory of temporary files.
void CheckOwn(const TCCheck& check, int temporary, const std::string& name, mode_t mode)
{
    const std::string path = std::string(tools::kTemporaryDirectory) + "/" + name;
    const TCDescriptor found = OpenIn(temporary, name, O_PATH);
    if (!found.IsOpen() && errno == EXDEV) {
        check.Fail(path + " has something mounted on it: no request can be taken from there",
                   "umount " + path);
        return;
    }
    if (!found.IsOpen() && errno == ENOENT) {
        if (mode == agent::kDropMode) {
            check.Fail(path + " is missing: no request can be left there", kMakeIt);
        } else {
            check.Good(path + " is not there yet: an agent makes it");
        }
        return;
    }
    const std::string fault = found.IsOpen() ? Fault(found.Get(), mode)
                              : errno == ELOOP
                                  ? "is no directory, but a link"
                                  : std::string("cannot be looked at: ") + std::strerror(errno);
    if (fault.empty()) {
        check.Good(path + " is root's, has the mode " + ModeText(mode) + ", and no ACL");
    } else {
        check.Fail(path + " " + fault + ": no agent collects requests in it", kReplaceIt);
    }
}

} // namespace

void CheckDrops(TFindings& findings)
{
    const TCCheck check("drop", findings);
    const TCDescriptor temporary = OpenTemporary();
    struct stat status;
    if (!temporary.IsOpen() || !GetStatus(temporary.Get(), status)) {
        check.Fail(std::string(tools::kTemporaryDirectory)
                       + " cannot be opened: " + std::strerror(errno),
                   "make it: install -d -m 1777 /tmp");
        return;
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0) {
        check.Fail(std::string(tools::kTemporaryDirectory)
                       + " has no sticky bit: anybody could replace what is in it, and no agent "
                         "collects requests there",
                   "chmod 1777 /tmp");
        return;
    }
    for (const agent::TSDrop& drop : agent::kDrops) {
        CheckOwn(check, temporary.Get(), drop.Name(), agent::kDropMode);
    }
    CheckOwn(check, temporary.Get(), agent::kTakenName, agent::kTakenMode);
}

} // namespace ctl
} // namespace kel
