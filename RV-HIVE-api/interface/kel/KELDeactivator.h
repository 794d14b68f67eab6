#pragma once

#include <atomic>
#include <set>

#include <kel/KELExport.h>
#include <kel/KELLocks.h>
#include <kel/TIDestroyCallback.h>

namespace kel {

/// The switch that is thrown once, when the process exits, so that the
/// singletons that talk over the channel let go of it before the rest of the static state goes.
///
/// Threads: every operation from any thread, before, during and after process exit.
/// Locks: one mutex, held while the registered functions run; they must not register or
/// unregister anything.
///
/// @snippet class-examples.cpp TCDeactivator
class KEL_EXPORT TCDeactivator
{
public:
    ~TCDeactivator();

    /// Adds a function to run at deactivation. A function that is there already stays there once;
    /// after deactivation the call is refused with an error line.
    static void RegisterDBUS(void (*fn)());

    /// Registers the one user to be told of the deactivation, before any function runs. The user
    /// is not owned and must outlive its registration: a static object of the program does not,
    /// for those are destroyed before the library is taken down.
    ///
    /// @return true on success; false (and an error line) when there is a user already, or after
    ///         deactivation.
    static bool RegisterUser(TIDestroyCallback& user);

    /// Clears the registered user, whoever that is, on purpose: there is one slot, and whoever
    /// calls this wants it empty. Without effect after deactivation. The user may go when this
    /// returns: one that is being told of the deactivation on another thread is waited for.
    static void UnregisterUser(TIDestroyCallback& user);

    /// Whether deactivation has begun. For the library alone, which does not export it.
    KEL_HIDDEN static bool HasBegun();

private:
    TCDeactivator();
    TCDeactivator(const TCDeactivator&) = delete;
    TCDeactivator& operator=(const TCDeactivator&) = delete;

    void m_Deactivate();

    // Locks m_mutex unless deactivation has begun.
    KEL_HIDDEN static bool m_LockUnlessBegun() KEL_TRY_ACQUIRE(true, m_mutex);

    TIDestroyCallback* m_pUser KEL_GUARDED_BY(m_mutex); // not owned
    std::set<void (*)()> m_functions KEL_GUARDED_BY(m_mutex);

    static TCDeactivator m_instance;

    // Neither has a destructor to run, so both serve threads that are still at work when the
    // static objects are gone.
    static TCMutex m_mutex;
    static std::atomic<bool> m_destroyed; // written under m_mutex, never cleared
};

} // namespace kel
