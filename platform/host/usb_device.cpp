// The USB storage of a plain Linux host: the mounted file systems whose block device hangs on the
// USB bus, in the order in which they were mounted (proc(5), /proc/self/mountinfo; sysfs(5)).

#include <usb_device.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#define KEL_HOST_EXPORT extern "C" __attribute__((visibility("default")))

struct usb_device
{
    std::string mountPath;
};

struct usb_device_list
{
    std::vector<usb_device> devices;
};

namespace {

constexpr int kFailed = -1;

std::mutex stateMutex;
unsigned int openCount = 0;           // guarded by stateMutex
std::list<usb_device_list> handedOut; // guarded by stateMutex; addresses stay valid

bool IsOctal(char c) { return c >= '0' && c <= '7'; }

// Mount paths come with blanks, newlines and backslashes as three octal digits.
std::string Unescape(const std::string& text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && IsOctal(text[i + 1]) && IsOctal(text[i + 2])
            && IsOctal(text[i + 3])) {
            plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

// sysfs puts every device below the bus that it hangs on: ".../usb1/1-2/.../block/sda/sda1". Other
// names begin with the same letters: only a bus has nothing but its number after them.
bool IsUsbBus(const std::string& name)
{
    return name.size() > 3 && name.compare(0, 3, "usb") == 0
           && name.find_first_not_of("0123456789", 3) == std::string::npos;
}

bool HangsOnUsb(const std::string& deviceNumber)
{
    std::error_code error;
    const auto device = std::filesystem::canonical("/sys/dev/block/" + deviceNumber, error);
    return !error && std::any_of(device.begin(), device.end(), [](const auto& part) {
        return IsUsbBus(part.string());
    });
}

usb_device_list ReadDevices()
{
    usb_device_list list;
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        // Blanks alone separate the fields: a path may have other white space in it.
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string number;
        std::string root;
        std::string path;
        std::getline(fields, id, ' ');
        std::getline(fields, parent, ' ');
        std::getline(fields, number, ' ');
        std::getline(fields, root, ' ');
        if (std::getline(fields, path, ' ') && HangsOnUsb(number)) {
            list.devices.push_back({Unescape(path)});
        }
    }
    return list;
}

} // namespace

KEL_HOST_EXPORT int usb_device_init(void)
{
    const std::lock_guard<std::mutex> state(stateMutex);
    ++openCount;
    return 0;
}

KEL_HOST_EXPORT int usb_device_fini(void)
{
    const std::lock_guard<std::mutex> state(stateMutex);
    if (openCount == 0) {
        return kFailed;
    }
    if (--openCount == 0) {
        handedOut.clear();
    }
    return 0;
}

KEL_HOST_EXPORT int usb_device_get_device_list(int filter, usb_device_list_h* list)
{
    try {
        const std::lock_guard<std::mutex> state(stateMutex);
        if (list == nullptr || openCount == 0) {
            return kFailed;
        }
        handedOut.push_back(filter == USB_DEVICE_CLASS_MASS_STORAGE ? ReadDevices()
                                                                    : usb_device_list());
        *list = &handedOut.back();
        return 0;
    } catch (const std::exception&) {
        return kFailed;
    }
}

KEL_HOST_EXPORT int usb_device_list_get_count(usb_device_list_h list)
{
    return list == nullptr ? 0 : static_cast<int>(list->devices.size());
}

KEL_HOST_EXPORT int usb_device_list_get_first(usb_device_list_h list, usb_device_h* device)
{
    if (list == nullptr || device == nullptr || list->devices.empty()) {
        return kFailed;
    }
    *device = &list->devices.front();
    return 0;
}

KEL_HOST_EXPORT const char* usb_device_get_mountpath(usb_device_h device)
{
    return device == nullptr ? nullptr : device->mountPath.c_str();
}
