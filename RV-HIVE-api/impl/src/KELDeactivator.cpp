#include <kel/KELDeactivator.h>

#include <chrono>
#include <thread>

#include "KELLog.h"

KEL_LOG_SOURCE("KELDeactivator", "kel::TCDeactivator")

namespace kel {

std::mutex TCDeactivator::m_mutex;
std::atomic<bool> TCDeactivator::m_destroyed(false);

namespace {

// Held while the user is told, which may call back. It has no destructor to run, either.
std::recursive_mutex userMutex;

// Takes the registrations' mutex unless deactivation has begun. That one keeps it while it waits
// for the handlers that other threads run, and one of those may be here, asking for the control
// object: it gets the refusal that it would get after the wait.
bool LockUnless(const std::atomic<bool>& destroyed, std::unique_lock<std::mutex>& registrations)
{
    while (!destroyed) {
        if (registrations.try_lock()) {
            return !destroyed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // a registration takes no longer
    }
    return false;
}

} // namespace

TCDeactivator::TCDeactivator() : m_pUser(nullptr) {}

TCDeactivator::~TCDeactivator() { m_Deactivate(); }

void TCDeactivator::RegisterDBUS(void (*fn)())
{
    std::unique_lock<std::mutex> registrations(m_mutex, std::defer_lock);
    if (!LockUnless(m_destroyed, registrations)) {
        KEL_ERROR("Unable to register user callback - already destroyed");
    } else if (m_instance.m_functions.insert(fn).second) {
        KEL_DEBUG("Register a new DBUS callback");
    } else {
        KEL_DEBUG("DBUS callback already registered");
    }
}

bool TCDeactivator::RegisterUser(TIDestroyCallback& user)
{
    {
        std::unique_lock<std::mutex> registrations(m_mutex, std::defer_lock);
        if (LockUnless(m_destroyed, registrations) && m_instance.m_pUser == nullptr) {
            m_instance.m_pUser = &user;
            return true;
        }
    }
    KEL_ERROR("Unable to register user callback - destroyed %d", m_destroyed ? 1 : 0);
    return false;
}

void TCDeactivator::UnregisterUser(TIDestroyCallback&)
{
    std::unique_lock<std::mutex> registrations(m_mutex, std::defer_lock);
    if (LockUnless(m_destroyed, registrations)) {
        m_instance.m_pUser = nullptr;
    } else {
        // Who has unregistered may go: not while it is being told.
        const std::lock_guard<std::recursive_mutex> told(userMutex);
    }
}

bool TCDeactivator::HasBegun() { return m_destroyed; }

void TCDeactivator::m_Deactivate()
{
    const std::lock_guard<std::mutex> registrations(m_mutex);
    if (m_destroyed) {
        return;
    }
    {
        const std::lock_guard<std::recursive_mutex> telling(userMutex);
        m_destroyed = true;
        if (m_pUser != nullptr) {
            m_pUser->OnDestroy();
        }
    }
    for (void (*fn)() : m_functions) {
        fn();
    }
}

} // namespace kel
