#include "appliance/GracePeriod.h"

#include <chrono>
#include <functional>
#include <thread>

std::atomic<u64>& GracePeriod::takeSlot()
{
    thread_local u32 usual =
        static_cast<u32>(std::hash<std::thread::id>()(std::this_thread::get_id()) % SLOTS);
    for (;;) {
        for (u32 i = 0; i < SLOTS; ++i) {
            const u32 index = (usual + i) % SLOTS;
            u64 expected = 0;
            // The order of all these accesses is one for all threads: a remover that does not see
            // this slot taken has removed before this reader looks anything up.
            if (m_slots[index].m_period.compare_exchange_strong(expected, m_period.load())) {
                usual = index;
                return m_slots[index].m_period;
            }
        }
        std::this_thread::yield();
    }
}

bool GracePeriod::wait(u64 deadlineMs)
{
    const u64 next = m_period.fetch_add(1) + 1;
    for (Slot& slot : m_slots) {
        // A reader that comes later may be taken for an early one, which only costs time.
        for (u64 period = slot.m_period.load(); period != 0 && period < next;
             period = slot.m_period.load()) {
            if (deadlineMs != Clock::NEVER && Clock::instance()->nowMs() >= deadlineMs)
                return false;
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
    return true;
}
