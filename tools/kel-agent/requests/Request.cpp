#include "requests/Request.h"

#include <algorithm>
#include <iterator>

#include "common/RequestFormat.h"

namespace kel {
namespace agent {

namespace {

using tools::kRequestModes;
using tools::kRequestNameSeparator;
using tools::kRequestValueSeparator;

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

bool IsNumber(const std::string& text)
{
    const size_t digits = !text.empty() && text[0] == '-' ? 1 : 0;
    return text.size() > digits
           && text.find_first_not_of("0123456789", digits) == std::string::npos;
}

} // namespace

bool ReadFileName(const std::string& name, size_t cutSize, TSRequest& request)
{
    if (name.size() > cutSize) {
        return false;
    }
    std::string names = name;
    const bool hasSuffix = TakeOff(names, tools::kRequestSuffix);
    const auto mode
        = std::find_if(std::begin(kRequestModes), std::end(kRequestModes), [&](const char* word) {
              return hasSuffix && TakeOff(names, std::string(1, kRequestNameSeparator) + word);
          });
    if (mode != std::end(kRequestModes)) {
        if (names.find(kRequestNameSeparator) == std::string::npos) {
            return false;
        }
        request.m_mode = *mode;
    } else if (name.size() == cutSize) {
        names = name;
        request.m_cut = true;
    } else {
        return false;
    }
    const TSNames split = Split(names, kRequestNameSeparator);
    request.m_process = split.process;
    request.m_thread = split.thread;
    return true;
}

bool ReadSlotValue(const std::string& value, TSRequest& request)
{
    std::string names = value;
    const size_t at = value.rfind(kRequestValueSeparator);
    if (at != std::string::npos && value.find(kRequestValueSeparator) < at
        && IsNumber(value.substr(at + 1))) {
        names.resize(at);
        request.m_reboot = value.find_first_not_of("-0", at + 1) != std::string::npos;
    } else if (value.size() == tools::kLongestRequestValue) {
        request.m_cut = true;
    } else {
        return false;
    }
    const TSNames split = Split(names, kRequestValueSeparator);
    request.m_process = split.process;
    request.m_thread = split.thread;
    return true;
}

std::string Stamp(const struct stat& status)
{
    // With the times: the number of a file that has gone is used once more.
    const auto time = [](const timespec& when) {
        return std::to_string(when.tv_sec) + "." + std::to_string(when.tv_nsec);
    };
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) + ":"
           + time(status.st_mtim) + ":" + time(status.st_ctim);
}

} // namespace agent
} // namespace kel
