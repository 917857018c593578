#include "tests/RegionLocator/DrainFixture.h"
#include "tests/support/Tokens.h"

namespace {

constexpr u32 NO_LIMIT = ~u32{0};

const std::string GET_FIRST_SIGNATURE =
    "RcStatus RegionLocator::getFirstAndLockInternal(AsyncTask*, u32, u32, "
    "std::vector<SubRegionDescriptor>*, RegionLocatorVoucher*)";

class GetFirstTest : public DrainFixture
{
protected:
    // Each with a voucher for as many regions as there are.
    Regions firstRegions(u32 maxRegions) { return first(NO_LIMIT, maxRegions); }
    Regions firstBlocks(u32 maxBlocks) { return first(maxBlocks, NO_LIMIT); }

private:
    Regions first(u32 maxBlocks, u32 maxRegions)
    {
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED,
                                   static_cast<int>(m_locator.getItemCount()));
        Regions regions = {plainRegion(77, 1, 77)};
        const RcStatus rc =
            maxBlocks == NO_LIMIT
                ? m_locator.getFirstRegionsAndLock(&m_task, maxRegions, &regions, voucher)
                : m_locator.getFirstBlocksAndLock(&m_task, maxBlocks, &regions, voucher);
        EXPECT_EQ(rc, RC_SUCCESS);
        EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
        EXPECT_EQ(Access::lockWaiter(m_locator), nullptr);
        return regions;
    }
};

using GetFirstDeathTest = GetFirstTest;

TEST_F(GetFirstTest, OfAnEmptyLocatorSucceedsWithNothing)
{
    EXPECT_TRUE(firstRegions(3).empty());
    EXPECT_TRUE(firstBlocks(10).empty());
    // Limits that no region could meet do not matter then.
    EXPECT_TRUE(firstRegions(0).empty());
    EXPECT_TRUE(firstBlocks(0).empty());
}

TEST_F(GetFirstTest, OfAnEmptyLocatorLeavesTheVouchersAlone)
{
    const ActiveVoucher active(m_pool, 1);
    RegionLocatorVoucher* const before = m_pool->getActiveVoucher();
    const VoucherGuard own(m_pool, 1);
    Regions regions;
    const LogCapture log;
    EXPECT_EQ(m_locator.getFirstRegionsAndLock(&m_task, 1, &regions, own), RC_SUCCESS);
    // Setting a second one would have been reported.
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(m_pool->getActiveVoucher(), before);
}

TEST_F(GetFirstTest, ThreeOfFiveRegionsAreTheThreeLowest)
{
    for (const u64 i : {u64{4}, u64{1}, u64{3}, u64{0}, u64{2}})
        insertRegion(m_locator, plainRegion(10 * i, 5, 1000 * (i + 1)));
    const Regions lowest = {plainRegion(0, 5, 1000), plainRegion(10, 5, 2000),
                            plainRegion(20, 5, 3000)};
    EXPECT_EQ(firstRegions(3), lowest);
    EXPECT_EQ(locked(), lowest);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(30, 5, 4000), plainRegion(40, 5, 5000)}));
    unlockAndRestoreRegions(m_locator, lowest);
}

TEST_F(GetFirstTest, TenBlocksOverRegionsOfFourAreTwoOfThem)
{
    for (u64 i = 0; i < 3; ++i)
        insertRegion(m_locator, plainRegion(4 * i, 4, 1000 * (i + 1)));
    const Regions two = {plainRegion(0, 4, 1000), plainRegion(4, 4, 2000)};
    EXPECT_EQ(firstBlocks(10), two);
    EXPECT_EQ(locked(), two);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(8, 4, 3000)}));
    unlockAndRestoreRegions(m_locator, two);
}

TEST_F(GetFirstTest, LimitsAreReachedButNotCrossed)
{
    for (u64 i = 0; i < 3; ++i)
        insertRegion(m_locator, plainRegion(4 * i, 4, 1000 * (i + 1)));
    for (const auto& [limit, count] :
         {std::pair<u32, size_t>{4, 1}, {7, 1}, {8, 2}, {11, 2}, {12, 3}, {13, 3}}) {
        const Regions regions = firstBlocks(limit);
        EXPECT_EQ(regions.size(), count) << limit;
        unlockAndRestoreRegions(m_locator, regions);
    }
    for (const auto& [limit, count] :
         {std::pair<u32, size_t>{1, 1}, {2, 2}, {3, 3}, {4, 3}, {NO_LIMIT, 3}}) {
        const Regions regions = firstRegions(limit);
        EXPECT_EQ(regions.size(), count) << limit;
        unlockAndRestoreRegions(m_locator, regions);
    }
}

TEST_F(GetFirstTest, StopsAtTheFirstRegionThatDoesNotFitThoughALaterOneWould)
{
    insertRegion(m_locator, plainRegion(0, 4, 1000));
    insertRegion(m_locator, plainRegion(10, 9, 2000));
    insertRegion(m_locator, plainRegion(20, 1, 3000));
    const Regions regions = firstBlocks(10);
    EXPECT_EQ(regions, (Regions{plainRegion(0, 4, 1000)}));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(10, 9, 2000), plainRegion(20, 1, 3000)}));
    unlockAndRestoreRegions(m_locator, regions);
}

