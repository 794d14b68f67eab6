#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "ReportDirectory.h"
#include "StoredPolicy.h"
#include "common/RequestFormat.h"
#include "doctor/DoctorFiles.h"
#include "reports/Shares.h"

namespace kel {
namespace ctl {

using tools::GetStatus;
using tools::TCDescriptor;

namespace {

// Of a report there is a text, and lines of the kernel log; the rest is worth a warning.
constexpr uint64_t kLeastForAReport = 1U << 20;
constexpr uint64_t kLeastForRequests = 64U << 10;

// What stands in the way of the agent, which is root, in its own directory; empty when nothing
// does.
std::string FaultOf(const struct stat& status)
{
    if (!S_ISDIR(status.st_mode)) {
        return "is no directory";
    }
    if (status.st_uid != 0) {
        return "belongs to user " + std::to_string(status.st_uid) + ", and not to root";
    }
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "can be written to by others than root"
                                                       : "";
}

TCDescriptor OpenState(const std::string& path)
{
    return TCDescriptor(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

void TellUnopened(const TCCheck& check, const std::string& path)
{
    if (errno == EACCES) {
        check.OnlyRoot("what is in " + path);
    } else if (errno == ENOENT && path == kDefaultStateDirectory) {
        check.Warn(path
                       + " is not there: no agent has run yet, and there are neither reports nor "
                         "a policy that was set",
                   "start an agent, which makes it: systemctl start kel-agent");
    } else {
        check.Fail(path + " cannot be used: " + std::strerror(errno)
                       + ": neither a policy nor a report can be stored",
                   "make it: install -d -m 0700 " + path);
    }
}

// The directory of reports is made with the first one.
std::string FaultOfReports(int state)
{
    struct stat status;
    return GetStatus(state, TCReportDirectory::kName, status, AT_NO_AUTOMOUNT) ? FaultOf(status)
                                                                               : "";
}

uint64_t FreeBytes(const struct statvfs& room, fsblkcnt_t blocks)
{
    return uint64_t(blocks) * room.f_frsize;
}

bool HasNoFiles(const struct statvfs& room) { return room.f_files > 0 && room.f_ffree == 0; }

void CheckRoom(const TCCheck& check, int state, const std::string& path)
{
    struct statvfs room;
    if (fstatvfs(state, &room) != 0) {
        check.Warn("the room in " + path + " cannot be told: " + std::strerror(errno),
                   "df " + path);
        return;
    }
    const uint64_t most = agent::TCShares::TSLimits().m_bytes;
    const uint64_t free = FreeBytes(room, room.f_bfree); // root's, too
    const std::string is = SizeText(free) + " are free in " + path;
    if ((room.f_flag & ST_RDONLY) != 0) {
        check.Fail(path + " is read-only: requests wait, and no policy can be set",
                   "mount -o remount,rw the file system of " + path);
    } else if (free < kLeastForAReport || HasNoFiles(room)) {
        check.Fail((HasNoFiles(room) ? "no file can be made in " + path : is)
                       + ": requests wait, and no policy can be set",
                   "make room on its disk, or drop reports: kelctl reports --remove "
                   "--older-than 1w");
    } else if (free < most / 4) {
        check.Warn(is + ", and kel-agent keeps " + SizeText(most)
                       + " of reports unless it is told otherwise: the disk may be full before "
                         "old reports go",
                   "make room on its disk, or start kel-agent with --max-bytes");
    } else {
        check.Good(is + ", of which kel-agent takes " + SizeText(most)
                   + " at most, unless it is told otherwise");
    }
}

void CheckTemporaryRoom(const TCCheck& check)
{
    const std::string path = tools::kTemporaryDirectory;
    const TCDescriptor temporary = OpenTemporary();
    struct statvfs room;
    if (!temporary.IsOpen() || fstatvfs(temporary.Get(), &room) != 0) {
        return; // the check of the drop directories tells
    }
    const uint64_t free = FreeBytes(room, room.f_bavail);
    if ((room.f_flag & ST_RDONLY) != 0 || free < kLeastForRequests || HasNoFiles(room)) {
        check.Fail(path + " is full or read-only: no request can be left", "make room: df /tmp");
    } else {
        check.Good(SizeText(free) + " are free in " + path);
    }
}

} // namespace

void CheckState(const TSDoctorOptions& options, TFindings& findings)
{
    const std::string& path = options.m_stateDirectory;
    const TCCheck check("state", findings);
    const TCCheck room("room", findings);
    const TCDescriptor state = OpenState(path);
    struct stat status;
    if (!state.IsOpen() || !GetStatus(state.Get(), status)) {
        TellUnopened(check, path);
    } else {
        std::string fault = FaultOf(status);
        if (fault.empty()) {
            fault = FaultOfReports(state.Get());
            fault = fault.empty() ? "" : std::string("has a directory of reports that ") + fault;
        }
        if (fault.empty()) {
            check.Good(path + " is root's, and nobody else's to write to");
        } else {
            check.Fail(path + " " + fault
                           + ": reports and policy are not safe there, or not stored",
                       "chown root " + path + " and what is in it, and chmod go-w");
        }
        CheckRoom(room, state.Get(), path);
    }
    CheckTemporaryRoom(room);
}

} // namespace ctl
} // namespace kel
