#include "tests/RegionLocator/DrainFixture.h"
#include "tests/support/Tokens.h"

namespace {

const std::string EXACT_REMOVE_SIGNATURE =
    "void RegionLocator::remove(const SubRegionDescriptor&, RegionLocatorVoucher*)";
const std::string NO_DATA_CONDITION = "desc.m_fifoOffsetOfIoStartBlocks != SFS_DEV_ADDR_INVALID";
const std::string NO_DATA_TEXT = "you cannot use the 'exact remove' with IOs which have no UD";
const std::string GRAIN_CONDITION =
    "(((desc.m_fifoOffsetOfIoStartBlocks)&0xffffffffffffLL)/(1 << 15)) == "
    "(((fifoEnd)&0xffffffffffffLL)/(1 << 15))";

std::string grainText(u64 address, u32 blocks)
{
    return "an IO across grains is not supported desc.m_fifoOffsetOfIoStartBlocks=" +
           std::to_string(address) + "  desc.getIoTotalLengthLBs()=" + std::to_string(blocks) + " ";
}

class ExactRemoveTest : public DrainFixture
{
protected:
    void removeExactly(const SubRegionDescriptor& desc)
    {
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
        m_locator.remove(desc, voucher);
        EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
    }
};

using ExactRemoveDeathTest = ExactRemoveTest;

TEST_F(ExactRemoveTest, TakesTheIoAndNoNeighbour)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(10, 10, 1010));
    insertRegion(m_locator, plainRegion(20, 10, 1020));
    const LogCapture log;
    removeExactly(plainRegion(10, 10, 1010));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 1000), plainRegion(20, 10, 1020)}));
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 20U);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(ExactRemoveTest, LeavesWhatLaterIosHaveOverridden)
{
    insertRegion(m_locator, plainRegion(0, 40, 1000));
    insertRegion(m_locator, plainRegion(5, 5, 2000));
    insertRegion(m_locator, compressedRegion(15, 5, 3000));
    insertRegion(m_locator, zeroesRegion(25, 5));
    removeExactly(plainRegion(0, 40, 1000));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(5, 5, 2000), compressedRegion(15, 5, 3000),
                                   zeroesRegion(25, 5)}));
    EXPECT_EQ(tokensOut(m_locator), 3U);
}

TEST_F(ExactRemoveTest, LeavesALaterIoThatReachesIntoTheRange)
{
    insertRegion(m_locator, plainRegion(10, 10, 1000));
    insertRegion(m_locator, plainRegion(5, 10, 2000));
    insertRegion(m_locator, plainRegion(18, 10, 3000));
    removeExactly(plainRegion(10, 10, 1000));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(5, 10, 2000), plainRegion(18, 10, 3000)}));
}

TEST_F(ExactRemoveTest, OfAnIoWithNoPieceLeftChangesNothing)
{
    removeExactly(plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, compressedRegion(0, 10, 2000));
    const LogCapture log;
    removeExactly(plainRegion(0, 10, 1000));
    EXPECT_EQ(unlocked(), (Regions{compressedRegion(0, 10, 2000)}));
    EXPECT_TRUE(log.records().empty());
}

TEST_F(ExactRemoveTest, KnowsAPlainIoByItsJournalBlocks)
{
    insertRegion(m_locator, plainRegion(0, 10, 990));  // ends where the IO begins
    insertRegion(m_locator, plainRegion(10, 10, 991)); // its last block is the IO's first
    insertRegion(m_locator, plainRegion(20, 10, 1039));
    insertRegion(m_locator, plainRegion(30, 10, 1040)); // begins where the IO ends
    removeExactly(plainRegion(0, 40, 1000));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 990), plainRegion(30, 10, 1040)}));
}

