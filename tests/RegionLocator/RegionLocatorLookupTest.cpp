#include "tests/RegionLocator/LocatorFixture.h"
#include "tests/support/Tokens.h"

namespace {

const std::string LOOKUP_SIGNATURE =
    "RcStatus RegionLocator::lookup(AsyncTask*, u64, u32, std::vector<SubRegionDescriptor>*, bool, "
    "RegionLocatorVoucher*)";
const std::string LOCK_SIGNATURE =
    "void RegionLocator::lockRegions(const std::vector<SubRegionDescriptor>&)";

class LookupTest : public LocatorFixture
{
protected:
    // Locks without a control, for requests that are not to park.
    RcStatus lock(u64 offset, u32 length, Regions* pieces, RegionLocatorVoucher* voucher)
    {
        return m_locator.lookup(&m_task, offset, length, pieces, true, voucher);
    }
};

using LookupDeathTest = LookupTest;

// ---- without locking ----

TEST_F(LookupTest, OfAnEmptyLocatorFindsNothing)
{
    EXPECT_TRUE(lookupRange(m_locator, 0, 1000).empty());
}

TEST_F(LookupTest, ReplacesWhatTheResultHeld)
{
    Regions pieces = {plainRegion(1, 2, 3), plainRegion(4, 5, 6)};
    EXPECT_EQ(m_locator.lookup(nullptr, 0, 10, &pieces, false, nullptr), RC_SUCCESS);
    EXPECT_TRUE(pieces.empty());

    insertRegion(m_locator, plainRegion(3, 2, 100));
    pieces = {plainRegion(0, 1, 3)};
    EXPECT_EQ(m_locator.lookup(nullptr, 0, 10, &pieces, false, nullptr), RC_SUCCESS);
    EXPECT_EQ(pieces, (Regions{plainRegion(3, 2, 100)}));
}

TEST_F(LookupTest, ClipsAtBothEndsAndLeavesGapsOut)
{
    insertRegion(m_locator, plainRegion(10, 10, 1000));
    insertRegion(m_locator, zeroesRegion(25, 10));
    insertRegion(m_locator, compressedRegion(35, 10, 5000));
    EXPECT_EQ(lookupRange(m_locator, 15, 25),
              (Regions{plainRegion(15, 5, 1005, 5), zeroesRegion(25, 10),
                       compressedRegion(35, 5, 5000, 0)}));
    EXPECT_EQ(lookupRange(m_locator, 38, 100), (Regions{compressedRegion(38, 7, 5000, 3)}));
}

TEST_F(LookupTest, RangeEndIsExclusive)
{
    insertRegion(m_locator, plainRegion(10, 10, 1000));
    EXPECT_TRUE(lookupRange(m_locator, 0, 10).empty());
    EXPECT_TRUE(lookupRange(m_locator, 20, 10).empty());
    EXPECT_EQ(lookupRange(m_locator, 9, 2), (Regions{plainRegion(10, 1, 1000)}));
    EXPECT_EQ(lookupRange(m_locator, 19, 2), (Regions{plainRegion(19, 1, 1009, 9)}));
}

TEST_F(LookupTest, InsideOneRegion)
{
    insertRegion(m_locator, plainRegion(10, 10, 1000));
    EXPECT_EQ(lookupRange(m_locator, 12, 3), (Regions{plainRegion(12, 3, 1002, 2)}));
}

TEST_F(LookupTest, ShowsLockedPiecesAmongTheOthersAndChangesNothing)
{
    insertRegion(m_locator, plainRegion(0, 30, 1000));
    const Regions held = lockRange(m_locator, 10, 10);
    const Regions unlockedBefore = unlocked();
    const Regions lockedBefore = locked();
    const u64 tokensBefore = tokensOut(m_locator);

    EXPECT_EQ(lookupRange(m_locator, 5, 20),
              (Regions{plainRegion(5, 5, 1005, 5), plainRegion(10, 10, 1010, 10),
                       plainRegion(20, 5, 1020, 20)}));
    // Locked pieces are clipped like any other.
    EXPECT_EQ(lookupRange(m_locator, 12, 2), (Regions{plainRegion(12, 2, 1012, 12)}));

    EXPECT_EQ(unlocked(), unlockedBefore);
    EXPECT_EQ(locked(), lockedBefore);
    EXPECT_EQ(tokensOut(m_locator), tokensBefore);
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(LookupTest, MergesManyLockedAndUnlockedPiecesByOffset)
{
    for (u64 i = 0; i < 6; ++i)
        insertRegion(m_locator, plainRegion(10 * i, 5, 1000 * (i + 1)));
    Regions held = lockRange(m_locator, 10, 5);
    for (const u64 offset : {u64{30}, u64{50}})
        for (const SubRegionDescriptor& piece : lockRange(m_locator, offset, 5))
            held.push_back(piece);
    Regions expected;
    for (u64 i = 0; i < 6; ++i)
        expected.push_back(plainRegion(10 * i, 5, 1000 * (i + 1)));
    EXPECT_EQ(lookupRange(m_locator, 0, 100), expected);
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(LookupTest, OfEqualOffsetsTheLockedPieceComesFirst)
{
    // Two maps with one block in common are nothing that operations bring about, but the order is
    // stated for it.
    VoucherGuard voucher(m_locator.getMemPool(), 2);
    m_locator.getMemPool()->setActiveVoucher(voucher);
    Access::unlocked(m_locator)->insert(plainRegion(10, 4, 1000));
    Access::locked(m_locator)->insert(plainRegion(10, 2, 2000));
    m_locator.getMemPool()->setActiveVoucher(nullptr);
    EXPECT_EQ(lookupRange(m_locator, 0, 20),
              (Regions{plainRegion(10, 2, 2000), plainRegion(10, 4, 1000)}));
}

TEST_F(LookupTest, WithoutLockingLeavesNoVoucherActive)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const VoucherGuard voucher(m_locator.getMemPool(), 3);
    Regions pieces;
    EXPECT_EQ(m_locator.lookup(nullptr, 0, 10, &pieces, false, voucher), RC_SUCCESS);
    EXPECT_EQ(m_locator.getMemPool()->getActiveVoucher(), nullptr);
    EXPECT_EQ(tokensIn(voucher), 3U);
}

// ---- with locking ----

TEST_F(LookupTest, LockOfAnUncoveredRangeLocksNothing)
{
    insertRegion(m_locator, plainRegion(100, 10, 1000));
    Regions pieces = {plainRegion(1, 1, 1)};
    EXPECT_EQ(lock(0, 100, &pieces, nullptr), RC_SUCCESS);
    EXPECT_TRUE(pieces.empty());
    EXPECT_TRUE(locked().empty());
    EXPECT_EQ(unlocked(), (Regions{plainRegion(100, 10, 1000)}));
}

TEST_F(LookupTest, LockMovesTheClippedPiecesAndKeepsThePartsOutside)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, compressedRegion(10, 10, 2000));
    insertRegion(m_locator, zeroesRegion(20, 10));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 3);
    const Regions expected = {plainRegion(5, 5, 1005, 5), compressedRegion(10, 10, 2000),
                              zeroesRegion(20, 5)};
    Regions pieces = {plainRegion(99, 1, 1)};
    EXPECT_EQ(lock(5, 20, &pieces, voucher), RC_SUCCESS);
    EXPECT_EQ(pieces, expected);
    EXPECT_EQ(locked(), expected);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 5, 1000), zeroesRegion(25, 5)}));
    EXPECT_EQ(Access::locked(m_locator)->sizeLb(), 20U);
    EXPECT_EQ(Access::unlocked(m_locator)->sizeLb(), 10U);
    EXPECT_EQ(m_locator.getMemPool()->getActiveVoucher(), nullptr);
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LookupTest, LockOfTheMiddleCutsTheRegionIntoThree)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions pieces = lockRange(m_locator, 4, 2);
    EXPECT_EQ(pieces, (Regions{plainRegion(4, 2, 1004, 4)}));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 4, 1000), plainRegion(6, 4, 1006, 6)}));
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LookupTest, LockNeverCombinesPieces)
{
    // Two neighbours of one IO, which a restore would make one region.
    insertRegion(m_locator, plainRegion(0, 5, 1000));
    insertRegion(m_locator, plainRegion(5, 5, 1005, 5));
    const Regions pieces = lockRange(m_locator, 0, 10);
    EXPECT_EQ(pieces, (Regions{plainRegion(0, 5, 1000), plainRegion(5, 5, 1005, 5)}));
    EXPECT_EQ(locked(), pieces);
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LookupTest, LocksBesideLocksAreHeldTogether)
{
    insertRegion(m_locator, plainRegion(0, 30, 1000));
    const Regions first = lockRange(m_locator, 0, 10);
    const Regions second = lockRange(m_locator, 10, 10);
    EXPECT_EQ(locked(), (Regions{plainRegion(0, 10, 1000), plainRegion(10, 10, 1010, 10)}));
    EXPECT_EQ(Access::lockWaiter(m_locator), nullptr);
    unlockAndRestoreRegions(m_locator, first);
    unlockAndRestoreRegions(m_locator, second);
}

