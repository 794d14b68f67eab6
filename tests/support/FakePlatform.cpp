#include "support/FakePlatform.h"

#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include <usb_device.h>
#include <vconf.h>

struct usb_device
{
    const char* m_mountPath;
};

struct usb_device_list
{
    std::vector<usb_device> m_devices;
};

namespace kel::test {

namespace {

struct TSState
{
    std::map<std::string, std::string> m_vconf;
    std::optional<int> m_vconfRefusal;
    std::map<std::string, size_t> m_vconfReads;
    std::map<system_info_key_e, int> m_numbers;
    std::map<system_info_key_e, std::string> m_texts;
    std::map<system_info_key_e, size_t> m_numberReads;
    std::map<system_info_key_e, size_t> m_textReads;
    std::optional<int> m_leftNumber;
    const char* m_leftText = nullptr;
    bool m_withoutText = false;
    std::function<void()> m_onRead;

    FakePlatform::TSUsb m_usb;
    std::vector<std::string> m_usbCalls;
    usb_device_list m_usbList;
};

// Never freed: the library may be used before main() and after exit().
std::mutex& Mutex()
{
    static std::mutex& mutex = *new std::mutex;
    return mutex;
}

TSState& State() // guarded by Mutex()
{
    static TSState& state = *new TSState;
    return state;
}

// The store's texts are handed out for good: whoever keeps one without freeing it leaks nothing.
char* LastingText(const std::string& text)
{
    static std::set<std::string>& texts = *new std::set<std::string>;
    return const_cast<char*>(texts.insert(text).first->c_str());
}

void RunHook()
{
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(Mutex());
        hook = State().m_onRead;
    }
    if (hook) {
        hook();
    }
}

template <typename Map, typename Key>
std::optional<typename Map::mapped_type> Find(const Map& map, const Key& key)
{
    const auto found = map.find(key);
    return found != map.end() ? std::make_optional(found->second) : std::nullopt;
}

void NoteUsb(const std::string& call) { State().m_usbCalls.push_back(call); }

} // namespace

FakePlatform::FakePlatform()
{
    const std::lock_guard<std::mutex> lock(Mutex());
    State() = TSState();
}

void FakePlatform::SetVconf(const std::string& key, const std::string& value)
{
    State().m_vconf[key] = value;
}

std::optional<std::string> FakePlatform::Vconf(const std::string& key) const
{
    return Find(State().m_vconf, key);
}

void FakePlatform::RefuseVconf(std::optional<int> result) { State().m_vconfRefusal = result; }

size_t FakePlatform::VconfReads(const std::string& key) const
{
    return Find(State().m_vconfReads, key).value_or(0);
}

void FakePlatform::SetNumber(system_info_key_e key, int value) { State().m_numbers[key] = value; }

void FakePlatform::SetText(system_info_key_e key, const std::string& value)
{
    State().m_texts[key] = value;
}

void FakePlatform::LeaveOnFailure(std::optional<int> number, const char* text)
{
    State().m_leftNumber = number;
    State().m_leftText = text;
}

void FakePlatform::SucceedWithoutText() { State().m_withoutText = true; }

size_t FakePlatform::NumberReads(system_info_key_e key) const
{
    return Find(State().m_numberReads, key).value_or(0);
}

size_t FakePlatform::TextReads(system_info_key_e key) const
{
    return Find(State().m_textReads, key).value_or(0);
}

void FakePlatform::OnRead(std::function<void()> hook) { State().m_onRead = std::move(hook); }

FakePlatform::TSUsb& FakePlatform::Usb() { return State().m_usb; }

std::vector<std::string> FakePlatform::UsbCalls() const { return State().m_usbCalls; }

} // namespace kel::test

// In place of the platform's functions of these names.

#define KEL_FAKE_EXPORT extern "C" __attribute__((visibility("default")))

using kel::test::Find;
using kel::test::Mutex;
using kel::test::State;

KEL_FAKE_EXPORT char* vconf_get_str(const char* key)
{
    kel::test::RunHook();
    const std::lock_guard<std::mutex> lock(Mutex());
    ++State().m_vconfReads[key];
    const auto value = Find(State().m_vconf, key);
    return value ? kel::test::LastingText(*value) : nullptr;
}

KEL_FAKE_EXPORT int vconf_set_str(const char* key, const char* value)
{
    const std::lock_guard<std::mutex> lock(Mutex());
    if (State().m_vconfRefusal) {
        return *State().m_vconfRefusal;
    }
    State().m_vconf[key] = value;
    return 0;
}

KEL_FAKE_EXPORT int system_info_get_value_int(system_info_key_e key, int* value)
{
    kel::test::RunHook();
    const std::lock_guard<std::mutex> lock(Mutex());
    ++State().m_numberReads[key];
    const auto number = Find(State().m_numbers, key);
    if (number || State().m_leftNumber) {
        *value = number ? *number : *State().m_leftNumber;
    }
    return number ? 0 : -1;
}

KEL_FAKE_EXPORT int system_info_get_value_string(system_info_key_e key, char** value)
{
    kel::test::RunHook();
    const std::lock_guard<std::mutex> lock(Mutex());
    ++State().m_textReads[key];
    if (State().m_withoutText) {
        return 0;
    }
    const auto text = Find(State().m_texts, key);
    if (!text) {
        *value = const_cast<char*>(State().m_leftText);
        return -1;
    }
    *value = strdup(text->c_str());
    return 0;
}

KEL_FAKE_EXPORT int usb_device_init()
{
    const std::lock_guard<std::mutex> lock(Mutex());
    kel::test::NoteUsb("init");
    return State().m_usb.m_initResult;
}

KEL_FAKE_EXPORT int usb_device_fini()
{
    const std::lock_guard<std::mutex> lock(Mutex());
    kel::test::NoteUsb("fini");
    return 0;
}

KEL_FAKE_EXPORT int usb_device_get_device_list(int filter, usb_device_list_h* list)
{
    const std::lock_guard<std::mutex> lock(Mutex());
    kel::test::NoteUsb("list " + std::to_string(filter));
    State().m_usbList.m_devices.clear();
    for (const auto& path : State().m_usb.m_mountPaths) {
        State().m_usbList.m_devices.push_back({path ? path->c_str() : nullptr});
    }
    *list = &State().m_usbList;
    return State().m_usb.m_listResult;
}

KEL_FAKE_EXPORT int usb_device_list_get_count(usb_device_list_h list)
{
    const std::lock_guard<std::mutex> lock(Mutex());
    kel::test::NoteUsb("count");
    return State().m_usb.m_count.value_or(static_cast<int>(list->m_devices.size()));
}

KEL_FAKE_EXPORT int usb_device_list_get_first(usb_device_list_h list, usb_device_h* device)
{
    const std::lock_guard<std::mutex> lock(Mutex());
    kel::test::NoteUsb("first");
    if (list->m_devices.empty()) {
        return -1;
    }
    *device = &list->m_devices.front();
    return State().m_usb.m_firstResult;
}

KEL_FAKE_EXPORT const char* usb_device_get_mountpath(usb_device_h device)
{
    const std::lock_guard<std::mutex> lock(Mutex());
    kel::test::NoteUsb("mountpath");
    return device->m_mountPath;
}