TEST_F(GetFirstTest, MovesRegionsOfEachKindWholeAndAsTheyAreStored)
{
    insertRegion(m_locator, plainRegion(10, 10, 1000));
    insertRegion(m_locator, plainRegion(14, 2, 9000));
    insertRegion(m_locator, compressedRegion(20, 10, 2000, 3, 777, true));
    insertRegion(m_locator, zeroesRegion(30, 10));
    const Regions stored = unlocked();
    ASSERT_EQ(stored.size(), 5U);
    const Regions regions = firstRegions(NO_LIMIT);
    EXPECT_EQ(regions, stored);
    EXPECT_EQ(locked(), stored);
    EXPECT_TRUE(unlocked().empty());
    EXPECT_EQ(Access::locked(m_locator)->sizeLb(), 30U);
    EXPECT_EQ(Access::unlocked(m_locator)->sizeLb(), 0U);
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 30U);
    EXPECT_EQ(Access::counters(m_locator).getInserts(), 4U);
    EXPECT_EQ(Access::counters(m_locator).getMerges(), 0U);
    unlockAndRemoveRegions(m_locator, regions);
    EXPECT_EQ(m_locator.getItemCount(), 0U);
}

TEST_F(GetFirstTest, NeighboursOfOneIoAreNotCombined)
{
    insertRegion(m_locator, plainRegion(0, 5, 1000));
    insertRegion(m_locator, plainRegion(5, 5, 1005, 5));
    const Regions regions = firstRegions(2);
    EXPECT_EQ(regions, (Regions{plainRegion(0, 5, 1000), plainRegion(5, 5, 1005, 5)}));
    unlockAndRestoreRegions(m_locator, regions);
}

TEST_F(GetFirstTest, PassesOverWhatOthersHoldWithoutWaiting)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    insertRegion(m_locator, plainRegion(40, 10, 3000));
    Regions held = lockRange(m_locator, 0, 6);
    for (const SubRegionDescriptor& piece : lockRange(m_locator, 20, 10))
        held.push_back(piece);
    const Regions regions = firstRegions(5);
    EXPECT_EQ(regions, (Regions{plainRegion(6, 4, 1006, 6), plainRegion(40, 10, 3000)}));
    EXPECT_EQ(locked().size(), 4U);
    unlockAndRestoreRegions(m_locator, regions);
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(GetFirstTest, ParksWhenEverythingIsLockedByOthers)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    for (const bool blocks : {false, true}) {
        // Cleared at once; the limits are not looked at before there is something to take.
        Regions regions = {plainRegion(77, 1, 77)};
        EXPECT_EQ(blocks ? m_locator.getFirstBlocksAndLock(&m_task, 1, &regions, voucher)
                         : m_locator.getFirstRegionsAndLock(&m_task, 0, &regions, voucher),
                  RC_WAIT);
        EXPECT_TRUE(regions.empty());
        EXPECT_EQ(locked(), held);
        EXPECT_TRUE(unlocked().empty());
        EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
        EXPECT_EQ(tokensIn(voucher), 2U);
        EXPECT_NE(dynamic_cast<RL_LockWaiter_getFirst*>(Access::lockWaiter(m_locator)), nullptr);
        Access::dropLockWaiter(m_locator);
    }
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(GetFirstTest, TokensMoveWithTheRegions)
{
    for (u64 i = 0; i < 10; ++i)
        insertRegion(m_locator, plainRegion(10 * i, 5, 1000 * (i + 1)));
    // Each region's token is freed into the voucher and taken from it again.
    const VoucherGuard voucher(m_pool, 10);
    Regions regions;
    EXPECT_EQ(m_locator.getFirstRegionsAndLock(&m_task, 10, &regions, voucher), RC_SUCCESS);
    EXPECT_EQ(regions.size(), 10U);
    EXPECT_EQ(tokensIn(voucher), 10U);
    EXPECT_EQ(tokensOut(m_locator), 20U);
    unlockAndRestoreRegions(m_locator, regions);
}

TEST_F(GetFirstTest, DrainsALocatorInViewOrder)
{
    Regions all;
    for (u64 i = 0; i < 50; ++i) {
        all.push_back(plainRegion(10 * i, static_cast<u32>(1 + i % 7), 1000 * (i + 1)));
        insertRegion(m_locator, all.back());
    }
    Regions drained;
    for (;;) {
        const Regions regions = firstBlocks(16);
        if (regions.empty())
            break;
        drained.insert(drained.end(), regions.begin(), regions.end());
        unlockAndRemoveRegions(m_locator, regions);
    }
    EXPECT_EQ(drained, all);
    EXPECT_EQ(tokensOut(m_locator), 0U);
}

