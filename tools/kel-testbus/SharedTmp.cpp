#include "SharedTmp.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "Surroundings.h"
#include "common/Files.h"

namespace kel {
namespace testbus {

namespace {

using tools::TCDescriptor;

const std::string kTmp = "/tmp/";

bool IsOurs(int directory, const std::string& name, struct stat& status)
{
    return tools::GetStatus(directory, name, status) && status.st_uid == geteuid();
}

TCDescriptor OpenDirectory(int directory, const std::string& name)
{
    return TCDescriptor(
        openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Ours alone: nobody else can put something in the place of what is ours in a directory of ours.
void RemoveOurs(int directory, const std::string& name)
{
    struct stat status;
    if (!IsOurs(directory, name, status)) {
        return;
    }
    if (!S_ISDIR(status.st_mode)) {
        unlinkat(directory, name.c_str(), 0);
        return;
    }
    const TCDescriptor inside = OpenDirectory(directory, name);
    std::vector<std::string> names;
    if (inside.IsOpen() && tools::ListNames(inside.Get(), names)) {
        for (const std::string& inner : names) {
            RemoveOurs(inside.Get(), inner);
        }
    }
    unlinkat(directory, name.c_str(), AT_REMOVEDIR);
}

bool HoldsFiles(const TCDescriptor& directory)
{
    bool found = false;
    tools::ForEachName(directory.Get(), [&](const std::string& name, unsigned char) {
        struct stat status;
        found
            = tools::GetStatus(directory.Get(), name, status)
              && (S_ISREG(status.st_mode)
                  || (S_ISDIR(status.st_mode) && HoldsFiles(OpenDirectory(directory.Get(), name))));
        return !found;
    });
    return found;
}

} // namespace

TCSharedTmp::TCSharedTmp(bool withAgent) : m_earlier(m_Entries())
{
    for (const auto& [name, number] : m_earlier) {
        const std::string path = kTmp + name;
        struct stat status;
        const bool isDrop = name.rfind("kel_NDF", 0) == 0 || name.rfind(".kel_NDF", 0) == 0;
        const bool isReachable = geteuid() == 0 || IsOurs(AT_FDCWD, path, status);
        if (withAgent && isDrop && isReachable && HoldsFiles(OpenDirectory(AT_FDCWD, path))) {
            throw std::runtime_error("requests wait in " + path
                                     + ", and the agent of this run would take them");
        }
    }
}

TCSharedTmp::~TCSharedTmp()
{
    for (const auto& entry : m_Entries()) {
        if (m_earlier.count(entry) == 0) {
            RemoveOurs(AT_FDCWD, kTmp + entry.first);
        }
    }
}

TCSharedTmp::TEntries TCSharedTmp::m_Entries()
{
    TEntries entries;
    const TCDescriptor all = OpenDirectory(AT_FDCWD, kTmp);
    tools::ForEachName(all.Get(), [&](const std::string& name, unsigned char) {
        struct stat status;
        if (IsOfAgents(name) && tools::GetStatus(all.Get(), name, status)) {
            entries.emplace(name, status.st_ino);
        }
        return true;
    });
    return entries;
}

} // namespace testbus
} // namespace kel
