#include "requests/RequestDrop.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include "common/Text.h"

namespace kel {
namespace agent {

using tools::ListNames;
using tools::Printable;
using tools::TCDescriptor;

namespace {

constexpr mode_t kDropMode = 01733; // to be written by all, to be listed by us; sticky
constexpr mode_t kTakenMode = 0700;
constexpr char kTaken[] = ".taken";
constexpr char kNoArtefact[] = "NO_PATH";
constexpr size_t kMostAtOnce = 4096; // requests of one list

// A writer that has not closed its file for so long has passed it on to a child, or hangs.
constexpr std::chrono::seconds kWriterPatience(5);
// How long a file has to stay as it is where the system does not tell whether it has a writer.
constexpr std::chrono::milliseconds kQuietTime(200);
constexpr std::chrono::milliseconds kTick(10);
constexpr std::chrono::seconds kLongAgo(3600);

std::chrono::nanoseconds Age(const timespec& time)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    // The file's owner may have set any time, and the clock may have been set back.
    if (time.tv_sec > now.tv_sec || time.tv_sec < now.tv_sec - kLongAgo.count()) {
        return std::chrono::nanoseconds::max();
    }
    return std::chrono::seconds(now.tv_sec - time.tv_sec)
           + std::chrono::nanoseconds(now.tv_nsec - time.tv_nsec);
}

// A read lease is granted when nobody has the file open for writing.
bool IsBeingWritten(int file, const struct stat& status)
{
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(file, F_SETLEASE, F_UNLCK);
        return false;
    }
    const auto patience = errno == EAGAIN ? std::chrono::nanoseconds(kWriterPatience) : kQuietTime;
    return Age(status.st_mtim) < patience;
}

// The content of a request file, up to a size that no path has.
std::string ReadContent(int file)
{
    char content[PATH_MAX + 1];
    size_t size = 0;
    while (size < sizeof(content)) {
        const ssize_t n = read(file, content + size, sizeof(content) - size);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            break;
        }
        size += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return {content, size};
}

} // namespace

TCRequestDrop::TCRequestDrop(const std::string& path, bool reboot, size_t cutSize)
    : m_path(path), m_reboot(reboot), m_cutSize(cutSize - path.size() - 1), m_patience(0),
      m_drop(path, kDropMode, TCOwnDirectory::EMode::Given),
      m_taken(path + "/" + kTaken, kTakenMode, TCOwnDirectory::EMode::Given)
{}

bool TCRequestDrop::Open()
{
    std::string reason;
    const bool open = m_drop.Open(reason) && m_taken.Open(reason) && m_taken.Lock(reason);
    if (!open && reason != m_unusable) {
        std::fprintf(stderr, "kel-agent: %s cannot be used: %s\n", m_path.c_str(), reason.c_str());
    }
    m_unusable = reason;
    return open;
}

std::vector<std::string> TCRequestDrop::List(bool& unfinished)
{
    m_patience = kWriterPatience;
    std::vector<std::string> taken;
    ListNames(m_taken.Get(), taken);
    taken.erase(std::remove_if(taken.begin(), taken.end(),
                               [this](const std::string& name) { return !m_IsTaken(name); }),
                taken.end());

    std::vector<std::string> names;
    ListNames(m_drop.Get(), names);
    std::vector<std::pair<timespec, std::string>> requests;
    for (const std::string& name : names) {
        timespec filed;
        if (m_IsRequest(name, unfinished, filed)) {
            requests.emplace_back(filed, name);
        }
    }
    m_ignored.swap(m_stillIgnored);
    m_stillIgnored.clear();

    std::sort(requests.begin(), requests.end(), [](const auto& a, const auto& b) {
        return std::make_pair(a.first.tv_sec, a.first.tv_nsec)
               < std::make_pair(b.first.tv_sec, b.first.tv_nsec);
    });
    if (requests.size() > kMostAtOnce) {
        requests.resize(kMostAtOnce);
    }
    for (auto& request : requests) {
        taken.push_back(std::move(request.second));
    }
    return taken;
}

