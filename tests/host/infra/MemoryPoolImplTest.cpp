#include "common/infra/MemoryPoolImpl.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <vector>

#include "host/infra/Clock.h"
#include "host/infra/PoolGroup.h"
#include "tests/support/ScopedManualClock.h"

namespace {

constexpr u32 CHUNK = 64 * 1024;

// A pool of large chunks from the system, with room for so many of them.
class PoolTest : public testing::Test
{
protected:
    void limitTo(u64 chunks) { m_pool.init(CHUNK, 0, chunks * CHUNK); }
    FutureStatus fill(ScatteredBuf& buf, u32 chunks, void* token = nullptr,
                      u64 deadlineMs = Clock::NEVER)
    {
        return m_pool.fillBufFutureWithTimeout(1, &buf, chunks * CHUNK, m_group, deadlineMs, token);
    }

    MemoryPoolImpl m_pool;
    ModuleMemoryInformation* m_group = m_pool.getMmi("group");
};

TEST_F(PoolTest, AFillOfNothingIsDoneAtOnce)
{
    ScatteredBuf buf;
    FutureStatus future = m_pool.fillBufFuture(1, &buf, 0, m_group, nullptr);
    ASSERT_TRUE(future.isSet());
    EXPECT_EQ(future.get(), RC_SUCCESS);
    EXPECT_EQ(m_pool.fillBufNoWait(&buf, 0, m_group), RC_SUCCESS);
    EXPECT_EQ(buf.getSegmentsCount(), 0u);
}

TEST_F(PoolTest, AFillGetsOneSegmentAChunkAndExactlyItsSize)
{
    limitTo(10);
    ScatteredBuf buf;
    ASSERT_EQ(m_pool.fillBufNoWait(&buf, 2 * CHUNK + 1, m_group), RC_SUCCESS);
    ASSERT_EQ(buf.getSegmentsCount(), 3u);
    EXPECT_EQ(buf.getSegment(0).getSize(), CHUNK);
    EXPECT_EQ(buf.getSegment(2).getSize(), 1u);
    EXPECT_EQ(buf.getSize(), 2 * CHUNK + 1u);
    EXPECT_EQ(buf.getSegment(0).getOwner(), m_group);
    EXPECT_EQ(m_pool.getMemoryStats().usedBytesNet, 2 * CHUNK + 1u);
    EXPECT_EQ(m_pool.getMemoryStats().usedBytesGross, 3 * CHUNK);
    EXPECT_EQ(m_group->getUsedChunks(), 3u);
    buf.deleteContent();
    EXPECT_EQ(m_pool.getMemoryStats().usedBytesNet, 0u);
    EXPECT_EQ(m_pool.getMemoryStats().totalBytes, 0u);
    EXPECT_EQ(m_group->getUsedChunks(), 0u);
}

TEST_F(PoolTest, ChunksDoNotOverlapAndAreAlignedForEverySizeOfChunk)
{
    for (const u32 chunkBytes : {1u, 8u, 64u, 100u, 960u, 1000u, 4096u, 16u * 1024, 100'000u}) {
        SCOPED_TRACE(chunkBytes);
        m_pool.init(chunkBytes, 0, ~u64{0});
        ScatteredBuf buf;
        const u32 chunks = 1 + 1'000'000 / chunkBytes % 10'000;
        ASSERT_EQ(m_pool.fillBufNoWait(&buf, chunks * chunkBytes, m_group), RC_SUCCESS);
        ASSERT_EQ(buf.getSegmentsCount(), chunks);
        for (u32 i = 0; i < chunks; ++i)
            std::memset(buf.getSegment(i).getPtr(), static_cast<int>(i), chunkBytes);
        u32 wrong = 0;
        for (u32 i = 0; i < chunks; ++i) {
            const u8* ptr = buf.getSegment(i).getPtr();
            for (u32 k = 0; k < chunkBytes; ++k)
                wrong += ptr[k] != static_cast<u8>(i);
            if (chunkBytes == 64)
                wrong += reinterpret_cast<uintptr_t>(ptr) % 64 != 0;
        }
        EXPECT_EQ(wrong, 0u);
        buf.deleteContent();
        EXPECT_EQ(m_pool.getMemoryStats().totalBytes, 0u);
    }
}

// In the order of taking, in its reverse, and mixed up; all at once or in parts.
TEST_F(PoolTest, ManyChunksGoBackAtOnceInAnyOrder)
{
    constexpr u32 TOKEN = 64;
    m_pool.init(TOKEN, 0, ~u64{0});
    std::mt19937 random(2);
    for (int round = 0; round < 12; ++round) {
        const u32 count = 1 + round * 1500;
        ScatteredBuf kept;
        ASSERT_EQ(m_pool.fillBufNoWait(&kept, 3 * TOKEN, m_group), RC_SUCCESS);
        ScatteredBuf buf;
        ASSERT_EQ(m_pool.fillBufNoWait(&buf, count * TOKEN, m_group), RC_SUCCESS);
        std::vector<u8*> chunks;
        for (u32 i = 0; i < count; ++i) {
            chunks.push_back(buf.getSegment(i).getPtr());
            std::memset(chunks.back(), static_cast<int>(i), TOKEN);
        }
        ASSERT_EQ(std::set<u8*>(chunks.begin(), chunks.end()).size(), count);
        if (round % 3 == 1)
            std::reverse(chunks.begin(), chunks.end());
        if (round % 3 == 2)
            std::shuffle(chunks.begin(), chunks.end(), random);
        const u32 first = count / (1 + round % 2);
        m_pool.giveBackChunks(chunks.data(), first, m_group);
        EXPECT_EQ(m_pool.getMemoryStats().usedBytesGross, u64{count - first + 3} * TOKEN);
        // What is taken in between is none of those that are still out.
        ScatteredBuf between;
        ASSERT_EQ(m_pool.fillBufNoWait(&between, first * TOKEN, m_group), RC_SUCCESS);
        std::set<u8*> out(chunks.begin() + first, chunks.end());
        for (u32 i = 0; i < first; ++i)
            ASSERT_TRUE(out.insert(between.getSegment(i).getPtr()).second);
        between.deleteContent();
        m_pool.giveBackChunks(chunks.data() + first, count - first, m_group);
        EXPECT_EQ(m_pool.getMemoryStats().usedBytesGross, u64{3} * TOKEN);
        kept.deleteContent();
        EXPECT_EQ(m_pool.getMemoryStats().usedBytesNet, 0U);
        EXPECT_EQ(m_pool.getMemoryStats().totalBytes, 0U);
    }
    m_pool.giveBackChunks(nullptr, 0, m_group);
}

TEST_F(PoolTest, RunsAreTheChunksThatAFillWouldHandOutAndGoBackInParts)
{
    constexpr u32 TOKEN = 64;
    m_pool.init(TOKEN, 1 << 20, ~u64{0});
    std::vector<ChunkRun> runs;
    EXPECT_FALSE(m_pool.takeRuns(&runs, 1, m_group)); // no block is there
    EXPECT_TRUE(runs.empty());
    ScatteredBuf all;
    ASSERT_EQ(m_pool.fillBufNoWait(&all, 9000 * TOKEN, m_group), RC_SUCCESS);
    std::mt19937 random(3);
    // Two thirds go back, here and there.
    std::vector<u8*> kept;
    std::vector<u8*> given;
    for (u32 i = 0; i < all.getSegmentsCount(); ++i)
        (random() % 3 == 0 ? kept : given).push_back(all.getSegment(i).getPtr());
    m_pool.giveBackChunks(given.data(), static_cast<u32>(given.size()), m_group);
    for (const u32 count : {1u, 5u, 64u, 1000u, static_cast<u32>(given.size())}) {
        SCOPED_TRACE(count);
        ScatteredBuf buf;
        ASSERT_EQ(m_pool.fillBufNoWait(&buf, count * TOKEN, m_group), RC_SUCCESS);
        std::vector<u8*> expected;
        for (u32 i = 0; i < count; ++i)
            expected.push_back(buf.getSegment(i).getPtr());
        m_pool.giveBackChunks(expected.data(), count, m_group);
        ASSERT_TRUE(m_pool.takeRuns(&runs, count, m_group));
        EXPECT_EQ(m_pool.getMemoryStats().usedBytesGross, (kept.size() + count) * TOKEN);
        EXPECT_EQ(m_pool.getMemoryStats().usedBytesNet, (kept.size() + count) * TOKEN);
        EXPECT_EQ(m_group->getUsedChunks(), kept.size() + count);
        std::vector<u8*> chunks;
        for (const ChunkRun& run : runs) {
            EXPECT_NE(run.m_chunks, 0u);
            for (u32 bit = 0; bit < 64; ++bit)
                if ((run.m_chunks >> bit & 1) != 0)
                    chunks.push_back(run.m_first + size_t{bit} * TOKEN);
        }
        // Of more than one block they may be others, since those that were full are taken from
        // last.
        if (count <= 1000) {
            EXPECT_EQ(chunks, expected);
        } else {
            std::set<u8*> out(kept.begin(), kept.end());
            for (u8* chunk : chunks)
                EXPECT_TRUE(out.insert(chunk).second);
            EXPECT_EQ(chunks.size(), count);
        }
        for (u8* chunk : chunks)
            std::memset(chunk, 1, TOKEN);
        // Some one by one, the others as what is left of their runs.
        std::vector<u8*> single;
        for (ChunkRun& run : runs)
            for (u32 bit = 0; bit < 64; ++bit)
                if ((run.m_chunks >> bit & 1) != 0 && random() % 4 == 0) {
                    run.m_chunks ^= u64{1} << bit;
                    single.push_back(run.m_first + size_t{bit} * TOKEN);
                }
        m_pool.giveBackChunks(runs, single.data(), static_cast<u32>(single.size()), m_group);
        runs.clear();
        EXPECT_EQ(m_group->getUsedChunks(), kept.size());
    }
    EXPECT_FALSE(m_pool.takeRuns(&runs, 1 << 20, m_group)); // more than is free
    m_pool.giveBackChunks(kept.data(), static_cast<u32>(kept.size()), m_group);
    EXPECT_EQ(m_pool.getMemoryStats().usedBytesGross, 0u);
    EXPECT_EQ(m_pool.getMemoryStats().usedBytesNet, 0u);
}

TEST_F(PoolTest, RunsAreNotTakenBeforeFillsThatWait)
{
    constexpr u32 TOKEN = 64;
    m_pool.init(TOKEN, 0, 256 * 1024);
    ScatteredBuf first;
    ASSERT_EQ(m_pool.fillBufNoWait(&first, 4000 * TOKEN, m_group), RC_SUCCESS);
    ScatteredBuf waiting;
    const FutureStatus future =
        m_pool.fillBufFutureWithTimeout(1, &waiting, 1000 * TOKEN, m_group, Clock::NEVER, this);
    EXPECT_FALSE(future.isSet());
    std::vector<ChunkRun> runs;
    EXPECT_FALSE(m_pool.takeRuns(&runs, 10, m_group));
    m_pool.cancelBufferFill(this);
    EXPECT_TRUE(m_pool.takeRuns(&runs, 10, m_group));
    m_pool.giveBackChunks(runs, nullptr, 0, m_group);
    first.deleteContent();
    EXPECT_EQ(m_pool.getMemoryStats().totalBytes, 0u);
}

TEST_F(PoolTest, ChunksThatDoNotLieSideBySideMakeNoRuns)
{
    for (const u32 chunkBytes : {100u, CHUNK}) {
        m_pool.init(chunkBytes, 1 << 20, ~u64{0});
        ScatteredBuf buf;
        ASSERT_EQ(m_pool.fillBufNoWait(&buf, 4 * chunkBytes, m_group), RC_SUCCESS);
        buf.deleteContent();
        std::vector<ChunkRun> runs;
        EXPECT_FALSE(m_pool.takeRuns(&runs, 2, m_group));
    }
    m_pool.init(CHUNK, 0, ~u64{0});
}

TEST_F(PoolTest, AFillBeyondTheLimitFailsInsteadOfWaitingForEver)
{
    limitTo(3);
    ScatteredBuf buf;
    EXPECT_EQ(fill(buf, 4).get(), RC_NO_MEMORY);
    EXPECT_EQ(m_pool.fillBufNoWait(&buf, 4 * CHUNK, m_group), RC_NO_MEMORY);
    EXPECT_EQ(buf.getSegmentsCount(), 0u);
    EXPECT_EQ(fill(buf, 3).get(), RC_SUCCESS);
    buf.deleteContent();
}

TEST_F(PoolTest, WaitingFillsAreServedInOrderEvenWhenALaterOneWouldFit)
{
    limitTo(3);
    ScatteredBuf held;
    ScatteredBuf large;
    ScatteredBuf small;
    ASSERT_EQ(fill(held, 2).get(), RC_SUCCESS);
    FutureStatus first = fill(large, 3);
    FutureStatus second = fill(small, 1);
    EXPECT_FALSE(first.isSet());
    EXPECT_FALSE(second.isSet());
    EXPECT_EQ(m_pool.getMmiPendingRequests(m_group), 2u);
    ScatteredBuf none;
    EXPECT_EQ(m_pool.fillBufNoWait(&none, CHUNK, m_group), RC_NO_MEMORY);

    held.deleteContent();
    ASSERT_TRUE(first.isSet());
    EXPECT_EQ(first.get(), RC_SUCCESS);
    EXPECT_EQ(large.getSegmentsCount(), 3u);
    EXPECT_FALSE(second.isSet());
    large.getSegment(1).deleteContent();
    ASSERT_TRUE(second.isSet());
    EXPECT_EQ(second.get(), RC_SUCCESS);
    EXPECT_EQ(m_pool.getMmiPendingRequests(m_group), 0u);
    large.deleteContent();
    small.deleteContent();
}

TEST_F(PoolTest, ADeadlineEndsAFillAndLetsTheNextOneGo)
{
    ScopedManualClock clock;
    limitTo(2);
    ScatteredBuf held;
    ScatteredBuf large;
    ScatteredBuf small;
    ASSERT_EQ(fill(held, 1).get(), RC_SUCCESS);
    FutureStatus first = fill(large, 2, nullptr, clock.nowMs() + 10);
    FutureStatus second = fill(small, 1);
    clock.advanceMs(9);
    EXPECT_FALSE(first.isSet());
    EXPECT_FALSE(second.isSet());
    clock.advanceMs(1);
    ASSERT_TRUE(first.isSet());
    EXPECT_EQ(first.get(), RC_TIMED_OUT);
    EXPECT_EQ(large.getSegmentsCount(), 0u);
    ASSERT_TRUE(second.isSet());
    EXPECT_EQ(second.get(), RC_SUCCESS);
    held.deleteContent();
    small.deleteContent();
}

TEST_F(PoolTest, ADeadlineThatHasPassedMeansNowOrNotAtAll)
{
    ScopedManualClock clock;
    limitTo(1);
    ScatteredBuf held;
    ScatteredBuf buf;
    for (const u64 deadlineMs : {u64{0}, clock.nowMs()}) {
        EXPECT_EQ(fill(held, 1, nullptr, deadlineMs).get(), RC_SUCCESS);
        FutureStatus late = fill(buf, 1, nullptr, deadlineMs);
        ASSERT_TRUE(late.isSet());
        EXPECT_EQ(late.get(), RC_TIMED_OUT);
        held.deleteContent();
    }
    EXPECT_EQ(clock.timerCount(), 0u);
}

TEST_F(PoolTest, AServedFillTakesItsTimerBack)
{
    ScopedManualClock clock;
    limitTo(1);
    ScatteredBuf held;
    ScatteredBuf buf;
    ASSERT_EQ(fill(held, 1).get(), RC_SUCCESS);
    FutureStatus waiting = fill(buf, 1, nullptr, clock.nowMs() + 10);
    EXPECT_EQ(clock.timerCount(), 1u);
    held.deleteContent();
    EXPECT_EQ(waiting.get(), RC_SUCCESS);
    EXPECT_EQ(clock.timerCount(), 0u);
    clock.advanceMs(100);
    buf.deleteContent();
}

TEST_F(PoolTest, CancelEndsTheWaitingFillsOfItsTokenOnly)
{
    limitTo(1);
    int mine = 0;
    int others = 0;
    ScatteredBuf held;
    ScatteredBuf one;
    ScatteredBuf two;
    ScatteredBuf three;
    ASSERT_EQ(fill(held, 1, &mine).get(), RC_SUCCESS);
    FutureStatus first = fill(one, 1, &mine);
    FutureStatus second = fill(two, 1, &others);
    FutureStatus third = fill(three, 1, &mine);
    m_pool.cancelBufferFill(&mine);
    ASSERT_TRUE(first.isSet() && third.isSet());
    EXPECT_EQ(first.get(), RC_ABORTED);
    EXPECT_EQ(third.get(), RC_ABORTED);
    EXPECT_FALSE(second.isSet());
    EXPECT_EQ(held.getSegmentsCount(), 1u);
    held.deleteContent();
    EXPECT_EQ(second.get(), RC_SUCCESS);
    two.deleteContent();
    m_pool.cancelBufferFill(&mine);
}

TEST_F(PoolTest, FreeBlocksAreKeptUpToTheBytesToKeep)
{
    m_pool.init(CHUNK, 2 * CHUNK, ~u64{0});
    ScatteredBuf buf;
    ASSERT_EQ(fill(buf, 5).get(), RC_SUCCESS);
    buf.deleteContent();
    EXPECT_EQ(m_pool.getMemoryStats().totalBytes, 2 * CHUNK);
    EXPECT_EQ(m_pool.getMemoryStats().freeBytes, 2 * CHUNK);
    m_pool.destroy();
    EXPECT_EQ(m_pool.getMemoryStats().totalBytes, 0u);
}

TEST_F(PoolTest, AGroupOfANameIsOneAndInternalOnesAreTheirOwn)
{
    EXPECT_EQ(m_pool.getMmi("group"), m_group);
    EXPECT_NE(m_pool.getMmi("other"), m_group);
    ModuleMemoryInformation* one = m_pool.createMmiInternal("group");
    ModuleMemoryInformation* two = m_pool.createMmiInternal("group");
    EXPECT_EQ((std::set<ModuleMemoryInformation*>{one, two, m_group}.size()), 3u);
    m_pool.destroyMmi(one);
    m_pool.destroyMmi(two);
}

TEST_F(PoolTest, AnObserverMayDestroyThePool)
{
    auto pool = std::make_unique<MemoryPoolImpl>();
    pool->init(CHUNK, 0, CHUNK);
    ModuleMemoryInformation* group = pool->getMmi("group");
    ScatteredBuf held;
    ScatteredBuf buf;
    struct Destroyer : public FutureObserver<RcStatus>
    {
        void update(const RcStatus&) override
        {
            m_buf->deleteContent();
            m_pool->reset();
        }
        std::unique_ptr<MemoryPoolImpl>* m_pool;
        ScatteredBuf* m_buf;
    } destroyer;
    destroyer.m_pool = &pool;
    destroyer.m_buf = &buf;
    ASSERT_EQ(pool->fillBufFuture(1, &held, CHUNK, group, nullptr).get(), RC_SUCCESS);
    pool->fillBufFuture(1, &buf, CHUNK, group, nullptr).attach(&destroyer);
    held.deleteContent();
    EXPECT_EQ(pool, nullptr);
}

TEST(MemorySegmentTest, MemoryThatNobodyOwnsIsOnlyForgotten)
{
    u8 byte = 1;
    MemorySegment segment(1, &byte, nullptr);
    segment.deleteContent();
    EXPECT_EQ(segment.getPtr(), nullptr);
    EXPECT_EQ(segment.getSize(), 0u);
}

} // namespace
