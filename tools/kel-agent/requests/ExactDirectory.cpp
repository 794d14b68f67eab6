#include "requests/ExactDirectory.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

namespace kel {
namespace agent {

using tools::GetStatus;
using tools::HasAcl;
using tools::OpenIn;
using tools::RemoveAcl;
using tools::TCDescriptor;
using tools::TCOutcome;

namespace {

constexpr mode_t kPermissions = 07777;
constexpr mode_t kOwnersAlone = 0700;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY;

// Each one that is moved aside may have been put there since the one before; not for ever.
constexpr int kAttempts = 8;

bool IsExact(int directory, mode_t mode)
{
    struct stat status;
    return GetStatus(directory, status) && status.st_uid == geteuid()
           && (status.st_mode & kPermissions) == mode && !HasAcl(directory);
}

std::string RandomName()
{
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) < 0) {
        number = static_cast<uint64_t>(getpid()); // any name will do that is free
    }
    char name[sizeof("0123456789abcdef")];
    std::snprintf(name, sizeof(name), "%016llx", static_cast<unsigned long long>(number));
    return name;
}

bool Rename(int parent, const std::string& from, const std::string& to, unsigned flags)
{
    return renameat2(parent, from.c_str(), parent, to.c_str(), flags) == 0;
}

} // namespace

TCExactDirectory::TCExactDirectory(std::string name, mode_t mode, std::string aside)
    : m_name(std::move(name)), m_mode(mode), m_aside(std::move(aside))
{}

TCOutcome TCExactDirectory::Open(int parent, TCDescriptor& directory, bool& moved) const
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        TCDescriptor found = OpenIn(parent, m_name, kDirectory);
        if (found.IsOpen() && IsExact(found.Get(), m_mode)) {
            directory = std::move(found);
            return TCOutcome();
        }
        if (!found.IsOpen() && errno == EXDEV) {
            return TCOutcome::Failed("it is a mount point, which requests cannot be moved out of");
        }
        TCOutcome step = m_Replace(parent, moved);
        if (!step) {
            return step;
        }
    }
    return TCOutcome::Failed("it is replaced again and again");
}

// The two change names in one step: at no moment is there none, and nobody's request fails.
TCOutcome TCExactDirectory::m_Replace(int parent, bool& moved) const
{
    const std::string fresh = m_aside + RandomName();
    TCOutcome outcome = m_Make(parent, fresh);
    if (outcome && Rename(parent, fresh, m_name, RENAME_NOREPLACE)) {
        return outcome;
    }
    struct stat status = {};
    if (outcome && Rename(parent, fresh, m_name, RENAME_EXCHANGE)) {
        moved = true;
        GetStatus(parent, fresh, status, AT_NO_AUTOMOUNT);
        std::fprintf(stderr, "kel-agent: what user %u had in the place of %s is moved aside\n",
                     status.st_uid, m_name.c_str());
        return outcome;
    }
    if (outcome && errno != ENOENT) { // else it has just gone
        const int reason = errno;
        GetStatus(parent, m_name, status, AT_NO_AUTOMOUNT);
        outcome
            = TCOutcome::Failed("what user " + std::to_string(status.st_uid)
                                + " has in its place cannot be moved: " + std::strerror(reason));
    }
    unlinkat(parent, fresh.c_str(), AT_REMOVEDIR);
    return outcome;
}

// With the owner's rights alone until it is exact, whatever the umask and the parent's ACL give.
TCOutcome TCExactDirectory::m_Make(int parent, const std::string& name) const
{
    if (mkdirat(parent, name.c_str(), kOwnersAlone) != 0) {
        return TCOutcome::Failed(std::strerror(errno));
    }
    const TCDescriptor made = OpenIn(parent, name, kDirectory);
    if (!made.IsOpen()) {
        return TCOutcome::Failed(std::strerror(errno));
    }
    if (!RemoveAcl(made.Get()) || fchmod(made.Get(), m_mode) != 0) {
        return TCOutcome::Failed(std::string("its rights cannot be set: ") + std::strerror(errno));
    }
    return IsExact(made.Get(), m_mode) ? TCOutcome()
                                       : TCOutcome::Failed("its rights cannot be set");
}

} // namespace agent
} // namespace kel
