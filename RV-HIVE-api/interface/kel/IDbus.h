#pragma once

#include <vector>

#include <boost/function.hpp>

#include <kel/KELExport.h>

namespace kel {

/// What both ends of the channel have in common: callbacks per message type, and readiness.
///
/// A message callback gets the request's bytes and may fill the response; it returns whether the
/// message was handled. It runs on the thread that iterates the main context in which the end was
/// created. It may send, but must not register or remove callbacks on the end that called it: it
/// would wait for itself.
///
/// @snippet class-examples.cpp IDbus
class KEL_EXPORT IDbus
{
public:
    virtual ~IDbus() {}

    /// Registers the callback for a message type. Thread-safe.
    ///
    /// @return true when it was added; false when the type has one already, which stays.
    virtual bool SetCallback(int type,
                             const boost::function<bool(const std::vector<unsigned char>&,
                                                        std::vector<unsigned char>&)>& callback)
        = 0;

    /// Removes the callback of a message type. Thread-safe.
    ///
    /// @return whether there was one.
    virtual bool UnSetCallback(int type) = 0;

    /// Tells whether the channel can carry messages: an agent's end once it owns the bus name, an
    /// application's while somebody does. Thread-safe.
    virtual bool IsReady() = 0;
};

} // namespace kel
