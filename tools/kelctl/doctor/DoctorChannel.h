#pragma once

#include <string>
#include <vector>

#include "Agent.h"
#include "Bus.h"
#include "doctor/BusConfiguration.h"
#include "doctor/Doctor.h"

namespace kel {
namespace ctl {

/// What is seen of a channel, its bus and its agent, before anything is judged.
struct TSChannelSight
{
    explicit TSChannelSight(const TSDoctorOptions& options);

    const bool m_isTest;
    const TSChannel m_channel;

    TGlibPtr<GDBusConnection> m_connection; // empty when there is no bus
    std::string m_noBus;                    // and why
    unsigned int m_busProcess = 0;          // 0 when it is not known
    std::string m_busProgram;               // without its directory; empty when it is not known
    TCBusConfiguration m_configuration;
    std::string m_unread; // why not all of the configuration is known; empty when it is
    bool m_isStartable;   // the bus knows how to start an agent

    EStatus m_agentFound = EStatus::NoAnswer;
    std::string m_noAgent; // and why
    TSAgent m_agent;

    bool HasAgent() const { return m_agentFound == EStatus::Success; }
    bool AgentAnswers() const { return HasAgent() && m_agent.m_answers && !m_agent.m_denied; }

private:
    void m_SeeBus();
    void m_SeeConfiguration();
};

/// Whether the bus and the agent are there, and answer.
void CheckBus(const TSChannelSight& sight, TFindings& findings);
void CheckAgent(const TSChannelSight& sight, TFindings& findings);

/// Whether the bus lets this user's messages go to the agent, and root's to the applications.
void CheckBusPolicy(const TSChannelSight& sight, TFindings& findings);

/// Whether the bus's limits are wide enough for the applications that the agent knows.
void CheckBusLimits(const TSChannelSight& sight, TFindings& findings);

/// Whether the agent reads archives as this machine's programs write them.
void CheckArchive(const TSChannelSight& sight, TFindings& findings);

/// Whether the bus can start an agent, and systemd another way, and with what rights.
void CheckActivation(const TSChannelSight& sight, TFindings& findings);
void CheckUnit(const TSChannelSight& sight, TFindings& findings);

/// What is wrong with the program that a command line begins with; empty when it can be executed.
///
/// @param program  replaced by its path.
std::string FaultOfProgram(const std::string& commandLine, std::string& program);

/// The words of a process's command line; none when they cannot be seen.
std::vector<std::string> CommandOf(unsigned int process);

/// The value of an option in one, in one word or in two; empty when it is not there.
std::string OptionOf(const std::vector<std::string>& command, const std::string& option);

constexpr int kDoctorPatience = 1000; // ms, for an answer that is at hand
constexpr int kAgentPatience = 2000;  // for an agent's, who may be busy

} // namespace ctl
} // namespace kel
