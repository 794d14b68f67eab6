#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <system_info.h>

namespace kel::test {

/// The device's key-value store, system information and USB service, as a test wants them. A
/// program that links this preempts the platform's functions from its start to its end; a new
/// object forgets what the one before was told.
///
/// Threads: the platform's functions from any thread; the rest while none of them runs.
class FakePlatform
{
public:
    /// An empty store that takes everything, a system that knows nothing, and no USB device.
    FakePlatform();

    // The key-value store.
    void SetVconf(const std::string& key, const std::string& value);
    std::optional<std::string> Vconf(const std::string& key) const;

    /// What storing a value returns, in place of storing it. Nothing: the value is stored.
    void RefuseVconf(std::optional<int> result);

    /// How often a key was read.
    size_t VconfReads(const std::string& key) const;

    // The system information.
    void SetNumber(system_info_key_e key, int value);
    void SetText(system_info_key_e key, const std::string& value);

    /// What a failing call leaves in the caller's variable, nothing by default.
    void LeaveOnFailure(std::optional<int> number, const char* text);

    /// Asking for any text succeeds, and gives none.
    void SucceedWithoutText();

    size_t NumberReads(system_info_key_e key) const;
    size_t TextReads(system_info_key_e key) const;

    /// Runs in every read of the store and of the system information.
    void OnRead(std::function<void()> hook);

    /// The USB service: what its functions return. The count is the devices' unless told.
    struct TSUsb
    {
        int m_initResult = 0;
        int m_listResult = 0;
        std::optional<int> m_count;
        int m_firstResult = 0;
        std::vector<std::optional<std::string>> m_mountPaths; // one per device
    };
    TSUsb& Usb();

    /// The calls of the USB service, in order: "init", "list 8", "count", "first", "mountpath",
    /// "fini".
    std::vector<std::string> UsbCalls() const;
};

} // namespace kel::test
