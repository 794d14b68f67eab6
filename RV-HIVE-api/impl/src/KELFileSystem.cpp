#include <kel/KELFileSystem.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "KELDescriptor.h"
#include "KELDirectoryWalk.h"
#include "KELFileCopy.h"
#include "KELFileStatus.h"
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
    if (!GetStatus(file.Get(), status) || !S_ISREG(status.st_mode)) {
        return -1;
    }
    return open(("/proc/self/fd/" + std::to_string(file.Get())).c_str(), O_RDONLY | O_CLOEXEC);
}

// What Boost's path::extension() gives, without making a path of every name.
bool HasExtension(const char* name, const std::string& extension)
{
    const char* const dot = strrchr(name, '.');
    return extension == (dot != nullptr ? dot : "");
}

} // namespace

// Which paths are given by value is part of the interface.
// NOLINTBEGIN(performance-unnecessary-value-param)

bool TSFileSystem::FileExists(fs::path path)
{
    boost::system::error_code code;
    return fs::exists(StatusOf(path, code));
}

bool TSFileSystem::FolderExists(fs::path path)
{
    boost::system::error_code code;
    if (!fs::exists(StatusOf(path, code))) {
        KEL_ERROR("File %s does not exist", path.c_str());
        return false;
    }
    if (!fs::is_directory(StatusOf(path, code))) {
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
        if (fs::is_directory(StatusOf(path, code))) {
            return true;
        }
        if (fs::is_regular_file(StatusOf(path)) && path.extension() == extension) {
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
        if (fs::is_regular_file(StatusOf(*entry))
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
        if (fs::is_directory(StatusOf(*entry))) {
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
        if (fs::is_directory(StatusOf(path, code))) {
            return true;
        }
        total += static_cast<std::uint32_t>(SizeOf(path));
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
    if (!GetStatus(AT_FDCWD, path.c_str(), 0, status)) {
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
    if (GetStatus(fileno(file.get()), status) && S_ISDIR(status.st_mode)) {
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
    const boost::system::error_code code = CopyContents(source, destination, overwrite);
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
    Remove(path, code);
    if (code) {
        KEL_ERROR("Couldnt delete file: %s, boost error: %d", path.c_str(), code.value());
        return false;
    }
    return true;
}

bool TSFileSystem::RemoveFolder(fs::path path)
{
    boost::system::error_code code;
    RemoveAll(path, code);
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
    kel::SetPermissions(path, bits, code);
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
    for (unsigned int counter = 1; fs::exists(StatusOf(result, code)); ++counter) {
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
