#include "PolicyStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kel {
namespace agent {

namespace {

constexpr char kPolicyFile[] = "policy.xml";
constexpr char kNewFile[] = ".policy.xml.new";
constexpr mode_t kMode = 0640;

class TCDescriptor
{
public:
    explicit TCDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~TCDescriptor()
    {
        if (IsOpen()) {
            close(m_descriptor);
        }
    }
    TCDescriptor(const TCDescriptor&) = delete;
    TCDescriptor& operator=(const TCDescriptor&) = delete;

    bool IsOpen() const { return m_descriptor >= 0; }
    int Get() const { return m_descriptor; }

private:
    const int m_descriptor;
};

bool WriteAll(int descriptor, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = write(descriptor, text.data() + written, text.size() - written);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        written += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

// True on success, otherwise false with errno set. There is never a file of the new name before:
// what a killed agent, or anyone else, has left there is removed, not written to.
bool WriteNewFile(int directory, const std::string& text)
{
    unlinkat(directory, kNewFile, 0);
    const TCDescriptor file(
        openat(directory, kNewFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
    return file.IsOpen() && WriteAll(file.Get(), text) && fsync(file.Get()) == 0;
}

} // namespace

TCPolicyStore::TCPolicyStore(const std::string& directory) : m_directory(directory) {}

bool TCPolicyStore::Store(const std::string& policy, std::string& reason) const
{
    const TCDescriptor directory(open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen()) {
        reason = m_directory + ": " + std::strerror(errno);
        return false;
    }
    if (!WriteNewFile(directory.Get(), policy)
        || renameat(directory.Get(), kNewFile, directory.Get(), kPolicyFile) != 0
        || fsync(directory.Get()) != 0) {
        reason = m_directory + "/" + kPolicyFile + ": " + std::strerror(errno);
        unlinkat(directory.Get(), kNewFile, 0);
        return false;
    }
    return true;
}

} // namespace agent
} // namespace kel
