#include "appliance/TrimmedZeroes.h"

#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr u64 BLOCKS = 512;

// Block by block, what is candidate.
std::vector<bool> candidates(TrimmedZeroes& zeroes, size_t* ranges)
{
    std::vector<bool> found(BLOCKS);
    *ranges = 0;
    u64 offset = 0;
    u64 end = 0;
    for (u64 at = 0; zeroes.next(at, &offset, &end); at = end) {
        EXPECT_LT(offset, end);
        std::fill(found.begin() + static_cast<long>(offset), found.begin() + static_cast<long>(end),
                  true);
        ++*ranges;
    }
    return found;
}

// All before the pass's end is what it has to be, and behind it there is nothing.
void expectCandidates(TrimmedZeroes& zeroes, const std::vector<bool>& expected, size_t maxRanges)
{
    size_t ranges = 0;
    const std::vector<bool> found = candidates(zeroes, &ranges);
    EXPECT_LE(ranges, 2 * maxRanges);
    const u64 end = zeroes.passEnd();
    for (u64 block = 0; block < BLOCKS; ++block)
        ASSERT_EQ(found[block], block < end && expected[block]) << block << " of " << end;
}

TEST(TrimmedZeroesTest, AreWhatABlockByBlockOracleSays)
{
    for (const size_t maxRanges : {size_t{1}, size_t{2}, size_t{3}, size_t{8}, size_t{1000}}) {
        u32 shortened = 0;
        for (u32 seed = 0; seed < 20; ++seed) {
            std::mt19937 random(seed);
            TrimmedZeroes zeroes;
            zeroes.setMaxRanges(maxRanges);
            zeroes.note(0, BLOCKS);
            zeroes.start();
            std::vector<bool> expected(BLOCKS);
            const auto set = [&](u64 offset, u64 length, bool isCandidate) {
                for (u64 block = offset; block < offset + length; ++block)
                    expected[block] = isCandidate;
            };
            const auto subtract = [&] {
                const u64 length = 1 + random() % 20;
                const u64 offset = random() % (BLOCKS - length);
                const bool isAnyLeft = zeroes.subtract(offset, length);
                set(offset, length, false);
                size_t ranges = 0;
                candidates(zeroes, &ranges);
                ASSERT_EQ(isAnyLeft, ranges > 0);
                expectCandidates(zeroes, expected, maxRanges);
            };
            bool hasRoom = true;
            for (u64 block = random() % 20; block < BLOCKS && hasRoom;) {
                const u64 length = std::min<u64>(1 + random() % 60, BLOCKS - block);
                hasRoom = zeroes.add(block, length);
                set(block, length, true);
                ASSERT_NO_FATAL_FAILURE(expectCandidates(zeroes, expected, maxRanges));
                block += length + random() % 4;
                if (random() % 3 == 0) {
                    ASSERT_NO_FATAL_FAILURE(subtract());
                }
            }
            for (int i = 0; i < 40; ++i)
                ASSERT_NO_FATAL_FAILURE(subtract());
            EXPECT_GT(zeroes.passEnd(), 0u) << "or no pass would ever be the last";
            shortened += zeroes.passEnd() < BLOCKS;
        }
        EXPECT_EQ(shortened > 0, maxRanges < 1000) << maxRanges;
    }
}

TEST(TrimmedZeroesTest, NeighboursAreOneRange)
{
    TrimmedZeroes zeroes;
    zeroes.setMaxRanges(1);
    zeroes.note(0, BLOCKS);
    zeroes.start();
    EXPECT_TRUE(zeroes.add(5, 10));
    EXPECT_TRUE(zeroes.add(15, 10));
    EXPECT_FALSE(zeroes.add(26, 10));
    EXPECT_EQ(zeroes.passEnd(), 26u);
    u64 offset = 0;
    u64 end = 0;
    ASSERT_TRUE(zeroes.next(0, &offset, &end));
    EXPECT_EQ(offset, 5u);
    EXPECT_EQ(end, 25u);
    EXPECT_FALSE(zeroes.next(25, &offset, &end));
}

TEST(TrimmedZeroesTest, PassesGoThroughWhatIsNoted)
{
    TrimmedZeroes zeroes;
    EXPECT_FALSE(zeroes.hasNoted());
    zeroes.note(100, 10);
    zeroes.note(40, 10);
    EXPECT_EQ(zeroes.firstBlock(), 40u);
    EXPECT_EQ(zeroes.endBlock(), 110u);
    zeroes.doneBefore(60);
    EXPECT_TRUE(zeroes.hasNoted());
    EXPECT_EQ(zeroes.firstBlock(), 60u);
    zeroes.doneBefore(110);
    EXPECT_FALSE(zeroes.hasNoted());
    zeroes.note(7, 1);
    EXPECT_EQ(zeroes.firstBlock(), 7u);
    EXPECT_EQ(zeroes.endBlock(), 8u);
}

TEST(TrimmedZeroesTest, WritersAreHeardDuringAPassAlone)
{
    TrimmedZeroes zeroes;
    zeroes.note(0, BLOCKS);
    zeroes.start();
    ASSERT_TRUE(zeroes.add(0, 100));
    zeroes.written(20, 10);
    u64 visited = 0;
    const auto visit = [&](u64 first, u64 end) { visited += end - first; };
    EXPECT_EQ(zeroes.visitFirst(10, 50, visit), 20u);
    EXPECT_EQ(zeroes.visitFirst(20, 50, visit), 50u);
    EXPECT_EQ(zeroes.visitFirst(20, 30, visit), 30u) << "nothing there";
    EXPECT_EQ(visited, 30u);
    zeroes.clear();
    u64 offset = 0;
    u64 end = 0;
    EXPECT_FALSE(zeroes.next(0, &offset, &end));
    zeroes.written(0, 10);
    EXPECT_FALSE(zeroes.next(0, &offset, &end));
}

// What a writer inserts after it has said so is not removed.
TEST(TrimmedZeroesTest, NothingThatIsWrittenMeanwhileGoes)
{
    constexpr u32 WRITERS = 3;
    std::mt19937 random(5);
    for (int round = 0; round < 200; ++round) {
        TrimmedZeroes zeroes;
        zeroes.setMaxRanges(1 + random() % 8);
        zeroes.note(0, BLOCKS);
        zeroes.start();
        for (u64 block = 0; block < BLOCKS && zeroes.add(block, 30); block += 32) {
        }
        Mutex mutex;
        std::vector<int> index(BLOCKS, 1); // 1: trimmed, 2: written
        std::vector<std::thread> writers;
        for (u32 id = 0; id < WRITERS; ++id) {
            writers.emplace_back([&, id] {
                std::mt19937 mine(id + static_cast<u32>(round) * WRITERS);
                for (int i = 0; i < 20; ++i) {
                    const u64 length = 1 + mine() % 6;
                    const u64 offset = mine() % (BLOCKS - length);
                    zeroes.written(offset, length);
                    MutexGuard guard(mutex);
                    std::fill_n(index.begin() + static_cast<long>(offset), length, 2);
                }
            });
        }
        u64 offset = 0;
        u64 end = 0;
        for (u64 at = 0; zeroes.next(at, &offset, &end); at = end)
            end = zeroes.visitFirst(offset, end, [&](u64 first, u64 behind) {
                MutexGuard guard(mutex);
                for (u64 block = first; block < behind; ++block) {
                    EXPECT_EQ(index[block], 1) << block;
                    index[block] = 0;
                }
            });
        for (std::thread& writer : writers)
            writer.join();
    }
}

} // namespace
