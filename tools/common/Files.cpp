#include "common/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace kel {
namespace tools {

TCDescriptor::TCDescriptor(TCDescriptor&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1))
{}

TCDescriptor& TCDescriptor::operator=(TCDescriptor&& other) noexcept
{
    Reset(std::exchange(other.m_descriptor, -1));
    return *this;
}

void TCDescriptor::Reset(int descriptor)
{
    if (IsOpen()) {
        close(m_descriptor);
    }
    m_descriptor = descriptor;
}

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

bool WriteNewFile(int directory, const std::string& name, const std::string& text, mode_t mode)
{
    unlinkat(directory, name.c_str(), 0);
    const TCDescriptor file(openat(directory, name.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    return file.IsOpen() && WriteAll(file.Get(), text) && fsync(file.Get()) == 0;
}

bool ListNames(int directory, std::vector<std::string>& names)
{
    // Opened anew: what is open already may be shared, and goes on where its last reader stopped.
    const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(own >= 0 ? fdopendir(own) : nullptr,
                                                     &closedir); // the descriptor's, too
    if (!stream) {
        return false;
    }
    errno = 0;
    while (const dirent* const entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    return errno == 0;
}

} // namespace tools
} // namespace kel
