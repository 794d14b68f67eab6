#include "Commands.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <kel/KELDirsManager.h>
#include <kel/KELFileSystem.h>

#include "StoredPolicy.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

using TJson = nlohmann::ordered_json;

constexpr int kIndent = 2;
constexpr int kUsbTestMode = 3;

// The library does not tell where the device is mounted.
constexpr char kUsbPolicy[] = "vostek/vostek_kel_policy.xml on the first USB storage device";

struct TSOptions
{
    bool m_json = false;
    bool m_print = false;
    std::string m_stateDirectory = kDefaultStateDirectory;
};

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

// What is known of the agent's own.
std::string Words(const TSStoredPolicy& stored)
{
    switch (stored.m_state) {
    case TSStoredPolicy::EState::Stored:
        return tools::Printable(stored.m_path) + ", " + std::to_string(stored.m_text.size())
               + " bytes, stored " + tools::IsoTime(stored.m_since);
    case TSStoredPolicy::EState::None:
        return "none has been set";
    default:
        return tools::Printable(stored.m_path) + " cannot be read: " + stored.m_reason;
    }
}

void PrintText(const TSPolicy& policy, const TSStoredPolicy& stored)
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
    std::printf("agent's policy: %s\n", Words(stored).c_str());
}

TJson Members(const TSStoredPolicy& stored)
{
    TJson members;
    members["path"] = stored.m_path;
    switch (stored.m_state) {
    case TSStoredPolicy::EState::Stored:
        members["state"] = "stored";
        members["bytes"] = stored.m_text.size();
        members["since"] = tools::IsoTime(stored.m_since);
        break;
    case TSStoredPolicy::EState::None:
        members["state"] = "none";
        break;
    default:
        members["state"] = "unreadable";
        members["reason"] = stored.m_reason;
    }
    return members;
}

void PrintJson(const TSPolicy& policy, const TSStoredPolicy& stored)
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
    text["agent-policy"] = Members(stored);
    std::printf("%s\n", text.dump(kIndent, ' ', true, TJson::error_handler_t::replace).c_str());
}

// As it is stored; a terminal, which it could steer, gets what is to be seen of it.
EStatus PrintStored(const TSStoredPolicy& stored)
{
    if (stored.m_state != TSStoredPolicy::EState::Stored) {
        std::fprintf(stderr, "kelctl: the agent's policy: %s\n", Words(stored).c_str());
        return EStatus::Negative;
    }
    const std::string text
        = isatty(STDOUT_FILENO) != 0 ? tools::Printable(stored.m_text, "\t\n\\") : stored.m_text;
    std::fwrite(text.data(), 1, text.size(), stdout);
    return EStatus::Success;
}

EStatus Policy(const TSOptions& options)
{
    const TSStoredPolicy stored(options.m_stateDirectory);
    if (options.m_print) {
        return PrintStored(stored);
    }
    if (options.m_json) {
        PrintJson(Resolve(), stored);
    } else {
        PrintText(Resolve(), stored);
    }
    return EStatus::Success;
}

} // namespace

void AddPolicy(CLI::App& program, EStatus& status)
{
    CLI::App* const command = program.add_subcommand(
        "policy", "Tell which policy file applies on this device, and why");
    const auto options = std::make_shared<TSOptions>();
    CLI::Option* const json = command->add_flag("--json", options->m_json, "Print a JSON object");
    command->add_flag("--print", options->m_print, "Print the text of the agent's own policy")
        ->excludes(json);
    command->add_option("--state-dir", options->m_stateDirectory, "The agent's directory")
        ->type_name("DIR")
        ->capture_default_str();
    command->callback([options, &status] { status = Policy(*options); });
}

} // namespace ctl
} // namespace kel
