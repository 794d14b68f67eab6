#include <boost/archive/basic_archive.hpp>

#include <optional>
#include <string>
#include <vector>

#include "common/AgentMessages.h"
#include "common/Archive.h"
#include "common/BusPeer.h"
#include "doctor/DoctorChannel.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kStart[] = "systemctl enable --now kel-agent, or start an agent by hand, as root";

TSFinding NoAgent(const TSChannelSight& sight)
{
    if (sight.m_agentFound != EStatus::Negative) {
        return {"agent", EHealth::Fault, sight.m_noAgent, "mend the bus first"};
    }
    if (sight.m_isStartable) {
        return {"agent", EHealth::Warning,
                "no agent runs; the bus starts one for the first message, and until then no "
                "request for a report is collected",
                "systemctl enable --now kel-agent"};
    }
    return {"agent", EHealth::Fault, "no agent runs, and the bus can start none", kStart};
}

std::string Describe(const TSChannelSight& sight)
{
    const TSAgent& agent = sight.m_agent;
    const tools::TSBusPeer peer
        = tools::TSBusPeer::Of(sight.m_connection.get(), agent.m_uniqueName);
    const char* const silent = sight.AgentAnswers() ? "an agent that tells no version" : "an agent";
    return (agent.m_version.empty() ? silent : "version " + agent.m_version) + " (process "
           + std::to_string(agent.m_process) + (peer.m_program.empty() ? "" : ", " + peer.m_program)
           + (peer.m_user ? ", user " + std::to_string(*peer.m_user) : "") + ")";
}

} // namespace

void CheckAgent(const TSChannelSight& sight, TFindings& findings)
{
    if (!sight.m_connection) {
        findings.push_back(
            {"agent", EHealth::Warning, "not asked: there is no bus", "mend the bus first"});
        return;
    }
    if (!sight.HasAgent()) {
        findings.push_back(NoAgent(sight));
        return;
    }
    const TSAgent& agent = sight.m_agent;
    const std::string who = Describe(sight);
    const std::string took = std::to_string(agent.m_took.count()) + " ms";
    if (agent.m_denied) {
        findings.push_back({"agent", EHealth::Warning,
                            who + " runs; the bus forbids this user to ask it",
                            "mend the bus's policy first, or ask again as another user"});
    } else if (!agent.m_answers) {
        findings.push_back({"agent", EHealth::Fault,
                            who + " does not answer within " + took
                                + ": it is stopped, iterates no main context, or is busy",
                            "see what it does (its log; ps), and start it again"});
    } else if (!agent.m_version.empty() && agent.m_version != KEL_VERSION) {
        findings.push_back({"agent", EHealth::Warning,
                            who + " answers within " + took
                                + ", and is of another version than kelctl, which has " KEL_VERSION,
                            "systemctl restart kel-agent, where it was upgraded meanwhile"});
    } else {
        findings.push_back({"agent", EHealth::Good, who + " answers within " + took, ""});
    }
}

void CheckArchive(const TSChannelSight& sight, TFindings& findings)
{
    if (!sight.AgentAnswers()) {
        findings.push_back({"archive", EHealth::Warning,
                            "the agent's Boost is not known: no agent answers",
                            "ask again when one does"});
        return;
    }
    TGlibPtr<GError> error;
    const std::string answer
        = AskAgent(sight.m_connection.get(), sight.m_channel, sight.m_agent.m_uniqueName.c_str(),
                   tools::AskArchive, error, kDoctorPatience)
              .value_or("");
    const std::vector<unsigned char> bytes(answer.begin(), answer.end());
    const tools::TCArchiveView archive(bytes);
    if (!archive.IsArchive()) {
        findings.push_back({"archive", EHealth::Warning,
                            "the agent's Boost is not known: it is another agent than kel-agent, "
                            "or older, and does not tell",
                            "see that it is of the same distribution as the applications"});
        return;
    }
    const auto form = [](size_t word, unsigned int version) {
        return "version " + std::to_string(version) + " in words of " + std::to_string(word * 8)
               + " bits";
    };
    const auto version = boost::archive::BOOST_ARCHIVE_VERSION();
    const unsigned int ours = version;
    const std::string here = form(sizeof(size_t), ours);
    if (archive.Word() == sizeof(size_t) && archive.Version() == ours) {
        findings.push_back(
            {"archive", EHealth::Good, "both ends write Boost archives of " + here, ""});
        return;
    }
    findings.push_back({"archive", EHealth::Fault,
                        "the agent writes Boost archives of "
                            + form(archive.Word(), archive.Version()) + ", programs here " + here
                            + ": they cannot read one another's policies and answers",
                        "have the agent and its applications from one build or distribution; start "
                        "the agent again where it was upgraded meanwhile"});
}

} // namespace ctl
} // namespace kel
