#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include <kel/IDbus.h>

namespace kel {

/// The agent's end of the channel.
///
/// @snippet class-examples.cpp TCDbusServer
class KEL_EXPORT IDbusServer : public virtual IDbus
{
public:
    virtual ~IDbusServer() {}

    /// Sends one message to every client that subscribed to its type, and waits for all answers.
    ///
    /// Blocks until the slowest client has answered or its call has ended. Call it from any thread
    /// of the host, but not while destroying the server.
    ///
    /// @param type     selects the clients, and the callback in each.
    /// @param data     the payload; the channel does not look inside.
    /// @param timeout  of each call, in milliseconds; -1 for the D-Bus library's default.
    /// @return (clients that handled the message, clients that did not). Clients without a
    ///         subscription to the type count in neither; (0, 0) while the server is not ready.
    ///         A message larger than the bus takes (32 MiB, header included) reaches nobody.
    virtual std::pair<size_t, size_t> SendMessage(int type, const std::vector<unsigned char>& data,
                                                  int timeout)
        = 0;

    /// The number of clients that have introduced themselves and are still on the bus.
    /// Thread-safe.
    virtual size_t NumberOfClients() = 0;
};

} // namespace kel
