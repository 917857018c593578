// A process-wide pool that runs out at the N-th block, for every N until it no longer does: a
// reservation that fails leaves nothing behind, and what is in the locator stays.

#include <gtest/gtest.h>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "common/infra/MemoryPoolImpl.h"
#include "tests/support/LocatorModel.h"
#include "tests/support/LogCapture.h"

namespace {

constexpr u32 BLOCK_SIZE = 16384; // so that a locator needs many
constexpr u64 UNLIMITED = ~u64{0};
constexpr int ITEMS = 2000;

MemoryPoolImpl* globalPool()
{
    return Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
}

class PoolLimitTest : public testing::Test
{
protected:
    void SetUp() override { m_chunkSizeBefore = globalPool()->getChunkSize(); }
    void TearDown() override { globalPool()->init(m_chunkSizeBefore, 0, UNLIMITED); }

    LogCapture m_log;
    u32 m_chunkSizeBefore = 0;
};

// Inserts one IO a time until a reservation fails; returns how many went in.
int insertUntilFull(RegionLocator& locator)
{
    RegionLocatorMemPool* pool = locator.getMemPool();
    int inserted = 0;
    for (; inserted < ITEMS; ++inserted) {
        RegionLocatorVoucher* voucher = pool->createVoucher();
        const RcStatus rc = pool->fillVoucher(voucher, 2, 0, voucher).get();
        if (rc != RC_SUCCESS) {
            EXPECT_EQ(RC_NO_MEMORY, rc);
            EXPECT_TRUE(voucher->empty());
            pool->destroyVoucher(voucher);
            break;
        }
        const u64 offset = static_cast<u64>(inserted) * 10;
        EXPECT_TRUE(locator.insert(SfsItemDescriptor::genUncompressed(offset, 8, offset, 0, false),
                                   voucher));
        pool->destroyVoucher(voucher);
    }
    return inserted;
}

TEST_F(PoolLimitTest, EachReservationFailsCleanly)
{
    int inserted = 0;
    int runsThatFailed = 0;
    for (u64 blocks = 1; inserted < ITEMS; ++blocks) {
        globalPool()->init(BLOCK_SIZE, 0, blocks * BLOCK_SIZE);
        RegionLocator locator(1, RL_MMI_View);
        const int before = inserted;
        inserted = insertUntilFull(locator);
        EXPECT_GE(inserted, before);
        runsThatFailed += inserted < ITEMS ? 1 : 0;
        EXPECT_EQ(static_cast<u64>(inserted), locator.getItemCount());
        EXPECT_EQ(static_cast<u64>(inserted) * 64,
                  locator.getMemPool()->getMemoryStats().usedBytesNet);
        ASSERT_LT(blocks, 1000U);
    }
    EXPECT_GT(runsThatFailed, 3);
}

TEST_F(PoolLimitTest, EachBatchOfAFeederFailsCleanlyAndTheNextOneGoesOn)
{
    bool passed = false;
    for (u64 blocks = 1; !passed; ++blocks) {
        globalPool()->init(BLOCK_SIZE, 0, blocks * BLOCK_SIZE);
        RegionLocator locator(1, RL_MMI_View);
        auto* feeder = locator.getInsertContainer();
        const RcStatus rc = feeder->prepareToAdd(ITEMS, 0).get();
        feeder->unPrepareToAdd();
        EXPECT_EQ(0U, locator.getMemPool()->getMemoryStats().usedBytesNet);
        if (rc == RC_SUCCESS) {
            passed = true;
            break;
        }
        EXPECT_EQ(RC_NO_MEMORY, rc);
        // A smaller batch fits and works.
        EXPECT_EQ(RC_SUCCESS, feeder->prepareToAdd(10, 0).get());
        feeder->unPrepareToAdd();
        ASSERT_LT(blocks, 1000U);
    }
    EXPECT_TRUE(passed);
}

} // namespace
