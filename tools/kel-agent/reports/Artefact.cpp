#include "reports/Artefact.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include <kel/KELFileSystem.h>

#include "reports/ArtefactReader.h"

namespace kel {
namespace agent {

using tools::TCDescriptor;
using tools::TCOutcome;
using namespace std::chrono_literals;

namespace {

typedef std::chrono::steady_clock TClock;

constexpr mode_t kMode = 0600;
constexpr uint64_t kSpareRoom = 1U << 20; // for the rest of the report

constexpr auto kMostTime = 10s;
constexpr auto kLongestPause = 2s; // without a byte
constexpr auto kEnd = 100ms;       // of a reader that was ended

uint64_t FreeSpace(const std::string& path)
{
    const double mebibytes = TSFileSystem::GetFreeSpaceSize(path);
    return mebibytes > 0 ? static_cast<uint64_t>(mebibytes) << 20 : 0;
}

std::string ThereIsRoomFor(uint64_t room)
{
    return ", and there is room for " + std::to_string(room);
}

// A file in the making. It is gone with this object, unless it was kept.
class TCCopy
{
public:
    explicit TCCopy(const std::string& path)
        : m_path(path),
          m_file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode)),
          m_isOurs(m_file.IsOpen())
    {}
    ~TCCopy()
    {
        if (m_isOurs) {
            unlink(m_path.c_str());
        }
    }
    TCCopy(const TCCopy&) = delete;
    TCCopy& operator=(const TCCopy&) = delete;

    bool IsOpen() const { return m_file.IsOpen(); }

    // Each of them: true on success, otherwise false with errno set.

    bool Write(const std::vector<char>& data, uint64_t offset) const
    {
        size_t written = 0;
        while (written < data.size()) {
            const ssize_t n = pwrite(m_file.Get(), data.data() + written, data.size() - written,
                                     static_cast<off_t>(offset + written));
            if (n < 0 && errno != EINTR) {
                return false;
            }
            written += n > 0 ? static_cast<size_t>(n) : 0;
        }
        return true;
    }
    bool Keep(uint64_t size)
    {
        m_isOurs
            = ftruncate(m_file.Get(), static_cast<off_t>(size)) != 0 || fsync(m_file.Get()) != 0;
        return !m_isOurs;
    }

private:
    const std::string m_path;
    const TCDescriptor m_file;
    bool m_isOurs;
};

// The frames that a reader sends, until a time. What it says is not believed blindly: it may be
// that the reader is another user's by now.
class TCFrames
{
public:
    TCFrames(int socket, TClock::time_point end) : m_socket(socket), m_end(end) {}

    // The next one, and its data; an outcome that tells why there is none.
    TCOutcome Next(TSFrame& frame, std::vector<char>& data)
    {
        TCOutcome outcome = m_Read(reinterpret_cast<char*>(&frame), sizeof(frame));
        data.resize(outcome && frame.m_kind == TSFrame::Data
                        ? std::min<size_t>(frame.m_size, kMostOfAFrame)
                        : 0);
        return outcome ? m_Read(data.data(), data.size()) : outcome;
    }

private:
    TCOutcome m_Read(char* to, size_t size)
    {
        while (size > 0) {
            const auto left = std::min<TClock::duration>(m_end - TClock::now(), kLongestPause);
            const auto time = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            pollfd ready = {m_socket, POLLIN, 0};
            const int events = time > 0 ? poll(&ready, 1, static_cast<int>(time)) : 0;
            if (events == 0) {
                return TCOutcome::Failed("its reading takes too long");
            }
            const ssize_t n = events > 0 ? read(m_socket, to, size) : -1;
            if (n == 0) {
                return TCOutcome::Failed("its reading was ended");
            }
            if (n < 0 && errno != EINTR) {
                return TCOutcome::Failed(std::strerror(errno));
            }
            to += std::max<ssize_t>(n, 0);
            size -= static_cast<size_t>(std::max<ssize_t>(n, 0));
        }
        return TCOutcome();
    }

