#pragma once

/// @file
/// Why an operation of the channel has failed.

#include <string>

#include <kel/KELExport.h>

namespace kel {

/// What an operation has failed of. More may come behind the last.
enum class EFailure : int {
    None,       ///< Of nothing.
    NoBus,      ///< This process is not connected to the system bus.
    NotOwned,   ///< Nobody owns the agent's name, and the bus could start nobody.
    Denied,     ///< The bus forbids it to this user.
    TimedOut,   ///< There was no answer in time.
    NotHandled, ///< Whoever owns the agent's name has declined the message.
    Unreadable, ///< The answer cannot be read.
    TooLarge,   ///< The message is larger than the bus takes. It was not sent.
    Ended, ///< The agent, or the bus, has ended instead of an answer; or this process is exiting.
    Other, ///< Of something else, which the name and the text tell.
    /// Of a client's waiting for this agent's answer: an event cannot reach it before.
    Waiting
};

/// A failure, and the words of whoever has told of it.
struct TSFailure
{
    /// What it has failed of.
    EFailure m_kind = EFailure::None;
    /// The D-Bus error's name, such as "org.freedesktop.DBus.Error.AccessDenied"; empty when no
    /// such error has come.
    std::string m_errorName;
    /// One line or more for a person, from the bus, the agent or the system; may be empty. Programs
    /// look at the kind and the name.
    std::string m_text;
};

/// What the last operation of this thread has failed of; each thread has its own.
///
/// IDbusClient::SendMessage() and IControl::SetPolicy() forget the failure before at their
/// beginning, and so None means that the last one has succeeded, or has thrown what tells all. So
/// does whatever connects: the first api::GetControl(), TCCallbacksProxy::Instance() or
/// TCDbusClientProvider::Get() of a process, and the constructors of both ends. An asynchronous
/// send tells of what is known when it returns. An empty GetControl() or Instance() tells Ended. No
/// other function touches it.
///
/// @snippet class-examples.cpp LastFailure
KEL_EXPORT TSFailure LastFailure();

} // namespace kel
