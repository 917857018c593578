#include "host/tasks/SeededScheduler.h"

#include <gtest/gtest.h>
#include <set>
#include <thread>

#include "common/headers/AsyncFrame.h"
#include "host/tasks/BlockingTask.h"
#include "tests/support/ScopedManualClock.h"

namespace {

// A small world: tasks that wait for random times on a manual clock and note who ran when. The last
// number tells whether the two runs drew equally often.
std::vector<u64> history(u64 seed)
{
    ScopedManualClock clock;
    auto owned = std::make_unique<SeededScheduler>(seed);
    SeededScheduler& scheduler = *owned;
    scheduler.setIdleHook([&] { return clock.advanceToNextTimer(); });
    TaskEngine engine(std::move(owned));
    EXPECT_EQ(engine.open(), RC_SUCCESS);

    std::vector<u64> notes;
    struct Sleeper
    {
        u64 m_id;
        std::vector<u64>& m_notes;
        SeededScheduler& m_scheduler;
        FutureStatus m_never;
        RcStatus run(AsyncTask* task, AsyncFrame* frame)
        {
            FrameGuard fg(task, frame);
            while (fg.loop()) {
                m_notes.push_back(m_id * 1000 + static_cast<u64>(fg.getState()));
                m_notes.push_back(Clock::instance()->nowMs());
                if (fg.getState() < 5) {
                    fg.executeFuture(m_never, Clock::instance()->nowMs() + m_scheduler.draw() % 4);
                    fg.setState(fg.getState() + 1);
                }
            }
            return fg.getRc();
        }
    };
    std::vector<std::unique_ptr<Sleeper>> sleepers;
    std::vector<std::unique_ptr<BlockingTask>> tasks;
    for (u64 id = 0; id < 10; ++id) {
        sleepers.push_back(std::make_unique<Sleeper>(Sleeper{id, notes, scheduler, {}}));
        Sleeper* sleeper = sleepers.back().get();
        tasks.push_back(std::make_unique<BlockingTask>([sleeper](AsyncTask* task) {
            return sleeper->run(
                task, SHIELD_NEW(AsyncFrameCallback<Sleeper>, "sleep", sleeper, &Sleeper::run));
        }));
        EXPECT_EQ(tasks.back()->start(engine), RC_SUCCESS);
    }
    EXPECT_EQ(engine.stop(), RC_SUCCESS);
    for (const auto& sleeper : sleepers)
        sleeper->m_never.set(RC_SUCCESS); // frees what still observes it
    notes.push_back(scheduler.draw());
    return notes;
}

TEST(SeededSchedulerTest, OneSeedIsOneHistoryAndAnotherSeedAnother)
{
    const std::vector<u64> first = history(1);
    EXPECT_EQ(first.size(), 10u * 6 * 2 + 1);
    EXPECT_EQ(first, history(1));
    EXPECT_NE(first, history(2));
}

TEST(SeededSchedulerTest, EveryOrderOfThreeTasksComes)
{
    std::set<std::vector<int>> orders;
    for (u64 seed = 0; seed < 100; ++seed) {
        auto owned = std::make_unique<SeededScheduler>(seed);
        SeededScheduler& scheduler = *owned;
        TaskEngine engine(std::move(owned));
        ASSERT_EQ(engine.open(), RC_SUCCESS);
        std::vector<int> order;
        const auto note = [&order](int id) {
            return [&order, id](AsyncTask*) {
                order.push_back(id);
                return RC_SUCCESS;
            };
        };
        BlockingTask one(note(1));
        BlockingTask two(note(2), AsyncTaskPriority::Lowest);
        BlockingTask three(note(3));
        for (BlockingTask* task : {&one, &two, &three})
            ASSERT_EQ(task->start(engine), RC_SUCCESS);
        EXPECT_EQ(scheduler.runUntilIdle(), 3u);
        orders.insert(order);
        ASSERT_EQ(engine.stop(0), RC_SUCCESS);
    }
    EXPECT_EQ(orders.size(), 6u);
}

TEST(SeededSchedulerTest, AWaitThatNothingHereCanEndSleepsForOtherThreads)
{
    TaskEngine engine(std::make_unique<SeededScheduler>(1));
    ASSERT_EQ(engine.open(), RC_SUCCESS);
    std::thread completer;
    EXPECT_EQ(runAndWait(engine,
                         [&](AsyncTask* task) {
                             completer = std::thread([task] {
                                 AsyncTaskControlPriority::getControl(AsyncTaskPriority::Normal)
                                     ->enqueueToReadyQueue(
                                         task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL,
                                         RC_IN_USE);
                             });
                             return RC_WAIT;
                         }),
              RC_IN_USE);
    EXPECT_EQ(engine.stop(), RC_SUCCESS);
    completer.join();
}

TEST(SeededSchedulerTest, WaitUntilEndsAtTheDeadline)
{
    ScopedManualClock clock;
    SeededScheduler scheduler(1);
    scheduler.setIdleHook([&] {
        clock.advanceMs(1);
        return true;
    });
    EXPECT_FALSE(scheduler.waitUntil([] { return false; }, clock.nowMs() + 5));
    EXPECT_TRUE(scheduler.waitUntil([] { return true; }, 0));
}

} // namespace
