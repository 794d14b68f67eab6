#pragma once

#include "KELHandlerGate.h"

// The ways in from GLib. They lead through C frames, which nothing may be thrown through, and GLib
// holds a ticket in place of an end's address: see KELHandlerGate.h.

namespace kel {

/// Writes an error line for the exception that is being handled. Throws on what is not C++'s own:
/// a thread that is being cancelled must go on unwinding.
///
/// @param what  who has thrown, the subject of the line.
void ReportException(const char* what);

/// Runs a step with nothing thrown out of it: what it throws leaves an error line.
///
/// @return whether the step has run to its end.
template <typename Step> bool RunGuarded(const char* what, Step step)
{
    try {
        step();
        return true;
    } catch (...) {
        ReportException(what);
        return false;
    }
}

/// What GLib is given in place of a static event handler of an end's class. The arguments are the
/// handler's, without the user data, which is last.
template <typename End, typename... Arguments> struct TSGlibEvent
{
    /// Calls the handler with the end that the ticket stands for; with a stale one it does nothing.
    template <void (*Handler)(Arguments..., void*)>
    static void Enter(Arguments... arguments, void* ticket)
    {
        const TCHandlerStay stay(ticket);
        if (stay.End() != nullptr) {
            RunGuarded("An event's handler",
                       [&] { Handler(arguments..., static_cast<End*>(stay.End())); });
        }
    }
};

} // namespace kel