bool TCRequestDrop::Take(const std::string& name, TSRequest& request, std::string& reason)
{
    // One that was taken before is there already, and another of its name waits for the next list.
    if (renameat2(m_drop.Get(), name.c_str(), m_taken.Get(), name.c_str(), RENAME_NOREPLACE) != 0
        && errno != EEXIST && errno != ENOENT) {
        reason = std::strerror(errno);
        return false;
    }
    return m_Read(name, request, reason);
}

bool TCRequestDrop::Remove(const TSRequest& request, std::string& reason)
{
    if (unlinkat(m_taken.Get(), request.m_name.c_str(), 0) != 0 && errno != ENOENT) {
        reason = std::string("it cannot be removed: ") + std::strerror(errno);
        return false;
    }
    return true;
}

bool TCRequestDrop::m_IsRequest(const std::string& name, bool& unfinished, timespec& filed)
{
    if (name == kTaken) {
        return false;
    }
    TSRequest request;
    if (!ReadFileName(name, m_cutSize, request)) {
        m_Ignore(name, "its name is not that of a request");
        return false;
    }
    struct stat status;
    if (fstatat(m_drop.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return false; // it has just gone
    }
    if (!S_ISREG(status.st_mode)) {
        m_Ignore(name, "it is no regular file");
        return false;
    }
    if (status.st_nlink > 1) {
        m_Ignore(name, "it has other names, too"); // and perhaps another's content
        return false;
    }
    const TCDescriptor file(
        openat(m_drop.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen()) {
        if (errno != ENOENT) {
            m_Ignore(name, std::strerror(errno));
        }
        return false;
    }
    if (IsBeingWritten(file.Get(), status)) {
        unfinished = true;
        return false;
    }
    filed = status.st_ctim; // which nobody can set to come before others
    return true;
}

// What has been taken, and is no request, was put in a request's place just before. It goes; but a
// directory that is not empty stays: whose it is may change it under a removal's hands, and lead it
// anywhere.
bool TCRequestDrop::m_IsTaken(const std::string& name)
{
    TSRequest request;
    struct stat status;
    if (fstatat(m_taken.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        m_Ignore(name, errno == ENOENT ? "it has gone" : std::strerror(errno));
        return false;
    }
    if (S_ISREG(status.st_mode) && status.st_nlink == 1 && ReadFileName(name, m_cutSize, request)) {
        return true;
    }
    unlinkat(m_taken.Get(), name.c_str(), S_ISDIR(status.st_mode) ? AT_REMOVEDIR : 0);
    m_Ignore(name, "it was replaced by something else");
    return false;
}

bool TCRequestDrop::m_Read(const std::string& name, TSRequest& request, std::string& reason)
{
    if (!m_IsTaken(name)) {
        return false;
    }
    const TCDescriptor file(
        openat(m_taken.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        reason = std::strerror(errno);
        return false;
    }
    // Who has opened it just before it was taken may be writing. Nobody else can open it now.
    // The patience is for all of a list: many such must not keep the others waiting.
    while (m_patience > m_patience.zero() && IsBeingWritten(file.Get(), status)) {
        const auto start = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(kTick);
        fstat(file.Get(), &status);
        m_patience -= std::chrono::steady_clock::now() - start;
    }

    TSRequest read;
    ReadFileName(name, m_cutSize, read);
    read.m_source = m_path;
    read.m_name = name;
    read.m_reboot = m_reboot;
    read.m_user = status.st_uid;
    read.m_filed = status.st_mtim;
    read.m_stamp = Stamp(status);
    const std::string content = ReadContent(file.Get());
    if (content.size() > PATH_MAX || content.find('\0') != std::string::npos) {
        read.m_noPath = "what was given is no path";
    } else if (content != kNoArtefact) {
        read.m_uploadPath = content;
    }
    request = std::move(read);
    return true;
}

void TCRequestDrop::m_Ignore(const std::string& name, const std::string& reason)
{
    const auto known = m_ignored.find(name);
    if (known == m_ignored.end() || known->second != reason) {
        std::fprintf(stderr, "kel-agent: %s in %s ignored: %s\n", Printable(name).c_str(),
                     m_path.c_str(), reason.c_str());
    }
    m_stillIgnored[name] = reason;
}

} // namespace agent
} // namespace kel
