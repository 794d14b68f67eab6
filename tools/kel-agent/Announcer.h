#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <kel/ICallbacks.h>

#include "Applications.h"

namespace kel {
namespace agent {

/// Sends the agent's events to all applications, from a thread of its own: a send lasts as long as
/// the slowest application, and the agent has to go on answering meanwhile.
///
/// Threads: Open() and Request() from any thread; the rest on the thread that made it.
class TCAnnouncer
{
public:
    /// @param applications  outlive this object.
    explicit TCAnnouncer(TCApplications& applications);
    ~TCAnnouncer();
    TCAnnouncer(const TCAnnouncer&) = delete;
    TCAnnouncer& operator=(const TCAnnouncer&) = delete;

    /// Lets the events out, once the server is ready.
    void Open();

    /// Has an event sent, behind those that wait.
    /// One that waits already is not sent twice: it will tell of both causes.
    void Request(ICallbacks::ECallbackType event);

    /// Drops what waits, and returns when no send is under way: at most a send's time-out later.
    void Stop();

private:
    void m_Run();

    TCApplications& m_applications;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // All guarded by m_mutex.
    std::deque<ICallbacks::ECallbackType> m_waiting;
    bool m_open;
    bool m_stopped;

    std::thread m_thread; // last, because it uses the others
};

} // namespace agent
} // namespace kel
