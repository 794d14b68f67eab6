#include "Announcer.h"

#include <algorithm>
#include <cstdio>

namespace kel {
namespace agent {

namespace {

constexpr int kAnswerTimeout = 5000; // milliseconds

const char* Name(ICallbacks::ECallbackType event)
{
    return event == ICallbacks::POLICY_UPDATE ? "policy update" : "process information";
}

} // namespace

TCAnnouncer::TCAnnouncer(IDbusServer& server)
    : m_server(server), m_open(false), m_stopped(false), m_thread(&TCAnnouncer::m_Run, this)
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
        m_Send(event);
        lock.lock();
    }
}

void TCAnnouncer::m_Send(ICallbacks::ECallbackType event)
{
    const auto [handled, failed] = m_server.SendMessage(event, {}, kAnswerTimeout);
    std::fprintf(stderr, "kel-agent: %s: %zu handled, %zu not\n", Name(event), handled, failed);
}

} // namespace agent
} // namespace kel
