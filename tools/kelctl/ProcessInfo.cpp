#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Agent.h"
#include "Commands.h"

namespace kel {
namespace ctl {

namespace {

EStatus Fail(EStatus status, const char* reason)
{
    std::fprintf(stderr, "kelctl: %s\n", reason);
    return status;
}

// By its signal, which the kernel lets its own user and the superuser send: a message could come
// from anybody, and has every application at work. The signal would end an agent that is not ours.
EStatus AskForInformation(const TSChannel& channel)
{
    TSAgent agent;
    const EStatus found = agent.Find(channel);
    if (found != EStatus::Success) {
        return found;
    }
    if (agent.m_denied) {
        return Fail(EStatus::NoAnswer, "the bus forbids this user the agent");
    }
    if (!agent.m_answers) {
        return Fail(EStatus::NoAnswer, "the agent does not answer");
    }
    if (agent.m_version.empty()) {
        return Fail(EStatus::Negative,
                    "the agent that runs is another one than kel-agent, or older");
    }
    if (kill(static_cast<pid_t>(agent.m_process), SIGUSR1) != 0) {
        std::fprintf(stderr, "kelctl: the agent's process %u: %s\n", agent.m_process,
                     std::strerror(errno));
        return EStatus::Negative;
    }
    return EStatus::Success;
}

} // namespace

void AddProcessInfo(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command = program.add_subcommand(
        "process-info", "Have the agent ask the applications for process information");
    command->callback([&common, &status] {
        status = AskForInformation(common.m_test ? kTestChannel : kChannel);
    });
}

} // namespace ctl
} // namespace kel
