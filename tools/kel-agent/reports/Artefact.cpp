#include "reports/Artefact.h"

#include <fcntl.h>
#include <poll.h>
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

// All others wait meanwhile: the files of a user may take so long at once, and have them wait a
// sixth of all time in the long run.
constexpr auto kMostTime = 10s;
constexpr int kForgotten = 6;      // seconds in which one of them is forgotten
constexpr auto kUsualTime = 100ms; // of one file: it does not count
constexpr auto kLeastTime = 1s;    // with less it is not tried
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
    TCFrames(const TCDescriptor& socket, TClock::time_point end) : m_socket(socket), m_end(end) {}

    // For all that came.
    TClock::duration Waited() const { return m_waited; }

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
            const auto start = TClock::now();
            const auto left = std::min<TClock::duration>(m_end - start, kLongestPause);
            const auto time = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            pollfd ready = {m_socket.Get(), POLLIN, 0};
            const int events = time > 0 ? poll(&ready, 1, static_cast<int>(time)) : 0;
            m_waited += TClock::now() - start;
            if (events == 0) {
                return TCOutcome::Failed("its reading takes too long");
            }
            const ssize_t n = events > 0 ? read(m_socket.Get(), to, size) : -1;
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

    const TCDescriptor& m_socket;
    const TClock::time_point m_end;
    TClock::duration m_waited = {};
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
        return "it has " + std::to_string(last.m_number) + " bytes"
               + ThereIsRoomFor(reading.m_room);
    default:
        return "its reading has failed";
    }
}

TCOutcome Receive(TCFrames& frames, const TSReading& reading, TCCopy& copy, TSArtefact& copied)
{
    uint64_t written = 0;
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
        written += data.size();
        end = frame.m_number + data.size();
        if (written > reading.m_room || end > reading.m_longest) {
            return TCOutcome::Failed("it has more bytes than it tells of"
                                     + ThereIsRoomFor(reading.m_room));
        }
        if (!copy.Write(data, frame.m_number)) {
            return TCOutcome::Failed(std::strerror(errno));
        }
    }
    if (!copy.Keep(frame.m_number)) {
        return TCOutcome::Failed(std::strerror(errno));
    }
    copied = {frame.m_number, written};
    return TCOutcome();
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

TCOutcome TCArtefactCopier::Copy(const std::string& path, uid_t user,
                                 const std::string& destination, uint64_t room, TSArtefact& copied)
{
    if (path.empty() || path[0] != '/') {
        return TCOutcome::Failed("its path is not absolute");
    }
    if (path.size() >= PATH_MAX) {
        return TCOutcome::Failed(std::strerror(ENAMETOOLONG));
    }
    const TClock::duration time = m_TimeFor(user);
    if (time < kLeastTime || !m_HasEnded(user)) {
        return TCOutcome::Failed("other files of user " + std::to_string(user)
                                 + " have taken too long");
    }
    const uint64_t space = FreeSpace(boost::filesystem::path(destination).parent_path().string());
    TSReading reading = {};
    path.copy(reading.m_path, sizeof(reading.m_path) - 1);
    reading.m_rights = user == geteuid() ? TSRights{user, 0, 0, {}} : RightsOf(user);
    reading.m_room = std::min(room, space - std::min(space, kSpareRoom));
    reading.m_longest = m_longest;
    reading.m_time = std::chrono::seconds(kMostTime).count() + 1;

    TCDescriptor reader = m_readerServer.Start(reading);
    if (!reader.IsOpen()) {
        return TCOutcome::Failed(std::strerror(errno));
    }
    TCCopy copy(destination);
    TCFrames frames(reader, TClock::now() + time);
    TCOutcome outcome = copy.IsOpen() ? Receive(frames, reading, copy, copied)
                                      : TCOutcome::Failed(std::strerror(errno));
    const auto counted = std::max<TClock::duration>(frames.Waited() - kUsualTime, 0s);
    m_waited.erase(user);
    if (kMostTime - time + counted > 0s) {
        m_waited[user] = {kMostTime - time + counted, TClock::now()};
    }
    shutdown(reader.Get(), SHUT_RD); // ends a reader that has more to say
    m_readers[user] = std::move(reader);
    return outcome;
}

// How long the next file of a user may take.
TCArtefactCopier::TClock::duration TCArtefactCopier::m_TimeFor(uid_t user)
{
    const auto waited = m_waited.find(user);
    if (waited == m_waited.end()) {
        return kMostTime;
    }
    const auto forgotten = (TClock::now() - waited->second.m_at) / kForgotten;
    const auto left = waited->second.m_time - forgotten;
    return kMostTime - std::max<TClock::duration>(left, 0s);
}

// A process that waits for a file system cannot be ended, and is not waited for.
bool TCArtefactCopier::m_HasEnded(uid_t user)
{
    if (const auto reader = m_readers.find(user); reader != m_readers.end()) {
        IsHungUp(reader->second, kEnd); // it has said all, and needs a moment to end
    }
    for (auto reader = m_readers.begin(); reader != m_readers.end();) {
        reader = IsHungUp(reader->second, 0ms) ? m_readers.erase(reader) : std::next(reader);
    }
    return m_readers.count(user) == 0;
}

} // namespace agent
} // namespace kel
