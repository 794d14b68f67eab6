#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <thread>

namespace kel::test {

/// Opens once; whoever came before waits.
class Gate
{
public:
    void Open() { m_promise.set_value(); }
    void Wait() const { m_open.wait(); }

private:
    std::promise<void> m_promise;
    std::shared_future<void> m_open = m_promise.get_future().share();
};

/// Repeats something in a thread until the end of the scope.
class Repeat
{
public:
    explicit Repeat(const std::function<void()>& step)
        : m_thread([this, step] {
              while (!m_stop) {
                  step();
              }
          })
    {}
    ~Repeat()
    {
        m_stop = true;
        m_thread.join();
    }
    Repeat(const Repeat&) = delete;
    Repeat& operator=(const Repeat&) = delete;

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace kel::test
