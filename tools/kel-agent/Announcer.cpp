#include "Announcer.h"

#include <algorithm>

namespace kel {
namespace agent {

TCAnnouncer::TCAnnouncer(TCApplications& applications)
    : m_applications(applications), m_open(false), m_stopped(false),
      m_thread(&TCAnnouncer::m_Run, this)
{}

TCAnnouncer::~TCAnnouncer() { Stop(); }

void TCAnnouncer::Open()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
    m_changed.notify_one();
}

void TCAnnouncer::Request(ICallbacks::ECallbackType event)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (std::find(m_waiting.begin(), m_waiting.end(), event) == m_waiting.end()) {
        m_waiting.push_back(event);
        m_changed.notify_one();
    }
}

void TCAnnouncer::Stop()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_changed.notify_one();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void TCAnnouncer::m_Run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_stopped || m_open; });
    for (;;) {
        m_changed.wait(lock, [this] { return m_stopped || !m_waiting.empty(); });
        if (m_stopped) {
            return;
        }
        // Off the list before the send begins: what is asked for from here on is sent anew.
        const ICallbacks::ECallbackType event = m_waiting.front();
        m_waiting.pop_front();
        lock.unlock();
        m_applications.Send(event);
        lock.lock();
    }
}

} // namespace agent
} // namespace kel
