#include <kel/KELDeactivator.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "KELLog.h"

KEL_LOG_SOURCE("KELDeactivator", "kel::TCDeactivator")

namespace kel {

TCMutex TCDeactivator::m_mutex;
std::atomic<bool> TCDeactivator::m_destroyed(false);

namespace {

class KEL_CAPABILITY("mutex") TCRecursiveMutex : public std::recursive_mutex
{
};

// Held while the user is told, which may call back. It has no destructor to run, either.
TCRecursiveMutex userMutex;

} // namespace

TCDeactivator::TCDeactivator() : m_pUser(nullptr) {}

TCDeactivator::~TCDeactivator() { m_Deactivate(); }

void TCDeactivator::RegisterDBUS(void (*fn)())
{
    if (!m_LockUnlessBegun()) {
        KEL_ERROR("Unable to register user callback - already destroyed");
        return;
    }
    const TCLock registrations(m_mutex, std::adopt_lock);
    if (m_instance.m_functions.insert(fn).second) {
        KEL_DEBUG("Register a new DBUS callback");
    } else {
        KEL_DEBUG("DBUS callback already registered");
    }
}

bool TCDeactivator::RegisterUser(TIDestroyCallback& user)
{
    if (m_LockUnlessBegun()) {
        const TCLock registrations(m_mutex, std::adopt_lock);
        if (m_instance.m_pUser == nullptr) {
            m_instance.m_pUser = &user;
            return true;
        }
    }
    KEL_ERROR("Unable to register user callback - destroyed %d", m_destroyed ? 1 : 0);
    return false;
}

void TCDeactivator::UnregisterUser(TIDestroyCallback&)
{
    if (m_LockUnlessBegun()) {
        const TCLock registrations(m_mutex, std::adopt_lock);
        m_instance.m_pUser = nullptr;
    } else {
        // Who has unregistered may go: not while it is being told.
        const TCExclusiveScope<TCRecursiveMutex> told(userMutex);
    }
}

bool TCDeactivator::HasBegun() { return m_destroyed; }

void TCDeactivator::m_Deactivate()
{
    const TCLock registrations(m_mutex);
    if (m_destroyed) {
        return;
    }
    {
        const TCExclusiveScope<TCRecursiveMutex> telling(userMutex);
        m_destroyed = true;
        if (m_pUser != nullptr) {
            m_pUser->OnDestroy();
        }
    }
    for (void (*fn)() : m_functions) {
        fn();
    }
}

// Deactivation keeps the mutex while it waits for the handlers that other threads run, and one of
// those may be here, asking for the control object. It does not wait for the mutex: it gets the
// refusal that it would get after the wait.
bool TCDeactivator::m_LockUnlessBegun()
{
    while (!m_destroyed) {
        if (m_mutex.try_lock()) {
            if (!m_destroyed) {
                return true;
            }
            m_mutex.unlock();
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // a registration takes no longer
    }
    return false;
}

} // namespace kel
