#include "Request.h"

#include <algorithm>
#include <iterator>

namespace kel {
namespace agent {

namespace {

constexpr char kSuffix[] = ".log";
constexpr const char* kModes[] = {"OQC_ALWAYS", "ALWAYS", "ONCE_ONLY", "POLICY"};
constexpr size_t kSlotCutSize = 511;

struct TSNames
{
    std::string process;
    std::string thread;
};

TSNames Split(const std::string& names, char separator)
{
    const size_t half = names.size() / 2;
    if (names.size() % 2 == 1 && names[half] == separator
        && names.compare(0, half, names, half + 1, half) == 0) {
        return {names.substr(0, half), names.substr(half + 1)};
    }
    const size_t at = names.rfind(separator);
    if (at == std::string::npos) {
        return {names, ""}; // a cut one
    }
    return {names.substr(0, at), names.substr(at + 1)};
}

bool TakeOff(std::string& text, const std::string& end)
{
    if (text.size() < end.size() || text.compare(text.size() - end.size(), end.size(), end) != 0) {
        return false;
    }
    text.resize(text.size() - end.size());
    return true;
}

} // namespace

bool ReadFileName(const std::string& name, size_t cutSize, TSRequest& request)
{
    if (name.empty() || name[0] == '.') {
        return false;
    }
    std::string names = name;
    const bool hasSuffix = TakeOff(names, kSuffix);
    const auto mode = std::find_if(std::begin(kModes), std::end(kModes), [&](const char* word) {
        return hasSuffix && TakeOff(names, std::string("-") + word);
    });
    if (mode != std::end(kModes)) {
        if (names.find('-') == std::string::npos) {
            return false;
        }
        request.m_mode = *mode;
    } else if (name.size() == cutSize) {
        names = name;
        request.m_cut = true;
    } else {
        return false;
    }
    const TSNames split = Split(names, '-');
    request.m_process = split.process;
    request.m_thread = split.thread;
    return true;
}

bool ReadSlotValue(const std::string& value, TSRequest& request)
{
    const size_t at = value.rfind('|');
    const bool isNumber = at != std::string::npos && at + 1 < value.size()
                          && value.find_first_not_of("0123456789", at + 1 + (value[at + 1] == '-'))
                                 == std::string::npos
                          && value.back() != '-';
    const std::string names = isNumber ? value.substr(0, at) : value;
    if (isNumber && names.find('|') != std::string::npos) {
        // Any number but zero asks for a reboot.
        request.m_reboot = value.find_first_of("123456789", at) != std::string::npos;
    } else if (value.size() == kSlotCutSize) {
        request.m_cut = true;
    } else {
        return false;
    }
    const TSNames split = Split(request.m_cut ? value : names, '|');
    request.m_process = split.process;
    request.m_thread = split.thread;
    return true;
}

std::string Stamp(const struct stat& status)
{
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) + ":"
           + std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

} // namespace agent
} // namespace kel
