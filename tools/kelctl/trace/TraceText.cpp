#include "trace/TraceText.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Bus.h"
#include "common/AgentMessages.h"
#include "common/Archive.h"
#include "common/Text.h"

namespace kel {
namespace ctl {

namespace {

constexpr char kIndent[] = "    ";
constexpr size_t kMostText = 65536; // of a policy: the agent takes 1 MiB
constexpr size_t kMostTypes = 16;   // of a hello

// A sender that a file tells may be missing, and the agent's name is long.
std::string Peer(const std::string& name)
{
    if (name == kChannel.m_agent || name == kTestChannel.m_agent) {
        return "agent";
    }
    return name.empty() ? "-" : tools::PrintableStart(name);
}

std::string Count(size_t count, const char* one)
{
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

// A time in milliseconds, of which a clock that was set back makes negative ones.
std::string Milliseconds(TMicroseconds time)
{
    char text[40];
    std::snprintf(text, sizeof(text), "%s%lld.%03lld ms", time < 0 ? "-" : "",
                  static_cast<long long>(std::llabs(time / 1000)),
                  static_cast<long long>(std::llabs(time % 1000)));
    return text;
}

std::string PolicyLines(std::string_view policy)
{
    std::string lines = kIndent;
    const std::string text = tools::Printable(std::string(policy.substr(0, kMostText)), "\n\t");
    for (size_t at = 0; at < text.size(); ++at) {
        lines += text[at];
        if (text[at] == '\n' && at + 1 < text.size()) {
            lines += kIndent;
        }
    }
    if (lines.back() != '\n') {
        lines += '\n';
    }
    if (policy.size() > kMostText) {
        lines += kIndent + ("... (" + Count(policy.size(), "byte") + ")\n");
    }
    return lines;
}

std::string Types(const TSChannelCall& call)
{
    std::string text = call.m_types.empty() ? ", no types" : ", types";
    for (size_t at = 0; at < std::min(call.m_types.size(), kMostTypes); ++at) {
        text += " " + std::to_string(call.m_types[at]);
    }
    return call.m_types.size() > kMostTypes
               ? text + " ... (" + std::to_string(call.m_types.size()) + ")"
               : text;
}

bool IsSetPolicy(const TSChannelCall& call)
{
    return call.m_kind == TSChannelCall::EKind::Send && call.m_toAgent && call.m_type == 4;
}

} // namespace

std::string TSTraceText::About(const TSChannelCall& call)
{
    return Peer(call.m_from) + " -> " + Peer(call.m_to) + " " + tools::PrintableStart(NameOf(call));
}

std::string TSTraceText::Call(const TSChannelCall& call)
{
    std::string line = IsoTime(call.m_time) + " " + About(call);
    if (call.m_kind == TSChannelCall::EKind::Hello) {
        return line + Types(call) + "\n";
    }
    if (call.m_kind == TSChannelCall::EKind::Other) {
        return line + ", which is none of the channel\n";
    }
    if (!call.m_what.empty()) {
        return line + ", of " + call.m_what + "\n";
    }
    line += ", flag " + std::to_string(call.m_flag) + ", " + Count(call.m_data.size(), "byte");
    if (!IsSetPolicy(call)) {
        return line + "\n";
    }
    const tools::TCArchiveView archive(call.m_data);
    const std::optional<std::string_view> policy = archive.String();
    return policy ? line + "\n" + PolicyLines(*policy) : line + ", which are no policy\n";
}

std::string TSTraceText::Answer(const TSChannelCall& call, const TSChannelAnswer& answer)
{
    const std::string size = answer.m_readable && call.m_kind == TSChannelCall::EKind::Send
                                 ? ", " + Count(answer.m_data.size(), "byte")
                                 : "";
    const std::string inPlaceOf = answer.m_isOfBus ? " for " + Peer(call.m_to) : "";
    return IsoTime(answer.m_time) + " " + Peer(answer.m_from) + inPlaceOf + " -> "
           + Peer(call.m_from) + " " + tools::PrintableStart(NameOf(call)) + ": "
           + Outcome(call, answer) + size + ", " + Milliseconds(answer.m_time - call.m_time)
           + (answer.m_isLate ? ", LATE" : "") + "\n";
}

std::string TSTraceText::Unanswered(const TSChannelCall& call, TMicroseconds time)
{
    return IsoTime(time) + " " + About(call) + ": UNANSWERED for "
           + Milliseconds(time - call.m_time) + "\n";
}

std::string TSTraceText::Agent(TMicroseconds time, const std::string& agent)
{
    return IsoTime(time)
           + (agent.empty() ? " no agent" : " agent is " + tools::PrintableStart(agent)) + "\n";
}

std::string TSTraceText::Flood(TMicroseconds time, const TSFlood& flood)
{
    return IsoTime(time) + " " + Peer(flood.m_from) + " -> " + Peer(flood.m_to)
           + " FLOOD: " + Count(flood.m_calls, "call") + " within a second\n";
}

std::string TSTraceText::Outcome(const TSChannelCall& call, const TSChannelAnswer& answer)
{
    if (!answer.m_error.empty()) {
        const bool refused = answer.m_error == "org.freedesktop.DBus.Error.AccessDenied";
        return (refused ? "REFUSED, " : "FAILED, ") + tools::PrintableStart(answer.m_error) + ": "
               + tools::PrintableStart(answer.m_errorText);
    }
    if (call.m_kind != TSChannelCall::EKind::Send) {
        return "answered";
    }
    if (!answer.m_readable) {
        return "UNREADABLE answer";
    }
    if (!answer.m_handled) {
        return "NOT HANDLED";
    }
    const std::optional<int> number = tools::TCArchiveView(answer.m_data).Int();
    if (IsSetPolicy(call)) {
        return number ? "handled, answer " + std::to_string(*number) : "handled, NO answer in it";
    }
    if (call.m_toAgent && call.m_type == tools::AskVersion) {
        return "handled, "
               + tools::PrintableStart(std::string(answer.m_data.begin(), answer.m_data.end()));
    }
    return "handled";
}

} // namespace ctl
} // namespace kel
