#pragma once

#include <string>

#include "trace/Channel.h"

namespace kel {
namespace ctl {

/// What happens in the channel as lines for a terminal, each with its end. What comes from
/// strangers is printable in them, and their text cannot look like a line of ours.
struct TSTraceText
{
    /// With the text of a policy in lines of its own, which begin with spaces.
    static std::string Call(const TSChannelCall& call);
    static std::string Answer(const TSChannelCall& call, const TSChannelAnswer& answer);
    static std::string Unanswered(const TSChannelCall& call, TMicroseconds time);
    static std::string Agent(TMicroseconds time, const std::string& agent);
    static std::string Flood(TMicroseconds time, const TSFlood& flood);

    /// Who calls whom, and what about, without a time and the line's end.
    static std::string About(const TSChannelCall& call);

    /// What an answer says: "handled, answer 0", without the line's end.
    static std::string Outcome(const TSChannelCall& call, const TSChannelAnswer& answer);
};

} // namespace ctl
} // namespace kel
