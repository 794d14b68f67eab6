#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Clients.h"
#include "common/AgentMessages.h"
#include "common/Files.h"
#include "doctor/DoctorChannel.h"

namespace kel {
namespace ctl {

namespace {

constexpr long long kLargestMessage = 32 << 20; // that the library sends
constexpr size_t kMostChildren = 1U << 16;      // bytes of their list
constexpr TSMethod kConnectionStats = {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats"};

// Those of a dbus-daemon that is told of none. 0 is for a limit that the bus has not.
struct TSLimits
{
    long long m_message = 32 << 20; // bytes of one
    long long m_replies = 128;      // that a connection waits for
    long long m_matches = 512;      // of a connection
};

// How much of it is used; nothing for what is not told.
struct TSUse
{
    std::optional<size_t> m_applications;
    std::optional<unsigned int> m_matches; // of the agent's
};

// The bus that a launcher has started is its child, and has its limits in its command line.
TSLimits LimitsOfBroker(unsigned int launcher)
{
    TSLimits limits{128LL << 20, 0, 0};
    const std::string id = std::to_string(launcher);
    std::istringstream children(
        tools::ReadText("/proc/" + id + "/task/" + id + "/children", kMostChildren).value_or(""));
    for (unsigned int child = 0; limits.m_matches == 0 && children >> child;) {
        limits.m_matches = std::atoll(OptionOf(CommandOf(child), "--max-matches").c_str());
    }
    return limits;
}

TSLimits LimitsOf(const TSChannelSight& sight)
{
    if (sight.m_busProgram == "dbus-broker-launch") {
        return LimitsOfBroker(sight.m_busProcess);
    }
    const TCBusConfiguration& told = sight.m_configuration;
    TSLimits limits;
    limits.m_message = told.Limit("max_message_size", limits.m_message);
    limits.m_replies = told.Limit("max_replies_per_connection", limits.m_replies);
    limits.m_matches = told.Limit("max_match_rules_per_connection", limits.m_matches);
    return limits;
}

// A bus that keeps no count, or does not tell this user, leaves it open.
std::optional<unsigned int> MatchesOfAgent(const TSChannelSight& sight)
{
    TGlibPtr<GError> error;
    const TGlibPtr<GVariant> answer = Call(sight.m_connection.get(), kConnectionStats,
                                           g_variant_new("(s)", sight.m_agent.m_uniqueName.c_str()),
                                           "(a{sv})", kDoctorPatience, error);
    guint32 count = 0;
    if (!answer) {
        return std::nullopt;
    }
    const TGlibPtr<GVariant> stats(g_variant_get_child_value(answer.get(), 0));
    if (g_variant_lookup(stats.get(), "MatchRules", "u", &count) == FALSE) {
        return std::nullopt;
    }
    return count;
}

TSUse UseOf(const TSChannelSight& sight)
{
    TSUse use;
    if (!sight.AgentAnswers()) {
        return use;
    }
    TGlibPtr<GError> error;
    const std::optional<TJson> clients = ClientsIn(
        AskAgent(sight.m_connection.get(), sight.m_channel, sight.m_agent.m_uniqueName.c_str(),
                 tools::AskClients, error, kDoctorPatience));
    if (clients) {
        use.m_applications = clients->size();
    }
    use.m_matches = MatchesOfAgent(sight);
    return use;
}

std::string Counted(size_t count, const char* what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string TextOf(const TSLimits& limits, const TSUse& use)
{
    const auto number = [](long long limit) { return std::to_string(limit); };
    std::string text = "a message has " + number(limits.m_message) + " bytes at most";
    if (limits.m_replies != 0) {
        text += ", a connection waits for " + number(limits.m_replies) + " answers";
    }
    if (limits.m_matches != 0) {
        text += ", and has " + number(limits.m_matches) + " match rules";
    }
    if (use.m_applications) {
        text += "; the agent knows " + Counted(*use.m_applications, "application");
    }
    if (use.m_matches) {
        text += ", and has " + Counted(*use.m_matches, "match rule");
    }
    return text;
}

// Where an event needs more than there is; empty when it does not.
std::string Shortage(const TSLimits& limits, const TSUse& use)
{
    const auto applications = static_cast<long long>(use.m_applications.value_or(0));
    const long long matches = use.m_matches ? static_cast<long long>(*use.m_matches) : applications;
    if (limits.m_message < kLargestMessage) {
        return "max_message_size: the library sends messages of up to "
               + std::to_string(kLargestMessage)
               + " bytes, and the bus ends the connection of who sends a larger one than it takes";
    }
    if (limits.m_matches != 0 && matches >= limits.m_matches) {
        return "max_match_rules_per_connection: of further applications the agent does not learn "
               "when they end";
    }
    if (limits.m_replies != 0 && applications > limits.m_replies) {
        return "max_replies_per_connection: an event reaches the first so many applications at "
               "once, and each further one when an answer has come";
    }
    return {};
}

} // namespace

void CheckBusLimits(const TSChannelSight& sight, TFindings& findings)
{
    if (!sight.m_connection || !sight.m_unread.empty()) {
        findings.push_back({"bus limits", EHealth::Warning,
                            "the limits of the bus are not known: "
                                + (sight.m_connection ? sight.m_unread : "there is no bus"),
                            sight.m_connection
                                ? "the limits of dbus-daemon(1) are in the file that its command "
                                  "line names; ask again as root"
                                : "mend the bus first"});
        return;
    }
    const TSLimits limits = LimitsOf(sight);
    const TSUse use = UseOf(sight);
    const std::string shortage = Shortage(limits, use);
    if (shortage.empty()) {
        findings.push_back({"bus limits", EHealth::Good, TextOf(limits, use), ""});
        return;
    }
    findings.push_back({"bus limits", EHealth::Warning,
                        TextOf(limits, use) + ". Too little of " + shortage,
                        "raise " + shortage.substr(0, shortage.find(':'))
                            + " in /etc/dbus-1/system-local.conf, and start the device again"});
}

} // namespace ctl
} // namespace kel
