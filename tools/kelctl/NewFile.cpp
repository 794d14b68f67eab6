#include "NewFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

namespace kel {
namespace ctl {

using tools::GetStatus;
using tools::TCOutcome;

namespace {

constexpr mode_t kOwnersAlone = 0600;
constexpr size_t kBlock = 1U << 16;

std::string Beside()
{
    std::random_device random;
    char name[sizeof(".kelctl-0123456701234567")];
    std::snprintf(name, sizeof(name), ".kelctl-%08x%08x", random(), random());
    return name;
}

} // namespace

TCNewFile::~TCNewFile()
{
    if (!m_temporary.empty()) {
        unlinkat(m_directory.Get(), m_temporary.c_str(), 0);
    }
}

TCOutcome TCNewFile::Open(const std::string& path)
{
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    m_path = path;
    m_name = path.substr(slash + 1);
    m_directory.Reset(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!m_directory.IsOpen()) {
        return m_Failed(errno);
    }
    if (m_name.empty()
        || (GetStatus(m_directory.Get(), m_name, status) && !S_ISREG(status.st_mode))) {
        return TCOutcome::Failed(path + ": it is there, and no regular file");
    }
    const std::string temporary = Beside();
    m_file.Reset(openat(m_directory.Get(), temporary.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnersAlone));
    if (!m_file.IsOpen()) {
        return m_Failed(errno);
    }
    m_temporary = temporary;
    return TCOutcome();
}

bool TCNewFile::Write(const std::string& text)
{
    m_text += text;
    return m_text.size() < kBlock || m_Flush();
}

TCOutcome TCNewFile::Finish()
{
    if (!m_Flush() || fsync(m_file.Get()) != 0) {
        return m_Failed(m_error != 0 ? m_error : errno);
    }
    const int directory = m_directory.Get();
    if (renameat(directory, m_temporary.c_str(), directory, m_name.c_str()) != 0) {
        return m_Failed(errno);
    }
    m_temporary.clear();
    struct stat written;
    struct stat named;
    if (!GetStatus(m_file.Get(), written) || !GetStatus(directory, m_name, named)
        || written.st_dev != named.st_dev || written.st_ino != named.st_ino) {
        return TCOutcome::Failed(m_path + ": somebody else has put another one in its place");
    }
    return TCOutcome();
}

bool TCNewFile::m_Flush()
{
    if (m_error == 0 && !tools::WriteAll(m_file.Get(), m_text)) {
        m_error = errno;
    }
    m_text.clear();
    return m_error == 0;
}

TCOutcome TCNewFile::m_Failed(int error) const
{
    return TCOutcome::Failed(m_path + ": " + std::strerror(error));
}

} // namespace ctl
} // namespace kel
