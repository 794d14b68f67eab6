#pragma once

#include <pthread.h>

#include <mutex>
#include <optional>

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

// Locks that clang's -Wthread-safety understands. Other compilers see plain locks.
// The attributes: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

#if defined(__clang__)
#define KEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KEL_THREAD_ATTRIBUTE(x)
#endif

#define KEL_CAPABILITY(name) KEL_THREAD_ATTRIBUTE(capability(name))
#define KEL_SCOPED_CAPABILITY KEL_THREAD_ATTRIBUTE(scoped_lockable)
#define KEL_GUARDED_BY(mutex) KEL_THREAD_ATTRIBUTE(guarded_by(mutex))
#define KEL_PT_GUARDED_BY(mutex) KEL_THREAD_ATTRIBUTE(pt_guarded_by(mutex))
#define KEL_REQUIRES(...) KEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KEL_REQUIRES_SHARED(...) KEL_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define KEL_EXCLUDES(...) KEL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define KEL_ACQUIRE(...) KEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KEL_ACQUIRE_SHARED(...) KEL_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define KEL_TRY_ACQUIRE(...) KEL_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define KEL_RELEASE() KEL_THREAD_ATTRIBUTE(release_generic_capability())
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

    void lock() KEL_ACQUIRE() { pthread_mutex_lock(&m_lock); }
    bool try_lock() KEL_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&m_lock) == 0; }
    void unlock() KEL_RELEASE() { pthread_mutex_unlock(&m_lock); }

private:
    pthread_mutex_t m_lock = PTHREAD_MUTEX_INITIALIZER;
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

    void lock() KEL_ACQUIRE() { pthread_rwlock_wrlock(&m_lock); }
    void unlock() KEL_RELEASE() { pthread_rwlock_unlock(&m_lock); }
    void lock_shared() KEL_ACQUIRE_SHARED() { pthread_rwlock_rdlock(&m_lock); }
    void unlock_shared() KEL_RELEASE() { pthread_rwlock_unlock(&m_lock); }

private:
    pthread_rwlock_t m_lock = PTHREAD_RWLOCK_INITIALIZER;
};

/// Holds a mutex shared for the length of a scope.
template <typename Mutex> class KEL_SCOPED_CAPABILITY TCSharedScope
{
public:
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
    explicit TCUpgradeLock(TCSharedMutex& mutex)
        KEL_ACQUIRE_SHARED(mutex) KEL_NO_THREAD_SAFETY_ANALYSIS : m_upgrade(mutex)
    {}
    ~TCUpgradeLock() KEL_RELEASE() KEL_NO_THREAD_SAFETY_ANALYSIS {}
    TCUpgradeLock(const TCUpgradeLock&) = delete;
    TCUpgradeLock& operator=(const TCUpgradeLock&) = delete;

    void Promote() KEL_RELEASE() KEL_ACQUIRE() KEL_NO_THREAD_SAFETY_ANALYSIS
    {
        m_exclusive.emplace(m_upgrade);
    }

private:
    boost::upgrade_lock<boost::shared_mutex> m_upgrade;
    std::optional<boost::upgrade_to_unique_lock<boost::shared_mutex>> m_exclusive;
};

using TCLock = TCExclusiveScope<TCMutex>;
using TCReadLock = TCSharedScope<TCSharedMutex>;
using TCWriteLock = TCExclusiveScope<TCSharedMutex>;
using TCStaticReadLock = TCSharedScope<TCStaticRwLock>;
using TCStaticWriteLock = TCExclusiveScope<TCStaticRwLock>;

} // namespace kel
