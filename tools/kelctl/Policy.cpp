#include "Commands.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <kel/KELDirsManager.h>
#include <kel/KELFileSystem.h>

namespace kel {
namespace ctl {

namespace {

using TJson = nlohmann::ordered_json;

constexpr int kIndent = 2;
constexpr int kUsbTestMode = 3;

// The library does not tell where the device is mounted.
constexpr char kUsbPolicy[] = "vostek/vostek_kel_policy.xml on the first USB storage device";

struct TSCandidate
{
    std::string m_path;
    bool m_exists;
    bool m_used;
    const char* m_why; // it is used, when it is
};

struct TSPolicy
{
    bool m_debugImage;
    int m_policyMode;
    int m_deviceMode;
    std::vector<TSCandidate> m_candidates; // by precedence

    const TSCandidate& Used() const
    {
        return *std::find_if(m_candidates.begin(), m_candidates.end() - 1,
                             [](const TSCandidate& one) { return one.m_used; });
    }
};

TSPolicy Resolve()
{
    TSPolicy policy;
    TCDirsManager::Initialize();
    policy.m_debugImage = TSFileSystem::FileExists("/etc/debug");
    policy.m_deviceMode = TCDirsManager::GetKELMode();
    policy.m_policyMode = TCDirsManager::GetPolicyMode();
    // The device's own files alone: what a USB device has comes before.
    const std::string path = TCDirsManager::GetPolicyXmlPath();
    const bool usb = policy.m_deviceMode == kUsbTestMode;

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

void PrintText(const TSPolicy& policy)
{
    const TSCandidate& used = policy.Used();
    std::printf("policy: %s%s\n", used.m_path.c_str(), used.m_exists ? "" : " (missing)");
    std::printf("why: %s\n", used.m_why);
    std::printf("policy mode: %d (%s)\n", policy.m_policyMode,
                policy.m_policyMode == 0 ? "default" : "vendor's or variant's");
    std::printf("device mode: %d (%s)\n", policy.m_deviceMode,
                policy.m_deviceMode == kUsbTestMode ? "USB test" : "normal");
    std::printf("debug image: %s\n", policy.m_debugImage ? "yes" : "no");
    std::printf("candidates:\n");
    for (const TSCandidate& one : policy.m_candidates) {
        std::printf("  %-8s %s%s\n", one.m_exists ? "exists" : "missing", one.m_path.c_str(),
                    one.m_used ? " (in use)" : "");
    }
}

void PrintJson(const TSPolicy& policy)
{
    TJson text;
    text["policy"] = policy.Used().m_path;
    text["usb"] = policy.m_deviceMode == kUsbTestMode;
    text["why"] = policy.Used().m_why;
    text["policy-mode"] = policy.m_policyMode;
    text["device-mode"] = policy.m_deviceMode;
    text["debug-image"] = policy.m_debugImage;
    text["candidates"] = TJson::array();
    for (const TSCandidate& one : policy.m_candidates) {
        text["candidates"].push_back(
            {{"path", one.m_path}, {"exists", one.m_exists}, {"used", one.m_used}});
    }
    std::printf("%s\n", text.dump(kIndent).c_str());
}

EStatus Policy(bool json)
{
    const TSPolicy policy = Resolve();
    if (json) {
        PrintJson(policy);
    } else {
        PrintText(policy);
    }
    return EStatus::Success;
}

} // namespace

void AddPolicy(CLI::App& program, EStatus& status)
{
    CLI::App* const command = program.add_subcommand(
        "policy", "Tell which policy file applies on this device, and why");
    const auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print a JSON object");
    command->callback([json, &status] { status = Policy(*json); });
}

} // namespace ctl
} // namespace kel
