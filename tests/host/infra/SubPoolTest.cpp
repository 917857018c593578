// Pools over pools: how a sub-pool obtains, carves, shares and returns blocks.
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <thread>

#include "host/infra/Clock.h"
#include "host/infra/PoolGroup.h"
#include "tests/support/ScopedManualClock.h"
#include "tests/support/TestSubPool.h"

namespace {

constexpr u32 BLOCK = 64 * 1024;
constexpr u32 PER_BLOCK = BLOCK / 64 - 3; // the header takes three chunks

class SubPoolTest : public testing::Test
{
protected:
    void SetUp() override { limitTo(4); }
    void TearDown() override { EXPECT_EQ(m_parent.getMemoryStats().usedBytesGross, 0u); }
    void limitTo(u64 blocks) { m_parent.init(BLOCK, 0, blocks * BLOCK); }

    static FutureStatus fill(TestSubPool& pool, ScatteredBuf& buf, u32 tokens,
                             void* token = nullptr, u64 deadlineMs = Clock::NEVER)
    {
        return pool.fillBufFutureWithTimeout(3, &buf, tokens * 64, pool.own(), deadlineMs, token);
    }
    u32 parentPending() { return m_parent.getMmiPendingRequests(m_parent.getMmi("subs")); }

    MemoryPoolImpl m_parent;
};

TEST_F(SubPoolTest, ChunksFillABlockBeforeTheNextOneIsAskedFor)
{
    TestSubPool pool(m_parent, "subs");
    ScatteredBuf buf;
    ASSERT_EQ(fill(pool, buf, PER_BLOCK).get(), RC_SUCCESS);
    EXPECT_EQ(pool.m_allocations, 1u);
    ASSERT_EQ(fill(pool, buf, 1).get(), RC_SUCCESS);
    EXPECT_EQ(pool.m_allocations, 2u);
    EXPECT_EQ(m_parent.getMmi("subs")->getUsedChunks(), 2u);
    for (u32 i = 0; i < buf.getSegmentsCount(); ++i) {
        ASSERT_EQ(buf.getSegment(i).getSize(), 64u);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(buf.getSegment(i).getPtr()) % 64, 0u);
        std::memset(buf.getSegment(i).getPtr(), 0xab, 64);
    }
    buf.deleteContent();
    EXPECT_EQ(pool.getMemoryStats().totalBytes, 0u);
    EXPECT_EQ(pool.m_frees, 2u);
}

TEST_F(SubPoolTest, AChunkThatComesAndGoesAtABlocksEdgeKeepsTheBlock)
{
    TestSubPool pool(m_parent, "subs");
    ScatteredBuf held;
    ASSERT_EQ(fill(pool, held, PER_BLOCK).get(), RC_SUCCESS);
    for (int i = 0; i < 10; ++i) {
        ScatteredBuf one;
        ASSERT_EQ(fill(pool, one, 1).get(), RC_SUCCESS);
        one.deleteContent();
    }
    EXPECT_EQ(pool.m_allocations, 2u);
    EXPECT_EQ(pool.m_frees, 0u);
    held.deleteContent();
    EXPECT_EQ(pool.m_frees, 2u);
}

TEST_F(SubPoolTest, WorksOverParentsOfEveryChunkSize)
{
    for (const u32 chunkBytes : {64u, 128u, 200u, 256u, 1000u, 4096u, 262'144u, 300'000u}) {
        SCOPED_TRACE(chunkBytes);
        m_parent.init(chunkBytes, 0, ~u64{0});
        TestSubPool pool(m_parent, "subs");
        ScatteredBuf buf;
        ASSERT_EQ(fill(pool, buf, 500).get(), RC_SUCCESS);
        ASSERT_EQ(buf.getSegmentsCount(), 500u);
        for (u32 i = 0; i < 500; ++i)
            std::memset(buf.getSegment(i).getPtr(), static_cast<int>(i), 64);
        u32 wrong = 0;
        for (u32 i = 0; i < 500; ++i) {
            for (u32 k = 0; k < 64; ++k)
                wrong += buf.getSegment(i).getPtr()[k] != static_cast<u8>(i);
        }
        EXPECT_EQ(wrong, 0u);
        buf.deleteContent();
        EXPECT_EQ(pool.getMemoryStats().totalBytes, 0u);
        EXPECT_EQ(m_parent.getMemoryStats().totalBytes, 0u);
    }
}

TEST_F(SubPoolTest, AParentWhoseChunksHoldNoTokenGivesNoMemory)
{
    m_parent.init(32, 0, ~u64{0});
    TestSubPool pool(m_parent, "subs");
    ScatteredBuf buf;
    EXPECT_EQ(fill(pool, buf, 1).get(), RC_NO_MEMORY);
    EXPECT_EQ(pool.fillBufNoWait(&buf, 64, pool.own()), RC_NO_MEMORY);
}

