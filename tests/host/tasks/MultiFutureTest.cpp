#include "common/headers/MultiFuture.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <thread>

namespace {

TEST(MultiFutureTest, OfNoneIsSuccessful)
{
    FutureStatus all = MultiFuture_Status::createMultiFuture({});
    ASSERT_TRUE(all.isSet());
    EXPECT_EQ(all.get(), RC_SUCCESS);
}

TEST(MultiFutureTest, IsSetWithTheLastInEveryOrder)
{
    std::vector<int> order{0, 1, 2};
    do {
        std::vector<FutureStatus> futures(3);
        FutureStatus all = MultiFuture_Status::createMultiFuture(futures);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_FALSE(all.isSet());
            futures[static_cast<size_t>(order[i])].set(RC_SUCCESS);
        }
        ASSERT_TRUE(all.isSet());
        EXPECT_EQ(all.get(), RC_SUCCESS);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(MultiFutureTest, TheFirstFailureOfTheVectorWinsNotTheFirstInTime)
{
    std::vector<FutureStatus> futures(4);
    FutureStatus all = MultiFuture_Status::createMultiFuture(futures);
    futures[3].set(RC_IO_ERROR);
    futures[2].set(RC_TIMED_OUT);
    futures[1].set(RC_NOT_FOUND);
    EXPECT_FALSE(all.isSet());
    futures[0].set(RC_SUCCESS);
    EXPECT_EQ(all.get(), RC_NOT_FOUND);
}

TEST(MultiFutureTest, FuturesThatAreSetAlreadyCount)
{
    EXPECT_EQ(MultiFuture_Status::createMultiFuture(
                  {makeSetFuture(RC_SUCCESS), makeSetFuture(RC_ABORTED)})
                  .get(),
              RC_ABORTED);
}

TEST(MultiFutureTest, ManyThreadsSetOneEach)
{
    for (int round = 0; round < 200; ++round) {
        std::vector<FutureStatus> futures(4);
        FutureStatus all = MultiFuture_Status::createMultiFuture(futures);
        std::vector<std::thread> threads;
        for (size_t i = 1; i < 4; ++i)
            threads.emplace_back([future = futures[i]] { future.set(RC_SUCCESS); });
        futures[0].set(RC_FAILURE);
        EXPECT_EQ(all.get(), RC_FAILURE);
        for (std::thread& thread : threads)
            thread.join();
    }
}

} // namespace
