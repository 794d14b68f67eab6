#include "KELFileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <boost/version.hpp>

#include "KELDescriptor.h"

namespace fs = boost::filesystem;

namespace kel {

namespace {

#if BOOST_VERSION >= 107400
constexpr auto kOverwrite = fs::copy_options::overwrite_existing;
constexpr auto kFailOnExisting = fs::copy_options::none;
#else
constexpr auto kOverwrite = fs::copy_option::overwrite_if_exists;
constexpr auto kFailOnExisting = fs::copy_option::fail_if_exists;
#endif

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

// Gives a file the mode of another. FAT, which most USB sticks have, has no mode bits to give, and
// a file that is overwritten may belong to somebody else: the copy is good without them.
bool CopyMode(int from, int to)
{
    struct stat wanted;
    struct stat actual;
    if (fstat(from, &wanted) != 0 || fstat(to, &actual) != 0) {
        return false;
    }
    return wanted.st_mode == actual.st_mode || fchmod(to, wanted.st_mode & 07777) == 0
           || errno == EPERM;
}

// Finishes a copy from one file system to another: Boost 1.74 leaves an empty file and EXDEV there,
// because recent kernels refuse the copy_file_range() that it relies on. The destination is past
// the overwrite rule by then. As in Boost, the result has the source's mode and is on the disk.
boost::system::error_code CopyAcross(const fs::path& source, const fs::path& destination)
{
    const TCDescriptor from(open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (from.Get() < 0) {
        return LastError();
    }
    const TCDescriptor to(open(destination.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (to.Get() < 0 || !Stream(from.Get(), to.Get()) || !CopyMode(from.Get(), to.Get())
        || fdatasync(to.Get()) != 0) {
        return LastError();
    }
    return boost::system::error_code();
}

bool IsFifo(const fs::path& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

} // namespace

boost::system::error_code CopyContents(const fs::path& source, const fs::path& destination,
                                       bool overwrite)
{
    // Boost refuses everything that is no file, but opens it first, and waits there.
    if (IsFifo(source) || (overwrite && IsFifo(destination))) {
        return make_error_code(boost::system::errc::function_not_supported);
    }
    boost::system::error_code code;
    fs::copy_file(source, destination, overwrite ? kOverwrite : kFailOnExisting, code);
    if (code == boost::system::errc::cross_device_link) {
        code = CopyAcross(source, destination);
    }
    return code;
}

} // namespace kel
