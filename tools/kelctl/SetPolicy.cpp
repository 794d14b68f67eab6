#include "Commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include <kel/api.h>

#include "Bus.h"

namespace kel {
namespace ctl {

namespace {

constexpr int kNoAnswer = -1;
constexpr size_t kSizeLimit = 32U << 20; // the system bus carries no larger message

const char* Meaning(int answer)
{
    switch (answer) {
    case 0:
        return "accepted";
    case 1:
        return "not well-formed";
    case 2:
        return "could not be stored";
    case 3:
        return "too large or too deep";
    default:
        return "refused";
    }
}

// Reads a file, or standard input when its name is "-". True on success, otherwise false with a
// line on standard error.
bool ReadPolicy(const std::string& name, std::string& policy)
{
    const bool isStdin = name == "-";
    const std::unique_ptr<FILE, int (*)(FILE*)> opened(
        isStdin ? nullptr : std::fopen(name.c_str(), "re"), &std::fclose);
    FILE* const file = isStdin ? stdin : opened.get();
    if (file == nullptr) {
        std::fprintf(stderr, "kelctl: %s: %s\n", name.c_str(), std::strerror(errno));
        return false;
    }

    char block[1 << 16];
    for (size_t n = 0; (n = std::fread(block, 1, sizeof(block), file)) > 0;) {
        policy.append(block, n);
        if (policy.size() > kSizeLimit) {
            std::fprintf(stderr, "kelctl: %s: larger than %zu MiB, which the bus does not carry\n",
                         name.c_str(), kSizeLimit >> 20);
            return false;
        }
    }
    if (std::ferror(file) != 0) {
        std::fprintf(stderr, "kelctl: %s: %s\n", name.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

// Without a word where there is no bus.
bool AgentRuns()
{
    const TGlibPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    TGlibPtr<GError> error;
    return bus && AskBus(bus.get(), "GetNameOwner", kAgentName, "(s)", error);
}

EStatus SetPolicy(const std::string& name)
{
    std::string policy;
    if (!ReadPolicy(name, policy)) {
        return EStatus::WrongUsage;
    }

    int answer = kNoAnswer;
    try {
        answer = api::GetControl()->SetPolicy(policy);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kelctl: the agent's answer cannot be read: %s\n", failure.what());
        return EStatus::NoAnswer;
    }
    if (answer == kNoAnswer) {
        std::fprintf(stderr, "kelctl: no answer from the agent%s\n",
                     AgentRuns() ? ", which runs: it is busy, or cannot read archives of this word "
                                   "size and this Boost"
                                 : "");
        return EStatus::NoAnswer;
    }

    std::printf("%d (%s)\n", answer, Meaning(answer));
    if (answer != 0) {
        std::fprintf(stderr, "kelctl: the agent refused the policy: %s\n", Meaning(answer));
        return EStatus::Negative;
    }
    return EStatus::Success;
}

} // namespace

void AddSetPolicy(CLI::App& program, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("set-policy", "Set the agent's policy");
    const auto name = std::make_shared<std::string>();
    command->add_option("FILE", *name, "The policy, an XML text; - reads standard input")
        ->required();
    command->callback([name, &status] { status = SetPolicy(*name); });
}

} // namespace ctl
} // namespace kel
