#include "host/infra/Clock.h"

#include <atomic>

#include "host/infra/SystemClock.h"

namespace {
std::atomic<Clock*> s_named{nullptr};
} // namespace

Clock* Clock::instance()
{
    Clock* named = s_named.load(std::memory_order_acquire);
    return named != nullptr ? named : SystemClock::systemInstance();
}

Clock* Clock::setInstance(Clock* clock)
{
    Clock* before = s_named.exchange(clock, std::memory_order_acq_rel);
    return before != nullptr ? before : SystemClock::systemInstance();
}
