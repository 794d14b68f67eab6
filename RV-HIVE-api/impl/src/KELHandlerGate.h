#pragma once

#include <kel/KELLocks.h>

namespace kel {

class TCDbus;

// How a channel end can be destroyed on any thread while its handlers run.
//
// GDBus may enter a handler of an object that another thread has just unregistered, and queues
// bus-name events that it delivers after the watch is gone. So it is never given the address of a
// channel end: it gets a ticket, and turns up with it at the gate.
//
// Thread-safe throughout. Usable at any time in the life of the process.

/// Names one start of one end; never used twice. 0 is no ticket.
typedef unsigned long TTicket;

/// Lets the handlers of an end in from now on, and returns the ticket to give to GDBus.
TTicket OpenGate(TCDbus& end);

/// The ticket of an end whose gate is open, 0 otherwise.
TTicket TicketOf(const TCDbus& end);

/// Turns away whoever still holds the end's ticket, and waits until the handlers that are inside
/// on other threads have left. Handlers of the calling thread are not waited for: they are the
/// ones that called, and learn from their TCCallbackHold that the end is gone. Must be called
/// without a lock that a handler may want.
void CloseGate(const TCDbus& end);

/// A handler's stay inside the gate, for the length of a scope.
class TCHandlerStay
{
public:
    /// @param ticket  what GDBus was given as user data.
    explicit TCHandlerStay(void* ticket);
    ~TCHandlerStay();
    TCHandlerStay(const TCHandlerStay&) = delete;
    TCHandlerStay& operator=(const TCHandlerStay&) = delete;

    /// The end, which outlives this stay unless this very thread destroys it; null when the gate
    /// has closed.
    TCDbus* End() const { return m_pEnd; }

private:
    friend void CloseGate(const TCDbus& end);

    TTicket m_ticket;
    TCDbus* m_pEnd;
    TCHandlerStay* m_pOuter; // this thread's stay around this one
};

/// The ticket as GDBus carries it.
inline void* AsUserData(TTicket ticket) { return reinterpret_cast<void*>(ticket); }

/// Holds an end's callbacks mutex shared while a message callback of the application runs, which
/// may destroy the end, the mutex with it. Inside such a callback, which may send or iterate its
/// main context, the same thread may hold it once more.
class KEL_SCOPED_CAPABILITY TCCallbackHold
{
public:
    /// @param ended  set when the callback destroys the end: then nothing of it is left to touch.
    TCCallbackHold(const TCDbus& end, TCSharedMutex& mutex, bool& ended) KEL_ACQUIRE_SHARED(mutex);
    ~TCCallbackHold() KEL_RELEASE();
    TCCallbackHold(const TCCallbackHold&) = delete;
    TCCallbackHold& operator=(const TCCallbackHold&) = delete;

private:
    friend void CloseGate(const TCDbus& end);

    static bool IsHeldHere(const TCDbus& end);

    const TCDbus& m_end;
    TCSharedMutex& m_mutex;
    const bool m_locked; // not when a callback around this one has done it: see TCSharedMutex
    bool& m_ended;
    TCCallbackHold* m_pOuter; // this thread's hold around this one
};

struct TSHandlerGate;

/// Never freed: ends may stop after the library's other static objects are gone.
extern TSHandlerGate* const handlerGate;
TSHandlerGate* MakeHandlerGate();

} // namespace kel