TEST_F(LookupTest, TokensOfALockAreTakenFromItsVoucherAndFreedIntoIt)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions pieces;
    // One region freed; two remainders and one locked piece made: the most that one piece needs.
    EXPECT_EQ(lock(4, 2, &pieces, voucher), RC_SUCCESS);
    EXPECT_TRUE(voucher.get()->empty());
    EXPECT_EQ(tokensOut(m_locator), 3U);
    EXPECT_EQ(m_locator.getItemCount(), 3U);

    const VoucherGuard whole(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions rest;
    EXPECT_EQ(lock(0, 4, &rest, whole), RC_SUCCESS);
    EXPECT_EQ(tokensIn(whole), 2U);
    unlockAndRestoreRegions(m_locator, rest);
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LookupTest, LockThatMeetsALockParksAndTouchesNothing)
{
    insertRegion(m_locator, plainRegion(0, 30, 1000));
    // One locked block at the end, at the start, in the middle of the range.
    for (const auto& [offset, length] : {std::pair<u64, u32>{0, 11}, {19, 11}, {0, 30}, {12, 1}}) {
        RegionLocator locator(8, RL_MMI_View);
        insertRegion(locator, plainRegion(0, 30, 1000));
        const Regions other = lockRange(locator, 10, 10);
        VoucherGuard voucher(locator, RegionLocatorMemPool::LOOKUP_LOCKED, 3);
        const Regions marker = {plainRegion(77, 1, 77)};
        Regions pieces = marker;
        EXPECT_EQ(locator.lookup(&m_task, offset, length, &pieces, true, voucher), RC_WAIT)
            << offset << " " << length;
        EXPECT_EQ(pieces, marker);
        EXPECT_EQ(Regions(Access::locked(locator)->begin(), Access::locked(locator)->end()), other);
        EXPECT_EQ(Regions(Access::unlocked(locator)->begin(), Access::unlocked(locator)->end()),
                  (Regions{plainRegion(0, 10, 1000), plainRegion(20, 10, 1020, 20)}));
        EXPECT_EQ(tokensIn(voucher), 6U);
        EXPECT_EQ(locator.getMemPool()->getActiveVoucher(), nullptr);
        EXPECT_NE(Access::lockWaiter(locator), nullptr);
        Access::dropLockWaiter(locator);
        unlockAndRestoreRegions(locator, other);
    }
}