TEST_F(GetFirstTest, BlocksAreAddedUpIn32Bits)
{
    // 65537 of these make 2^32 - 1 blocks, and one more wraps the sum around.
    constexpr u64 COUNT = 65538;
    {
        const VoucherGuard voucher(m_pool, COUNT);
        for (u64 i = 0; i < COUNT; ++i)
            m_locator.insert(plainRegion(i * 0xFFFF, 0xFFFF, i * 0x20000), voucher);
    }
    const VoucherGuard voucher(m_pool, 1);
    Regions regions;
    EXPECT_EQ(m_locator.getFirstBlocksAndLock(&m_task, NO_LIMIT - 1, &regions, voucher),
              RC_SUCCESS);
    EXPECT_EQ(regions.size(), COUNT - 2);
    m_locator.unlockAndRestore(regions, voucher);
    EXPECT_EQ(m_locator.getFirstBlocksAndLock(&m_task, NO_LIMIT, &regions, voucher), RC_SUCCESS);
    EXPECT_EQ(regions.size(), COUNT);
    m_locator.unlockAndRestore(regions, voucher);
    EXPECT_EQ(m_locator.getItemCount(), COUNT);
}

// ---- checks and verbose lines ----

TEST_F(GetFirstTest, OfAnImmutableLocatorIsReportedAndGoesOn)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    m_locator.getConstBeginIterator();
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions regions;
    {
        const LogCapture log;
        EXPECT_EQ(m_locator.getFirstBlocksAndLock(&m_task, 10, &regions, voucher), RC_SUCCESS);
        EXPECT_TRUE(isSoftCheck(log.only(), GET_FIRST_SIGNATURE, "!m_immutable"));
    }
    EXPECT_EQ(regions, (Regions{plainRegion(0, 10, 1000)}));
    EXPECT_EQ(locked(), regions);
    unlockAndRestoreRegions(m_locator, regions);
}

TEST_F(GetFirstDeathTest, AFirstRegionThatDoesNotFitIsReportedAndStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(3, 10, 1000));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions regions;
    const std::string region =
        "curRegion=\\[view=3 length=10 fifo=1000 offsetInIo=0 ioBytes=[0-9]+ flags=0\\] ";
    const std::string hard = ".*" + hardCheckPattern("a_subRegionsResult->size() > 0");
    EXPECT_DEATH(m_locator.getFirstBlocksAndLock(&m_task, 9, &regions, voucher),
                 " \\.\\./RegionLocator\\.cpp [0-9]+: numBlocks > 0 failed\\.  a_maxBlocks=9  " +
                     region + hard);
    EXPECT_DEATH(m_locator.getFirstBlocksAndLock(&m_task, 0, &regions, voucher),
                 ": numBlocks > 0 failed\\.  a_maxBlocks=0  " + region + hard);
    EXPECT_DEATH(m_locator.getFirstRegionsAndLock(&m_task, 0, &regions, voucher),
                 ": numBlocks > 0 failed\\.  a_maxBlocks=4294967295  " + region + hard);
}

TEST_F(GetFirstDeathTest, ARegionThatIsLockedAlreadyStopsTheProcess)
{
    // Both maps with one block in common are nothing that operations bring about.
    EXPECT_DEATH(
        {
            const VoucherGuard voucher(m_pool, 8);
            m_pool->setActiveVoucher(voucher);
            Access::unlocked(m_locator)->insert(plainRegion(10, 4, 1000));
            Access::locked(m_locator)->insert(plainRegion(10, 4, 1000));
            m_pool->setActiveVoucher(nullptr);
            Regions regions;
            m_locator.getFirstRegionsAndLock(&m_task, 1, &regions, voucher);
        },
        hardCheckPattern("rc"));
}

TEST_F(GetFirstTest, WritesItsStepsWhenVerboseAndNothingElse)
{
    const Regions stored = {plainRegion(0, 4, 1000), zeroesRegion(10, 4),
                            compressedRegion(20, 4, 2000)};
    for (const SubRegionDescriptor& region : stored)
        insertRegion(m_locator, region);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 3);
    Regions regions;
    const LogCapture log;
    EXPECT_EQ(m_locator.getFirstRegionsAndLock(&m_task, 1, &regions, voucher), RC_SUCCESS);
    EXPECT_TRUE(log.records().empty());
    m_locator.unlockAndRestore(regions, voucher);
    ASSERT_TRUE(log.records().empty());
    {
        const VerboseLogs verbose;
        EXPECT_EQ(m_locator.getFirstBlocksAndLock(&m_task, 8, &regions, voucher), RC_SUCCESS);
    }
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 4U) << testing::PrintToString(records);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(isTrace(records[2 * i], GET_FIRST_SIGNATURE,
                            "erase from unlocked " + regionText(stored[i])));
        EXPECT_TRUE(isTrace(records[2 * i + 1], GET_FIRST_SIGNATURE,
                            "insert locked " + regionText(stored[i])));
    }
    m_locator.unlockAndRestore(regions, voucher);
}

} // namespace
