#include "policy/PolicyStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/Files.h"

namespace kel {
namespace agent {

using tools::TCDescriptor;
using tools::WriteNewFile;

namespace {

constexpr char kPolicyFile[] = "policy.xml";
constexpr char kNewFile[] = ".policy.xml.new";
constexpr mode_t kMode = 0640;

} // namespace

TCPolicyStore::TCPolicyStore(const std::string& directory) : m_directory(directory) {}

bool TCPolicyStore::Store(const std::string& policy, std::string& reason) const
{
    const TCDescriptor directory(open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen()) {
        reason = m_directory + ": " + std::strerror(errno);
        return false;
    }
    if (!WriteNewFile(directory.Get(), kNewFile, policy, kMode)
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
