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
using tools::Freeze;
using tools::GetStatus;
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

bool TCTrash::Move(int directory, const std::string& name, char kind, std::string& moved,
                   struct stat& status)
{
    std::string own;
    const auto move = [&] {
        int result = 0;
        do {
            own = kind + std::to_string(m_number++);
            result = renameat2(directory, name.c_str(), m_directory.Get(), own.c_str(),
                               RENAME_NOREPLACE);
        } while (result != 0 && errno == EEXIST);
        return result == 0 && GetStatus(m_directory.Get(), own, status);
    };
    bool done = move();
    if (!done) { // a directory gets a new "..", for which one needs rights in it
        const TCDescriptor found = OpenIn(directory, name, kDirectory);
        struct stat before;
        done = found.IsOpen() && GetStatus(found.Get(), before) && Freeze(found.Get()) && move();
        if (done && S_ISDIR(status.st_mode)) {
            status.st_uid = before.st_uid;
        }
    }
    if (done) {
        moved = own;
    }
    return done;
}

void TCTrash::Remove(const std::string& moved) const
{
    if (unlinkat(m_directory.Get(), moved.c_str(), 0) != 0) {
        unlinkat(m_directory.Get(), moved.c_str(), AT_REMOVEDIR);
    }
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
            progress = (salvaged ? *salvaged : m_RemoveFrom(one.Get(), entry)) || progress;
            return true;
        });
    }
    return unlinkat(m_directory.Get(), name.c_str(), AT_REMOVEDIR) == 0
           || unlinkat(m_directory.Get(), name.c_str(), 0) == 0 || progress;
}

// The directory is frozen: what is looked at is what is removed.
bool TCTrash::m_RemoveFrom(int directory, const std::string& name)
{
    std::string moved;
    struct stat status;
    return unlinkat(directory, name.c_str(), 0) == 0
           || unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0
           || Move(directory, name, kPlain, moved, status);
}

} // namespace agent
} // namespace kel
