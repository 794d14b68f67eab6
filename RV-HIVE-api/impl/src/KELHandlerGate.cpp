#include "KELHandlerGate.h"

#include <map>

namespace kel {

struct TSHandlerGate
{
    // One start of one end.
    struct TSPlace
    {
        TCDbus* m_pEnd;        // null once the gate has closed
        unsigned int m_inside; // how many handlers, on all threads
    };

    TCMutex m_mutex;
    TCCondition m_left; // signalled whenever a handler leaves

    TTicket m_lastTicket KEL_GUARDED_BY(m_mutex) = 0;
    std::map<TTicket, TSPlace> m_places KEL_GUARDED_BY(m_mutex);
};

TSHandlerGate* MakeHandlerGate() { return new TSHandlerGate; }

namespace {

thread_local TCHandlerStay* innermostStay = nullptr;
thread_local TCCallbackHold* innermostHold = nullptr;

TTicket FindTicket(const TCDbus& end) KEL_REQUIRES(handlerGate->m_mutex)
{
    for (const auto& [ticket, place] : handlerGate->m_places) {
        if (place.m_pEnd == &end) {
            return ticket;
        }
    }
    return 0;
}

// Turns away whoever comes with the ticket. The place stays as long as somebody is inside.
void Close(TTicket ticket) KEL_REQUIRES(handlerGate->m_mutex)
{
    const auto place = handlerGate->m_places.find(ticket);
    if (place == handlerGate->m_places.end()) {
        return;
    }
    if (place->second.m_inside == 0) {
        handlerGate->m_places.erase(place);
    } else {
        place->second.m_pEnd = nullptr;
    }
}

unsigned int CountInside(TTicket ticket) KEL_REQUIRES(handlerGate->m_mutex)
{
    const auto place = handlerGate->m_places.find(ticket);
    return place == handlerGate->m_places.end() ? 0 : place->second.m_inside;
}

} // namespace

TTicket OpenGate(TCDbus& end)
{
    const TCLock gate(handlerGate->m_mutex);
    Close(FindTicket(end)); // of an end that was there before and has gone without closing its gate
    const TTicket ticket = ++handlerGate->m_lastTicket;
    handlerGate->m_places[ticket] = {&end, 0};
    return ticket;
}

TTicket TicketOf(const TCDbus& end)
{
    const TCLock gate(handlerGate->m_mutex);
    return FindTicket(end);
}

void CloseGate(const TCDbus& end)
{
    for (TCCallbackHold* hold = innermostHold; hold != nullptr; hold = hold->m_pOuter) {
        if (&hold->m_end == &end) {
            hold->m_ended = true;
        }
    }

    const TCLock gate(handlerGate->m_mutex);
    const TTicket ticket = FindTicket(end);
    Close(ticket);

    unsigned int own = 0;
    for (const TCHandlerStay* stay = innermostStay; stay != nullptr; stay = stay->m_pOuter) {
        own += stay->m_ticket == ticket ? 1 : 0;
    }
    while (CountInside(ticket) != own) {
        handlerGate->m_left.Wait(handlerGate->m_mutex);
    }
}

TCHandlerStay::TCHandlerStay(void* ticket)
    : m_ticket(reinterpret_cast<TTicket>(ticket)), m_pEnd(nullptr), m_pOuter(innermostStay)
{
    const TCLock gate(handlerGate->m_mutex);
    const auto place = handlerGate->m_places.find(m_ticket);
    if (place != handlerGate->m_places.end() && place->second.m_pEnd != nullptr) {
        m_pEnd = place->second.m_pEnd;
        ++place->second.m_inside;
        innermostStay = this;
    }
}

TCHandlerStay::~TCHandlerStay()
{
    if (m_pEnd == nullptr) {
        return;
    }
    innermostStay = m_pOuter;

    const TCLock gate(handlerGate->m_mutex);
    const auto place = handlerGate->m_places.find(m_ticket);
    if (--place->second.m_inside == 0 && place->second.m_pEnd == nullptr) {
        handlerGate->m_places.erase(place);
    }
    handlerGate->m_left.NotifyAll();
}

TCCallbackHold::TCCallbackHold(const TCDbus& end, TCSharedMutex& mutex,
                               bool& ended) KEL_NO_THREAD_SAFETY_ANALYSIS
    : m_end(end),
      m_mutex(mutex),
      m_locked(!IsHeldHere(end)),
      m_ended(ended),
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