TEST_F(LookupTest, WhileOneIsParkedLocksBesideTheLocksAndPlainLookupsGoOn)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    const Regions held = lockRange(m_locator, 0, 5);
    VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 2);
    Regions waited;
    ASSERT_EQ(lock(0, 10, &waited, voucher), RC_WAIT);
    RL_LockWaiter* waiter = Access::lockWaiter(m_locator);

    EXPECT_EQ(lookupRange(m_locator, 0, 10).size(), 2U);
    const Regions beside = lockRange(m_locator, 20, 10);
    EXPECT_EQ(beside, (Regions{plainRegion(20, 10, 2000)}));
    EXPECT_EQ(Access::lockWaiter(m_locator), waiter);

    Access::dropLockWaiter(m_locator);
    unlockAndRestoreRegions(m_locator, beside);
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(LookupDeathTest, ASecondRequestThatWouldParkStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    EXPECT_DEATH(
        {
            Regions pieces;
            if (lock(0, 1, &pieces, voucher) == RC_WAIT)
                lock(9, 1, &pieces, voucher);
        },
        hardCheckPattern("m_lockWaiter == NULL"));
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(LookupDeathTest, APieceThatIsLockedAlreadyStopsTheProcess)
{
    // Reached only when both maps hold the block, which no operation brings about: lockRegions is
    // handed a piece of the unlocked map beside the same first block in the locked one.
    EXPECT_DEATH(
        {
            VoucherGuard voucher(m_locator.getMemPool(), 8);
            m_locator.getMemPool()->setActiveVoucher(voucher);
            Access::unlocked(m_locator)->insert(plainRegion(10, 4, 1000));
            Access::locked(m_locator)->insert(plainRegion(10, 4, 1000));
            Access::lockRegions(m_locator, {plainRegion(10, 4, 1000)});
        },
        hardCheckPattern("rc"));
}

// ---- checks and verbose lines ----

TEST_F(LookupTest, OfAnImmutableLocatorIsReportedAndGoesOn)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    m_locator.getConstBeginIterator();
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions pieces;
    {
        const LogCapture log;
        EXPECT_EQ(m_locator.lookup(nullptr, 0, 10, &pieces, false, nullptr), RC_SUCCESS);
        EXPECT_EQ(pieces.size(), 1U);
        EXPECT_TRUE(isSoftCheck(log.only(), LOOKUP_SIGNATURE, "!m_immutable"));
    }
    const LogCapture log;
    EXPECT_EQ(lock(0, 10, &pieces, voucher), RC_SUCCESS);
    EXPECT_EQ(locked(), pieces);
    EXPECT_TRUE(isSoftCheck(log.only(), LOOKUP_SIGNATURE, "!m_immutable"));
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LookupTest, IsSilentUnlessVerbose)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const LogCapture log;
    unlockAndRestoreRegions(m_locator, lockRange(m_locator, 4, 2));
    EXPECT_TRUE(log.records().empty());
}

