#pragma once

#include <boost/function.hpp>

#include <kel/KELExport.h>

namespace kel {

/// What the agent can tell an application. Obtained from TCCallbacksProxy::Instance().
///
/// The application's functions run on the thread that iterates the main context in which the
/// process's channel client was created. A function may send to the agent and ask for the control
/// object, but must not set or reset functions, nor destroy the singleton: it would wait for
/// itself. The agent gets its answer after the function has returned: a process that exits at once
/// may take the answer along.
///
/// @snippet class-examples.cpp ICallbacks
class KEL_EXPORT ICallbacks
{
public:
    /// The types of the agent's messages to an application, as they travel.
    enum ECallbackType {
        POLICY_UPDATE = 2,       ///< The agent's policy has changed.
        REQUEST_PROCESS_INFO = 4 ///< The agent wants process information.
    };

    virtual ~ICallbacks() {}

    /// Sets the function to call when the agent's policy has changed. Thread-safe.
    ///
    /// @return true on success; false when there is one already, which stays.
    virtual bool SetPolicyUpdateCb(const boost::function<void()>& cb) = 0;

    /// Removes that function; returns whether the channel had a callback for it. Thread-safe.
    /// Once it has returned, the function does not run any more.
    virtual bool ResetPolicyUpdateCb() = 0;

    /// Sets the function to call when the agent wants process information. Thread-safe.
    ///
    /// @param cb  its result is for its own use: the agent learns that it was called, no more.
    /// @return true on success; false when there is one already, which stays.
    virtual bool SetRequestProcessInfoCb(const boost::function<bool()>& cb) = 0;

    /// Removes that function; returns whether the channel had a callback for it. Thread-safe.
    /// Once it has returned, the function does not run any more.
    virtual bool ResetRequestProcessInfoCb() = 0;
};

} // namespace kel
