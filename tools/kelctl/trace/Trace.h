#pragma once

#include <optional>
#include <string>

#include "EndableOutput.h"
#include "ExitStatus.h"
#include "NewFile.h"
#include "trace/Channel.h"

namespace kel {
namespace ctl {

/// Prints what happens in the channel, and keeps its messages in a file where that is wanted.
class TCTrace : private IChannelListener
{
public:
    /// @param test  whether the test channel is meant.
    /// @param isLive  whether it goes on until a signal comes.
    TCTrace(bool test, bool isLive) : m_output(isLive), m_channel(test, *this) {}

    /// Keeps the messages in a new file, too.
    ///
    /// @return false with a line on standard error.
    bool KeepIn(const std::string& path);

    /// What was there before the first message.
    void Begin(const std::string& agent);

    /// @param bytes  those of the message; empty where they are still to be made of it.
    void Take(TMicroseconds time, GDBusMessage& message, const TBytes& bytes = {});

    /// Looks for calls that have waited for too long.
    void Look(TMicroseconds time) { m_channel.Look(time); }

    /// Tells a line of its own, beside the messages.
    void Tell(const std::string& line) { m_output.Print(line); }

    /// Whether it goes on, and what ends it.
    TCEndableOutput& Output() { return m_output; }

    /// Ends it, and gives the file its name.
    ///
    /// @param status  why; what it could not go on for counts more.
    EStatus End(TMicroseconds time, EStatus status);

private:
    void OnCall(const TSChannelCall& call) override;
    void OnAnswer(const TSChannelCall& call, const TSChannelAnswer& answer) override;
    void OnUnanswered(const TSChannelCall& call, TMicroseconds time) override;
    void OnAgent(TMicroseconds time, const std::string& agent) override;
    void OnFlood(TMicroseconds time, const TSFlood& flood) override;
    void m_Keep(TMicroseconds time, GDBusMessage& message, const TBytes& bytes);

    TCEndableOutput m_output;
    TCChannel m_channel;
    TCNewFile m_file;
    bool m_isKept = false;
};

/// Traces the bus until a signal comes, the bus goes or the trace cannot go on.
EStatus TraceBus(TCTrace& trace, bool test);

} // namespace ctl
} // namespace kel
