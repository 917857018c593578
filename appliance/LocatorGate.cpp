#include "appliance/LocatorGate.h"

#include <algorithm>
#include <optional>

std::atomic<u64> LocatorGate::s_waits{0};

LocatorGate::~LocatorGate()
{
    MutexGuard guard(m_mutex);
    HARD_CHECK(m_entered == nullptr && m_holding == 0 && m_queue.empty());
}

LocatorGate::Ticket* LocatorGate::admitLocked()
{
    if (m_entered != nullptr || m_queue.empty())
        return nullptr;
    Ticket* next = m_queue.front();
    if (next->m_kind == Kind::Alone && m_holding > 0)
        return nullptr;
    m_queue.pop_front();
    next->m_state = Ticket::State::Entered;
    m_entered = next;
    return next;
}

// Futures are set after the mutex is released, on copies of the handles: an observer may start the
// request's next step right there, and that step calls the gate again, or ends the ticket.

FutureStatus LocatorGate::enter(Ticket* ticket, Kind kind)
{
    FutureStatus own;
    std::optional<FutureStatus> admitted;
    {
        MutexGuard guard(m_mutex);
        HARD_CHECK(ticket->m_state == Ticket::State::Idle);
        ticket->m_kind = kind;
        ticket->m_state = Ticket::State::Queued;
        ticket->m_future = own;
        m_queue.push_back(ticket);
        if (const Ticket* next = admitLocked())
            admitted = next->m_future;
        if (ticket->m_state == Ticket::State::Queued)
            s_waits.fetch_add(1, std::memory_order_relaxed);
    }
    if (admitted)
        admitted->set(RC_SUCCESS);
    return own;
}

void LocatorGate::settled(Ticket* ticket)
{
    std::optional<FutureStatus> admitted;
    {
        MutexGuard guard(m_mutex);
        HARD_CHECK(m_entered == ticket && ticket->m_kind == Kind::Locker);
        m_entered = nullptr;
        ticket->m_state = Ticket::State::Holding;
        ++m_holding;
        if (const Ticket* next = admitLocked())
            admitted = next->m_future;
    }
    if (admitted)
        admitted->set(RC_SUCCESS);
}

void LocatorGate::leave(Ticket* ticket)
{
    std::optional<FutureStatus> admitted;
    std::optional<FutureStatus> refused;
    {
        MutexGuard guard(m_mutex);
        switch (ticket->m_state) {
        case Ticket::State::Idle: return;
        case Ticket::State::Queued:
            m_queue.erase(std::find(m_queue.begin(), m_queue.end(), ticket));
            refused = ticket->m_future;
            break;
        case Ticket::State::Refused: break;
        case Ticket::State::Entered: m_entered = nullptr; break;
        case Ticket::State::Holding: --m_holding; break;
        }
        ticket->m_state = Ticket::State::Idle;
        if (const Ticket* next = admitLocked())
            admitted = next->m_future;
    }
    if (refused)
        refused->set(RC_ABORTED);
    if (admitted)
        admitted->set(RC_SUCCESS);
}

void LocatorGate::cancel(Ticket* ticket)
{
    std::optional<FutureStatus> refused;
    std::optional<FutureStatus> admitted;
    {
        MutexGuard guard(m_mutex);
        if (ticket->m_state != Ticket::State::Queued)
            return;
        m_queue.erase(std::find(m_queue.begin(), m_queue.end(), ticket));
        ticket->m_state = Ticket::State::Refused;
        refused = ticket->m_future;
        // It may have been an "alone" that held back lockers behind it.
        if (const Ticket* next = admitLocked())
            admitted = next->m_future;
    }
    refused->set(RC_ABORTED);
    if (admitted)
        admitted->set(RC_SUCCESS);
}

u64 LocatorGate::queued() const
{
    MutexGuard guard(m_mutex);
    return m_queue.size();
}

u64 LocatorGate::holding() const
{
    MutexGuard guard(m_mutex);
    return m_holding;
}
