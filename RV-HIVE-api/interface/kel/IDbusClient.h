#pragma once

#include <vector>

#include <kel/IDbus.h>

namespace kel {

/// The application's end of the channel: sends messages to the agent, and receives the ones it
/// registered callbacks for.
///
/// @snippet class-examples.cpp TCDbusClientProvider
class KEL_EXPORT IDbusClient : public virtual IDbus
{
public:
    virtual ~IDbusClient() {}

    /// Sends one message to the agent. Thread-safe.
    ///
    /// @param type      selects the agent's callback.
    /// @param data      the payload; the channel does not look inside.
    /// @param response  replaced by the agent's answer, and only by a synchronous send that was
    ///                  answered; untouched otherwise.
    /// @param async     false: wait up to 10 s for the answer;
    ///                  true: return once the message is queued.
    /// @return the agent's result; false (and an error line) when there was no answer, or when the
    ///         message is larger than the bus takes (32 MiB, header included). Any other
    ///         asynchronous send returns true.
    ///
    /// Works without a ready agent, on purpose: the bus may start it.
    virtual bool SendMessage(int type, const std::vector<unsigned char>& data,
                             std::vector<unsigned char>& response, bool async)
        = 0;
};

} // namespace kel
