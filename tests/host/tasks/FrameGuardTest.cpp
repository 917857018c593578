// Frames under a scheduler of one thread, so that each step of the history is seen.
#include <functional>
#include <gtest/gtest.h>

#include "common/headers/AsyncFrame.h"
#include "host/tasks/BlockingTask.h"
#include "host/tasks/SeededScheduler.h"
#include "tests/support/ScopedManualClock.h"

namespace {

AsyncTaskControl* control()
{
    return AsyncTaskControlPriority::getControl(AsyncTaskPriority::Normal);
}

// A frame whose steps are a function of the test's; notes its own end.
class TestFrame : public AsyncFrame
{
public:
    using Steps = std::function<RcStatus(AsyncTask*, AsyncFrame*)>;

    TestFrame(Steps steps, int* alive)
        : AsyncFrame("test"), m_steps(std::move(steps)), m_alive(alive)
    {
        ++*m_alive;
    }
    ~TestFrame() override { --*m_alive; }

    RcStatus callback(AsyncTask* task) override
    {
        // The guard deletes the frame, and the function with it, before the function has returned.
        const Steps steps = m_steps;
        return steps(task, this);
    }

private:
    Steps m_steps;
    int* m_alive;
};

struct Locals : public FrameLocals
{
    explicit Locals(int* alive) : m_alive(alive) { ++*m_alive; }
    ~Locals() override { --*m_alive; }
    int* m_alive;
};

class FrameGuardTest : public testing::Test
{
protected:
    FrameGuardTest()
        : m_engine(std::make_unique<SeededScheduler>(1)),
          m_scheduler(static_cast<SeededScheduler&>(m_engine.getScheduler()))
    {
        EXPECT_EQ(m_engine.open(), RC_SUCCESS);
    }
    void TearDown() override
    {
        EXPECT_EQ(m_alive, 0);
        EXPECT_EQ(m_engine.stop(0), RC_SUCCESS);
    }

    RcStatus startFrame(AsyncTask* task, TestFrame::Steps steps)
    {
        AsyncFrame* frame = SHIELD_NEW(TestFrame, std::move(steps), &m_alive);
        return frame->callback(task);
    }

    // Runs a task whose body is one frame.
    RcStatus runSteps(TestFrame::Steps steps)
    {
        return runAndWait(m_engine, [&](AsyncTask* task) { return startFrame(task, steps); });
    }

    void wake(AsyncTask* task, RcStatus rc)
    {
        control()->enqueueToReadyQueue(task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL, rc);
    }

