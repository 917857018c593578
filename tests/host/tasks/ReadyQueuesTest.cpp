#include "host/tasks/ReadyQueues.h"

#include <deque>
#include <gtest/gtest.h>

namespace {

constexpr auto STARTING = AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_DATA;
constexpr auto GOING_ON = AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL;

TEST(ReadyQueuesTest, EmptyGivesNull)
{
    ReadyQueues queues;
    EXPECT_EQ(queues.pop(), nullptr);
    EXPECT_EQ(queues.size(), 0u);
}

TEST(ReadyQueuesTest, PriorityThenGoingOnThenTheOrderOfComing)
{
    ReadyQueues queues;
    AsyncTask lowest(AsyncTaskPriority::Lowest);
    AsyncTask low(AsyncTaskPriority::Low);
    AsyncTask starts1;
    AsyncTask starts2;
    AsyncTask goesOn1;
    AsyncTask goesOn2;
    queues.push(&lowest, GOING_ON);
    queues.push(&low, STARTING);
    queues.push(&starts1, STARTING);
    queues.push(&goesOn1, GOING_ON);
    queues.push(&starts2, STARTING);
    queues.push(&goesOn2, GOING_ON);
    for (AsyncTask* expected : {&goesOn1, &goesOn2, &starts1, &starts2, &low, &lowest})
        EXPECT_EQ(queues.pop(), expected);
    EXPECT_EQ(queues.pop(), nullptr);
}

TEST(ReadyQueuesTest, NothingStarvesUnderASteadyStreamOfBetterTasks)
{
    ReadyQueues queues;
    AsyncTask better[2];
    AsyncTask starts;
    AsyncTask low(AsyncTaskPriority::Low);
    AsyncTask lowest(AsyncTaskPriority::Lowest);
    queues.push(&starts, STARTING);
    queues.push(&low, STARTING);
    queues.push(&lowest, STARTING);
    queues.push(&better[0], GOING_ON);
    std::deque<AsyncTask*> others;
    u32 pops = 0;
    while (others.size() < 3) {
        AsyncTask* task = queues.pop();
        ASSERT_LT(++pops, 200u);
        if (task == &better[0] || task == &better[1])
            queues.push(task, GOING_ON);
        else
            others.push_back(task);
    }
    EXPECT_EQ(others, (std::deque<AsyncTask*>{&lowest, &low, &starts}));
}

} // namespace
