#pragma once

#include <pthread.h>

#include <mutex>

#include <boost/thread/shared_mutex.hpp>

/// @file
/// Locks that clang's -Wthread-safety understands. Other compilers see plain locks. The attributes:
/// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

/// An attribute for clang; nothing to other compilers.
#if defined(__clang__)
#define KEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KEL_THREAD_ATTRIBUTE(x)
#endif

/// Of a class: it is a lock, which messages call so.
#define KEL_CAPABILITY(name) KEL_THREAD_ATTRIBUTE(capability(name))
/// Of a class: its objects hold a lock for their scope.
#define KEL_SCOPED_CAPABILITY KEL_THREAD_ATTRIBUTE(scoped_lockable)
/// Of a member: the lock that its readers hold shared and its writers exclusively.
#define KEL_GUARDED_BY(mutex) KEL_THREAD_ATTRIBUTE(guarded_by(mutex))
/// Of a pointer: the lock of what it points to.
#define KEL_PT_GUARDED_BY(mutex) KEL_THREAD_ATTRIBUTE(pt_guarded_by(mutex))
/// Of a function: its caller holds these exclusively.
#define KEL_REQUIRES(...) KEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// Of a function: its caller holds these, shared at least.
#define KEL_REQUIRES_SHARED(...) KEL_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
/// Of a function: its caller holds none of these.
#define KEL_EXCLUDES(...) KEL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// Of a function: it takes these exclusively, and keeps them.
#define KEL_ACQUIRE(...) KEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
/// Of a function: it takes these shared, and keeps them.
#define KEL_ACQUIRE_SHARED(...) KEL_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
/// Of a function: it has taken the lock when it returns the first argument.
#define KEL_TRY_ACQUIRE(...) KEL_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
/// Of a function: it lets go of the lock, however that was held.
#define KEL_RELEASE() KEL_THREAD_ATTRIBUTE(release_generic_capability())
/// Of a function: its body is not checked.
#define KEL_NO_THREAD_SAFETY_ANALYSIS KEL_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace kel {

/// A plain mutex that needs no construction and no destruction: a static one may be used before,
/// during and after the static life of the library. Not recursive.
class KEL_CAPABILITY("mutex") TCMutex
{
public:
    constexpr TCMutex() = default;
    TCMutex(const TCMutex&) = delete;
    TCMutex& operator=(const TCMutex&) = delete;

    /// Waits until it is this thread's.
    void lock() KEL_ACQUIRE() { pthread_mutex_lock(&m_lock); }
    /// Takes it if it is free; returns whether it was.
    bool try_lock() KEL_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&m_lock) == 0; }
    /// Lets go of it; on the thread that has it.
    void unlock() KEL_RELEASE() { pthread_mutex_unlock(&m_lock); }

private:
    friend class TCCondition;

    pthread_mutex_t m_lock = PTHREAD_MUTEX_INITIALIZER;
};

/// What a thread waits for that holds a TCMutex, which needs no construction and no destruction
/// either.
class TCCondition
{
public:
    constexpr TCCondition() = default;
    TCCondition(const TCCondition&) = delete;
    TCCondition& operator=(const TCCondition&) = delete;

    /// Frees the mutex while it waits; may return without a reason.
    void Wait(TCMutex& mutex) KEL_REQUIRES(mutex)
    {
        pthread_cond_wait(&m_condition, &mutex.m_lock);
    }
    /// Wakes all who wait. One of them may destroy both, once the caller has freed the mutex.
    void NotifyAll() { pthread_cond_broadcast(&m_condition); }

private:
    pthread_cond_t m_condition = PTHREAD_COND_INITIALIZER;
};

/// A boost::shared_mutex that the compiler's lock checks know by name.
///
/// Not recursive in any mode: a second shared lock on a thread that holds one already deadlocks
/// as soon as a writer waits in between.
class KEL_CAPABILITY("mutex") TCSharedMutex : public boost::shared_mutex
{
};

/// A reader-writer lock that needs no construction and no destruction, so that it may be used
/// before, during and after the static life of the library (POSIX pthread_rwlock).
class KEL_CAPABILITY("mutex") TCStaticRwLock
{
public:
    constexpr TCStaticRwLock() = default;
    TCStaticRwLock(const TCStaticRwLock&) = delete;
    TCStaticRwLock& operator=(const TCStaticRwLock&) = delete;

