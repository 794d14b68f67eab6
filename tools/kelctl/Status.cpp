#include <cstdio>
#include <memory>
#include <string>

#include "Agent.h"
#include "Clients.h"
#include "Commands.h"

namespace kel {
namespace ctl {

namespace {

struct TSOptions
{
    bool m_json = false;
    bool m_clients = false;
    bool m_watch = false;
};

EStatus Fail(EStatus status, const std::string& reason)
{
    std::fprintf(stderr, "kelctl: %s\n", reason.c_str());
    return status;
}

EStatus Status(const TSOptions& options, const TSChannel& channel)
{
    if (options.m_watch) {
        return WatchClients(channel, options.m_json);
    }
    const TGlibPtr<GDBusConnection> connection = ConnectToBus();
    if (!connection) {
        return EStatus::NoAnswer;
    }
    TSAgent agent;
    std::string reason;
    const EStatus found = agent.Find(connection.get(), channel, reason);
    if (found != EStatus::Success) {
        if (found == EStatus::Negative && options.m_json) {
            std::printf("{\"running\": false}\n");
        }
        return Fail(found, reason);
    }
    TCClients clients;
    EStatus asked = EStatus::Success;
    if (options.m_clients) {
        asked = clients.Ask(connection.get(), channel, agent, reason);
    }
    if (options.m_json) {
        const bool hasClients = options.m_clients && asked == EStatus::Success;
        std::printf("{%s%s}\n", JsonOf(agent).c_str(),
                    hasClients ? (", \"clients\": " + clients.Json()).c_str() : "");
    } else {
        std::printf("running: %s\n%s", TextOf(agent).c_str(),
                    options.m_clients && asked == EStatus::Success ? clients.Table().c_str() : "");
    }
    return asked == EStatus::Success ? asked : Fail(asked, reason);
}

} // namespace

std::string TextOf(const TSAgent& agent)
{
    std::string text
        = "process " + std::to_string(agent.m_process) + ", unique name " + agent.m_uniqueName;
    if (agent.m_denied) {
        text += ", which the bus forbids this user";
    } else if (!agent.m_answers) {
        text += ", does not answer";
    } else if (!agent.m_version.empty()) {
        text += ", version " + agent.m_version;
    }
    return text;
}

std::string JsonOf(const TSAgent& agent)
{
    const auto word = [](bool is) { return is ? "true" : "false"; };
    std::string text = "\"running\": true, \"pid\": " + std::to_string(agent.m_process)
                       + ", \"unique-name\": \"" + agent.m_uniqueName + "\", \"denied\": "
                       + word(agent.m_denied) + ", \"answers\": " + word(agent.m_answers);
    if (!agent.m_version.empty()) {
        text += ", \"version\": \"" + agent.m_version + "\"";
    }
    return text;
}

void AddStatus(CLI::App& program, const TSCommon& common, EStatus& status)
{
    CLI::App* const command = program.add_subcommand("status", "Tell whether an agent runs");
    const auto options = std::make_shared<TSOptions>();
    command->add_flag("--json", options->m_json, "Print a JSON object");
    CLI::Option* const clients = command->add_flag("--clients", options->m_clients,
                                                   "Tell what it knows of each application");
    command->add_flag("--watch", options->m_watch, "Go on, and show what changes")->needs(clients);
    command->callback([options, &common, &status] {
        status = Status(*options, common.m_test ? kTestChannel : kChannel);
    });
}

} // namespace ctl
} // namespace kel
