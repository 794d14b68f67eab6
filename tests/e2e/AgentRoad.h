#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/RawPeer.h"
#include "support/Sandbox.h"

namespace kel::test {

/// The road from kelctl over a private bus to kel-agent and its directory of state: real
/// processes, all gone with the fixture.
class AgentRoad : public SandboxTest
{
protected:
    explicit AgentRoad(const PrivateBus::TSOptions& options = {});
    ~AgentRoad() override;

    /// Has the bus start the agent for the first message. Skips the running test on a bus that
    /// starts none.
    void LetTheBusStartTheAgent();

    /// The same; a bus that starts none has the agent at once.
    void ProvideAgent();

    /// Starts one ourselves, with more arguments; it need not be ready.
    std::unique_ptr<ChildProcess> StartAgent(const std::vector<std::string>& arguments = {});

    /// The process that owns the agent's name; nothing when nobody does.
    std::optional<pid_t> AgentId();

    /// Kills the agent that the bus has started, and waits until it is gone.
    void KillAgent();

    /// Runs kelctl to its end.
    static TSFinished Kelctl(const std::vector<std::string>& arguments,
                             const std::string& input = {});
    static TSFinished SetPolicy(const std::string& policy)
    {
        return Kelctl({"set-policy", "-"}, policy);
    }

    std::string StoredPolicy() const;

    /// What the agents that the bus has started wrote to standard error, or the provided one.
    std::string AgentLog() const;

    PrivateBus m_bus;
    const std::string m_stateDir;
    RawPeer m_peer;
    RawPeer m_busPeer; // for questions to the bus itself

private:
    std::unique_ptr<ChildProcess> m_provided; // where the bus starts none
};

/// The whole file; empty when there is none.
std::string ReadFile(const std::string& path);

/// How long the agent has for what takes it many looks.
constexpr std::chrono::seconds kCollected(100);

/// Waits until a program has written this to standard error.
bool Says(const ChildProcess& program, const std::string& text);

/// What is in a directory, sorted.
std::vector<std::string> NamesIn(const std::filesystem::path& directory);

/// Exactly one line, with its end, which begins with this.
bool IsOneLine(const std::string& text, const std::string& start);

/// How a program that ran to its end has ended, for the message of a failed test.
std::string Text(const TSFinished& finished);

} // namespace kel::test