    /// Waits until it is this thread's alone.
    void lock() KEL_ACQUIRE() { pthread_rwlock_wrlock(&m_lock); }
    /// Ends what lock() began.
    void unlock() KEL_RELEASE() { pthread_rwlock_unlock(&m_lock); }
    /// Waits until no other thread has it alone. A thread that has it shared may do so once more.
    void lock_shared() KEL_ACQUIRE_SHARED() { pthread_rwlock_rdlock(&m_lock); }
    /// Ends what lock_shared() began.
    void unlock_shared() KEL_RELEASE() { pthread_rwlock_unlock(&m_lock); }

private:
    pthread_rwlock_t m_lock = PTHREAD_RWLOCK_INITIALIZER;
};

/// Holds a mutex shared for the length of a scope.
template <typename Mutex> class KEL_SCOPED_CAPABILITY TCSharedScope
{
public:
    /// Waits for the mutex.
    explicit TCSharedScope(Mutex& mutex) KEL_ACQUIRE_SHARED(mutex) KEL_NO_THREAD_SAFETY_ANALYSIS
        : m_mutex(mutex)
    {
        m_mutex.lock_shared();
    }
    ~TCSharedScope() KEL_RELEASE() KEL_NO_THREAD_SAFETY_ANALYSIS { m_mutex.unlock_shared(); }
    TCSharedScope(const TCSharedScope&) = delete;
    TCSharedScope& operator=(const TCSharedScope&) = delete;

private:
    Mutex& m_mutex;
};

/// Holds a mutex exclusively for the length of a scope.
template <typename Mutex> class KEL_SCOPED_CAPABILITY TCExclusiveScope
{
public:
    /// Waits for the mutex.
    explicit TCExclusiveScope(Mutex& mutex) KEL_ACQUIRE(mutex) KEL_NO_THREAD_SAFETY_ANALYSIS
        : m_mutex(mutex)
    {
        m_mutex.lock();
    }
    /// Takes over a mutex that is locked already.
    TCExclusiveScope(Mutex& mutex, std::adopt_lock_t) KEL_REQUIRES(mutex) : m_mutex(mutex) {}
    ~TCExclusiveScope() KEL_RELEASE() KEL_NO_THREAD_SAFETY_ANALYSIS { m_mutex.unlock(); }
    TCExclusiveScope(const TCExclusiveScope&) = delete;
    TCExclusiveScope& operator=(const TCExclusiveScope&) = delete;

private:
    Mutex& m_mutex;
};

/// Holds a mutex in upgrade mode for the length of a scope: beside readers, but beside no other
/// holder of this kind. From Promote() to the end of the scope it is held exclusively, without
/// having been free in between.
class KEL_SCOPED_CAPABILITY TCUpgradeLock
{
public:
    /// Waits for the mutex, but not for its readers.
    explicit TCUpgradeLock(TCSharedMutex& mutex)
        KEL_ACQUIRE_SHARED(mutex) KEL_NO_THREAD_SAFETY_ANALYSIS : m_mutex(mutex)
    {
        m_mutex.lock_upgrade();
    }
    ~TCUpgradeLock() KEL_RELEASE() KEL_NO_THREAD_SAFETY_ANALYSIS
    {
        m_isPromoted ? m_mutex.unlock() : m_mutex.unlock_upgrade();
    }
    TCUpgradeLock(const TCUpgradeLock&) = delete;
    TCUpgradeLock& operator=(const TCUpgradeLock&) = delete;

    /// Waits until there are no readers, and holds the mutex exclusively from then on. Once.
    void Promote() KEL_RELEASE() KEL_ACQUIRE() KEL_NO_THREAD_SAFETY_ANALYSIS
    {
        m_mutex.unlock_upgrade_and_lock();
        m_isPromoted = true;
    }

private:
    TCSharedMutex& m_mutex;
    bool m_isPromoted = false;
};

/// Holds a TCMutex for a scope.
using TCLock = TCExclusiveScope<TCMutex>;
/// Holds a TCSharedMutex shared for a scope.
using TCReadLock = TCSharedScope<TCSharedMutex>;
/// Holds a TCSharedMutex exclusively for a scope.
using TCWriteLock = TCExclusiveScope<TCSharedMutex>;
/// Holds a TCStaticRwLock shared for a scope.
using TCStaticReadLock = TCSharedScope<TCStaticRwLock>;
/// Holds a TCStaticRwLock exclusively for a scope.
using TCStaticWriteLock = TCExclusiveScope<TCStaticRwLock>;

} // namespace kel
