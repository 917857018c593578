#include "host/infra/Clock.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "common/infra/Semaphore.h"
#include "host/infra/SystemClock.h"
#include "tests/support/ScopedManualClock.h"

TEST(ManualClockTest, StandsStillUntilItIsMoved)
{
    ManualClock clock(5000, 7'000'000);
    EXPECT_EQ(clock.nowMs(), 5000u);
    EXPECT_EQ(clock.wallTimeUs(), 7'000'000u);
    clock.advanceMs(3);
    EXPECT_EQ(clock.nowUs(), 5'003'000u);
    EXPECT_EQ(clock.wallTimeUs(), 7'003'000u);
}

TEST(ManualClockTest, FiresInTheOrderOfDeadlinesAndOfSchedulingAmongEqualOnes)
{
    ManualClock clock(1000);
    std::vector<int> fired;
    clock.schedule(1020, [&] { fired.push_back(3); });
    clock.schedule(1010, [&] { fired.push_back(1); });
    clock.schedule(1010, [&] { fired.push_back(2); });
    clock.advanceMs(9);
    EXPECT_TRUE(fired.empty());
    clock.advanceMs(100);
    EXPECT_EQ(fired, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(clock.nowMs(), 1109u);
}

TEST(ManualClockTest, ATimerSeesItsOwnDeadlineAndMayScheduleIntoTheSameMove)
{
    ManualClock clock(1000);
    std::vector<u64> seen;
    clock.schedule(1010, [&] {
        seen.push_back(clock.nowMs());
        clock.schedule(1015, [&] { seen.push_back(clock.nowMs()); });
        clock.schedule(1500, [&] { seen.push_back(clock.nowMs()); });
    });
    clock.advanceMs(100);
    EXPECT_EQ(seen, (std::vector<u64>{1010, 1015}));
    EXPECT_EQ(clock.nextDeadlineMs(), 1500u);
    EXPECT_TRUE(clock.advanceToNextTimer());
    EXPECT_EQ(seen.back(), 1500u);
    EXPECT_FALSE(clock.advanceToNextTimer());
}

TEST(ManualClockTest, ACancelledTimerNeverFiresAndASecondCancelSaysSo)
{
    ManualClock clock;
    bool fired = false;
    const Clock::TimerId id = clock.schedule(clock.nowMs() + 1, [&] { fired = true; });
    EXPECT_NE(id, Clock::NO_TIMER);
    EXPECT_TRUE(clock.cancel(id));
    EXPECT_FALSE(clock.cancel(id));
    clock.advanceMs(10);
    EXPECT_FALSE(fired);
}

TEST(ManualClockTest, ATimerThatIsBeingCalledCannotBeCancelled)
{
    ManualClock clock;
    Clock::TimerId id = Clock::NO_TIMER;
    bool cancelled = true;
    id = clock.schedule(0, [&] { cancelled = clock.cancel(id); });
    clock.advanceMs(0);
    EXPECT_FALSE(cancelled);
}

TEST(ManualClockTest, ATimerWithoutLimitNeverFires)
{
    ManualClock clock;
    bool fired = false;
    const Clock::TimerId id = clock.schedule(Clock::NEVER, [&] { fired = true; });
    clock.advanceMs(u64{1} << 50);
    EXPECT_FALSE(fired);
    EXPECT_TRUE(clock.cancel(id));
}

TEST(ClockTest, TheNamedClockIsTheProcesssUntilTheSystemsComesBack)
{
    ManualClock manual;
    Clock* before = Clock::setInstance(&manual);
    EXPECT_EQ(Clock::instance(), &manual);
    EXPECT_EQ(Clock::setInstance(nullptr), &manual);
    EXPECT_EQ(Clock::instance(), SystemClock::systemInstance());
    Clock::setInstance(before);
}

TEST(ClockTest, ZeroIsAlwaysDueAndNeverIsNot)
{
    ScopedManualClock clock;
    EXPECT_TRUE(Clock::isDue(0));
    EXPECT_TRUE(Clock::isDue(clock.nowMs()));
    EXPECT_FALSE(Clock::isDue(clock.nowMs() + 1));
    EXPECT_FALSE(Clock::isDue(Clock::NEVER));
}

TEST(SystemClockTest, CallsATimerNotBeforeItsDeadline)
{
    SystemClock clock;
    Semaphore called;
    const u64 deadlineMs = clock.nowMs() + 20;
    u64 calledMs = 0;
    clock.schedule(deadlineMs, [&] {
        calledMs = clock.nowMs();
        called.post();
    });
    called.wait();
    EXPECT_GE(calledMs, deadlineMs);
}

TEST(SystemClockTest, AnEarlierTimerOvertakesTheOneThatIsSleptFor)
{
    SystemClock clock;
    Semaphore called;
    clock.schedule(clock.nowMs() + 3'600'000, [] {});
    clock.schedule(clock.nowMs() + 1, [&] { called.post(); });
    called.wait();
}

TEST(SystemClockTest, TimersSurviveAShutdownAndAreServedAfterTheNextSchedule)
{
    SystemClock clock;
    Semaphore called;
    const Clock::TimerId far = clock.schedule(clock.nowMs() + 3'600'000, [] {});
    clock.shutdown();
    clock.shutdown();
    EXPECT_TRUE(clock.cancel(far));
    clock.schedule(0, [&] { called.post(); });
    called.wait();
}

TEST(SystemClockTest, EveryTimerIsEitherCalledOrCancelledWithManyThreads)
{
    SystemClock clock;
    std::atomic<u32> called{0};
    std::atomic<u32> cancelled{0};
    constexpr u32 TIMERS = 500;
    const auto play = [&] {
        for (u32 i = 0; i < TIMERS; ++i) {
            const Clock::TimerId id = clock.schedule(clock.nowMs() + i % 2, [&] { ++called; });
            if (i % 3 == 0 && clock.cancel(id))
                ++cancelled;
        }
    };
    std::thread one(play);
    std::thread two(play);
    one.join();
    two.join();
    Semaphore last;
    clock.schedule(clock.nowMs() + 10, [&] { last.post(); });
    last.wait();
    EXPECT_EQ(called + cancelled, 2 * TIMERS);
}