    const int m_socket;
    const TClock::time_point m_end;
};

// Why there are no more data, in the words of a report.
std::string ReasonOf(const TSFrame& last, const TSReading& reading)
{
    switch (last.m_kind) {
    case TSFrame::Failed:
        return std::strerror(static_cast<int>(last.m_size));
    case TSFrame::Foreign:
        return "the agent must not read it for user " + std::to_string(reading.m_rights.m_user);
    case TSFrame::NoFile:
        return "it is no regular file";
    case TSFrame::TooLarge:
        return NoRoom(last.m_number, reading.m_room);
    default:
        return "its reading has failed";
    }
}

TCOutcome Receive(TCFrames frames, const TSReading& reading, TCCopy& copy, TSArtefact& copied)
{
    uint64_t end = 0; // of what there is
    TSFrame frame;
    std::vector<char> data;
    for (;;) {
        TCOutcome next = frames.Next(frame, data);
        if (!next) {
            return next;
        }
        if (frame.m_kind == TSFrame::End && frame.m_number >= end
            && frame.m_number <= reading.m_longest) {
            break;
        }
        if (frame.m_kind != TSFrame::Data || frame.m_number < end) {
            return TCOutcome::Failed(ReasonOf(frame, reading));
        }
        copied.m_written += data.size();
        end = frame.m_number + data.size();
        if (copied.m_written > reading.m_room || end > reading.m_longest) {
            return TCOutcome::Failed("it has more bytes than it tells of"
                                     + ThereIsRoomFor(reading.m_room));
        }
        if (!copy.Write(data, frame.m_number)) {
            return TCOutcome::Failed(std::strerror(errno));
        }
    }
    copied.m_size = frame.m_number;
    return copy.Keep(copied.m_size) ? TCOutcome() : TCOutcome::Failed(std::strerror(errno));
}

TSArtefact ReceiveAll(int socket, const TSReading& reading, const std::string& destination)
{
    TSArtefact copied;
    TCCopy copy(destination);
    const TCFrames frames(socket, TClock::now() + kMostTime);
    copied.m_outcome = copy.IsOpen() ? Receive(frames, reading, copy, copied)
                                     : TCOutcome::Failed(std::strerror(errno));
    shutdown(socket, SHUT_RD); // ends a reader that has more to say
    return copied;
}

// Whether nobody has the other end any more, by then at the latest.
bool IsHungUp(const TCDescriptor& socket, std::chrono::milliseconds patience)
{
    pollfd end = {socket.Get(), 0, 0};
    while (poll(&end, 1, static_cast<int>(patience.count())) < 0 && errno == EINTR) {
    }
    return (end.revents & POLLHUP) != 0;
}

} // namespace

std::string NoRoom(uint64_t bytes, uint64_t room)
{
    return "it has " + std::to_string(bytes) + " bytes" + ThereIsRoomFor(room);
}

TCArtefactCopier::TCArtefactCopier(uint64_t longest, TCReaderServer& readerServer)
    : m_longest(longest), m_readerServer(readerServer),
      m_ends(std::make_shared<TCDescriptor>(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)))
{}

TCArtefactCopier::~TCArtefactCopier()
{
    for (const auto& [user, copying] : m_copyings) {
        GiveUp(user);
    }
}

void TCArtefactCopier::Begin(const std::string& path, uid_t user, const std::string& destination,
                             uint64_t room)
{
    const uint64_t space = FreeSpace(boost::filesystem::path(destination).parent_path().string());
    TSReading reading = {};
    path.copy(reading.m_path, sizeof(reading.m_path) - 1);
    reading.m_rights = user == geteuid() ? TSRights{user, 0, 0, {}} : RightsOf(user);
    reading.m_room = std::min(room, space - std::min(space, kSpareRoom));
    reading.m_longest = m_longest;
    reading.m_time = std::chrono::seconds(kMostTime).count() + 1;

    TCDescriptor reader;
    const TCOutcome started = m_Start(path, reading, reader);
    TSCopying& copying = m_copyings[user];
    const auto notify = [ends = m_ends] { eventfd_write(ends->Get(), 1); };
    if (!started) {
        copying.m_copy.Begin([started] { return TSArtefact{started}; }, notify);
        return;
    }
    copying.m_reader = std::move(reader);
    copying.m_copy.Begin(
        [reading, destination, socket = copying.m_reader.Get()] {
            return ReceiveAll(socket, reading, destination);
        },
        notify);
}

void TCArtefactCopier::ReadEnds()
{
    eventfd_t count = 0;
    eventfd_read(m_ends->Get(), &count);
}

TCOutcome TCArtefactCopier::m_Start(const std::string& path, const TSReading& reading,
                                    TCDescriptor& reader)
{
    if (path.empty() || path[0] != '/') {
        return TCOutcome::Failed("its path is not absolute");
    }
    if (path.size() >= PATH_MAX) {
        return TCOutcome::Failed(std::strerror(ENAMETOOLONG));
    }
    const uid_t user = reading.m_rights.m_user;
    if (!m_HasEnded(user)) {
        return TCOutcome::Failed("the reading of another file of user " + std::to_string(user)
                                 + " cannot be ended");
    }
    reader = m_readerServer.Start(reading);
    return reader.IsOpen() ? TCOutcome() : TCOutcome::Failed(std::strerror(errno));
}

std::optional<TSArtefact> TCArtefactCopier::Take(uid_t user, TClock::duration patience)
{
    const auto copying = m_copyings.find(user);
    return copying != m_copyings.end() ? copying->second.m_copy.Take(patience) : std::nullopt;
}

void TCArtefactCopier::GiveUp(uid_t user)
{
    TSCopying& copying = m_copyings[user];
    shutdown(copying.m_reader.Get(), SHUT_RD);
    copying.m_copy.Drop();
}

// A process that waits for a file system cannot be ended, and is not waited for.
bool TCArtefactCopier::m_HasEnded(uid_t user)
{
    if (const auto last = m_copyings.find(user); last != m_copyings.end()) {
        IsHungUp(last->second.m_reader, kEnd); // it has said all, and needs a moment to end
    }
    for (auto one = m_copyings.begin(); one != m_copyings.end();) {
        const auto& [reader, copy] = one->second;
        const bool isOver = copy.IsTaken() && (!reader.IsOpen() || IsHungUp(reader, 0ms));
        one = isOver ? m_copyings.erase(one) : std::next(one);
    }
    return m_copyings.count(user) == 0;
}

} // namespace agent
} // namespace kel
