#include <cstdio>
#include <memory>
#include <string>

#include "Agent.h"
#include "Commands.h"

namespace kel {
namespace ctl {

namespace {

void PrintText(const TSAgent& agent)
{
    std::string state;
    if (agent.m_denied) {
        state = ", which the bus forbids this user";
    } else if (!agent.m_answers) {
        state = ", does not answer";
    } else if (!agent.m_version.empty()) {
        state = ", version " + agent.m_version;
    }
    std::printf("running: process %u, unique name %s%s\n", agent.m_process,
                agent.m_uniqueName.c_str(), state.c_str());
}

void PrintJson(const TSAgent& agent)
{
    const auto word = [](bool is) { return is ? "true" : "false"; };
    std::string version;
    if (!agent.m_version.empty()) {
        version = ", \"version\": \"" + agent.m_version + "\"";
    }
    std::printf("{\"running\": true, \"pid\": %u, \"unique-name\": \"%s\", \"denied\": %s, "
                "\"answers\": %s%s}\n",
                agent.m_process, agent.m_uniqueName.c_str(), word(agent.m_denied),
                word(agent.m_answers), version.c_str());
}

EStatus Status(bool json, const TSChannel& channel)
{
    TSAgent agent;
    const EStatus found = agent.Find(channel);
    if (found == EStatus::Success) {
        json ? PrintJson(agent) : PrintText(agent);
    } else if (found == EStatus::Negative && json) {
        std::printf("{\"running\": false}\n");
    }
    return found;
}

} // namespace

void AddStatus(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("status", "Tell whether an agent runs");
    const auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print a JSON object");
    command->callback([json, &common, &status] {
        status = Status(*json, common.m_test ? kTestChannel : kChannel);
    });
}

} // namespace ctl
} // namespace kel
