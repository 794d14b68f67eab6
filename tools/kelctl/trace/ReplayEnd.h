#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Bus.h"
#include "trace/Channel.h"

namespace kel {
namespace ctl {

/// An end of the channel with a connection of its own, which says what it is told to say. All
/// happens on the thread that iterates the default main context.
class TCReplayEnd
{
public:
    /// What to answer to a message; none for that it was not handled.
    typedef std::function<const TSChannelAnswer*(int type, const TBytes& data)> TAnswerer;

    /// Who has introduced himself, and wants messages of some type.
    typedef std::function<void(const std::string& from)> TGreeted;

    /// What has come back; nothing when that was too late.
    typedef std::function<void(const std::optional<TSChannelAnswer>&)> TAnswered;

    TCReplayEnd(const TSChannel& channel, TAnswerer answerer, TGreeted greeted = {});
    ~TCReplayEnd();
    TCReplayEnd(const TCReplayEnd&) = delete;
    TCReplayEnd& operator=(const TCReplayEnd&) = delete;

    /// @return false with a line on standard error.
    bool Connect();

    /// Becomes the agent.
    ///
    /// @return false with a line on standard error.
    bool OwnName();

    /// Sends a call as it was recorded.
    ///
    /// @param to        a name on the bus.
    /// @param answered  called once, later, unless the caller wants no answer.
    void Send(const TSChannelCall& call, const std::string& to, const TAnswered& answered);

private:
    static void m_OnCall(GDBusConnection* connection, const char* sender, const char* object,
                         const char* interface, const char* method, GVariant* arguments,
                         GDBusMethodInvocation* call, void* end);

    const TSChannel& m_channel;
    const TAnswerer m_answerer;
    const TGreeted m_greeted;
    TGlibPtr<GDBusConnection> m_connection;
    unsigned int m_object = 0;
};

} // namespace ctl
} // namespace kel