TEST_F(ExactRemoveTest, KnowsACompressedIoByItsAddress)
{
    insertRegion(m_locator, compressedRegion(0, 40, 1000));
    insertRegion(m_locator, compressedRegion(5, 5, 1001));
    insertRegion(m_locator, plainRegion(15, 5, 1000));
    insertRegion(m_locator, zeroesRegion(25, 5));
    removeExactly(compressedRegion(0, 40, 1000));
    EXPECT_EQ(unlocked(), (Regions{compressedRegion(5, 5, 1001), plainRegion(15, 5, 1000),
                                   zeroesRegion(25, 5)}));
}

TEST_F(ExactRemoveTest, OfAPlainIoLeavesACompressedOneAtItsAddress)
{
    insertRegion(m_locator, compressedRegion(0, 10, 1000));
    removeExactly(plainRegion(0, 10, 1000));
    EXPECT_EQ(unlocked(), (Regions{compressedRegion(0, 10, 1000)}));
}

TEST_F(ExactRemoveTest, LooksOnlyIntoTheViewRange)
{
    // The same journal blocks, mapped elsewhere.
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(50, 10, 1000));
    removeExactly(plainRegion(50, 10, 1000));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 1000)}));
}

TEST_F(ExactRemoveTest, OfTheMiddleOfARegionKeepsBothEnds)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, compressedRegion(20, 10, 2000));
    {
        // One freed, two made: as much as one token allows.
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
        m_locator.remove(plainRegion(4, 2, 1004, 4), voucher);
        EXPECT_TRUE(voucher.get()->empty());
    }
    removeExactly(compressedRegion(24, 2, 2000, 4));
    EXPECT_EQ(unlocked(),
              (Regions{plainRegion(0, 4, 1000), plainRegion(6, 4, 1006, 6),
                       compressedRegion(20, 4, 2000), compressedRegion(26, 4, 2000, 6)}));
    EXPECT_EQ(tokensOut(m_locator), 4U);
}

TEST_F(ExactRemoveTest, FreesItsPiecesIntoTheVoucher)
{
    insertRegion(m_locator, plainRegion(0, 40, 1000));
    for (u64 offset = 5; offset < 40; offset += 10)
        insertRegion(m_locator, plainRegion(offset, 5, 100 * offset + 5000));
    ASSERT_EQ(m_locator.getItemCount(), 8U);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
    m_locator.remove(plainRegion(0, 40, 1000), voucher);
    EXPECT_EQ(m_locator.getItemCount(), 4U);
    EXPECT_EQ(tokensIn(voucher), 5U);
    EXPECT_EQ(Access::counters(m_locator).getInserts(), 5U);
    EXPECT_EQ(Access::counters(m_locator).getMerges(), 0U);
}

// ---- checks and verbose lines ----

TEST_F(ExactRemoveTest, OfZeroesIsReportedAndTakesEverythingInTheRange)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, zeroesRegion(10, 10));
    insertRegion(m_locator, compressedRegion(20, 10, 2000));
    const LogCapture log;
    removeExactly(zeroesRegion(5, 20));
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
    EXPECT_TRUE(isSoftCheck(records[0], EXACT_REMOVE_SIGNATURE, NO_DATA_CONDITION, NO_DATA_TEXT));
    // The end of no address is small: it lies in another grain.
    EXPECT_TRUE(
        isSoftCheck(records[1], EXACT_REMOVE_SIGNATURE, GRAIN_CONDITION, grainText(~u64{0}, 20)));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 5, 1000), compressedRegion(25, 5, 2000, 5)}));
}

TEST_F(ExactRemoveTest, OfOneBlockOfZeroesIsReportedOnce)
{
    insertRegion(m_locator, zeroesRegion(10, 1));
    const LogCapture log;
    removeExactly(zeroesRegion(10, 1));
    EXPECT_TRUE(isSoftCheck(log.only(), EXACT_REMOVE_SIGNATURE, NO_DATA_CONDITION, NO_DATA_TEXT));
    EXPECT_TRUE(unlocked().empty());
}