TEST_F(SubPoolTest, AFillBeyondWhatTheParentCanEverGiveFails)
{
    TestSubPool pool(m_parent, "subs");
    ScatteredBuf buf;
    EXPECT_EQ(fill(pool, buf, 4 * PER_BLOCK + 1).get(), RC_NO_MEMORY);
    EXPECT_EQ(fill(pool, buf, 4 * PER_BLOCK).get(), RC_SUCCESS);
    buf.deleteContent();
}

TEST_F(SubPoolTest, AFillWaitsInTheParentsQueueAndIsServedAcrossPools)
{
    TestSubPool one(m_parent, "subs");
    TestSubPool two(m_parent, "subs");
    ScatteredBuf held;
    ScatteredBuf buf;
    ASSERT_EQ(fill(one, held, 4 * PER_BLOCK).get(), RC_SUCCESS);
    FutureStatus waiting = fill(two, buf, 2 * PER_BLOCK);
    EXPECT_FALSE(waiting.isSet());
    EXPECT_EQ(parentPending(), 1u);
    EXPECT_EQ(two.getMmiPendingRequests(two.own()), 1u);
    held.deleteContent();
    ASSERT_TRUE(waiting.isSet());
    EXPECT_EQ(waiting.get(), RC_SUCCESS);
    EXPECT_EQ(parentPending(), 0u);
    buf.deleteContent();
}

TEST_F(SubPoolTest, ADeadlineTakesTheRequestBackFromTheParent)
{
    ScopedManualClock clock;
    TestSubPool one(m_parent, "subs");
    TestSubPool two(m_parent, "subs");
    ScatteredBuf held;
    ScatteredBuf buf;
    ASSERT_EQ(fill(one, held, 3 * PER_BLOCK).get(), RC_SUCCESS);
    FutureStatus waiting = fill(two, buf, 2 * PER_BLOCK, nullptr, clock.nowMs() + 5);
    EXPECT_EQ(two.getMemoryStats().totalBytes, BLOCK); // the first of its two blocks
    clock.advanceMs(5);
    ASSERT_TRUE(waiting.isSet());
    EXPECT_EQ(waiting.get(), RC_TIMED_OUT);
    EXPECT_EQ(parentPending(), 0u);
    EXPECT_EQ(two.getMemoryStats().totalBytes, 0u);
    EXPECT_EQ(m_parent.getMmi("subs")->getUsedChunks(), 3u);
    held.deleteContent();
}

TEST_F(SubPoolTest, CancelTakesTheRequestBackUnlessAnotherFillNeedsIt)
{
    TestSubPool one(m_parent, "subs");
    TestSubPool two(m_parent, "subs");
    int mine = 0;
    ScatteredBuf held;
    ScatteredBuf cancelled;
    ScatteredBuf buf;
    ASSERT_EQ(fill(one, held, 4 * PER_BLOCK).get(), RC_SUCCESS);
    FutureStatus first = fill(two, cancelled, 1, &mine);
    FutureStatus second = fill(two, buf, 1);
    two.cancelBufferFill(&mine);
    EXPECT_EQ(first.get(), RC_ABORTED);
    EXPECT_FALSE(second.isSet());
    EXPECT_EQ(parentPending(), 1u);
    EXPECT_EQ(two.m_cancels, 0u);
    held.getSegment(0).deleteContent();
    held.deleteContent();
    EXPECT_EQ(second.get(), RC_SUCCESS);
    buf.deleteContent();
}

TEST_F(SubPoolTest, AFillThatDoesNotWaitLeavesNothingBehindInTheParent)
{
    TestSubPool one(m_parent, "subs");
    TestSubPool two(m_parent, "subs");
    ScatteredBuf held;
    ScatteredBuf buf;
    ASSERT_EQ(one.fillBufNoWait(&held, 3 * PER_BLOCK * 64, one.own()), RC_SUCCESS);
    EXPECT_EQ(two.fillBufNoWait(&buf, 2 * PER_BLOCK * 64, two.own()), RC_NO_MEMORY);
    EXPECT_EQ(buf.getSegmentsCount(), 0u);
    EXPECT_EQ(parentPending(), 0u);
    EXPECT_EQ(two.getMemoryStats().totalBytes, 0u);
    EXPECT_EQ(two.fillBufNoWait(&buf, PER_BLOCK * 64, two.own()), RC_SUCCESS);
    buf.deleteContent();
    held.deleteContent();
}

