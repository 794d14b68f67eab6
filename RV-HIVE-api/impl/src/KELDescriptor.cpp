#include "KELDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "KELFileStatus.h"

namespace kel {

TCDescriptor::~TCDescriptor()
{
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

namespace {

// Opens without waiting, but for somebody's lease: the agent takes one for a moment, to see whether
// a request is still being written. The kernel asks for it back, and a later attempt finds it gone.
// Who keeps a lease for longer than a second is not the agent.
int OpenSoon(const char* path, int flags)
{
    constexpr int kAttempts = 1000;
    for (int attempt = 0;; ++attempt) {
        const int descriptor = open(path, flags, 0666);
        if (descriptor >= 0 || errno != EWOULDBLOCK || attempt == kAttempts) {
            return descriptor;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace

int OpenOwnFile(const char* path, int flags)
{
    const int descriptor = OpenSoon(path, flags | O_CREAT | O_NOFOLLOW | O_NONBLOCK);
    struct stat status;
    if (descriptor < 0
        || (GetStatus(descriptor, status) && S_ISREG(status.st_mode) && status.st_nlink < 2)) {
        return descriptor;
    }
    close(descriptor);
    errno = EINVAL;
    return -1;
}

FILE* ToStream(int descriptor, const char* mode)
{
    FILE* const stream = descriptor < 0 ? nullptr : fdopen(descriptor, mode);
    if (stream == nullptr && descriptor >= 0) {
        const int error = errno;
        close(descriptor);
        errno = error;
    }
    return stream;
}

bool WriteAll(int descriptor, const char* bytes, size_t size)
{
    while (size != 0) {
        const ssize_t written = write(descriptor, bytes, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        if (written > 0) {
            bytes += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}

} // namespace kel
