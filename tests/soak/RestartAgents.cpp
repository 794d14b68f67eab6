#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "soak/Footprint.h"
#include "soak/Peers.h"
#include "soak/Soak.h"
#include "support/PrivateBus.h"

namespace kel::test {

namespace {

constexpr size_t kWarmUp = 10; // agents, after which everything is as large as it gets

typedef std::vector<std::unique_ptr<ChildProcess>> TApplications;

TApplications StartApplications(size_t count)
{
    TApplications applications;
    for (size_t i = 0; i < count; ++i) {
        applications.push_back(StartRole(kApplicationOption, i));
    }
    return applications;
}

std::vector<pid_t> Ids(const TApplications& applications)
{
    std::vector<pid_t> ids;
    for (const auto& application : applications) {
        ids.push_back(application->Id());
    }
    return ids;
}

/// Waits until each has printed so much; false when one has not.
bool HavePrinted(const TApplications& applications, const std::string& text)
{
    return WaitUntil([&] {
        return std::all_of(applications.begin(), applications.end(),
                           [&](const auto& application) { return application->Output() == text; });
    });
}

/// An agent that has told the applications, each of which has then sent to it; null when a message
/// was lost. The text is what each application has printed.
std::unique_ptr<ChildProcess> StartAgent(const TApplications& applications, std::string& text)
{
    auto agent = StartRole(kAgentOption, applications.size());
    agent->WaitForOutput("told", 2 * kDeadline);
    if (agent->Output() != "ready\ntold " + std::to_string(applications.size()) + " 0\n") {
        std::printf("  the agent says:\n%s%s\n", agent->Output().c_str(),
                    agent->ErrorOutput().c_str());
        return nullptr;
    }
    text += '+';
    if (!HavePrinted(applications, text)) {
        const auto lost
            = std::count_if(applications.begin(), applications.end(),
                            [&](const auto& application) { return application->Output() != text; });
        std::printf("  %td applications lost what they sent\n", lost);
        return nullptr;
    }
    return agent;
}

/// Ends it in order, or not; false when it could not end in order.
bool End(ChildProcess& agent, bool inOrder)
{
    if (!inOrder) {
        agent.Kill();
        return true;
    }
    agent.CloseInput();
    const auto status = agent.Wait();
    if (status != 0) {
        std::printf("  an agent has not ended in order: %d\n%s\n", status.value_or(-1),
                    agent.ErrorOutput().c_str());
    }
    return status == 0;
}

} // namespace

bool RestartAgents(const TSEnough& restarts, size_t count)
{
    const PrivateBus bus;
    const TApplications applications = StartApplications(count);
    std::string text = "ready\n";
    if (!HavePrinted(applications, text)) {
        std::printf("  an application does not start\n");
        return false;
    }

    TSFootprint before;
    TSFootprint agentBefore;
    TSFootprint applicationsBefore;
    size_t done = 0;
    auto agent = StartAgent(applications, text);
    while (agent && (done <= kWarmUp || !restarts.IsReached(done))) {
        if (done == kWarmUp) {
            before = FootprintOf({getpid()});
            agentBefore = FootprintOf({agent->Id()});
            applicationsBefore = FootprintOf(Ids(applications));
        }
        const bool hasEnded = End(*agent, done % 2 == 0);
        agent = hasEnded ? StartAgent(applications, text) : nullptr;
        ++done;
    }
    std::printf("  %zu restarts of the agent under %zu applications: %s\n", done, count,
                agent ? "no message lost" : "the last one has FAILED");
    if (!agent) {
        return false;
    }
    const bool isSmall = HasNotGrown("this process", before, {getpid()});
    const bool isAgentSmall = HasNotGrown("the agent", agentBefore, {agent->Id()});
    return HasNotGrown("the applications", applicationsBefore, Ids(applications)) && isSmall
           && isAgentSmall;
}

} // namespace kel::test
