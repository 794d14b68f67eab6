#include "StoredPolicy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/Files.h"

namespace kel {
namespace ctl {

namespace {

constexpr size_t kMostBytes = 1U << 20; // the agent stores no larger one

} // namespace

TSStoredPolicy::TSStoredPolicy(const std::string& directory) : m_path(directory + "/policy.xml")
{
    m_Read();
    if (m_state == EState::Unreadable && m_reason.empty()) {
        m_state = errno == ENOENT ? EState::None : EState::Unreadable;
        m_reason = m_state == EState::None ? "" : std::strerror(errno);
    }
}

// Leaves errno when there is no reason of its own.
void TSStoredPolicy::m_Read()
{
    const tools::TCDescriptor file(
        open(m_path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file.IsOpen() || !tools::GetStatus(file.Get(), status)) {
        return;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > static_cast<off_t>(kMostBytes)) {
        m_reason = "it is no file that the agent has written";
        return;
    }
    std::string text(kMostBytes, '\0');
    size_t size = 0;
    for (ssize_t part = 1; part > 0; size += static_cast<size_t>(part)) {
        part = read(file.Get(), text.data() + size, text.size() - size);
        if (part < 0) {
            return;
        }
    }
    text.resize(size);
    m_text = std::move(text);
    m_since = status.st_mtim;
    m_state = EState::Stored;
}

} // namespace ctl
} // namespace kel