TEST_F(ExactRemoveTest, OfAnIoAcrossGrainsIsReportedAndGoesOn)
{
    constexpr u64 GRAIN = 1 << 15;
    constexpr u64 ADDRESS_END = u64{1} << 48;
    const u64 device = u64{5} << 48;
    const struct
    {
        u64 m_address;
        u32 m_length;
        bool m_across;
    } cases[] = {
        {GRAIN - 10, 10, false},       {GRAIN - 10, 11, true},      {GRAIN, 10, false},
        {GRAIN - 1, 1, false},         {3 * GRAIN - 1, 2, true},    {device + GRAIN, 0x7FFF, false},
        {device + GRAIN - 1, 2, true}, {ADDRESS_END - 5, 5, false}, {ADDRESS_END - 5, 10, true},
    };
    for (const auto& [address, length, across] : cases) {
        const SubRegionDescriptor io = plainRegion(0, length, address);
        insertRegion(m_locator, io);
        const LogCapture log;
        removeExactly(io);
        if (across) {
            EXPECT_TRUE(isSoftCheck(log.only(), EXACT_REMOVE_SIGNATURE, GRAIN_CONDITION,
                                    grainText(address, length)));
        } else {
            EXPECT_TRUE(log.records().empty()) << address << " " << length;
        }
        EXPECT_TRUE(unlocked().empty());
    }
}

TEST_F(ExactRemoveTest, LengthOfACompressedIoIsThatOfItsStoredBytes)
{
    constexpr u64 ADDRESS = (1 << 15) - 2;
    for (const u32 bytes : {2 * BLOCK_BYTES, 2 * BLOCK_BYTES + 1}) {
        const SubRegionDescriptor io = compressedRegion(0, 100, ADDRESS, 0, bytes);
        insertRegion(m_locator, io);
        const LogCapture log;
        removeExactly(io);
        if (bytes > 2 * BLOCK_BYTES) {
            EXPECT_TRUE(isSoftCheck(log.only(), EXACT_REMOVE_SIGNATURE, GRAIN_CONDITION,
                                    grainText(ADDRESS, 3)));
        } else {
            EXPECT_TRUE(log.records().empty());
        }
        EXPECT_TRUE(unlocked().empty());
    }
}

TEST_F(ExactRemoveTest, FromAnImmutableLocatorIsReportedAndGoesOn)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    m_locator.getConstBeginIterator();
    const LogCapture log;
    removeExactly(plainRegion(0, 10, 1000));
    EXPECT_TRUE(isSoftCheck(log.only(), EXACT_REMOVE_SIGNATURE, "!m_immutable"));
    EXPECT_TRUE(unlocked().empty());
}

TEST_F(ExactRemoveDeathTest, WhileAnythingIsLockedStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    const Regions held = lockRange(m_locator, 0, 1);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::REMOVE, 1);
    for (const SubRegionDescriptor& io :
         {plainRegion(0, 10, 1000), plainRegion(20, 10, 2000), plainRegion(500, 10, 5000)})
        EXPECT_DEATH(m_locator.remove(io, voucher), hardCheckPattern("m_lockedRegions->empty()"));
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(ExactRemoveTest, WritesThePunchOutsVerboseLines)
{
    insertRegion(m_locator, plainRegion(0, 20, 1000));
    insertRegion(m_locator, zeroesRegion(5, 5));
    const LogCapture log;
    {
        const VerboseLogs verbose;
        removeExactly(plainRegion(0, 15, 1000));
    }
    const std::vector<LogRecord> records = log.records();
    const std::string expected[] = {
        punchOutText("2", Access::unlocked(m_locator)),
        "erase whole  curRegion=" + regionText(plainRegion(0, 5, 1000)),
        "erase  curRegion=" + regionText(plainRegion(10, 5, 1010, 10)),
        "insert " + regionText(plainRegion(15, 5, 1015, 15)),
    };
    ASSERT_EQ(records.size(), std::size(expected)) << testing::PrintToString(records);
    for (size_t i = 0; i < records.size(); ++i)
        EXPECT_TRUE(isTrace(records[i], PUNCH_OUT_SIGNATURE, expected[i]));
}

} // namespace
