#include "appliance/History.h"

#include "tests/appliance/MirrorFixture.h"

namespace {

class HistoryTest : public MirrorFixture
{
protected:
    History history(u64 offset, u64 length, u64 at)
    {
        ChosenPoint point;
        point.m_items = at;
        FlowControl control;
        History found;
        const Result result = historyOf(*m_mirror, offset, length, point, control, &found);
        EXPECT_TRUE(result.ok()) << result.message();
        return found;
    }

    void write(u64 offset, u32 length)
    {
        const std::vector<u8> data(length * BLOCK_BYTES, 9);
        ASSERT_TRUE(m_mirror->write(offset, data.data(), length).ok());
    }
};

TEST_F(HistoryTest, ListsWhatTouchesTheRangeAndWhatOfItIsLive)
{
    makeMirror();
    CpId_t id = 0;
    write(100, 10);                                       // item 1
    ASSERT_TRUE(m_mirror->checkpoint("first", &id).ok()); // cp 1
    write(200, 10);                                       // item 2: elsewhere
    ASSERT_TRUE(m_mirror->writeZeroes(104, 2).ok());      // item 3
    ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());      // cp 2
    write(105, 20);                                       // item 4
    ASSERT_TRUE(m_mirror->flush().ok());

    const History latest = history(98, 12, 4);
    ASSERT_EQ(latest.m_entries.size(), 3u);
    EXPECT_EQ(latest.m_targetBlocks, 2u);
    const HistoryEntry& first = latest.m_entries[0];
    EXPECT_EQ(first.m_item, 1u);
    EXPECT_EQ(first.m_offsetBlocks, 100u);
    EXPECT_EQ(first.m_lengthBlocks, 10u);
    EXPECT_STREQ(first.typeName(), "data");
    EXPECT_EQ(first.m_liveBlocks, 4u);
    EXPECT_FALSE(first.m_after.has_value());
    ASSERT_TRUE(first.m_before.has_value());
    EXPECT_EQ(first.m_before->m_id, 1u);
    const HistoryEntry& second = latest.m_entries[1];
    EXPECT_EQ(second.m_item, 3u);
    EXPECT_STREQ(second.typeName(), "zeroes");
    EXPECT_EQ(second.m_liveBlocks, 1u);
    EXPECT_EQ(second.m_after->m_id, 1u);
    EXPECT_EQ(second.m_before->m_id, 2u);
    const HistoryEntry& third = latest.m_entries[2];
    EXPECT_EQ(third.m_item, 4u);
    EXPECT_EQ(third.m_lengthBlocks, 20u);
    EXPECT_EQ(third.m_liveBlocks, 5u); // of the range alone
    EXPECT_FALSE(third.m_before.has_value());

    const History earlier = history(98, 12, 1);
    ASSERT_EQ(earlier.m_entries.size(), 3u);
    EXPECT_EQ(earlier.m_entries[0].m_liveBlocks, 10u);
    EXPECT_EQ(earlier.m_entries[1].m_liveBlocks, 0u);
    EXPECT_EQ(earlier.m_entries[2].m_liveBlocks, 0u);
}

TEST_F(HistoryTest, LiveAndTargetBlocksAddUpToTheRange)
{
    makeMirror(Compression::Lz4);
    writeRandomly(11, 200);
    for (const u64 at : {0, 50, 200}) {
        const History found = history(500, 900, at);
        u64 sum = found.m_targetBlocks;
        u64 item = 0;
        for (const HistoryEntry& entry : found.m_entries) {
            EXPECT_GE(entry.m_item, item);
            item = entry.m_item;
            EXPECT_TRUE(entry.m_item <= at || entry.m_liveBlocks == 0);
            sum += entry.m_liveBlocks;
        }
        EXPECT_EQ(sum, 900u) << at;
    }
}

TEST_F(HistoryTest, PiecesOfOneRequestAreOneWrite)
{
    MirrorSettings settings;
    settings.m_sizeBytes = u64{1} << 30;
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    ASSERT_TRUE(m_mirror->writeZeroes(10, 200000).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    const History found = history(100000, 1, 1);
    ASSERT_EQ(found.m_entries.size(), 1u);
    EXPECT_EQ(found.m_entries[0].m_offsetBlocks, 10u);
    EXPECT_EQ(found.m_entries[0].m_lengthBlocks, 200000u);
}

} // namespace
