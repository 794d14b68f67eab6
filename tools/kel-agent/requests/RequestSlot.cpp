#include "requests/RequestSlot.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

// Not the library's look-up, which asks for each key once and keeps what it got.
#include <vconf.h>

#include "common/Files.h"
#include "common/Text.h"

namespace kel {
namespace agent {

using tools::GetStatus;
using tools::kRequestKey;
using tools::PrintableStart;
using tools::TCDescriptor;
using tools::TCOutcome;
using tools::WriteNewFile;

namespace {

constexpr char kTakenFile[] = "slot-request";
constexpr char kNewFile[] = ".slot-request.new";
constexpr mode_t kMode = 0600;
constexpr size_t kMostOfAValue = 4096;

// A device whose applications use the drops alone sleeps longer.
constexpr std::chrono::seconds kPause(1);
constexpr std::chrono::seconds kLongPause(5);
constexpr std::chrono::hours kUnused(1);

std::string ReadKey()
{
    const std::unique_ptr<char, void (*)(void*)> value(vconf_get_str(kRequestKey), &std::free);
    return value ? std::string(value.get()).substr(0, kMostOfAValue) : std::string();
}

} // namespace

TCRequestSlot::TCRequestSlot(const std::string& stateDirectory)
    : m_stateDirectory(stateDirectory), m_resumed(false), m_isTaken(true), m_used(TClock::now())
{}

std::chrono::milliseconds TCRequestSlot::PauseAfter(TClock::duration unused)
{
    return unused < kUnused ? kPause : kLongPause;
}

std::string TCRequestSlot::Waiting()
{
    std::string taken;
    struct stat status;
    if (m_isTaken && m_ReadTaken(taken, status)) {
        if (!m_resumed && ReadKey() == taken) { // killed before it could empty the key
            vconf_set_str(kRequestKey, "");
        }
        m_resumed = true;
        return taken;
    }
    // Not while the directory is gone: it may come back with one.
    m_isTaken = m_isTaken && access(m_stateDirectory.c_str(), F_OK) != 0;
    m_resumed = true;
    std::string value = ReadKey();
    if (value != m_stuck) {
        m_stuck.clear();
        return value;
    }
    return "";
}

TCOutcome TCRequestSlot::Take(std::optional<TSRequest>& request)
{
    std::string value;
    struct stat status;
    if (!m_ReadTaken(value, status)) {
        value = ReadKey();
        if (value.empty()) {
            return TCOutcome(); // it has just gone
        }
        TCOutcome written = m_WriteTaken(value);
        m_isTaken = true;
        m_used = TClock::now();
        if (!written || !m_ReadTaken(value, status)) {
            return written;
        }
        if (vconf_set_str(kRequestKey, "") != 0) {
            m_stuck = value;
            std::fprintf(stderr,
                         "kel-agent: %s cannot be emptied: the same request once more "
                         "will not be seen\n",
                         kRequestKey);
        }
    }

    TSRequest read;
    if (!ReadSlotValue(value, read)) {
        std::fprintf(stderr, "kel-agent: %s in %s ignored: it is not of the form of a request\n",
                     PrintableStart(value).c_str(), kRequestKey);
        return Remove();
    }
    read.m_source = kRequestKey;
    read.m_name = value;
    read.m_filed = status.st_mtim;
    read.m_stamp = Stamp(status);
    request = std::move(read);
    return TCOutcome();
}

TCOutcome TCRequestSlot::Remove()
{
    const std::string path = m_stateDirectory + "/" + kTakenFile;
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return TCOutcome::Failed(path + " cannot be removed: " + std::strerror(errno));
    }
    m_isTaken = false;
    return TCOutcome();
}

bool TCRequestSlot::m_ReadTaken(std::string& value, struct stat& status) const
{
    const std::string path = m_stateDirectory + "/" + kTakenFile;
    const TCDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    char content[kMostOfAValue];
    const ssize_t size = file.IsOpen() && GetStatus(file.Get(), status) && S_ISREG(status.st_mode)
                             ? read(file.Get(), content, sizeof(content))
                             : -1;
    if (size <= 0) {
        return false;
    }
    value.assign(content, static_cast<size_t>(size));
    return true;
}

TCOutcome TCRequestSlot::m_WriteTaken(const std::string& value) const
{
    const TCDescriptor directory(
        open(m_stateDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen() && WriteNewFile(directory.Get(), kNewFile, value, kMode)
        && renameat(directory.Get(), kNewFile, directory.Get(), kTakenFile) == 0
        && fsync(directory.Get()) == 0) {
        return TCOutcome();
    }
    TCOutcome failed = TCOutcome::Failed(m_stateDirectory + ": " + std::strerror(errno));
    if (directory.IsOpen()) {
        unlinkat(directory.Get(), kNewFile, 0);
    }
    return failed;
}

} // namespace agent
} // namespace kel
