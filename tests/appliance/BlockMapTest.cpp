// The block map of an index, sparse here and dense there: the runs are those of its regions, and no
// more of them are listed at a time than the bound says.

#include "appliance/BlockMap.h"

#include "tests/appliance/MirrorFixture.h"
#include "tests/support/VoucherGuard.h"

namespace {

class BlockMapTest : public MirrorFixture
{
protected:
    static constexpr u64 SIZE_BLOCKS = u64{1} << 22;

    void SetUp() override
    {
        MirrorFixture::SetUp();
        MirrorSettings settings;
        settings.m_sizeBytes = SIZE_BLOCKS * BLOCK_BYTES;
        ASSERT_TRUE(Mirror::create(folder(), settings).ok());
        openMirror();
    }
};

TEST_F(BlockMapTest, AWindowYieldsNoMorePiecesThanTheMost)
{
    constexpr u64 WHOLE = u64{1} << 31;
    // Few regions are few pieces, however much of the volume is looked at.
    EXPECT_EQ(pieceWindow(WHOLE, 0), WHOLE);
    EXPECT_EQ(pieceWindow(WHOLE, MOST_PIECES_AT_A_TIME), WHOLE);
    EXPECT_EQ(pieceWindow(WHOLE, MOST_PIECES_AT_A_TIME + 1), MOST_PIECES_AT_A_TIME);
    EXPECT_EQ(pieceWindow(1000, MOST_PIECES_AT_A_TIME + 1), 1000u);
}

TEST_F(BlockMapTest, ADensePartBehindASparseOneIsListedWhole)
{
    constexpr u64 REGIONS = MOST_PIECES_AT_A_TIME + 1000;
    constexpr u64 DENSE = SIZE_BLOCKS - 2 * REGIONS;
    RegionLocator locator(1, RL_MMI_View);
    insertRegion(locator, plainRegion(10, 5, 100));
    for (u64 i = 0; i < REGIONS; ++i)
        insertRegion(locator, i % 2 == 0 ? plainRegion(DENSE + 2 * i, 1, 1000 + 4 * i)
                                         : zeroesRegion(DENSE + 2 * i, 1));
    std::vector<BlockRun> runs;
    const Result result = findBlockRuns(*m_mirror, locator, 0, SIZE_BLOCKS, 3 * REGIONS, &runs);
    ASSERT_TRUE(result.ok()) << result.message();
    // The gaps are holes of the target, and its zeroes are one with the index's.
    ASSERT_EQ(runs.size(), 3 + REGIONS);
    EXPECT_EQ(runs[1].m_offsetBlocks, 10u);
    EXPECT_EQ(runs[1].m_lengthBlocks, 5u);
    EXPECT_TRUE(runs[1].m_isData);
    u64 next = 0;
    for (size_t i = 0; i < runs.size(); ++i) {
        ASSERT_EQ(runs[i].m_offsetBlocks, next) << i;
        ASSERT_EQ(runs[i].m_isData, i % 2 == 1) << i;
        if (i > 2) {
            ASSERT_EQ(runs[i].m_lengthBlocks, i % 2 == 1 ? 1u : 3u) << i;
        }
        next += runs[i].m_lengthBlocks;
    }
    EXPECT_EQ(next, SIZE_BLOCKS);
}

} // namespace
