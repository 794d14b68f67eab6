#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/WaitUntil.h"

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

/// Calls a function in a thread of its own, and returns when it sleeps in there.
template <typename Function> auto CallUntilItSleeps(Function function)
{
    const auto thread = std::make_shared<std::promise<pid_t>>();
    auto result = std::async(std::launch::async, [thread, function] {
        thread->set_value(static_cast<pid_t>(syscall(SYS_gettid)));
        return function();
    });
    const std::string stat
        = "/proc/self/task/" + std::to_string(thread->get_future().get()) + "/stat";
    bool asleep = false;
    WaitUntil([&] {
        std::ifstream stream(stat);
        std::string text;
        std::getline(stream, text);
        const size_t name = text.rfind(')');
        asleep = name != std::string::npos && text.compare(name, 3, ") S") == 0;
        return asleep || result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    EXPECT_TRUE(asleep) << "it waits for nobody";
    return result;
}

} // namespace kel::test