TEST_F(SubPoolTest, TheNthAllocationFailsAndNothingIsLost)
{
    for (u32 failing = 1; failing <= 4; ++failing) {
        for (const bool waits : {true, false}) {
            SCOPED_TRACE(testing::Message() << "allocation " << failing << " waits " << waits);
            TestSubPool pool(m_parent, "subs");
            pool.m_allocationFault = [failing](u32 number) {
                return number == failing ? RC_IO_ERROR : RC_SUCCESS;
            };
            ScatteredBuf buf;
            const RcStatus rc = waits ? fill(pool, buf, 3 * PER_BLOCK).get()
                                      : pool.fillBufNoWait(&buf, 3 * PER_BLOCK * 64, pool.own());
            if (failing > 3) {
                EXPECT_EQ(rc, RC_SUCCESS);
            } else {
                EXPECT_EQ(rc, waits ? RC_IO_ERROR : RC_NO_MEMORY);
                EXPECT_EQ(buf.getSegmentsCount(), 0u);
                EXPECT_EQ(pool.getMemoryStats().totalBytes, 0u);
            }
            buf.deleteContent();
            EXPECT_EQ(m_parent.getMemoryStats().usedBytesGross, 0u);
        }
    }
}

TEST_F(SubPoolTest, AFailedAllocationEndsTheFirstFillOnly)
{
    TestSubPool pool(m_parent, "subs");
    TestSubPool other(m_parent, "subs");
    ScatteredBuf held;
    ASSERT_EQ(fill(other, held, 4 * PER_BLOCK).get(), RC_SUCCESS);
    ScatteredBuf one;
    ScatteredBuf two;
    FutureStatus first = fill(pool, one, 2 * PER_BLOCK);
    FutureStatus second = fill(pool, two, 1);
    pool.m_allocationFault = [](u32 number) { return number == 2 ? RC_FAILURE : RC_SUCCESS; };
    held.deleteContent(); // the first block comes, the second one fails
    EXPECT_EQ(first.get(), RC_FAILURE);
    EXPECT_EQ(second.get(), RC_SUCCESS);
    two.deleteContent();
}

TEST_F(SubPoolTest, APoolWithATightLimitOfItsOwnReusesWhatComesBack)
{
    TestSubPool pool(m_parent, "subs", 0, BLOCK);
    ScatteredBuf held;
    ScatteredBuf buf;
    ASSERT_EQ(fill(pool, held, PER_BLOCK).get(), RC_SUCCESS);
    FutureStatus waiting = fill(pool, buf, 2);
    held.getSegment(5).deleteContent();
    EXPECT_FALSE(waiting.isSet());
    held.getSegment(9).deleteContent();
    EXPECT_EQ(waiting.get(), RC_SUCCESS);
    EXPECT_EQ(pool.m_allocations, 1u);
    buf.deleteContent();
    held.deleteContent();
}

// Fills, cancellations, deadlines and returns from several threads over a parent that is too small
// for all: every future is set once, and all memory comes back.
TEST_F(SubPoolTest, ManyThreadsLoseNothing)
{
    limitTo(6);
    constexpr int ROUNDS = 400;
    TestSubPool one(m_parent, "subs");
    TestSubPool two(m_parent, "subs");
    std::atomic<int> outcomes{0};
    std::atomic<int> wrong{0};
    const auto play = [&](TestSubPool& pool, u32 seed) {
        std::mt19937 random(seed);
        int token = 0;
        for (int i = 0; i < ROUNDS; ++i) {
            ScatteredBuf buf;
            const u32 tokens = 1 + random() % (2 * PER_BLOCK);
            const u32 kind = random() % 4;
            RcStatus rc;
            if (kind == 0) {
                rc = pool.fillBufNoWait(&buf, tokens * 64, pool.own());
            } else if (kind == 1) {
                FutureStatus future = fill(pool, buf, tokens, &token);
                pool.cancelBufferFill(&token);
                rc = future.get();
            } else {
                rc = fill(pool, buf, tokens, &token, Clock::instance()->nowMs() + random() % 3)
                         .get();
            }
            ++outcomes;
            if (rc == RC_SUCCESS) {
                wrong += buf.getSegmentsCount() != tokens;
                for (u32 k = 0; k < buf.getSegmentsCount(); ++k)
                    std::memset(buf.getSegment(k).getPtr(), static_cast<int>(seed), 64);
            } else {
                wrong += rc != RC_NO_MEMORY && rc != RC_ABORTED && rc != RC_TIMED_OUT;
                wrong += buf.getSegmentsCount() != 0;
            }
            buf.deleteContent();
        }
    };
    std::thread a([&] { play(one, 1); });
    std::thread b([&] { play(one, 2); });
    std::thread c([&] { play(two, 3); });
    std::thread d([&] { play(two, 4); });
    for (std::thread* thread : {&a, &b, &c, &d})
        thread->join();
    EXPECT_EQ(outcomes, 4 * ROUNDS);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(one.getMemoryStats().usedBytesGross, 0u);
    EXPECT_EQ(two.getMemoryStats().usedBytesGross, 0u);
    EXPECT_EQ(parentPending(), 0u);
}

} // namespace
