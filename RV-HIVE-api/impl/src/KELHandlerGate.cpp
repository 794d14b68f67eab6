#include "KELHandlerGate.h"

#include <condition_variable>
#include <map>
#include <mutex>

namespace kel {

struct TSHandlerGate
{
    std::mutex m_mutex;
    std::condition_variable m_left; // signalled whenever a handler leaves

    // All guarded by m_mutex.
    TTicket m_lastTicket = 0;
    std::map<TTicket, TCDbus*> m_open;
    std::map<TTicket, unsigned int> m_inside; // how many handlers, on all threads
};

TSHandlerGate* MakeHandlerGate() { return new TSHandlerGate; }

namespace {

thread_local TCHandlerStay* innermostStay = nullptr;
thread_local TCCallbackHold* innermostHold = nullptr;

TTicket FindTicket(const TCDbus& end)
{
    for (const auto& [ticket, pEnd] : handlerGate->m_open) {
        if (pEnd == &end) {
            return ticket;
        }
    }
    return 0;
}

} // namespace

TTicket OpenGate(TCDbus& end)
{
    const std::lock_guard<std::mutex> gate(handlerGate->m_mutex);
    // Of an end that was there before and has gone without closing its gate.
    handlerGate->m_open.erase(FindTicket(end));
    const TTicket ticket = ++handlerGate->m_lastTicket;
    handlerGate->m_open[ticket] = &end;
    return ticket;
}

TTicket TicketOf(const TCDbus& end)
{
    const std::lock_guard<std::mutex> gate(handlerGate->m_mutex);
    return FindTicket(end);
}

void CloseGate(const TCDbus& end)
{
    for (TCCallbackHold* hold = innermostHold; hold != nullptr; hold = hold->m_pOuter) {
        if (&hold->m_end == &end) {
            hold->m_ended = true;
        }
    }

    std::unique_lock<std::mutex> gate(handlerGate->m_mutex);
    const TTicket ticket = FindTicket(end);
    handlerGate->m_open.erase(ticket);

    unsigned int own = 0;
    for (const TCHandlerStay* stay = innermostStay; stay != nullptr; stay = stay->m_pOuter) {
        own += stay->m_ticket == ticket ? 1 : 0;
    }
    handlerGate->m_left.wait(gate, [ticket, own] {
        const auto inside = handlerGate->m_inside.find(ticket);
        return inside == handlerGate->m_inside.end() || inside->second == own;
    });
}

TCHandlerStay::TCHandlerStay(void* ticket)
    : m_ticket(reinterpret_cast<TTicket>(ticket)), m_pEnd(nullptr), m_pOuter(innermostStay)
{
    const std::lock_guard<std::mutex> gate(handlerGate->m_mutex);
    const auto open = handlerGate->m_open.find(m_ticket);
    if (open != handlerGate->m_open.end()) {
        m_pEnd = open->second;
        ++handlerGate->m_inside[m_ticket];
        innermostStay = this;
    }
}

TCHandlerStay::~TCHandlerStay()
{
    if (m_pEnd == nullptr) {
        return;
    }
    innermostStay = m_pOuter;

    const std::lock_guard<std::mutex> gate(handlerGate->m_mutex);
    const auto inside = handlerGate->m_inside.find(m_ticket);
    if (--inside->second == 0) {
        handlerGate->m_inside.erase(inside);
    }
    handlerGate->m_left.notify_all();
}

TCCallbackHold::TCCallbackHold(const TCDbus& end,
                               TCSharedMutex& mutex) KEL_NO_THREAD_SAFETY_ANALYSIS
    : m_end(end),
      m_mutex(mutex),
      m_locked(!IsHeldHere(end)),
      m_ended(false),
      m_pOuter(innermostHold)
{
    if (m_locked) {
        m_mutex.lock_shared();
    }
    innermostHold = this;
}

TCCallbackHold::~TCCallbackHold() KEL_NO_THREAD_SAFETY_ANALYSIS
{
    innermostHold = m_pOuter;
    if (m_locked && !m_ended) {
        m_mutex.unlock_shared();
    }
}

bool TCCallbackHold::IsHeldHere(const TCDbus& end)
{
    for (const TCCallbackHold* hold = innermostHold; hold != nullptr; hold = hold->m_pOuter) {
        if (&hold->m_end == &end && !hold->m_ended) {
            return true;
        }
    }
    return false;
}

} // namespace kel
