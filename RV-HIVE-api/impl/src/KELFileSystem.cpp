#include <kel/KELFileSystem.h>

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>

#include <boost/version.hpp>

#include "KELDescriptor.h"
#include "KELLog.h"

KEL_LOG_SOURCE("KELFileSystem", "kel::TSFileSystem")

namespace fs = boost::filesystem;

namespace kel {

namespace {

constexpr int kUnreadableSize = 20971520; // 20 MiB
constexpr char kUsbMarkerOfMove[] = "media/USB";
constexpr char kUsbMarkerOfMakeDir[] = "opt/media/USB";

bool Contains(const fs::path& path, const char* text)
{
    return path.string().find(text) != std::string::npos;
}

struct TSClose
{
    void operator()(FILE* file) const { fclose(file); }
    void operator()(DIR* directory) const { closedir(directory); }
};

// Opens a file without waiting for the other end of a FIFO. Another process's lease on a regular
// file is waited for, as an ordinary open() does: it is asked for by way of the file itself, since
// there may be a FIFO under its name by now. Where there is no /proc, the lease is a failure.
int OpenToRead(const std::string& fileName)
{
    const int descriptor = open(fileName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor >= 0 || errno != EWOULDBLOCK) {
        return descriptor;
    }
    const TCDescriptor file(open(fileName.c_str(), O_PATH | O_CLOEXEC));
    struct stat status;
    if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return -1;
    }
    return open(("/proc/self/fd/" + std::to_string(file.Get())).c_str(), O_RDONLY | O_CLOEXEC);
}

// The breadth-first walk of GetFiles and GetDirSize.
//
// What it reports is what Boost's directory_iterator and a status query for every entry would: the
// entries in the directory's order, the error code that the last query leaves, the exceptions. It
// saves system calls where the entry itself already tells its type, and looks at entries by way of
// the opened directory, which saves the kernel the walk along the path. A type is as old as the
// directory's last read, and tells what is below a file mounted on the entry.

// One open directory of a walk, standing at one entry.
class TCDirectory
{
public:
    // A directory that cannot be opened, or begun, has no entries and sets the code; otherwise the
    // code is clear.
    TCDirectory(const std::string& path, boost::system::error_code& code)
        : m_path(PrefixOf(path)), m_prefix(m_path.size()), m_pDirectory(opendir(path.c_str())),
          m_pEntry(nullptr), m_reach(m_prefix != 0 ? EReach::Unknown : EReach::PathOnly)
    {
        const int failure = m_pDirectory == nullptr ? errno : Read();
        code.assign(failure, boost::system::system_category());
    }

    bool AtEnd() const { return m_pEntry == nullptr; }

    // Goes to the next entry, or the end; what stopped it when the directory cannot be read on.
    std::optional<fs::filesystem_error> Advance()
    {
        const int failure = Read();
        if (failure != 0) {
            m_path.resize(m_prefix);
            return fs::filesystem_error(
                "boost::filesystem::directory_iterator::operator++",
                fs::path(m_path + "entry").parent_path(),
                boost::system::error_code(failure, boost::system::system_category()));
        }
        return std::nullopt;
    }

    const char* Name() const { return m_pEntry->d_name; }

    const std::string& Path()
    {
        m_path.resize(m_prefix);
        return m_path += m_pEntry->d_name;
    }

    // Whether the entry is certain to be what d_type says, and a status query by path certain to
    // succeed, for anything but a directory (something may be mounted on it) or a link.
    bool IsPlain()
    {
        switch (m_pEntry->d_type) {
        case DT_REG:
        case DT_FIFO:
        case DT_SOCK:
        case DT_CHR:
        case DT_BLK:
            return IsSearchable() && IsShort();
        default:
            return false;
        }
    }

    bool IsRegular() const { return m_pEntry->d_type == DT_REG; }

