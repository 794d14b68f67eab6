#pragma once

#include <string>

#include <kel/KELExport.h>

namespace kel {

/// What an application can ask of the agent. Obtained from kel::api::GetControl().
///
/// @snippet class-examples.cpp IControl
class KEL_EXPORT IControl
{
public:
    virtual ~IControl() {}

    /// Sets the agent's reporting policy, and waits up to 10 s for the agent's answer.
    /// Thread-safe. Works without a running agent when the bus can start it.
    ///
    /// @param policy  the policy's text, any bytes.
    /// @return the agent's own result code; -1 when there was no answer, or the agent declined to
    ///         handle the message.
    /// @throws boost::archive::archive_exception when the agent's answer is not a binary archive
    ///         that holds an int (Boost.Serialization).
    virtual int SetPolicy(const std::string& policy) = 0;
};

} // namespace kel
