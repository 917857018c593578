#include "host/tasks/TaskEngine.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "common/headers/AsyncFrame.h"
#include "host/tasks/BlockingTask.h"
#include "host/tasks/ThreadScheduler.h"

namespace {

// A frame that makes `waits` round trips through other threads.
class Waiter
{
public:
    explicit Waiter(u32 waits) : m_waits(waits) {}

    RcStatus run(AsyncTask* task)
    {
        return run(task,
                   SHIELD_NEW_AS(AsyncFrameCallback<Waiter>, "Waiter", "wait", this, &Waiter::run));
    }
    std::function<RcStatus(AsyncTask*, u32)> m_operation;

private:
    RcStatus run(AsyncTask* task, AsyncFrame* frame)
    {
        FrameGuard fg(task, frame);
        while (fg.loop()) {
            if (fg.getRc() != RC_SUCCESS)
                break;
            const u32 number = static_cast<u32>(fg.getState());
            if (number < m_waits) {
                fg.execute(m_operation(task, number));
                fg.setState(fg.getState() + 1);
            }
        }
        return fg.getRc();
    }

    const u32 m_waits;
};

void complete(AsyncTask* task, RcStatus rc)
{
    AsyncTaskControlPriority::getControl(task->getPriority())
        ->enqueueToReadyQueue(task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL, rc);
}

class TaskEngineTest : public testing::Test
{
protected:
    TaskEngineTest() : m_engine(std::make_unique<ThreadScheduler>(3))
    {
        EXPECT_EQ(m_engine.open(), RC_SUCCESS);
    }
    TaskEngine m_engine;
};

TEST_F(TaskEngineTest, APlainThreadRunsATaskAndGetsItsOutcome)
{
    std::thread::id worker;
    EXPECT_EQ(runAndWait(m_engine,
                         [&](AsyncTask*) {
                             worker = std::this_thread::get_id();
                             return RC_NOT_FOUND;
                         }),
              RC_NOT_FOUND);
    EXPECT_NE(worker, std::this_thread::get_id());
}

TEST_F(TaskEngineTest, TheOutcomeOfAnOperationThatTheBodyWaitsForIsTheTasks)
{
    std::thread completer;
    EXPECT_EQ(runAndWait(m_engine,
                         [&](AsyncTask* task) {
                             task->setResult(42);
                             completer = std::thread([task] { complete(task, RC_NO_SPACE); });
                             return RC_WAIT;
                         }),
              RC_NO_SPACE);
    completer.join();
}

// The operation is complete before the call that answers RC_WAIT has returned: on this very
// thread, and on another one at about the same time.
TEST_F(TaskEngineTest, AnEarlyCompletionIsNeverLost)
{
    constexpr u32 WAITS = 20'000;
    Waiter waiter(WAITS);
    std::atomic<AsyncTask*> handed{nullptr};
    std::atomic<bool> isOver{false};
    std::thread completer([&] {
        while (!isOver) {
            if (AsyncTask* task = handed.exchange(nullptr))
                complete(task, RC_SUCCESS);
            else
                std::this_thread::yield();
        }
    });
    waiter.m_operation = [&](AsyncTask* task, u32 number) {
        if (number % 2 == 0)
            complete(task, RC_SUCCESS);
        else
            handed = task;
        return RC_WAIT;
    };
    EXPECT_EQ(runAndWait(m_engine, [&](AsyncTask* task) { return waiter.run(task); }), RC_SUCCESS);
    isOver = true;
    completer.join();
}

TEST_F(TaskEngineTest, AFutureAndItsDeadlineRaceForManyTasks)
{
    constexpr u32 ROUNDS = 300;
    u32 timedOut = 0;
    for (u32 i = 0; i < ROUNDS; ++i) {
        FutureStatus future;
        struct Operation
        {
            FutureStatus m_future;
            u64 m_deadlineMs;
            RcStatus run(AsyncTask* task, AsyncFrame* frame)
            {
                FrameGuard fg(task, frame);
                while (fg.loop())
                    fg.executeFuture(m_future, m_deadlineMs);
                return fg.getRc();
            }
        } operation{future, Clock::instance()->nowMs() + 1};
        std::thread setter([future, i] {
            std::this_thread::sleep_for(std::chrono::microseconds(600 + i * 2));
            future.set(RC_SUCCESS);
        });
        const RcStatus rc = runAndWait(m_engine, [&](AsyncTask* task) {
            return operation.run(task, SHIELD_NEW(AsyncFrameCallback<Operation>, "operation",
                                                  &operation, &Operation::run));
        });
        ASSERT_TRUE(rc == RC_SUCCESS || rc == RC_TIMED_OUT);
        timedOut += rc == RC_TIMED_OUT;
        setter.join();
    }
    RecordProperty("timed_out", static_cast<int>(timedOut));
}

// Deletes itself at its end.
class CountedTask : public AsyncTask
{
public:
    CountedTask(AsyncTaskPriority priority, std::atomic<u32>& finished)
        : AsyncTask(priority), m_finished(finished)
    {}

protected:
    RcStatus run() override
    {
        complete(this, RC_SUCCESS);
        return RC_WAIT;
    }
    void finished(RcStatus) override
    {
        ++m_finished;
        delete this;
    }

private:
    std::atomic<u32>& m_finished;
};

TEST_F(TaskEngineTest, ManyTasksOfAllPrioritiesFromSeveralThreadsAllFinish)
{
    constexpr u32 TASKS = 2000;
    std::atomic<u32> finished{0};
    const auto play = [&] {
        for (u32 i = 0; i < TASKS; ++i) {
            auto* task = new CountedTask(static_cast<AsyncTaskPriority>(i % 3), finished);
            ASSERT_EQ(m_engine.start(task), RC_SUCCESS);
        }
    };
    std::thread one(play);
    std::thread two(play);
    one.join();
    two.join();
    EXPECT_EQ(m_engine.stop(), RC_SUCCESS);
    EXPECT_EQ(finished, 2 * TASKS);
    EXPECT_EQ(m_engine.liveTasks(), 0u);
}

TEST_F(TaskEngineTest, StopWaitsForTasksThatWaitAndIsBoundedByItsDeadline)
{
    std::atomic<AsyncTask*> waiting{nullptr};
    BlockingTask task([&](AsyncTask* self) {
        waiting = self;
        return RC_WAIT;
    });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    EXPECT_EQ(m_engine.stop(0), RC_TIMED_OUT);
    EXPECT_EQ(m_engine.stop(Clock::instance()->nowMs() + 5), RC_TIMED_OUT);
    EXPECT_EQ(runAndWait(m_engine, [](AsyncTask*) { return RC_SUCCESS; }), RC_SUCCESS);
    while (waiting == nullptr)
        std::this_thread::yield();
    std::thread completer([&] { complete(waiting, RC_ABORTED); });
    EXPECT_EQ(m_engine.stop(), RC_SUCCESS);
    completer.join();
    EXPECT_EQ(task.wait(), RC_ABORTED);
}

TEST_F(TaskEngineTest, AfterStopATaskIsRefusedUntilTheEngineIsOpenAgain)
{
    EXPECT_EQ(m_engine.stop(), RC_SUCCESS);
    EXPECT_EQ(m_engine.stop(), RC_SUCCESS);
    EXPECT_EQ(runAndWait(m_engine, [](AsyncTask*) { return RC_SUCCESS; }), RC_ABORTED);
    EXPECT_EQ(m_engine.open(), RC_SUCCESS);
    EXPECT_EQ(runAndWait(m_engine, [](AsyncTask*) { return RC_SUCCESS; }), RC_SUCCESS);
}

TEST_F(TaskEngineTest, OneEngineIsOpenAtATime)
{
    TaskEngine second(std::make_unique<ThreadScheduler>(1));
    EXPECT_EQ(second.open(), RC_IN_USE);
    EXPECT_EQ(runAndWait(second, [](AsyncTask*) { return RC_SUCCESS; }), RC_ABORTED);
}

TEST_F(TaskEngineTest, ATaskCanBeStartedAgainWhenItHasFinished)
{
    int runs = 0;
    BlockingTask task([&](AsyncTask*) {
        ++runs;
        return RC_SUCCESS;
    });
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
        EXPECT_EQ(task.wait(), RC_SUCCESS);
        // The engine's own last step may still be ahead when the waiter is told.
        m_engine.waitUntil([&] { return m_engine.liveTasks() == 0; });
    }
    EXPECT_EQ(runs, 3);
}

TEST(TaskEngineDeathTest, WaitingForTheEngineInsideATaskStopsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            TaskEngine engine(std::make_unique<ThreadScheduler>(1));
            engine.open();
            runAndWait(engine, [&](AsyncTask*) { return engine.stop(); });
        },
        "Assertion \\(!t_isInTask\\) failed");
}

} // namespace
