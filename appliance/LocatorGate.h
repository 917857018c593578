// The gate in front of a locator that concurrent requests share.
//
// A locator parks one waiter and stops the process over a second one, and it wakes that waiter only
// when nothing at all is locked any more. So one request at a time may be in the position to park:
// it enters, asks the locator for its locks, and says that it is settled as soon as it has them,
// at once or after having been parked. Until then all others queue here, in order; those who hold
// locks meanwhile finish, and no new ones come, so that the parked one cannot starve.
//
//   entered: state        next locker        next "alone"
//   nobody                enters             enters when no locks are held, else queues
//   somebody              queues             queues
//
// A request that changes the locator (feeds or removes) enters alone: nothing is locked while it is
// inside, which is what insertion and removal need.
//
// Thread safety: every operation from any thread. One thread at a time uses a ticket, but cancel()
// may come from any.
// Invariants: 1. at most one ticket is entered; 2. a ticket entered alone excludes holders;
//             3. nobody overtakes; 4. a ticket's future is set exactly once for each enter().
#pragma once

#include <atomic>
#include <deque>

#include "common/infra/Future.h"
#include "common/infra/Mutex.h"

class LocatorGate
{
public:
    enum class Kind
    {
        Locker, // will ask for locks, and may be parked
        Alone,  // needs that nothing is locked
    };

    // One request's place. Owned by the requester; idle before enter() and after leave().
    class Ticket
    {
    public:
        Ticket() = default;
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

    private:
        friend class LocatorGate;
        enum class State
        {
            Idle,
            Queued,
            Refused, // cancelled while it queued
            Entered,
            Holding,
        };
        State m_state = State::Idle;
        Kind m_kind = Kind::Locker;
        FutureStatus m_future;
    };

    LocatorGate() = default;
    // REQUIRES: every ticket is idle.
    ~LocatorGate();
    LocatorGate(const LocatorGate&) = delete;
    LocatorGate& operator=(const LocatorGate&) = delete;

    // Takes a place. The future is set to RC_SUCCESS when the request is inside, at once where
    // nobody is in the way, or to RC_ABORTED by cancel(). A deadline is the waiter's: who stops
    // waiting for the future calls leave(). REQUIRES: the ticket is idle.
    FutureStatus enter(Ticket* ticket, Kind kind);

    // The locker has its locks: the next one may come. REQUIRES: it is inside as a locker.
    void settled(Ticket* ticket);

    // Ends the request wherever it stands: in the queue, refused, inside, or holding locks (which
    // it has given back to the locator before). Always to be called once after enter(); an idle
    // ticket is left as it is.
    void leave(Ticket* ticket);

    // Ends the waiting of a ticket that queues; one that is inside already stays. Its owner still
    // calls leave().
    void cancel(Ticket* ticket);

    // For reports: how many queue, and how many hold locks.
    u64 queued() const;
    u64 holding() const;

    // How often a request had to queue, at any gate of the process.
    static u64 waits() { return s_waits.load(std::memory_order_relaxed); }

private:
    // Lets in whoever may come next; returns it, for its future to be set without the lock, or
    // null.
    Ticket* admitLocked() RL_REQUIRES(m_mutex);

    static std::atomic<u64> s_waits;

    mutable Mutex m_mutex;
    Ticket* m_entered RL_GUARDED_BY(m_mutex) = nullptr;
    u64 m_holding RL_GUARDED_BY(m_mutex) = 0;
    std::deque<Ticket*> m_queue RL_GUARDED_BY(m_mutex);
};
