#include "KELFileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "KELDescriptor.h"
#include "KELFileStatus.h"

namespace fs = boost::filesystem;

namespace kel {

namespace {

boost::system::error_code LastError()
{
    return boost::system::error_code(errno, boost::system::system_category());
}

bool Stream(int from, int to)
{
    char buffer[65536];
    for (;;) {
        const ssize_t size = read(from, buffer, sizeof(buffer));
        if (size == 0) {
            return true;
        }
        if (size < 0 && errno != EINTR) {
            return false;
        }
        if (size > 0 && !WriteAll(to, buffer, static_cast<size_t>(size))) {
            return false;
        }
    }
}

// Gives a file a mode; what it has is asked for after the bytes, which take set-user-id bits away.
// FAT, which most USB sticks have, has no mode bits to give, and a file that is overwritten may
// belong to somebody else: the copy is good without them.
bool SetMode(int file, mode_t mode)
{
    struct stat status;
    if (!GetStatus(file, status)) {
        return false;
    }
    return status.st_mode == mode || fchmod(file, mode & 07777) == 0 || errno == EPERM;
}

bool IsFifo(const fs::path& path)
{
    struct stat status;
    return GetStatus(AT_FDCWD, path.c_str(), 0, status) && S_ISFIFO(status.st_mode);
}

} // namespace

boost::system::error_code CopyContents(const fs::path& source, const fs::path& destination,
                                       bool overwrite)
{
    const auto refused = make_error_code(boost::system::errc::function_not_supported);
    // Opening a FIFO would wait for its other end.
    if (IsFifo(source) || (overwrite && IsFifo(destination))) {
        return refused;
    }
    struct stat wanted;
    const TCDescriptor from(open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (from.Get() < 0 || !GetStatus(from.Get(), wanted)) {
        return LastError();
    }
    if (!S_ISREG(wanted.st_mode)) {
        return refused;
    }
    struct stat found;
    const TCDescriptor to(open(destination.c_str(),
                               O_WRONLY | O_CREAT | O_CLOEXEC | (overwrite ? 0 : O_EXCL),
                               wanted.st_mode & 07777));
    if (to.Get() < 0 || !GetStatus(to.Get(), found)) {
        return LastError();
    }
    if (!S_ISREG(found.st_mode)) {
        return refused;
    }
    if (found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino) {
        return make_error_code(boost::system::errc::file_exists);
    }
    if (ftruncate(to.Get(), 0) != 0 || !Stream(from.Get(), to.Get())
        || !SetMode(to.Get(), wanted.st_mode) || fdatasync(to.Get()) != 0) {
        return LastError();
    }
    return boost::system::error_code();
}

} // namespace kel
