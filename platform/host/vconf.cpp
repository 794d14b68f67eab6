// The key-value store of a plain Linux host: one file per key, below a directory per kind.

#include <vconf.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#define KEL_HOST_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr char kVolatilePrefix[] = "memory/";

// Of a program with rights of its own, whoever started it does not say where it writes.
std::string Variable(const char* name)
{
    const char* const value = secure_getenv(name);
    return value != nullptr ? value : "";
}

// The last resort, in a directory that everybody can write to: it must be this user's own.
std::filesystem::path Own(const std::string& directory)
{
    struct stat status;
    if ((mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        || lstat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)
        || status.st_uid != geteuid()) {
        throw std::runtime_error(directory + " is somebody else's");
    }
    return directory;
}

// Where keys live that do not outlast the machine's run, and those that do.
std::filesystem::path Root(bool isVolatile)
{
    const std::string moved = Variable("KEL_HOST_VCONF_DIR");
    if (!moved.empty()) {
        return std::filesystem::path(moved) / (isVolatile ? "run" : "lib");
    }
    if (geteuid() == 0) {
        return isVolatile ? "/run/kel-vconf" : "/var/lib/kel-vconf";
    }
    const std::string mine = Variable(isVolatile ? "XDG_RUNTIME_DIR" : "XDG_STATE_HOME");
    if (!mine.empty()) {
        return std::filesystem::path(mine) / "kel-vconf";
    }
    const std::string home = Variable("HOME");
    if (!isVolatile && !home.empty()) {
        return std::filesystem::path(home) / ".local/state/kel-vconf";
    }
    return Own("/tmp/kel-vconf-" + std::to_string(geteuid())) / (isVolatile ? "run" : "lib");
}

// A key is components between slashes. None may be empty or begin with a dot: no key leaves the
// store, and none meets a temporary file.
bool IsValid(const std::string& key)
{
    bool componentBegins = true;
    for (const char c : key) {
        if (componentBegins && (c == '/' || c == '.')) {
            return false;
        }
        componentBegins = c == '/';
    }
    return !componentBegins;
}

bool FileOf(const char* key, std::filesystem::path& file)
{
    if (key == nullptr || !IsValid(key)) {
        return false;
    }
    const bool isVolatile = strncmp(key, kVolatilePrefix, strlen(kVolatilePrefix)) == 0;
    file = Root(isVolatile) / key;
    return true;
}

bool WriteAll(int descriptor, const char* text)
{
    for (size_t left = strlen(text); left != 0;) {
        const ssize_t written = write(descriptor, text, left);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        if (written > 0) {
            text += written;
            left -= static_cast<size_t>(written);
        }
    }
    return true;
}

// Readers see the old value or the new one, whole, also after a crash.
bool Replace(const std::filesystem::path& file, const char* text)
{
    std::filesystem::create_directories(file.parent_path());

    std::string temporary = (file.parent_path() / ("." + file.filename().string() + ".XXXXXX"));
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) {
        return false;
    }
    const bool written
        = WriteAll(descriptor, text) && fchmod(descriptor, 0644) == 0 && fsync(descriptor) == 0;
    const bool closed = close(descriptor) == 0;
    if (written && closed && rename(temporary.c_str(), file.c_str()) == 0) {
        return true;
    }
    unlink(temporary.c_str());
    return false;
}

} // namespace

KEL_HOST_EXPORT char* vconf_get_str(const char* in_key)
{
    try {
        std::filesystem::path file;
        struct stat status;
        if (!FileOf(in_key, file) || stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return nullptr;
        }
        if (status.st_size == 0) { // at little cost: who waits for a value asks again and again
            return strdup("");
        }
        std::ifstream stream(file, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(stream), {}};
        return stream ? strdup(text.c_str()) : nullptr;
    } catch (const std::exception&) {
        return nullptr;
    }
}

KEL_HOST_EXPORT int vconf_set_str(const char* in_key, const char* strval)
{
    try {
        std::filesystem::path file;
        return strval != nullptr && FileOf(in_key, file) && Replace(file, strval) ? 0 : -1;
    } catch (const std::exception&) {
        return -1;
    }
}
