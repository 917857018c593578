// Timers where the heap gives nothing.

#include <atomic>
#include <gtest/gtest.h>

#include "common/infra/Semaphore.h"
#include "host/infra/SystemClock.h"
#include "tests/support/FailingHeap.h"

namespace {

// The first timer of a clock needs a thread besides its place.
TEST(ClockNoMemoryTest, ATimerThatWasRefusedNeverComes)
{
    if (!HEAP_CAN_FAIL)
        GTEST_SKIP() << "the sanitizer's allocator does not fail";
    bool failed = true;
    for (u64 nth = 1; failed; ++nth) {
        ASSERT_LT(nth, 100u);
        SystemClock clock;
        std::atomic<u32> calls{0};
        const std::function<void()> call = [&calls] { ++calls; };
        {
            std::function<void()> copy = call;
            FailingHeap heap(nth);
            try {
                clock.schedule(clock.nowMs(), std::move(copy));
            } catch (const std::bad_alloc&) {
            }
            failed = heap.failed();
        }
        // This one is called after every other one that is due.
        Semaphore last(0);
        clock.schedule(clock.nowMs(), [&last] { last.post(); });
        last.wait();
        EXPECT_EQ(calls, failed ? 0u : 1u) << nth;
    }
}

} // namespace