TEST_F(LookupTest, WithoutLockingWritesOneVerboseLine)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const VerboseLogs verbose;
    const LogCapture log;
    lookupRange(m_locator, 3, 4);
    EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 0, LOOKUP_SIGNATURE,
                         prefix() + " a_viewOffsetBlocks=3  a_lengthBlocks=4 "));
}

TEST_F(LookupTest, LockWritesItsStepsInOrder)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, zeroesRegion(10, 5));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 2);
    Regions pieces;
    const LogCapture log;
    {
        const VerboseLogs verbose;
        EXPECT_EQ(lock(4, 11, &pieces, voucher), RC_SUCCESS);
    }
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 7U) << testing::PrintToString(records);
    const std::string plain = regionText(plainRegion(4, 6, 1004, 4));
    const std::string zeroes = regionText(zeroesRegion(10, 5));
    const auto expect = [&](size_t i, const std::string& signature, const std::string& text) {
        EXPECT_TRUE(isRecord(records[i], LogModuleXel, InfoLevel, 0, signature, prefix() + text));
    };
    expect(0, LOOKUP_SIGNATURE, " a_viewOffsetBlocks=4  a_lengthBlocks=11 ");
    expect(1, PUNCH_OUT_SIGNATURE,
           " a_regions.size()=2 a_regionMap=" + address(Access::unlocked(m_locator)));
    expect(2, PUNCH_OUT_SIGNATURE, "erase  curRegion=" + plain);
    expect(3, PUNCH_OUT_SIGNATURE, "insert " + regionText(plainRegion(0, 4, 1000)));
    expect(4, PUNCH_OUT_SIGNATURE, "erase whole  curRegion=" + zeroes);
    expect(5, LOCK_SIGNATURE, "insert " + plain);
    expect(6, LOCK_SIGNATURE, "insert " + zeroes);
    unlockAndRestoreRegions(m_locator, pieces);
}

} // namespace
