#include "Commands.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "PolicyFiles.h"
#include "StoredPolicy.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

using TJson = nlohmann::ordered_json;

constexpr int kIndent = 2;

struct TSOptions
{
    bool m_json = false;
    bool m_print = false;
    std::string m_stateDirectory = kDefaultStateDirectory;
};

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

void PrintText(const TSPolicyFiles& policy, const TSStoredPolicy& stored)
{
    const TSPolicyFile& used = policy.Used();
    std::printf("policy: %s%s\n", used.m_path.c_str(), used.m_exists ? "" : " (missing)");
    std::printf("why: %s\n", used.m_why);
    std::printf("policy mode: %d (%s)\n", policy.m_policyMode,
                policy.m_policyMode == 0 ? "default" : "vendor's or variant's");
    std::printf("device mode: %d (%s)\n", policy.m_deviceMode,
                policy.IsUsbTest() ? "USB test" : "normal");
    std::printf("debug image: %s\n", policy.m_debugImage ? "yes" : "no");
    std::printf("candidates:\n");
    for (const TSPolicyFile& one : policy.m_candidates) {
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

void PrintJson(const TSPolicyFiles& policy, const TSStoredPolicy& stored)
{
    TJson text;
    text["policy"] = policy.Used().m_path;
    text["usb"] = policy.IsUsbTest();
    text["why"] = policy.Used().m_why;
    text["policy-mode"] = policy.m_policyMode;
    text["device-mode"] = policy.m_deviceMode;
    text["debug-image"] = policy.m_debugImage;
    text["candidates"] = TJson::array();
    for (const TSPolicyFile& one : policy.m_candidates) {
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
        PrintJson(TSPolicyFiles::Resolve(), stored);
    } else {
        PrintText(TSPolicyFiles::Resolve(), stored);
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
