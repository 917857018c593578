#include "appliance/Diff.h"

#include "host/journal/JournalItemSearch.h"
#include "tests/appliance/MirrorFixture.h"

namespace {

ChosenPoint itemPoint(u64 items)
{
    ChosenPoint point;
    point.m_items = items;
    return point;
}

class DiffTest : public MirrorFixture
{
protected:
    std::vector<DiffExtent> diff(u64 from, u64 to)
    {
        std::vector<DiffExtent> extents;
        FlowControl control;
        const Result result =
            diffPoints(*m_mirror, itemPoint(from), itemPoint(to), control, &extents);
        EXPECT_TRUE(result.ok()) << result.message();
        return extents;
    }

    static const u8* block(const Image& image, u64 number)
    {
        return image.data() + number * BLOCK_BYTES;
    }
};

TEST_F(DiffTest, NothingBetweenAPointAndItself)
{
    makeMirror();
    writeRandomly(1, 20);
    EXPECT_TRUE(diff(0, 0).empty());
    EXPECT_TRUE(diff(7, 7).empty());
    EXPECT_TRUE(diff(20, 20).empty());
}

TEST_F(DiffTest, RefusesTheLaterPointFirst)
{
    makeMirror();
    writeRandomly(1, 3);
    std::vector<DiffExtent> extents;
    FlowControl control;
    EXPECT_EQ(diffPoints(*m_mirror, itemPoint(2), itemPoint(1), control, &extents).code(),
              ResultCode::WrongUsage);
}

TEST_F(DiffTest, NeighboursOfOneTypeAreOneExtent)
{
    makeMirror();
    const std::vector<u8> data(8 * BLOCK_BYTES, 5);
    ASSERT_TRUE(m_mirror->write(90, data.data(), 8).ok()); // before the span
    ASSERT_TRUE(m_mirror->write(108, data.data(), 8).ok());
    ASSERT_TRUE(m_mirror->write(100, data.data(), 8).ok());
    ASSERT_TRUE(m_mirror->writeZeroes(116, 4).ok());
    ASSERT_TRUE(m_mirror->writeZeroes(120, 4).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    const std::vector<DiffExtent> extents = diff(1, 5);
    ASSERT_EQ(extents.size(), 2u);
    EXPECT_EQ(extents[0].m_offsetBlocks, 100u);
    EXPECT_EQ(extents[0].m_lengthBlocks, 16u);
    EXPECT_FALSE(extents[0].m_isZero);
    EXPECT_EQ(extents[1].m_offsetBlocks, 116u);
    EXPECT_EQ(extents[1].m_lengthBlocks, 8u);
    EXPECT_TRUE(extents[1].m_isZero);
}

// Between random points: what the extents leave out is equal, what they call zero is zero, and with
// the comparison nothing equal is left in.
TEST_F(DiffTest, AgreesWithTheContentOfBothPoints)
{
    makeMirror();
    writeRandomly(2, 60);
    FlowControl control;
    for (const auto& [from, to] : {std::pair<u64, u64>{0, 60}, {0, 1}, {13, 40}, {59, 60}}) {
        const Image before = m_images[from];
        const Image after = m_images[to];
        for (const bool compare : {false, true}) {
            std::vector<DiffExtent> extents = diff(from, to);
            if (compare) {
                ASSERT_TRUE(compareExtents(*m_mirror, m_host.getEngine(), itemPoint(from),
                                           itemPoint(to), control, &extents)
                                .ok());
            }
            std::vector<char> inside(BLOCKS, 0);
            u64 last = 0;
            for (const DiffExtent& extent : extents) {
                ASSERT_GE(extent.m_offsetBlocks, last);
                last = extent.m_offsetBlocks + extent.m_lengthBlocks;
                ASSERT_LE(last, BLOCKS);
                for (u64 b = extent.m_offsetBlocks; b < last; ++b)
                    inside[b] = extent.m_isZero ? 'z' : 'd';
            }
            const std::vector<u8> zeroes(BLOCK_BYTES);
            for (u64 b = 0; b < BLOCKS; ++b) {
                const bool equal = std::memcmp(block(before, b), block(after, b), BLOCK_BYTES) == 0;
                ASSERT_TRUE(inside[b] != 0 || equal) << "block " << b << " is missing";
                ASSERT_TRUE(!compare || inside[b] == 0 || !equal) << "block " << b << " is equal";
                const bool zero = std::memcmp(block(after, b), zeroes.data(), 512) == 0;
                ASSERT_TRUE(inside[b] != 'z' || zero) << "block " << b << " is not zero";
                ASSERT_TRUE(inside[b] != 'd' || !zero) << "block " << b << " is zero";
            }
        }
    }
}

TEST_F(DiffTest, ScansNoMoreItemsThanLieBetween)
{
    makeMirror();
    writeRandomly(3, 500);
    RegionLocator locator(1, RL_MMI_View);
    FlowControl control;
    ScanResult scanned;
    ASSERT_TRUE(
        indexSpan(*m_mirror, itemPoint(490), itemPoint(493), locator, control, &scanned).ok());
    EXPECT_EQ(scanned.logicalItems, 3u);
    EXPECT_EQ(scanned.itemsBefore, 493u);
    EXPECT_EQ(locator.getStatistics().m_numIOsInserted, 3u);
}

// Checkpoints between them, some right at the edges of pages.
TEST_F(DiffTest, FindsTheEndOfAnyNumberOfItems)
{
    makeMirror();
    const std::vector<u8> data(BLOCK_BYTES, 1);
    for (u32 i = 0; i < 200; ++i) {
        ASSERT_TRUE(m_mirror->write(i, data.data(), 1).ok());
        CpId_t id = 0;
        if (i % 7 == 0) {
            ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
        }
    }
    ASSERT_TRUE(m_mirror->flush().ok());
    std::string message;
    for (const JournalCheckpoint& checkpoint : m_mirror->journal().checkpoints()) {
        JournalPtr end = JournalPtr::invalid;
        ASSERT_EQ(findEndOfItems(m_mirror->journal(), checkpoint.m_itemsBefore, &end, &message),
                  RC_SUCCESS);
        // Right in front of the checkpoint that was set after these items.
        EXPECT_EQ(end.grain, checkpoint.m_ptr.grain);
        EXPECT_EQ(end.entryNum, checkpoint.m_ptr.entryNum);
    }
    JournalPtr end = JournalPtr::invalid;
    EXPECT_EQ(findEndOfItems(m_mirror->journal(), 0, &end, &message), RC_SUCCESS);
    EXPECT_EQ(end.entryNum, 0u);
    EXPECT_EQ(findEndOfItems(m_mirror->journal(), 200, &end, &message), RC_SUCCESS);
    EXPECT_EQ(findEndOfItems(m_mirror->journal(), 201, &end, &message), RC_BAD_ARGUMENT);
}

} // namespace
