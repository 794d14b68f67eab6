#pragma once

#include <chrono>
#include <string>

#include "Bus.h"
#include "ExitStatus.h"

namespace kel {
namespace ctl {

/// The agent that runs, and how it has answered when it was asked for its version.
struct TSAgent
{
    std::string m_uniqueName;
    unsigned int m_process = 0;
    std::string m_version; // empty when it does not tell it
    bool m_denied = false; // to this user, by the bus
    bool m_answers = true;
    std::chrono::milliseconds m_took{0}; // to answer
    int m_timeout = kAnswerTimeout;      // in ms: how long it is waited for

    /// Finds the agent of a channel, and starts none.
    ///
    /// @return Success; otherwise the status to end with, and one line on standard error.
    EStatus Find(const TSChannel& channel);

    /// The same over a connection that is there. The line is the reason.
    EStatus Find(GDBusConnection* connection, const TSChannel& channel, std::string& reason);

private:
    bool m_FindOwner(GDBusConnection* connection, const char* name, TGlibPtr<GError>& error);
    void m_Ask(GDBusConnection* connection, const TSChannel& channel);
};

} // namespace ctl
} // namespace kel
