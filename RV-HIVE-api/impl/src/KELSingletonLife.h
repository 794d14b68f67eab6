#pragma once

#include <boost/shared_ptr.hpp>

#include <kel/KELLocks.h>

#include "KELFailureNote.h"

namespace kel {

/// The life that the proxies share: created on first use, ended once and for good.
///
/// A proxy class befriends this and has, static: m_pInstance, a never-freed holder of the shared
/// pointer; m_destroyed; and m_rwlock, which guards both.
template <typename Proxy> struct TSSingletonLife
{
    /// The singleton; empty once it has ended. Thread-safe.
    static auto Instance()
    {
        auto instance = Held();
        if (!instance) {
            NoteFailure(EFailure::Ended);
        }
        return instance;
    }

    /// Ends the singleton. Thread-safe.
    static void Destroy()
    {
        auto last = Unhold();
        // Dropped here, outside the lock: it may be the last owner, and the proxy's end takes the
        // client's locks.
    }

private:
    static auto Held()
    {
        {
            const TCStaticReadLock lock(Proxy::m_rwlock);
            // The end is final, and need not be asked for exclusively: a thread that runs one of
            // the callbacks proxy's functions holds the lock shared already.
            if (*Proxy::m_pInstance || Proxy::m_destroyed) {
                return *Proxy::m_pInstance;
            }
        }
        const TCStaticWriteLock lock(Proxy::m_rwlock);
        if (!Proxy::m_destroyed && !*Proxy::m_pInstance) {
            Proxy::m_pInstance->reset(new Proxy);
        }
        return *Proxy::m_pInstance;
    }

    static auto Unhold()
    {
        const TCStaticWriteLock lock(Proxy::m_rwlock);
        auto held = *Proxy::m_pInstance;
        Proxy::m_pInstance->reset();
        Proxy::m_destroyed = true;
        return held;
    }
};

} // namespace kel
