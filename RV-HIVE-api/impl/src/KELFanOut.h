#pragma once

#include <cstddef>
#include <vector>

#include <kel/KELLocks.h>

#include "KELGlib.h"

namespace kel {

/// When a send is out of time.
class TCDeadline
{
public:
    /// @param timeout  in milliseconds; -1 for the D-Bus library's default, the largest int for
    ///                 never, as GDBus has it.
    /// @param now      monotonic, in microseconds (g_get_monotonic_time), like all times here.
    TCDeadline(int timeout, gint64 now);

    /// Whether the time-out has passed.
    bool IsOver(gint64 now) const { return now >= m_end; }

    /// The time-out of a call that starts now, in milliseconds: at least 1, so that GDBus ends the
    /// call and reports it, like any other.
    int Left(gint64 now) const;

private:
    gint64 m_end; // G_MAXINT64 for never
};

/// The calls of one send: starts them all together, and starts those again for which the bus had
/// no room.
///
/// A bus has limits, and refuses the calls beyond: dbus-daemon lets a connection wait for so many
/// replies at once (128: max_replies_per_connection in dbus-daemon(1)), dbus-broker lets a user
/// have so many bytes on their way to another. A call of this send that ends makes room for one of
/// those. Room that others make (another send, peers of older calls) is found by a timer that tries
/// a few of them at a fixed interval.
///
/// Threads: made and filled by the sending thread. From Start() on it belongs to the thread that
/// iterates the context, until the last call has ended; the end alone needs a lock.
class TCFanOut
{
public:
    /// Starts one call with a time-out in milliseconds. The call tells the fan-out once of each
    /// start whether it has ended or was refused.
    typedef void (*TStart)(void* call, int timeout);

    TCFanOut(GMainContext* context, int timeout, TStart start);
    TCFanOut(const TCFanOut&) = delete;
    TCFanOut& operator=(const TCFanOut&) = delete;

    /// Adds a call, which has to live until it has ended. Before Start().
    void Add(void* call) { m_calls.push_back(call); }

    /// Has the context's thread start all calls. Throws std::bad_alloc, with nothing started; from
    /// then on nothing is allocated but by GLib.
    void Start();

    /// Waits until all calls have ended. One wake-up, where the calls' own futures would cost one
    /// each. After Start().
    void Wait();

    // The thread that iterates the context.

    /// A call has ended for good.
    void Ended();

    /// The bus had no room for a call. Only while HasTime().
    void Refused(void* call);

    /// Whether there is time for one more attempt.
    bool HasTime() const { return !m_deadline.IsOver(g_get_monotonic_time()); }

    /// What is left for a call, in milliseconds: see TCDeadline.
    int TimeLeft() const { return m_deadline.Left(g_get_monotonic_time()); }

private:
    void m_StartAll();
    void m_Restart();
    void m_Arm();
    void m_Disarm();
    void m_LookForRoom();

    GMainContext* const m_pContext; // not owned
    const int m_timeout;
    const TStart m_pStart;
    const TCDeadline m_deadline; // counted from the construction
    std::vector<void*> m_calls;
    std::vector<void*> m_refused; // in the order of their refusal
    size_t m_left;                // calls that have not ended
    TGlibPtr<GSource> m_timer;    // null when none is under way
    TCMutex m_overMutex;
    TCCondition m_over; // signalled by the last call
    bool m_isOver KEL_GUARDED_BY(m_overMutex) = false;
};

} // namespace kel
