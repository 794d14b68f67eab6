#include "requests/Trash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "requests/ExactDirectory.h"

namespace kel {
namespace agent {

using tools::ForEachName;
using tools::OpenIn;
using tools::TCDescriptor;
using tools::TCOutcome;

namespace {

constexpr mode_t kOwnersAlone = 0700;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY;

} // namespace

bool TCPassLimit::IsOver()
{
    const bool over = TClock::now() >= m_end;
    m_cut = m_cut || over;
    return over;
}

bool TCPassLimit::MayRemove()
{
    if (m_removable == 0) {
        m_cut = true;
        return false;
    }
    --m_removable;
    return true;
}

TCOutcome TCTrash::Open(int parent)
{
    if (mkdirat(parent, kName, kOwnersAlone) != 0 && errno != EEXIST) {
        return TCOutcome::Failed(std::strerror(errno));
    }
    TCDescriptor found = OpenIn(parent, kName, kDirectory);
    if (!found.IsOpen()) {
        return TCOutcome::Failed(std::strerror(errno));
    }
    m_directory = std::move(found);
    return TCOutcome();
}

// A directory that is moved has a new "..", for which the agent needs rights in it: it is frozen
// first.
bool TCTrash::Throw(int directory, const std::string& name, char kind)
{
    if (unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT) {
        return true;
    }
    if (unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) {
        return true;
    }
    if (errno != ENOTEMPTY && errno != EEXIST) {
        return false;
    }
    const TCDescriptor found = OpenIn(directory, name, kDirectory);
    if (!found.IsOpen() || !Freeze(found.Get())) {
        return false;
    }
    std::string own;
    do {
        own = kind + std::to_string(m_number++);
    } while (renameat2(directory, name.c_str(), m_directory.Get(), own.c_str(), RENAME_NOREPLACE)
                 != 0
             && errno == EEXIST);
    struct stat moved;
    return fstatat(m_directory.Get(), own.c_str(), &moved, AT_SYMLINK_NOFOLLOW) == 0;
}

bool TCTrash::Empty(TCPassLimit& limit, const TSalvage& salvage)
{
    bool progress = false;
    ForEachName(m_directory.Get(), [&](const std::string& name, unsigned char) {
        progress = m_EmptyOne(name, limit, salvage) || progress;
        return !limit.IsCut();
    });
    return progress || limit.IsCut();
}

// True when there is less of it than before.
bool TCTrash::m_EmptyOne(const std::string& name, TCPassLimit& limit, const TSalvage& salvage)
{
    bool progress = false;
    const TCDescriptor one = OpenIn(m_directory.Get(), name, kDirectory);
    if (one.IsOpen() && Freeze(one.Get())) {
        ForEachName(one.Get(), [&](const std::string& entry, unsigned char type) {
            if (limit.IsOver() || !limit.MayRemove()) {
                return false;
            }
            const std::optional<bool> salvaged = salvage(name[0], one.Get(), entry, type);
            progress = (salvaged ? *salvaged : Throw(one.Get(), entry, kPlain)) || progress;
            return true;
        });
    }
    return unlinkat(m_directory.Get(), name.c_str(), AT_REMOVEDIR) == 0
           || unlinkat(m_directory.Get(), name.c_str(), 0) == 0 || progress;
}

} // namespace agent
} // namespace kel
