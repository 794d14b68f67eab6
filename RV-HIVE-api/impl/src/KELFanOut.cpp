#include "KELFanOut.h"

#include <algorithm>

namespace kel {

namespace {

constexpr int kDefaultTimeout = 25'000; // the D-Bus library's, in milliseconds
constexpr gint64 kMillisecond = 1'000;  // in microseconds

// A call that finds room brings others after it when it ends, so the timer need only get them
// going. Against a bus that stays full it costs 400 refusals a second.
constexpr int kInterval = 20; // milliseconds
constexpr size_t kBatch = 8;

} // namespace

TCDeadline::TCDeadline(int timeout, gint64 now)
    : m_end(timeout == G_MAXINT ? G_MAXINT64
                                : now + (timeout == -1 ? kDefaultTimeout : timeout) * kMillisecond)
{}

int TCDeadline::Left(gint64 now) const
{
    if (m_end == G_MAXINT64) {
        return G_MAXINT;
    }
    return static_cast<int>(std::max<gint64>((m_end - now) / kMillisecond, 1));
}

TCFanOut::TCFanOut(GMainContext* context, int timeout, TStart start)
    : m_pContext(context), m_timeout(timeout), m_pStart(start),
      m_deadline(timeout, g_get_monotonic_time()), m_left(0)
{}

void TCFanOut::Start()
{
    m_refused.reserve(m_calls.size());
    m_left = m_calls.size();
    const auto startAll = [](void* fanOut) -> gboolean {
        static_cast<TCFanOut*>(fanOut)->m_StartAll();
        return G_SOURCE_REMOVE;
    };
    Post(m_pContext, startAll, this);
}

void TCFanOut::Wait()
{
    const TCLock over(m_overMutex);
    while (!m_isOver) {
        m_over.Wait(m_overMutex);
    }
}

void TCFanOut::Ended()
{
    if (--m_left == 0) {
        m_Disarm();
        const TCLock over(m_overMutex); // the sender destroys this once it is free
        m_isOver = true;
        m_over.NotifyAll();
    } else if (!m_refused.empty()) {
        m_Restart();
    }
}

void TCFanOut::Refused(void* call)
{
    m_refused.push_back(call);
    if (m_timer == nullptr) {
        m_Arm();
    }
}

void TCFanOut::m_StartAll()
{
    // No answer is read before this is done: they come through the context, too.
    for (void* call : m_calls) {
        m_pStart(call, m_timeout);
    }
}

void TCFanOut::m_Restart()
{
    void* const call = m_refused.front();
    m_refused.erase(m_refused.begin());
    m_pStart(call, TimeLeft());
}

void TCFanOut::m_Arm()
{
    const auto tick = [](void* fanOut) -> gboolean {
        static_cast<TCFanOut*>(fanOut)->m_LookForRoom();
        return G_SOURCE_REMOVE;
    };
    const int interval = std::min(kInterval, TimeLeft());
    m_timer.reset(g_timeout_source_new(static_cast<unsigned int>(interval)));
    Attach(m_timer.get(), m_pContext, tick, this);
}

void TCFanOut::m_Disarm()
{
    if (m_timer != nullptr) {
        g_source_destroy(m_timer.get());
        m_timer.reset();
    }
}

void TCFanOut::m_LookForRoom()
{
    m_timer.reset();
    // Out of time they all go, to fail.
    for (size_t count = HasTime() ? std::min(kBatch, m_refused.size()) : m_refused.size();
         count != 0; --count) {
        m_Restart();
    }
    if (!m_refused.empty()) {
        m_Arm();
    }
}

} // namespace kel
