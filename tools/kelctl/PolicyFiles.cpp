#include "PolicyFiles.h"

#include <algorithm>

#include <kel/KELDirsManager.h>
#include <kel/KELFileSystem.h>

namespace kel {
namespace ctl {

namespace {

constexpr int kUsbTestMode = 3;

// The library does not tell where the device is mounted.
constexpr char kUsbPolicy[] = "vostek/vostek_kel_policy.xml on the first USB storage device";

} // namespace

TSPolicyFiles TSPolicyFiles::Resolve()
{
    TSPolicyFiles policy;
    TCDirsManager::Initialize();
    policy.m_debugImage = TSFileSystem::FileExists("/etc/debug");
    policy.m_deviceMode = TCDirsManager::GetKELMode();
    policy.m_policyMode = TCDirsManager::GetPolicyMode();
    // The device's own files alone: what a USB device has comes before.
    const std::string path = TCDirsManager::GetPolicyXmlPath();
    const bool usb = policy.IsUsbTest();

    policy.m_candidates.push_back(
        {kUsbPolicy, usb, usb, "this is a debug image, and the USB device has the file"});
    const auto add = [&](const char* candidate, const char* why) {
        policy.m_candidates.push_back(
            {candidate, TSFileSystem::FileExists(candidate), !usb && path == candidate, why});
    };
    add("/opt/usr/share/dlog/yol_kel_policy_high.xml", "a high variant comes before the others");
    add("/opt/usr/share/vostek/vostek_kel_policy.xml", "there is no high variant");
    add("/opt/usr/share/dlog/yol_kel_policy.xml",
        "there is neither a high variant nor a vendor's policy");
    add("/opt/usr/share/dlog/default_kel_policy.xml", "there is no other policy");
    return policy;
}

const TSPolicyFile& TSPolicyFiles::Used() const
{
    return *std::find_if(m_candidates.begin(), m_candidates.end() - 1,
                         [](const TSPolicyFile& one) { return one.m_used; });
}

bool TSPolicyFiles::IsUsbTest() const { return m_deviceMode == kUsbTestMode; }

} // namespace ctl
} // namespace kel
