#include "requests/RequestIntake.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "requests/ExactDirectory.h"
#include "requests/TakenName.h"

namespace kel {
namespace agent {

using tools::ForEachName;
using tools::GetStatus;
using tools::OpenIn;
using tools::TCDescriptor;
using tools::TCOutcome;

namespace {

// What nothing tells of, that somebody unmounts something, say, is looked for.
constexpr std::chrono::milliseconds kRetry(1000);
// What is no request comes into being without being closed; it is in nobody's way for so long.
constexpr std::chrono::milliseconds kJunkDelay(1000);

// A writer that has not closed its file for so long has passed it on to a child, or hangs.
constexpr std::chrono::seconds kWriterPatience(5);
// The system tells of a writer's end a moment before a lease is granted. The looks become rarer.
constexpr std::chrono::milliseconds kFirstDelay(1);
// How long a file has to stay as it is where the system does not tell whether it has a writer.
constexpr std::chrono::milliseconds kQuietTime(200);

const char* Reason(EFound found)
{
    switch (found) {
    case EFound::BadName:
        return "its name is not that of a request";
    case EFound::NoFile:
        return "it is no regular file";
    case EFound::ManyNames:
        return "it has other names, too";
    case EFound::TooMany:
        return "too many requests of its user wait";
    default:
        return "something is mounted there";
    }
}

std::string TakenPath() { return std::string(tools::kTemporaryDirectory) + "/" + kTakenName; }

TCExactDirectory Place(const TSDrop& drop)
{
    return TCExactDirectory(drop.Name(), kDropMode, std::string(kAsidePrefix) + drop.m_kind);
}

} // namespace

TCRequestIntake::TCRequestIntake()
    : m_changes(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), m_due(TClock::now())
{
    const TCOutcome opened = m_OpenParent();
    m_TellUsable(tools::kTemporaryDirectory, opened);
    if (!opened) {
        return;
    }
    for (const TSDrop& drop : kDrops) {
        TCDescriptor unused;
        m_TellUsable(drop.m_path, Place(drop).Open(m_parent.Get(), unused, m_asides));
    }
    m_TellUsable(TakenPath(), m_taken.Make(m_parent.Get()));
}

TCRequestIntake::~TCRequestIntake() { m_junk.FlushAll(); }

void TCRequestIntake::ReadChanges()
{
    char changes[16384];
    for (ssize_t size = 0; (size = read(m_changes.Get(), changes, sizeof(changes))) > 0;) {
        for (ssize_t at = 0; at < size;) {
            inotify_event change;
            std::memcpy(&change, changes + at, sizeof(change));
            at += static_cast<ssize_t>(sizeof(change) + change.len);
            const bool lost = (change.mask & IN_Q_OVERFLOW) != 0;
            m_writerEnds = m_writerEnds || change.wd == m_takenWatch || lost;
            if (change.wd != m_takenWatch) {
                m_LookSoon((change.mask & IN_CREATE) != 0 ? kJunkDelay
                                                          : std::chrono::milliseconds(0));
            }
        }
    }
}

TCRequestIntake::TClock::time_point TCRequestIntake::Due() const
{
    return m_writerEnds ? TClock::time_point::min() : std::min(m_due, m_queue.NextWriter());
}

void TCRequestIntake::Look()
{
    m_junk.Flush();
    if (TClock::now() < m_due) {
        return;
    }
    m_due = TClock::time_point::max();
    const TCOutcome opened = m_Open();
    m_TellUsable(TakenPath(), opened);
    if (!opened) {
        m_LookSoon(kRetry);
        return;
    }
    bool more = false;
    for (const TSDrop& drop : kDrops) { // neither waits for the other's flood
        TCPassLimit limit;
        m_LookInto(drop, limit);
        more = more || limit.IsCut();
    }
    TCPassLimit limit;
    m_SweepAsides(limit);
    const auto salvage
        = [&](char kind, int directory, const std::string& name, unsigned char type) {
              return m_Salvage(kind, directory, name, type, limit);
          };
    if (m_trash.Empty(limit, salvage) || more) {
        m_LookSoon(std::chrono::milliseconds(0));
    }
}

std::vector<TSRequest> TCRequestIntake::Batch(size_t most, bool& areNew)
{
    std::vector<TSRequest> batch;
    m_queue.AskInTurns(most, [&](const std::string& name, TCRequestQueue::TSEntry& entry) {
        TSRequest request;
        const TCRequestQueue::EAnswer answer = m_Read(name, entry, request);
        if (answer == TCRequestQueue::EAnswer::Ready) {
            areNew = areNew || entry.m_new;
            batch.push_back(std::move(request));
        }
        return answer;
    });
    m_writerEnds = false;
    return batch;
}

void TCRequestIntake::SetGathered()
{
    m_queue.ForEach(
        [](const std::string&, TCRequestQueue::TSEntry& entry) { entry.m_new = false; });
}

TCOutcome TCRequestIntake::Remove(const TSRequest& request)
{
    TCOutcome removed = m_taken.Remove(request.m_stamp);
    if (removed) {
        m_queue.Remove(request.m_stamp);
    }
    return removed;
}

void TCRequestIntake::RemoveReported(const std::function<bool(const TSRequest&)>& isReported)
{
    if (!std::exchange(m_resumed, false)) {
        return;
    }
    std::vector<TSRequest> reported;
    m_queue.ForEach([&](const std::string& name, TCRequestQueue::TSEntry&) {
        TSRequest request;
        request.m_stamp = name;
        if (isReported(request)) {
            reported.push_back(std::move(request));
        }
    });
    for (const TSRequest& request : reported) {
        if (!Remove(request)) {
            m_resumed = true; // it is still there
        }
    }
}

// In a directory whose owner alone may move what others have made, which is we, or root for us.
TCOutcome TCRequestIntake::m_OpenParent()
{
    TCDescriptor parent(open(tools::kTemporaryDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!parent.IsOpen() || !GetStatus(parent.Get(), status)) {
        return TCOutcome::Failed(std::strerror(errno));
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0) {
        return TCOutcome::Failed("others may write to it, and it has no sticky bit");
    }
    m_parent = std::move(parent);
    return TCOutcome();
}

TCOutcome TCRequestIntake::m_Open()
{
    TCOutcome outcome = m_OpenParent();
    bool anew = false;
    if (outcome) {
        outcome = m_taken.Open(m_parent.Get(), anew);
    }
    if (outcome) {
        outcome = m_trash.Open(m_taken.Get());
    }
    if (anew) {
        m_FindTaken();
    }
    return outcome;
}

void TCRequestIntake::m_FindTaken()
{
    m_queue.Clear();
    m_takenWatch = inotify_add_watch(m_changes.Get(), TakenPath().c_str(),
                                     IN_CLOSE_WRITE | IN_ONLYDIR | IN_DONT_FOLLOW);
    ForEachName(m_taken.Get(), [this](const std::string& name, unsigned char) {
        TSTakenName taken;
        struct stat status;
        if (name == TCTrash::kName || !GetStatus(m_taken.Get(), name, status)) {
            return true;
        }
        if (S_ISREG(status.st_mode) && TSTakenName::Read(name, taken)) {
            m_queue.Add(status.st_uid, name);
        } else {
            std::string moved;
            m_trash.Move(m_taken.Get(), name, TCTrash::kPlain, moved, status);
        }
        return true;
    });
    m_asides = true;
    m_resumed = true;
}

void TCRequestIntake::m_LookInto(const TSDrop& drop, TCPassLimit& limit)
{
    TCDescriptor directory;
    const TCOutcome opened = Place(drop).Open(m_parent.Get(), directory, m_asides);
    m_TellUsable(drop.m_path, opened);
    if (!opened) {
        m_LookSoon(kRetry);
        return;
    }
    inotify_add_watch(m_changes.Get(), drop.m_path,
                      IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_ATTRIB | IN_DELETE_SELF
                          | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW);
    ForEachName(directory.Get(), [&](const std::string& name, unsigned char type) {
        m_TakeOrThrow(directory.Get(), name, drop, type, limit);
        return !limit.IsOver();
    });
}

// Whoever has made them: what is in a drop's place, and what has such a name, is of one kind.
void TCRequestIntake::m_SweepAsides(TCPassLimit& limit)
{
    if (!m_asides) {
        return;
    }
    m_asides = false;
    const std::string prefix = kAsidePrefix;
    ForEachName(m_parent.Get(), [&](const std::string& name, unsigned char) {
        if (limit.IsOver()) {
            m_asides = true;
            return false;
        }
        if (name.compare(0, prefix.size(), prefix) == 0 && name.size() > prefix.size()) {
            if (!limit.MayRemove()) {
                m_asides = true;
                return false;
            }
            std::string moved;
            struct stat status;
            if (m_trash.Move(m_parent.Get(), name, name[prefix.size()], moved, status)) {
                m_trash.Remove(moved);
            } else {
                m_junk.Tell(name, tools::kTemporaryDirectory, 0,
                            std::string("cannot be removed: ") + std::strerror(errno));
            }
        }
        return true;
    });
}

EFound TCRequestIntake::m_Take(int directory, const std::string& name, const std::string& original,
                               const TSDrop& drop, unsigned char type)
{
    TSRequest request;
    if (!ReadFileName(original, drop.NameSize(), request)) {
        return EFound::BadName;
    }
    if (type != DT_REG && type != DT_UNKNOWN) {
        return EFound::NoFile;
    }
    std::string taken;
    struct stat status;
    const EFound found = m_taken.Take(
        directory, name, original, drop.m_reboot,
        [this](uid_t user) { return m_queue.HasRoom(user); }, taken, status);
    if (found == EFound::Request) {
        m_queue.Add(status.st_uid, taken);
    } else if (!taken.empty()) { // it was replaced in the moment before
        std::string moved;
        m_trash.Move(m_taken.Get(), taken, TCTrash::kPlain, moved, status);
        m_trash.Remove(moved);
        m_junk.Tell(original, drop.m_path, status.st_uid, std::string("removed: ") + Reason(found));
        return EFound::Gone;
    } else if (found == EFound::NotNow) {
        m_junk.Tell(original, drop.m_path, status.st_uid,
                    std::string("waits: ") + std::strerror(errno));
        m_LookSoon(kRetry);
    }
    return found;
}

// True when it is no longer there.
bool TCRequestIntake::m_TakeOrThrow(int directory, const std::string& name, const TSDrop& drop,
                                    unsigned char type, TCPassLimit& limit)
{
    const EFound found = m_Take(directory, name, name, drop, type);
    if (found == EFound::Request || found == EFound::Gone || found == EFound::NotNow) {
        return found != EFound::NotNow;
    }
    // To look at one of too many takes as long as to remove it.
    return (found == EFound::TooMany || limit.MayRemove()) && m_Throw(directory, name, drop, found);
}

// It may have been replaced since it was looked at, and be somebody's request now. It is moved
// first, and judged once more where nobody can replace it.
bool TCRequestIntake::m_Throw(int directory, const std::string& name, const TSDrop& drop,
                              EFound found)
{
    std::string moved;
    struct stat status = {};
    if (!m_trash.Move(directory, name, TCTrash::kPlain, moved, status)) {
        const int reason = errno;
        if (reason != ENOENT) {
            m_junk.Tell(name, drop.m_path, 0,
                        std::string("cannot be removed (") + std::strerror(reason)
                            + "): " + Reason(found));
        }
        return reason == ENOENT;
    }
    const auto type = static_cast<unsigned char>(IFTODT(status.st_mode)); // 4 bits
    if (m_Take(m_trash.Get(), moved, name, drop, type) == EFound::Request) {
        return true;
    }
    m_trash.Remove(moved);
    m_junk.Tell(name, drop.m_path, status.st_uid, std::string("removed: ") + Reason(found));
    return true;
}

// From what was in a drop's place, or in that of the taken ones, requests are taken like from
// there.
std::optional<bool> TCRequestIntake::m_Salvage(char kind, int directory, const std::string& name,
                                               unsigned char type, TCPassLimit& limit)
{
    TSTakenName taken;
    if (kind == kAsideTaken && TSTakenName::Read(name, taken)) {
        const EFound found = m_Take(directory, name, taken.m_name, Drop(taken.m_reboot), type);
        if (found == EFound::Request || found == EFound::NotNow) {
            return found == EFound::Request;
        }
    }
    for (const TSDrop& drop : kDrops) {
        if (kind == drop.m_kind) {
            return m_TakeOrThrow(directory, name, drop, type, limit);
        }
    }
    return std::nullopt;
}

TCRequestQueue::EAnswer TCRequestIntake::m_Read(const std::string& name,
                                                TCRequestQueue::TSEntry& entry, TSRequest& request)
{
    if (entry.m_writer && !entry.m_writer->m_isOver && !m_writerEnds
        && TClock::now() < entry.m_writer->m_next) {
        return TCRequestQueue::EAnswer::NotYet;
    }
    const TCDescriptor file = OpenIn(m_taken.Get(), name, O_RDONLY | O_NONBLOCK);
    struct stat status;
    if (!file.IsOpen() || !GetStatus(file.Get(), status)) {
        if (errno == ENOENT) {
            return TCRequestQueue::EAnswer::Gone;
        }
        m_LookSoon(kRetry);
        return TCRequestQueue::EAnswer::NotYet;
    }
    if (m_IsWaitedFor(file.Get(), name, entry, status)) {
        return TCRequestQueue::EAnswer::NotYet;
    }
    if (entry.m_writer) {
        entry.m_writer->m_isOver = true;
    }
    if (TCTakenRequests::Read(file.Get(), name, status, request)) {
        return TCRequestQueue::EAnswer::Ready;
    }
    return m_taken.Remove(name) ? TCRequestQueue::EAnswer::Gone : TCRequestQueue::EAnswer::NotYet;
}

// Who has opened it before it was taken may be writing. A read lease is granted when nobody has it
// open for writing.
bool TCRequestIntake::m_IsWaitedFor(int file, const std::string& name,
                                    TCRequestQueue::TSEntry& entry, const struct stat& status)
{
    if (entry.m_writer && entry.m_writer->m_isOver) {
        return false;
    }
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(file, F_SETLEASE, F_UNLCK);
        return false;
    }
    const bool isKnown = errno == EAGAIN;
    const TClock::time_point now = TClock::now();
    if (!entry.m_writer) {
        if (!m_queue.HasRoomForAWriter(name)) {
            return false;
        }
        const std::chrono::milliseconds delay = isKnown ? kFirstDelay : kQuietTime;
        m_queue.SetWriter(name, entry, {now + delay, now + kWriterPatience, delay, status.st_mtim});
        return true;
    }
    TCRequestQueue::TSWriter& writer = *entry.m_writer;
    if (now >= writer.m_end) {
        return false;
    }
    const bool isQuiet = status.st_mtim.tv_sec == writer.m_changed.tv_sec
                         && status.st_mtim.tv_nsec == writer.m_changed.tv_nsec;
    if (!isKnown && isQuiet && now >= writer.m_next) {
        return false;
    }
    writer.m_delay = m_writerEnds ? kFirstDelay : 2 * writer.m_delay;
    writer.m_next = std::min(now + (isKnown ? writer.m_delay : kQuietTime), writer.m_end);
    writer.m_changed = status.st_mtim;
    return true;
}

void TCRequestIntake::m_LookSoon(std::chrono::milliseconds delay)
{
    m_due = std::min(m_due, TClock::now() + delay);
}

void TCRequestIntake::m_TellUsable(const std::string& path, const TCOutcome& outcome)
{
    std::string& told = m_unusable[path];
    if (!outcome && told != outcome.Reason()) {
        std::fprintf(stderr, "kel-agent: %s cannot be used: %s\n", path.c_str(),
                     outcome.Reason().c_str());
    }
    told = outcome.Reason();
}

} // namespace agent
} // namespace kel
