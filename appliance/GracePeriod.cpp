#include "appliance/GracePeriod.h"

#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <thread>

GracePeriod::~GracePeriod()
{
    for (const Block* block = m_first.m_next.load(); block != nullptr;) {
        const std::unique_ptr<const Block> gone(block);
        block = gone->m_next.load();
    }
}

std::atomic<u64>& GracePeriod::takeSlot()
{
    thread_local u32 usual =
        static_cast<u32>(std::hash<std::thread::id>()(std::this_thread::get_id()) % SLOTS);
    for (;;) {
        for (Block* block = &m_first; block != nullptr; block = blockAfter(*block)) {
            if (std::atomic<u64>* slot = takeSlotOf(*block, usual))
                return *slot;
        }
        std::this_thread::yield();
    }
}

// A slot of the block, which is the one to try first the next time; null: all are taken.
std::atomic<u64>* GracePeriod::takeSlotOf(Block& block, u32& usual)
{
    for (u32 i = 0; i < SLOTS; ++i) {
        const u32 index = (usual + i) % SLOTS;
        std::atomic<u64>& slot = block.m_slots[index].m_period;
        u64 expected = 0;
        // The order of all these accesses is one for all threads: a remover that does not see
        // this slot taken has removed before this reader looks anything up.
        if (slot.load(std::memory_order_relaxed) == 0 &&
            slot.compare_exchange_strong(expected, m_period.load())) {
            usual = index;
            return &slot;
        }
    }
    return nullptr;
}

// The next block, which is made where there is none; null: no memory for it.
GracePeriod::Block* GracePeriod::blockAfter(Block& block)
{
    Block* next = block.m_next.load();
    if (next != nullptr)
        return next;
    std::unique_ptr<Block> made(new (std::nothrow) Block);
    // A remover that does not see the block comes before its readers, as with a slot.
    if (made != nullptr && block.m_next.compare_exchange_strong(next, made.get()))
        next = made.release();
    return next;
}

template <class IsOver> bool GracePeriod::waitUnless(IsOver isOver)
{
    const u64 next = m_period.fetch_add(1) + 1;
    for (Block* block = &m_first; block != nullptr; block = block->m_next.load()) {
        for (Slot& slot : block->m_slots) {
            // A reader that comes later may be taken for an early one, which only costs time.
            for (u64 period = slot.m_period.load(); period != 0 && period < next;
                 period = slot.m_period.load()) {
                if (isOver())
                    return false;
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        }
    }
    return true;
}

bool GracePeriod::wait(u64 deadlineMs)
{
    return waitUnless([deadlineMs] {
        return deadlineMs != Clock::NEVER && Clock::instance()->nowMs() >= deadlineMs;
    });
}

bool GracePeriod::wait(FlowControl& control)
{
    return waitUnless([&control] { return control.stopRequested(); });
}
