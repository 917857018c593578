// Lets who takes something away wait for those who may still be reading it.
//
// Readers of the journal that lock nothing look pieces up and then read them. Who removes pieces
// from the indexes, and then the grains behind them, waits in between for every reader that was
// there already: those that come later do not find the pieces any more.
//
// Thread safety: any thread. A reader takes no lock and never waits for a remover; it waits for
// others only when more than SLOTS threads read at once.
// Invariants: a slot is 0, or the number of the period in which its reader came.
#pragma once

#include <array>
#include <atomic>

#include "common/infra/Types.h"
#include "host/infra/Clock.h"

class GracePeriod
{
public:
    // One reader, for the length of a scope.
    class Reader
    {
    public:
        explicit Reader(GracePeriod& period) : m_slot(period.takeSlot()) {}
        ~Reader() { m_slot.store(0, std::memory_order_release); }
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

    private:
        std::atomic<u64>& m_slot;
    };

    // Waits until every reader that was there at the call has gone, or until the deadline (absolute
    // monotonic milliseconds); returns whether they have. Not by a reader.
    bool wait(u64 deadlineMs = Clock::NEVER);

private:
    std::atomic<u64>& takeSlot();

    static constexpr u32 SLOTS = 128;

    struct alignas(64) Slot
    {
        std::atomic<u64> m_period{0};
    };

    std::atomic<u64> m_period{1};
    std::array<Slot, SLOTS> m_slots;
};