    // The entry's own status, a link's included: following it from here would take it farther than
    // from the path, all of whose links count. False when a query by path would, or might, fail.
    bool Stat(struct stat& status)
    {
        return m_reach != EReach::PathOnly && IsShort()
               && fstatat(dirfd(m_pDirectory.get()), Name(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    }

private:
    enum class EReach { Unknown, Searchable, PathOnly };

    // The directory's part of its entries' paths. Boost's iterator puts every entry's name in place
    // of the "." that it begins with, which drops slashes that are too many; of "//" it drops all,
    // and the entries are sought in the working directory.
    static std::string PrefixOf(const std::string& path)
    {
        const size_t size = path.size();
        std::string prefix = path;
        if (size >= 2 && path[size - 1] == '/' && path[size - 2] == '/') {
            prefix = (fs::path(path) / ".").remove_filename().string();
        }
        if (!prefix.empty() && prefix.back() != '/') {
            prefix += '/';
        }
        return prefix;
    }

    // A path that is too long is no way to an entry that the opened directory still shows.
    bool IsShort() const { return m_prefix + strlen(Name()) < PATH_MAX; }

    // A directory may be readable and yet not searchable; one query tells for all its entries.
    bool IsSearchable()
    {
        if (m_reach == EReach::Unknown) {
            struct stat status;
            m_reach = Stat(status) ? EReach::Searchable : EReach::PathOnly;
        }
        return m_reach == EReach::Searchable;
    }

    int Read()
    {
        do {
            errno = 0;
            m_pEntry = readdir(m_pDirectory.get());
        } while (m_pEntry != nullptr && (strcmp(Name(), ".") == 0 || strcmp(Name(), "..") == 0));
        return m_pEntry == nullptr ? errno : 0;
    }

    std::string m_path; // the directory with a slash, and then the last entry asked for
    size_t m_prefix;
    std::unique_ptr<DIR, TSClose> m_pDirectory;
    dirent* m_pEntry;
    EReach m_reach;
};

// Visits every entry below a directory, level by level. The visitor tells which are directories to
// walk. Gives back what stopped it, when a directory could not be read on after its first entry.
template <typename Visitor>
std::optional<fs::filesystem_error> Walk(const fs::path& start, boost::system::error_code& code,
                                         Visitor isDirectory)
{
    std::deque<std::string> queue{start.string()};
    while (!queue.empty()) {
        TCDirectory directory(queue.front(), code);
        queue.pop_front();
        while (!directory.AtEnd()) {
            if (isDirectory(directory)) {
                queue.push_back(directory.Path());
            }
            if (std::optional<fs::filesystem_error> error = directory.Advance()) {
                return error;
            }
        }
    }
    return std::nullopt;
}

// What Boost's path::extension() gives, without making a path of every name.
bool HasExtension(const char* name, const std::string& extension)
{
    const char* const dot = strrchr(name, '.');
    return extension == (dot != nullptr ? dot : "");
}

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

} // namespace

// Which paths are given by value is part of the interface.
// NOLINTBEGIN(performance-unnecessary-value-param)

bool TSFileSystem::FileExists(fs::path path)
{
    boost::system::error_code code;
    return fs::exists(fs::status(path, code));
}

bool TSFileSystem::FolderExists(fs::path path)
{
    boost::system::error_code code;
    if (!fs::exists(fs::status(path, code))) {
        KEL_ERROR("File %s does not exist", path.c_str());
        return false;
    }
    if (!fs::is_directory(fs::status(path, code))) {
        KEL_ERROR("Path %s exists but it is not a directory", path.c_str());
        return false;
    }
    return true;
}

bool TSFileSystem::GetFiles(std::vector<fs::path>& files, fs::path directory, std::string extension)
{
    boost::system::error_code code;
    const auto error = Walk(directory, code, [&](TCDirectory& entry) {
        if (entry.IsPlain()) {
            code.clear();
            if (entry.IsRegular() && HasExtension(entry.Name(), extension)) {
                files.emplace_back(entry.Name());
            }
            return false;
        }
        const fs::path path(entry.Path());
        if (fs::is_directory(fs::status(path, code))) {
            return true;
        }
        if (fs::is_regular_file(fs::status(path)) && path.extension() == extension) {
            files.push_back(path.filename());
        }
        return false;
    });
    if (error) {
        throw fs::filesystem_error(*error);
    }
    return !code;
}

std::list<fs::path> TSFileSystem::GetFileList(const fs::path& directory,
                                              const std::string& extension,
                                              const std::string& namePart)
{
    std::list<fs::path> files;
    boost::system::error_code code;
    for (fs::directory_iterator entry(directory, code), end; entry != end; ++entry) {
        const fs::path& path = entry->path();
        if (fs::is_regular_file(entry->status())
            && (extension.empty() || path.extension() == extension)
            && (namePart.empty() || path.string().find(namePart) != std::string::npos)) {
            files.push_back(path);
        }
    }
    return files;
}

std::set<fs::path> TSFileSystem::GetDirList(const fs::path& directory)
{
    std::set<fs::path> directories;
    boost::system::error_code code;
    for (fs::directory_iterator entry(directory, code), end; entry != end; ++entry) {
        if (fs::is_directory(entry->status())) {
            directories.insert(entry->path());
            KEL_DEBUG("Add %s dir to list", entry->path().c_str());
        }
    }
    return directories;
}

int TSFileSystem::GetDirSize(const fs::path& directory)
{
    std::uint32_t total = 0;
    boost::system::error_code code;
    const auto error = Walk(directory, code, [&](TCDirectory& entry) {
        struct stat status;
        if (entry.Stat(status) && (S_ISDIR(status.st_mode) || S_ISREG(status.st_mode))) {
            code.clear();
            if (S_ISDIR(status.st_mode)) {
                return true;
            }
            total += static_cast<std::uint32_t>(status.st_size);
            return false;
        }
        // Boost's own queries follow a link, and report what is wrong with the rest.
        const fs::path path(entry.Path());
        if (fs::is_directory(fs::status(path, code))) {
            return true;
        }
        total += static_cast<std::uint32_t>(fs::file_size(path));
        return false;
    });
    if (error) {
        KEL_ERROR("Error getting dir size, boost error %s", error->what());
        return kUnreadableSize; // not 0, on purpose: the directory must not pass for empty
    }
    if (code) {
        KEL_ERROR("Error getting dir size, boost error %d", code.value());
        return 0;
    }
    return static_cast<int>(total);
}

time_t TSFileSystem::GetLastModificationTime(const fs::path& path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        KEL_ERROR("ERROR");
        return 0;
    }
    return status.st_mtime;
}

double TSFileSystem::GetFreeSpaceSize(fs::path path)
{
    boost::system::error_code code;
    const fs::space_info space = fs::space(path, code);
    if (code) {
        KEL_ERROR("Error checking free space: boost error %d", code.value());
        return -1.0;
    }
    return static_cast<double>(space.available >> 20);
}

bool TSFileSystem::GetFileContents(const std::string& fileName,
                                   std::vector<unsigned char>& contents)
{
    const std::unique_ptr<FILE, TSClose> file(ToStream(OpenToRead(fileName), "rb"));
    if (file == nullptr) {
        KEL_DEBUG("File %s opening failed", fileName.c_str());
        return false;
    }
    fseek(file.get(), 0, SEEK_END);
    const long size = ftell(file.get());
    fseek(file.get(), 0, SEEK_SET);
    if (size == 0) {
        KEL_ERROR("File %s size is 0!", fileName.c_str());
        return false;
    }
    struct stat status;
    if (fstat(fileno(file.get()), &status) == 0 && S_ISDIR(status.st_mode)) {
        // Some file systems measure a directory at the largest long there is.
        KEL_ERROR("Error reading file: %s", fileName.c_str());
        return false;
    }
    std::vector<unsigned char> buffer(static_cast<size_t>(size));
    if (fread(buffer.data(), buffer.size(), 1, file.get()) != 1) {
        KEL_ERROR("Error reading file: %s", fileName.c_str());
        return false;
    }
    contents.swap(buffer);
    return true;
}

bool TSFileSystem::CopyFile(fs::path source, fs::path destination, bool overwrite)
{
    boost::system::error_code code;
    fs::copy_file(source, destination, overwrite ? kOverwrite : kFailOnExisting, code);
    if (code == boost::system::errc::cross_device_link) {
        code = CopyAcross(source, destination);
    }
    if (code) {
        KEL_ERROR("Could not copy file: error code: %s", code.message().c_str());
        return false;
    }
    return true;
}

bool TSFileSystem::MoveFile(const fs::path& source, const fs::path& destination, bool overwrite)
{
    if (Contains(destination, kUsbMarkerOfMove)) {
        // The source stays, on purpose: a stick can be pulled at any time.
        if (!CopyFile(source, destination, overwrite)) {
            KEL_ERROR("Failed to copy file: %s", source.c_str());
            return false;
        }
        return true;
    }
    boost::system::error_code code;
    fs::rename(source, destination, code);
    if (code) {
        KEL_ERROR("Could not move/rename file: error code: %s", code.message().c_str());
        return false;
    }
    return true;
}

bool TSFileSystem::RemoveFile(fs::path path)
{
    boost::system::error_code code;
    fs::remove(path, code);
    if (code) {
        KEL_ERROR("Couldnt delete file: %s, boost error: %d", path.c_str(), code.value());
        return false;
    }
    return true;
}

bool TSFileSystem::RemoveFolder(fs::path path)
{
    boost::system::error_code code;
    fs::remove_all(path, code);
    if (code) {
        KEL_ERROR("Could not delete folder: %s, error code: %s", path.c_str(),
                  code.message().c_str());
        return false;
    }
    return true;
}

bool TSFileSystem::SetPermissions(fs::path path, fs::perms bits, int userId, int groupId)
{
    boost::system::error_code code;
    fs::permissions(path, bits, code);
    if (code) {
        KEL_ERROR("Couldnt set permissions for: %s", path.c_str());
        return false;
    }
    if (userId != -1 && groupId != -1
        && chown(path.c_str(), static_cast<uid_t>(userId), static_cast<gid_t>(groupId)) != 0) {
        const int error = errno;
        char buffer[256];
        const char* const message = strerror_r(error, buffer, sizeof(buffer));
        KEL_ERROR("Couldnt change ownership of %s. Errno: %d, %s", path.c_str(), error, message);
        return false;
    }
    return true;
}

bool TSFileSystem::MakeDir(const fs::path& directory, bool setPermissions)
{
    if (FolderExists(directory)) {
        return true;
    }
    boost::system::error_code code;
    if (!fs::create_directories(directory, code)) {
        if (!FolderExists(directory)) {
            if (code) {
                const double freeSpace = GetFreeSpaceSize(directory.parent_path());
                KEL_ERROR("Unable to create directory: %s, error: %s, free space: %Lf mb",
                          directory.c_str(), code.message().c_str(),
                          static_cast<long double>(freeSpace));
            }
            return false;
        }
        KEL_ERROR("Dir created by other process %s", directory.c_str());
    }
    return !setPermissions || SetPermissions(directory, fs::perms(0777), -1, -1)
           || Contains(directory, kUsbMarkerOfMakeDir);
}

bool TSFileSystem::GenerateUniqueName(const fs::path& directory, const fs::path& fileName,
                                      fs::path& result)
{
    // Copies: the result may be one of the arguments.
    // NOLINTBEGIN(performance-unnecessary-copy-initialization)
    const fs::path parent = directory;
    const std::string name = fileName.string();
    // NOLINTEND(performance-unnecessary-copy-initialization)
    const size_t dot = name.rfind('.');

    boost::system::error_code code;
    result = parent / name;
    for (unsigned int counter = 1; fs::exists(fs::status(result, code)); ++counter) {
        // Throws for a name without a dot, on purpose: there is no place for a number.
        const std::string ending = name.substr(dot);
        result = parent / (name.substr(0, dot) + "_" + std::to_string(counter) + ending);
    }
    if (code != boost::system::errc::no_such_file_or_directory) {
        KEL_DEBUG("Not expected boost error %d", code.value());
        return false;
    }
    return true;
}

// NOLINTEND(performance-unnecessary-value-param)

} // namespace kel
