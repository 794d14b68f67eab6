#include "Commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include <kel/KELDbusClient.h>
#include <kel/KELFailure.h>
#include <kel/api.h>

#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

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

// Why there was no answer.
std::string Reason(const TSFailure& failure)
{
    const std::string text = failure.m_text.empty() ? "" : ": " + tools::Printable(failure.m_text);
    switch (failure.m_kind) {
    case EFailure::NoBus:
        return "no system bus" + text;
    case EFailure::NotOwned:
        return "no agent runs, and the bus can start none" + text;
    case EFailure::Denied:
        return "the bus forbids it" + text;
    case EFailure::TimedOut: // the bus's own time for a start has a name
        return failure.m_errorName.empty() ? "the agent did not answer in 10 s"
                                           : "the agent was not there in time" + text;
    case EFailure::NotHandled:
        return failure.m_errorName.empty() ? "the agent declined the policy: it takes none, or "
                                             "cannot read archives of this "
                                             "word size and this Boost"
                                           : "who has the agent's name serves no channel" + text;
    case EFailure::Unreadable:
        return "the agent's answer cannot be read";
    case EFailure::TooLarge:
        return "the policy, with what goes around it, is larger than the bus carries";
    case EFailure::Ended:
        return "the agent, or the bus, ended without an answer" + text;
    default:
        return "no answer from the agent: " + tools::Printable(failure.m_errorName) + text;
    }
}

EStatus SetPolicy(const std::string& name, bool test)
{
    std::string policy;
    if (!ReadPolicy(name, policy)) {
        return EStatus::WrongUsage;
    }

    // The control object has the process's client, which is of the channel that the first asks for.
    const boost::shared_ptr<IDbusClient> client = TCDbusClientProvider::Get(test);
    int answer = 0;
    try {
        answer = api::GetControl()->SetPolicy(policy);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kelctl: the agent's answer cannot be read: %s\n", failure.what());
        return EStatus::NoAnswer;
    }
    const TSFailure failure = LastFailure();
    if (failure.m_kind != EFailure::None) {
        std::fprintf(stderr, "kelctl: %s\n", Reason(failure).c_str());
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

void AddSetPolicy(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("set-policy", "Set the agent's policy");
    const auto name = std::make_shared<std::string>();
    command->add_option("FILE", *name, "The policy, an XML text; - reads standard input")
        ->required();
    command->callback([name, &common, &status] { status = SetPolicy(*name, common.m_test); });
}

} // namespace ctl
} // namespace kel
