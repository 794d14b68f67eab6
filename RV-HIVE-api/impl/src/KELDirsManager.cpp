#include <kel/KELDirsManager.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>

#include <usb_device.h>

#include "KELFileStatus.h"
#include "KELLog.h"

KEL_LOG_SOURCE("KELDirsManager", "kel::TCDirsManager")

// Weak: a device without a USB service has no such functions, and the library loads all the same.
#pragma weak usb_device_init
#pragma weak usb_device_fini
#pragma weak usb_device_get_device_list
#pragma weak usb_device_list_get_count
#pragma weak usb_device_list_get_first
#pragma weak usb_device_get_mountpath

namespace kel {

namespace {

constexpr char kVendorPolicy[] = "/opt/usr/share/vostek/vostek_kel_policy.xml";
constexpr char kVariantPolicyHigh[] = "/opt/usr/share/dlog/yol_kel_policy_high.xml";
constexpr char kVariantPolicy[] = "/opt/usr/share/dlog/yol_kel_policy.xml";
constexpr char kDefaultPolicy[] = "/opt/usr/share/dlog/default_kel_policy.xml";
constexpr char kDebugMarker[] = "/etc/debug";
constexpr char kUsbDirectory[] = "vostek/";
constexpr char kUsbPolicy[] = "vostek_kel_policy.xml";

constexpr int kDefaultInUse = 0; // policy modes
constexpr int kVariantInUse = 2;
constexpr int kNormal = 0; // device modes
constexpr int kUsbTest = 3;

bool Exists(const char* path)
{
    struct stat status;
    return GetStatus(AT_FDCWD, path, 0, status);
}

struct TSResolution
{
    int policyMode;
    std::string path;
    bool vendorMissing;
};

// The vendor's file is looked for first, but a high variant beats it.
TSResolution Resolve()
{
    if (Exists(kVendorPolicy)) {
        const bool high = Exists(kVariantPolicyHigh);
        return {kVariantInUse, high ? kVariantPolicyHigh : kVendorPolicy, false};
    }
    if (Exists(kVariantPolicyHigh)) {
        return {kVariantInUse, kVariantPolicyHigh, true};
    }
    if (Exists(kVariantPolicy)) {
        return {kVariantInUse, kVariantPolicy, true};
    }
    return {kDefaultInUse, kDefaultPolicy, true};
}

enum class EUsbStorage { NoList, NoDevice, NoFirstDevice, Found };

// The service is open for the length of a scope, on a device that has one.
class TCUsbService
{
public:
    TCUsbService() : m_present(usb_device_init != nullptr)
    {
        if (m_present) {
            usb_device_init();
        }
    }
    ~TCUsbService()
    {
        if (m_present) {
            usb_device_fini();
        }
    }
    TCUsbService(const TCUsbService&) = delete;
    TCUsbService& operator=(const TCUsbService&) = delete;

    // Where the first mass-storage device is mounted; empty when it is not.
    EUsbStorage FirstStorage(std::string& mountPath) const
    {
        usb_device_list_h list = nullptr;
        if (!m_present || usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list) != 0) {
            return EUsbStorage::NoList;
        }
        if (usb_device_list_get_count(list) < 1) {
            return EUsbStorage::NoDevice;
        }
        usb_device_h device = nullptr;
        if (usb_device_list_get_first(list, &device) != 0) {
            return EUsbStorage::NoFirstDevice;
        }
        const char* const path = usb_device_get_mountpath(device);
        mountPath = path != nullptr ? path : "";
        return EUsbStorage::Found;
    }

private:
    bool m_present;
};

// A device that is not mounted has no policy file, wherever this process's own directory may be.
bool HasUsbPolicy(const std::string& mountPath, std::string& candidate)
{
    candidate = (boost::filesystem::path(mountPath) / kUsbDirectory).string() + kUsbPolicy;

    boost::system::error_code ignored;
    return !mountPath.empty() && boost::filesystem::exists(StatusOf(candidate, ignored));
}

} // namespace

int TCDirsManager::KELMode = kNormal;
int TCDirsManager::PolicyMode = kDefaultInUse;

void TCDirsManager::Initialize()
{
    const TSResolution policy = Resolve();
    m_StorePolicyMode(policy.policyMode);
    if (policy.policyMode == kDefaultInUse) {
        KEL_DEBUG("Policy %s does not exist", kVendorPolicy);
    }
    KEL_DEBUG("KELMode: %d, policyXmlPath: %s", GetKELMode(), policy.path.c_str());

    std::string chosen = policy.path;
    if (!Exists(kDebugMarker)) {
        KEL_ERROR("This image is not debug!");
        m_StoreKELMode(kNormal);
    } else {
        const TCUsbService usb;
        std::string mountPath;
        std::string candidate;
        switch (usb.FirstStorage(mountPath)) { // without a device the mode stays what it was
        case EUsbStorage::NoList:
            KEL_ERROR("Cant get usb device list! Default dirs will be returned!");
            break;
        case EUsbStorage::NoDevice:
            KEL_ERROR("No usb devices! Default dirs will be returned!");
            break;
        case EUsbStorage::NoFirstDevice:
            KEL_ERROR("Cant get first usb device! Default dirs will be returned!");
            break;
        case EUsbStorage::Found:
            if (HasUsbPolicy(mountPath, candidate)) {
                KEL_DEBUG("USB test mode!");
                m_StoreKELMode(kUsbTest);
                chosen = candidate;
            } else {
                KEL_DEBUG("USB test Policy file is not detected!");
                m_StoreKELMode(kNormal);
            }
            break;
        }
    }

    const TCWriteLock lock(m_mutex);
    m_policyXmlPath = chosen;
    KEL_DEBUG("KELMode: %d, policy xml path: %s", KELMode, m_policyXmlPath.c_str());
}

void TCDirsManager::getPolicyPath()
{
    const TSResolution policy = Resolve();
    if (policy.vendorMissing) {
        KEL_DEBUG("Policy %s does not exist", kVendorPolicy);
    }
    {
        // Not to be torn: other threads copy the path at any time.
        const TCWriteLock lock(m_mutex);
        PolicyMode = policy.policyMode;
        m_policyXmlPath = policy.path;
    }
    KEL_DEBUG("PolicyMode: %d, policy xml path: %s", policy.policyMode, policy.path.c_str());
}

int TCDirsManager::GetPolicyMode()
{
    const TCReadLock lock(m_mutex);
    return PolicyMode;
}

int TCDirsManager::GetKELMode()
{
    const TCReadLock lock(m_mutex);
    return KELMode;
}

std::string TCDirsManager::GetPolicyXmlPath()
{
    getPolicyPath();

    const TCReadLock lock(m_mutex);
    return m_policyXmlPath;
}

void TCDirsManager::m_StorePolicyMode(int mode)
{
    const TCWriteLock lock(m_mutex);
    PolicyMode = mode;
}

void TCDirsManager::m_StoreKELMode(int mode)
{
    const TCWriteLock lock(m_mutex);
    KELMode = mode;
}

} // namespace kel
