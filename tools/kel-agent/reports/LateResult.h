#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <utility>

namespace kel {
namespace agent {

/// The result of work that may take long: it is done on a thread of its own, once at a time, and
/// whoever wants the result waits for a while, and then goes on without.
///
/// Nothing waits for the work at the end of this object: it may use what is there for good, or
/// WaitForEnd() or Drop() comes before.
///
/// Threads: one at a time.
template <typename Result> class TCLateResult
{
public:
    typedef std::chrono::steady_clock TClock;

    /// Begins, unless the work is still under way, or has a result that nobody has taken.
    ///
    /// @param notify  called when there is a result: on the other thread, and perhaps after the end
    ///                of this object.
    void Begin(
        std::function<Result()> work, std::function<void()> notify = [] {})
    {
        if (m_result.valid()) {
            return;
        }
        std::packaged_task<Result()> task(std::move(work));
        std::future<Result> result = task.get_future();
        std::thread(
            [](std::packaged_task<Result()> run, const std::function<void()>& tell) {
                run();
                tell();
            },
            std::move(task), std::move(notify))
            .detach();
        m_result = std::move(result);
        m_begun = TClock::now();
    }

    /// The result, once; nothing when there is none until so long after the begin of the work.
    std::optional<Result> Take(TClock::duration patience)
    {
        if (!m_result.valid() || !WaitForEnd(m_begun + patience)) {
            return std::nullopt;
        }
        return m_result.get();
    }

    /// Waits until no work is under way, or until a time. True when none is.
    bool WaitForEnd(TClock::time_point end) const
    {
        return !m_result.valid() || m_result.wait_until(end) == std::future_status::ready;
    }

    /// Waits until no work is under way. What has become of it is nobody's any more.
    void Drop()
    {
        if (m_result.valid()) {
            m_result.wait();
            m_result = {};
        }
    }

    /// Whether there is neither work under way nor a result that nobody has taken.
    bool IsTaken() const { return !m_result.valid(); }

private:
    std::future<Result> m_result; // none, or of work that has begun
    TClock::time_point m_begun;
};

} // namespace agent
} // namespace kel
