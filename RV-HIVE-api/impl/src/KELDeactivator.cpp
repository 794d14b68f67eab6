#include <kel/KELDeactivator.h>

#include "KELLog.h"

KEL_LOG_SOURCE("KELDeactivator", "kel::TCDeactivator")

namespace kel {

std::mutex TCDeactivator::m_mutex;
std::atomic<bool> TCDeactivator::m_destroyed(false);

TCDeactivator::TCDeactivator() : m_pUser(nullptr) {}

TCDeactivator::~TCDeactivator() { m_Deactivate(); }

void TCDeactivator::RegisterDBUS(void (*fn)())
{
    // Seen before the lock: deactivation holds it while it waits for the handlers that other
    // threads run, and one of those may be here, asking for the control object. It gets the
    // refusal that it would get after the wait.
    if (!m_destroyed) {
        const std::lock_guard<std::mutex> registrations(m_mutex);
        if (!m_destroyed) {
            if (m_instance.m_functions.insert(fn).second) {
                KEL_DEBUG("Register a new DBUS callback");
            } else {
                KEL_DEBUG("DBUS callback already registered");
            }
            return;
        }
    }
    KEL_ERROR("Unable to register user callback - already destroyed");
}

bool TCDeactivator::RegisterUser(TIDestroyCallback& user)
{
    if (!m_destroyed) {
        const std::lock_guard<std::mutex> registrations(m_mutex);
        if (!m_destroyed && m_instance.m_pUser == nullptr) {
            m_instance.m_pUser = &user;
            return true;
        }
    }
    KEL_ERROR("Unable to register user callback - destroyed %d", m_destroyed ? 1 : 0);
    return false;
}

void TCDeactivator::UnregisterUser(TIDestroyCallback&)
{
    if (m_destroyed) {
        return;
    }
    const std::lock_guard<std::mutex> registrations(m_mutex);
    if (!m_destroyed) {
        m_instance.m_pUser = nullptr;
    }
}

void TCDeactivator::m_Deactivate()
{
    const std::lock_guard<std::mutex> registrations(m_mutex);
    if (m_destroyed) {
        return;
    }
    m_destroyed = true;

    if (m_pUser != nullptr) {
        m_pUser->OnDestroy();
    }
    for (void (*fn)() : m_functions) {
        fn();
    }
}

} // namespace kel