    ScopedManualClock m_clock;
    TaskEngine m_engine;
    SeededScheduler& m_scheduler;
    int m_alive = 0;
};

TEST_F(FrameGuardTest, AFrameWithoutANextStateRunsOneStep)
{
    int steps = 0;
    EXPECT_EQ(runSteps([&](AsyncTask* task, AsyncFrame* frame) {
                  FrameGuard fg(task, frame);
                  while (fg.loop()) {
                      EXPECT_EQ(fg.getState(), 0);
                      EXPECT_EQ(fg.getRc(), RC_SUCCESS);
                      ++steps;
                  }
                  return fg.getRc();
              }),
              RC_SUCCESS);
    EXPECT_EQ(steps, 1);
}

TEST_F(FrameGuardTest, StatesFollowEachOtherInOneRunWhileNothingWaits)
{
    std::vector<int> states;
    EXPECT_EQ(runSteps([&](AsyncTask* task, AsyncFrame* frame) {
                  FrameGuard fg(task, frame);
                  while (fg.loop()) {
                      states.push_back(fg.getState());
                      switch (fg.getState()) {
                      case 0:
                          fg.execute(RC_NOT_FOUND);
                          fg.setState(7);
                          break;
                      case 7:
                          EXPECT_EQ(fg.getRc(), RC_NOT_FOUND);
                          fg.setState(3); // the order of the two calls makes no difference
                          fg.execute(RC_IO_ERROR);
                          break;
                      case 3: EXPECT_EQ(fg.getRc(), RC_IO_ERROR); break;
                      }
                  }
                  return fg.getRc();
              }),
              RC_IO_ERROR);
    EXPECT_EQ(states, (std::vector<int>{0, 7, 3}));
}

TEST_F(FrameGuardTest, AWaitSuspendsUntilTheTaskIsPutBackWithTheStatus)
{
    int runs = 0;
    BlockingTask task([&](AsyncTask* self) {
        return startFrame(self, [&](AsyncTask* t, AsyncFrame* frame) {
            ++runs;
            FrameGuard fg(t, frame);
            while (fg.loop()) {
                if (fg.getState() == 0) {
                    frame->setLocals(SHIELD_NEW(Locals, &m_alive));
                    fg.execute(RC_WAIT);
                    fg.setState(1);
                } else {
                    EXPECT_NE(frame->getLocals(), nullptr);
                    EXPECT_EQ(fg.getRc(), RC_TIMED_OUT);
                    fg.execute(RC_SUCCESS);
                }
            }
            return fg.getRc();
        });
    });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    m_scheduler.runUntilIdle();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(m_alive, 2);
    wake(&task, RC_TIMED_OUT);
    EXPECT_EQ(task.wait(), RC_SUCCESS);
    EXPECT_EQ(runs, 2);
}

TEST_F(FrameGuardTest, AWaitInTheLastStepEndsTheFrameWithTheStatusAndRunsNoStepAgain)
{
    int steps = 0;
    BlockingTask task([&](AsyncTask* self) {
        return startFrame(self, [&](AsyncTask* t, AsyncFrame* frame) {
            FrameGuard fg(t, frame);
            while (fg.loop()) {
                ++steps;
                fg.execute(RC_WAIT);
            }
            return fg.getRc();
        });
    });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    m_scheduler.runUntilIdle();
    wake(&task, RC_NO_SPACE);
    EXPECT_EQ(task.wait(), RC_NO_SPACE);
    EXPECT_EQ(steps, 1);
}

TEST_F(FrameGuardTest, AStepMayReturnAtOnceWithAStatusOfItsOwn)
{
    EXPECT_EQ(runSteps([&](AsyncTask* task, AsyncFrame* frame) {
                  FrameGuard fg(task, frame);
                  while (fg.loop())
                      return RC_CORRUPTED_OBJECT;
                  return fg.getRc();
              }),
              RC_CORRUPTED_OBJECT);
}

TEST_F(FrameGuardTest, AFrameTakesTheStatusOfTheOneAboveWhenThatEnds)
{
    std::vector<std::string> history;
    const auto inner = [&](AsyncTask* t, AsyncFrame* frame) {
        FrameGuard fg(t, frame);
        while (fg.loop()) {
            history.push_back("inner " + std::to_string(fg.getState()));
            if (fg.getState() < 2) {
                fg.execute(RC_WAIT);
                fg.setState(fg.getState() + 1);
            } else {
                fg.execute(RC_NOT_FOUND);
            }
        }
        return fg.getRc();
    };
    BlockingTask task([&](AsyncTask* self) {
        return startFrame(self, [&](AsyncTask* t, AsyncFrame* frame) {
            FrameGuard fg(t, frame);
            while (fg.loop()) {
                history.push_back("outer " + std::to_string(fg.getState()));
                if (fg.getState() == 0) {
                    fg.execute(startFrame(t, inner));
                    fg.setState(1);
                } else {
                    EXPECT_EQ(fg.getRc(), RC_NOT_FOUND);
                    fg.execute(RC_IN_USE);
                }
            }
            return fg.getRc();
        });
    });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    m_scheduler.runUntilIdle();
    wake(&task, RC_SUCCESS);
    m_scheduler.runUntilIdle();
    wake(&task, RC_SUCCESS);
    EXPECT_EQ(task.wait(), RC_IN_USE);
    EXPECT_EQ(history,
              (std::vector<std::string>{"outer 0", "inner 0", "inner 1", "inner 2", "outer 1"}));
}

// A frame that waits for one future until the deadline and ends with its status.
TestFrame::Steps waitFor(const FutureStatus& future, u64 deadlineMs)
{
    return [future, deadlineMs](AsyncTask* task, AsyncFrame* frame) {
        FrameGuard fg(task, frame);
        while (fg.loop()) {
            if (fg.getState() == 0) {
                fg.executeFuture(future, deadlineMs);
                fg.setState(1);
            }
        }
        return fg.getRc();
    };
}

TEST_F(FrameGuardTest, AFutureThatIsSetDoesNotSuspend)
{
    BlockingTask task([&](AsyncTask* self) {
        return startFrame(self, waitFor(makeSetFuture(RC_BAD_CHECKSUM), 0));
    });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    EXPECT_EQ(m_scheduler.runUntilIdle(), 1u);
    EXPECT_EQ(task.wait(), RC_BAD_CHECKSUM);
}

TEST_F(FrameGuardTest, AFutureResumesTheTaskWithItsValueAndTakesTheTimerBack)
{
    FutureStatus future;
    BlockingTask task(
        [&](AsyncTask* self) { return startFrame(self, waitFor(future, m_clock.nowMs() + 10)); });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    m_scheduler.runUntilIdle();
    EXPECT_EQ(m_clock.timerCount(), 1u);
    future.set(RC_ABORTED);
    EXPECT_EQ(m_clock.timerCount(), 0u);
    EXPECT_EQ(task.wait(), RC_ABORTED);
}

TEST_F(FrameGuardTest, AfterTheDeadlineALateValueTouchesNothing)
{
    FutureStatus future;
    {
        BlockingTask task([&](AsyncTask* self) {
            return startFrame(self, waitFor(future, m_clock.nowMs() + 10));
        });
        ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
        m_scheduler.runUntilIdle();
        m_clock.advanceMs(9);
        EXPECT_EQ(m_scheduler.readyTasks(), 0u);
        m_clock.advanceMs(1);
        EXPECT_EQ(task.wait(), RC_TIMED_OUT);
    }
    future.set(RC_SUCCESS); // task and frame are gone
    EXPECT_EQ(m_scheduler.readyTasks(), 0u);
}

TEST_F(FrameGuardTest, ADeadlineThatHasPassedDoesNotSuspend)
{
    FutureStatus future;
    EXPECT_EQ(runSteps(waitFor(future, 0)), RC_TIMED_OUT);
    EXPECT_EQ(runSteps(waitFor(future, m_clock.nowMs())), RC_TIMED_OUT);
    EXPECT_EQ(m_clock.timerCount(), 0u);
    future.set(RC_SUCCESS);
}

} // namespace
