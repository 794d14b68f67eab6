#include "e2e/AgentRoad.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace kel::test {

AgentRoad::AgentRoad(const PrivateBus::TSOptions& options)
    : m_bus(options), m_stateDir(m_bus.Directory() + "/the state"), m_peer(m_bus), m_busPeer(m_bus)
{
    std::filesystem::create_directory(m_stateDir);
    m_busPeer.SetTarget("org.freedesktop.DBus", "/org/freedesktop/DBus");
    // What the bus has started becomes a child of ours when the bus ends.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

AgentRoad::~AgentRoad()
{
    std::vector<pid_t> started;
    std::ifstream ids(m_bus.Directory() + "/agents");
    std::copy(std::istream_iterator<pid_t>(ids), {}, std::back_inserter(started));

    m_provided.reset();
    m_bus.Kill(); // which ends the agents
    const bool ended
        = WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; },
                    std::chrono::seconds(10));
    if (!ended) {
        for (const pid_t id : started) {
            kill(id, SIGKILL);
        }
        while (waitpid(-1, nullptr, 0) > 0) {
        }
        ADD_FAILURE() << "an agent has outlived its bus";
    }
}

void AgentRoad::LetTheBusStartTheAgent()
{
    const std::string script = m_bus.Directory() + "/start-agent";
    std::ofstream(script) << "#!/bin/sh\necho $$ >>'" << m_bus.Directory()
                          << "/agents'\nexec '" KEL_AGENT "' --state-dir '" << m_stateDir
                          << "' 2>>'" << m_bus.Directory() << "/agent.log'\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    m_bus.AddService(kBusName, script);
}

void AgentRoad::ProvideAgent()
{
    if (!PrivateBus::IsBroker()) {
        LetTheBusStartTheAgent();
        return;
    }
    m_provided = StartAgent();
    EXPECT_TRUE(WaitUntil([this] { return AgentId().has_value(); })) << AgentLog();
}

std::unique_ptr<ChildProcess> AgentRoad::StartAgent(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{KEL_AGENT, "--state-dir", m_stateDir};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(command);
}

std::optional<pid_t> AgentRoad::AgentId()
{
    const TBody name(g_variant_ref_sink(g_variant_new("(s)", kBusName)), &g_variant_unref);
    const guint32 call
        = m_busPeer.Post("GetConnectionUnixProcessID", name, false, "org.freedesktop.DBus");
    const TSReply reply = m_busPeer.WaitReply(call);
    if (!reply.IsOk()) {
        return std::nullopt;
    }
    guint32 id = 0;
    g_variant_get(reply.m_body.get(), "(u)", &id);
    return static_cast<pid_t>(id);
}

void AgentRoad::KillAgent()
{
    const std::optional<pid_t> agent = AgentId();
    ASSERT_TRUE(agent.has_value());
    kill(*agent, SIGKILL);
    ASSERT_TRUE(WaitUntil([this] { return !AgentId().has_value(); }));
}

TSFinished AgentRoad::Kelctl(const std::vector<std::string>& arguments, const std::string& input)
{
    std::vector<std::string> command{KEL_CTL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command, {}, input);
}

std::string AgentRoad::StoredPolicy() const { return ReadFile(m_stateDir + "/policy.xml"); }

std::string AgentRoad::AgentLog() const
{
    return m_provided ? m_provided->ErrorOutput() : ReadFile(m_bus.Directory() + "/agent.log");
}

std::string ReadFile(const std::string& path)
{
    // Reading can fail after opening, of a process that has just ended: what was read is the
    // result.
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

bool Says(const ChildProcess& program, const std::string& text)
{
    return WaitUntil([&] { return CountOf(program.ErrorOutput(), text) > 0; }, kCollected);
}

std::vector<std::string> NamesIn(const std::filesystem::path& directory)
{
    std::vector<std::string> names;
    std::error_code none; // as soon as it is gone, its list ends
    for (std::filesystem::directory_iterator entry(directory, none), end; entry != end;
         entry.increment(none)) {
        names.push_back(entry->path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool IsOneLine(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0 && text.find('\n') == text.size() - 1;
}

std::string Text(const TSFinished& finished)
{
    std::ostringstream text;
    text << "exit status " << (finished.m_exit ? std::to_string(*finished.m_exit) : "none")
         << "\noutput: " << finished.m_output << "\nerror output: " << finished.m_errorOutput;
    return text.str();
}

} // namespace kel::test
