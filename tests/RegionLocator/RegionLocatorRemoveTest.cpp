#include "tests/RegionLocator/LocatorFixture.h"
#include "tests/support/Tokens.h"

namespace {

const std::string REMOVE_SIGNATURE = "void RegionLocator::remove(u64, u32, RegionLocatorVoucher*)";

using RemoveTest = LocatorFixture;
using RemoveDeathTest = RemoveTest;

TEST_F(RemoveTest, FromAnEmptyLocatorChangesNothing)
{
    removeRange(m_locator, 0, 100);
    EXPECT_EQ(m_locator.getItemCount(), 0U);
}

TEST_F(RemoveTest, OfAGapChangesNothing)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    removeRange(m_locator, 10, 10);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 1000), plainRegion(20, 10, 2000)}));
}

TEST_F(RemoveTest, TakesEveryIoOfTheRangeAndCutsAtBothEnds)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, zeroesRegion(10, 10));
    insertRegion(m_locator, compressedRegion(20, 10, 5000));
    removeRange(m_locator, 5, 20);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 5, 1000), compressedRegion(25, 5, 5000, 5)}));
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 10U);
    EXPECT_TRUE(lookupRange(m_locator, 5, 20).empty());
}

TEST_F(RemoveTest, OfTheMiddleLeavesTwoParts)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    removeRange(m_locator, 4, 2);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 4, 1000), plainRegion(6, 4, 1006, 6)}));
}

TEST_F(RemoveTest, RangeEndIsExclusive)
{
    insertRegion(m_locator, plainRegion(10, 10, 1000));
    removeRange(m_locator, 0, 10);
    removeRange(m_locator, 20, 10);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(10, 10, 1000)}));
    removeRange(m_locator, 0, 11);
    removeRange(m_locator, 19, 10);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(11, 8, 1001, 1)}));
}

TEST_F(RemoveTest, OfEverythingEmptiesTheLocator)
{
    for (u64 i = 0; i < 100; ++i)
        insertRegion(m_locator, plainRegion(10 * i, 5, 1000 + 10 * i));
    removeRange(m_locator, 0, 1000);
    EXPECT_EQ(m_locator.getItemCount(), 0U);
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 0U);
    EXPECT_EQ(tokensOut(m_locator), 0U);
}

TEST_F(RemoveTest, OneTokenIsEnoughWhateverTheRangeMeets)
{
    // The middle of one region costs most: one freed, two made.
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    {
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
        m_locator.remove(4, 2, voucher);
        EXPECT_TRUE(voucher.get()->empty());
    }
    EXPECT_EQ(tokensOut(m_locator), 2U);
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
    m_locator.remove(2, 23, voucher);
    // Three freed, two made.
    EXPECT_EQ(tokensIn(voucher), 2U);
    EXPECT_EQ(m_locator.getItemCount(), 2U);
    EXPECT_EQ(tokensOut(m_locator), 4U);
    EXPECT_EQ(m_locator.getMemPool()->getActiveVoucher(), nullptr);
}

TEST_F(RemoveTest, CountsNoInsertAndNoMerge)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    removeRange(m_locator, 4, 2);
    EXPECT_EQ(Access::counters(m_locator).getInserts(), 1U);
    EXPECT_EQ(Access::counters(m_locator).getInsertLbs(), 10U);
    EXPECT_EQ(Access::counters(m_locator).getMerges(), 0U);
}

TEST_F(RemoveTest, FromAnImmutableLocatorIsReportedAndGoesOn)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    m_locator.getConstBeginIterator();
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
    const LogCapture log;
    m_locator.remove(0, 10, voucher);
    EXPECT_TRUE(isSoftCheck(log.only(), REMOVE_SIGNATURE, "!m_immutable"));
    EXPECT_TRUE(unlocked().empty());
}

TEST_F(RemoveDeathTest, WhileAnythingIsLockedStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    const Regions held = lockRange(m_locator, 0, 1);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
    // Also when the range is nowhere near the lock, and when it is covered by nothing.
    for (const u64 offset : {u64{0}, u64{20}, u64{500}})
        EXPECT_DEATH(m_locator.remove(offset, 5, voucher),
                     hardCheckPattern("m_lockedRegions->empty()"));
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(RemoveTest, WritesThePunchOutsVerboseLines)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, zeroesRegion(10, 5));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
    const LogCapture log;
    DynamicTweaks::instance()->t_RlVerboseLogs = true;
    m_locator.remove(4, 20, voucher);
    DynamicTweaks::instance()->t_RlVerboseLogs = false;
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 4U) << testing::PrintToString(records);
    std::ostringstream prefix;
    prefix << "<" << &m_locator << ">: ";
    std::ostringstream first;
    first << " a_regions.size()=2 a_regionMap=" << Access::unlocked(m_locator);
    const std::vector<std::string> expected = {
        first.str(), "erase  curRegion=" + regionText(plainRegion(4, 6, 1004, 4)),
        "insert " + regionText(plainRegion(0, 4, 1000)),
        "erase whole  curRegion=" + regionText(zeroesRegion(10, 5))};
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(isRecord(records[i], LogModuleXel, InfoLevel, 0, PUNCH_OUT_SIGNATURE,
                             prefix.str() + expected[i]));
}

} // namespace
