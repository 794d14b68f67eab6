#pragma once

#include <functional>
#include <thread>

typedef struct _GMainLoop GMainLoop;

namespace kel::test {

/// What a host program does for the library: runs the default main context, in a thread of its
/// own, so that a test body can be plain blocking code.
class HostLoop
{
public:
    HostLoop();
    ~HostLoop();
    HostLoop(const HostLoop&) = delete;
    HostLoop& operator=(const HostLoop&) = delete;

    /// Runs a function on the loop's thread, and waits for its end.
    void Run(const std::function<void()>& function);

    /// Waits until the loop has nothing left to do.
    void Settle();

    std::thread::id ThreadId() const { return m_thread.get_id(); }

private:
    void m_Run(int priority, const std::function<void()>& function);

    GMainLoop* m_pLoop; // one reference, released by the destructor
    std::thread m_thread;
};

/// Runs a function once on the thread that iterates the default main context, without waiting.
void PostToHostLoop(std::function<void()> function);

} // namespace kel::test
