// The system information of a plain Linux host: os-release(5), uname(2) and sysconf(3).

#include <system_info.h>

#include <sys/utsname.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>

#define KEL_HOST_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr int kFailed = -1;
constexpr long long kBytesPerMiB = 1024LL * 1024;

// Quotes around a value are no part of it; a backslash takes the next character as it is.
std::string Unquote(const std::string& value)
{
    const bool quoted = value.size() >= 2 && (value.front() == '"' || value.front() == '\'')
                        && value.back() == value.front();
    std::string plain;
    for (size_t i = quoted ? 1 : 0; i < value.size() - (quoted ? 1 : 0); ++i) {
        if (value[i] == '\\' && i + 1 < value.size() && value.front() != '\'') {
            ++i;
        }
        plain += value[i];
    }
    return plain;
}

// The value of a line KEY=value or KEY="value" of os-release(5).
std::string OsRelease(const std::string& key)
{
    for (const char* const path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            if (line.compare(0, key.size() + 1, key + "=") != 0) {
                continue;
            }
            return Unquote(line.substr(key.size() + 1));
        }
        if (file.eof()) {
            break; // the first of the two that is there counts
        }
    }
    return {};
}

// What the firmware says the board or machine is.
std::string Model()
{
    for (const char* const path :
         {"/proc/device-tree/model", "/sys/devices/virtual/dmi/id/product_name"}) {
        std::ifstream file(path);
        std::string model;
        if (std::getline(file, model, '\0') && !model.empty()) {
            return model.substr(0, model.find('\n'));
        }
    }
    return {};
}

std::string Text(system_info_key_e key)
{
    utsname names;
    if (uname(&names) != 0) {
        return {};
    }
    switch (key) {
    case SYSTEM_INFO_KEY_MODEL: {
        const std::string model = Model();
        return model.empty() ? names.machine : model;
    }
    case SYSTEM_INFO_KEY_PLATFORM_NAME:
        return OsRelease("NAME");
    case SYSTEM_INFO_KEY_PLATFORM_VERSION:
        return OsRelease("VERSION_ID");
    case SYSTEM_INFO_KEY_BUILD_STRING:
        return OsRelease("PRETTY_NAME");
    case SYSTEM_INFO_KEY_KERNEL_NAME:
        return names.sysname;
    case SYSTEM_INFO_KEY_KERNEL_RELEASE:
        return names.release;
    case SYSTEM_INFO_KEY_MACHINE:
        return names.machine;
    default:
        return {};
    }
}

long Number(system_info_key_e key)
{
    switch (key) {
    case SYSTEM_INFO_KEY_CORES:
        return sysconf(_SC_NPROCESSORS_ONLN);
    case SYSTEM_INFO_KEY_MEMORY_MIB:
        return static_cast<long>(static_cast<long long>(sysconf(_SC_PHYS_PAGES))
                                 * sysconf(_SC_PAGESIZE) / kBytesPerMiB);
    case SYSTEM_INFO_KEY_PAGE_SIZE:
        return sysconf(_SC_PAGESIZE);
    default:
        return kFailed;
    }
}

} // namespace

KEL_HOST_EXPORT int system_info_get_value_int(system_info_key_e key, int* value)
{
    const long number = Number(key);
    if (value == nullptr || number < 0 || number > INT_MAX) {
        return kFailed;
    }
    *value = static_cast<int>(number);
    return 0;
}

KEL_HOST_EXPORT int system_info_get_value_string(system_info_key_e key, char** value)
{
    try {
        const std::string text = Text(key);
        if (value == nullptr || text.empty()) {
            return kFailed;
        }
        char* const copy = strdup(text.c_str());
        if (copy == nullptr) {
            return kFailed;
        }
        *value = copy;
        return 0;
    } catch (const std::exception&) {
        return kFailed;
    }
}
