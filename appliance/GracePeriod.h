// Lets who takes something away wait for those who may still be reading it.
//
// Readers of the journal that lock nothing look pieces up and then read them. Who removes pieces
// from the indexes, and then the grains behind them, waits in between for every reader that was
// there already: those that come later do not find the pieces any more.
//
// The slots come in blocks; where more read at once than there are slots, a block is added, and
// stays. So a reader waits for another one only where there is no memory for that.
//
// Thread safety: any thread. A reader takes no lock and never waits for a remover.
// Invariants: a slot is 0, or the number of the period in which its reader came.
#pragma once

#include <array>
#include <atomic>

#include "appliance/FlowControl.h"
#include "common/infra/Types.h"
#include "host/infra/Clock.h"

class GracePeriod
{
public:
    GracePeriod() = default;
    // REQUIRES: no reader is left.
    ~GracePeriod();
    GracePeriod(const GracePeriod&) = delete;
    GracePeriod& operator=(const GracePeriod&) = delete;

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

    // The same until control says to stop: a reader may be waiting for a disk that does not answer.
    bool wait(FlowControl& control);

private:
    static constexpr u32 SLOTS = 128; // of a block

    struct alignas(64) Slot
    {
        std::atomic<u64> m_period{0};
    };

    struct Block
    {
        std::array<Slot, SLOTS> m_slots;
        std::atomic<Block*> m_next{nullptr}; // set once
    };

    template <class IsOver> bool waitUnless(IsOver isOver);
    std::atomic<u64>& takeSlot();
    std::atomic<u64>* takeSlotOf(Block& block, u32& usual);
    static Block* blockAfter(Block& block);

    std::atomic<u64> m_period{1};
    Block m_first;
};
