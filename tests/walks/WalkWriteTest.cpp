// The story of docs/walk-write.md, step by step: one journaled write on its way into the index.

#include <gtest/gtest.h>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "host/infra/Clock.h"

namespace {

SfsDiskMetaItem journaledWrite(u64 offsetBlocks, u32 lengthBlocks, u64 address)
{
    SfsDiskMetaItem item;
    item.setType(SfsMetaType::UNCOMPRESSED_IO);
    item.m_ioData = {address, offsetBlocks};
    item.setUncompressedLengthBlocks(lengthBlocks);
    return item;
}

TEST(WalkWriteTest, FromJournalItemToRegionMap)
{
    RegionLocator locator(1, RL_MMI_View);
    RegionLocatorMetaDataContainer_Insert* feeder = locator.getInsertContainer();
    const JournalPtr somewhere{SFS_GRAIN_BLOCKS, 0};

    // 1. Before a batch the feeder reserves what the batch may need.
    ASSERT_EQ(feeder->prepareToAdd(2, Clock::instance()->nowMs() + 1000).get(), RC_SUCCESS);

    // 2. An item becomes a region, and the region goes into the map of what is not locked.
    ASSERT_EQ(feeder->addMetaData(journaledWrite(100, 8, 5000), somewhere), RC_SUCCESS);
    EXPECT_EQ(locator.getItemCount(), 1u);

    // 3. A newer one over its middle is stored whole; the older one is punched out in two pieces.
    ASSERT_EQ(feeder->addMetaData(journaledWrite(102, 2, 6000), somewhere), RC_SUCCESS);
    EXPECT_EQ(locator.getItemCount(), 3u);
    EXPECT_EQ(locator.getTotalRegionBlocks(), 8u);

    // 4. What the batch did not use goes back to the pool.
    feeder->unPrepareToAdd();
    const u64 usedBytes = locator.getMemPool()->getMemoryStats().usedBytesNet;
    EXPECT_EQ(usedBytes, 3u * 64);

    // 5. A checkpoint at the target ends the scan.
    feeder->init(7);
    SfsDiskMetaItem checkpoint;
    checkpoint.setType(SfsMetaType::CHECKPOINT);
    checkpoint.m_cpData = {0, 7};
    EXPECT_EQ(feeder->addMetaData(checkpoint, somewhere), RC_STOP_EXCLUDE_CURRENT);

    std::vector<SubRegionDescriptor> pieces;
    ASSERT_EQ(locator.lookup(nullptr, 100, 8, &pieces, false, nullptr), RC_SUCCESS);
    ASSERT_EQ(pieces.size(), 3u);
    EXPECT_EQ(pieces[0].m_fifoOffsetOfIoStartBlocks, 5000u);
    EXPECT_EQ(pieces[1].m_fifoOffsetOfIoStartBlocks, 6000u);
    EXPECT_EQ(pieces[2].m_fifoOffsetOfIoStartBlocks, 5004u);
    EXPECT_EQ(pieces[2].m_regionOffsetLBsWithinIo, 4u);
}

} // namespace
