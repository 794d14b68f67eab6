#pragma once

/// @file
/// What an agent's end of the channel knows of its clients: see TCDbusServer::Clients() and
/// TCDbusServer::SendToEach().

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <kel/KELFailure.h>

namespace kel {

/// A client that has introduced itself and is still on the bus.
///
/// @snippet class-examples.cpp SendToEach
struct TSRegisteredClient
{
    /// Its connection's name on the bus, such as ":1.42".
    std::string m_uniqueName;
    /// The message types of its latest "Hello", in ascending order; no more than were asked for.
    std::vector<int> m_types;
    /// How many types it has asked for.
    size_t m_numberOfTypes = 0;
    /// When its first "Hello" was handled.
    std::chrono::system_clock::time_point m_registered;
};

/// What has become of a message for one client.
///
/// @snippet class-examples.cpp SendToEach
struct TSClientOutcome
{
    /// Its connection's name on the bus.
    std::string m_uniqueName;
    /// EFailure::None when the client has handled the message. NotHandled: it has declined, or
    /// serves no channel any more. Ended or NotOwned: it has left the bus. Waiting: it was sent
    /// nothing.
    TSFailure m_failure;
    /// From the beginning of the send until this was known.
    std::chrono::microseconds m_latency{0};
};

} // namespace kel
