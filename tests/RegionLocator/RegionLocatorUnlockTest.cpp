#include <memory>

#include "tests/RegionLocator/LocatorFixture.h"
#include "tests/support/FakeTaskControl.h"
#include "tests/support/Tokens.h"

namespace {

const std::string UNLOCK_SIGNATURE = "void RegionLocator::unlockRegions(std::vector<"
                                     "SubRegionDescriptor>&, bool, RegionLocatorVoucher*)";
const std::string COMBINE_SIGNATURE =
    "SubRegionDescriptor RegionLocator::combineR2L(const SubRegionDescriptor&, "
    "const SubRegionDescriptor&, const std::string&)";

class UnlockTest : public LocatorFixture
{
protected:
    // Parks a locking lookup of the range, with a voucher for so many pieces.
    void park(u64 offset, u32 length, int pieces)
    {
        m_parkedVoucher =
            std::make_unique<VoucherGuard>(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, pieces);
        ASSERT_EQ(
            m_locator.lookup(&m_task, offset, length, &m_parkedPieces, true, *m_parkedVoucher),
            RC_WAIT);
    }

    FakeTaskControl m_control;
    Regions m_parkedPieces;
    std::unique_ptr<VoucherGuard> m_parkedVoucher;
};

using UnlockDeathTest = UnlockTest;

// ---- restoring and removing ----

TEST_F(UnlockTest, RestoreBringsTheStoredRegionBack)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 4, 2);
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_TRUE(locked().empty());
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 1000)}));
    EXPECT_EQ(Access::counters(m_locator).getMerges(), 2U);
    EXPECT_EQ(tokensOut(m_locator), 1U);
    EXPECT_EQ(m_locator.getMemPool()->getActiveVoucher(), nullptr);
}

TEST_F(UnlockTest, RestoreOfEachKindBringsItBackWhole)
{
    const Regions stored = {plainRegion(0, 10, 1000), compressedRegion(10, 10, 2000),
                            zeroesRegion(20, 10)};
    for (const SubRegionDescriptor& region : stored)
        insertRegion(m_locator, region);
    for (u64 start = 0; start < 30; ++start) {
        for (u32 length = 1; start + length <= 30; ++length) {
            const Regions held = lockRange(m_locator, start, length);
            unlockAndRestoreRegions(m_locator, held);
            ASSERT_EQ(unlocked(), stored) << start << " " << length;
            ASSERT_EQ(tokensOut(m_locator), 3U);
        }
    }
}

TEST_F(UnlockTest, RemoveDropsThePiecesAndNothingElse)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 4, 2);
    unlockAndRemoveRegions(m_locator, held);
    EXPECT_TRUE(locked().empty());
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 4, 1000), plainRegion(6, 4, 1006, 6)}));
    EXPECT_TRUE(lookupRange(m_locator, 4, 2).empty());
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 8U);
    EXPECT_EQ(Access::counters(m_locator).getMerges(), 0U);
    EXPECT_EQ(m_locator.getMemPool()->getActiveVoucher(), nullptr);
}

TEST_F(UnlockTest, SomePiecesAtATimeLeaveTheOthersLocked)
{
    for (u64 i = 0; i < 3; ++i)
        insertRegion(m_locator, plainRegion(10 * i, 5, 1000 * (i + 1)));
    const Regions held = lockRange(m_locator, 0, 30);
    ASSERT_EQ(held.size(), 3U);
    unlockAndRestoreRegions(m_locator, {held[1]});
    EXPECT_EQ(locked(), (Regions{held[0], held[2]}));
    EXPECT_EQ(unlocked(), (Regions{held[1]}));
    unlockAndRemoveRegions(m_locator, {held[2]});
    EXPECT_EQ(locked(), (Regions{held[0]}));
    unlockAndRestoreRegions(m_locator, {held[0]});
    EXPECT_EQ(unlocked(), (Regions{held[0], held[1]}));
}

TEST_F(UnlockTest, PartOfAPieceCutsTheLockedRegion)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    unlockAndRemoveRegions(m_locator, {plainRegion(4, 2, 1004, 4)});
    EXPECT_EQ(locked(), (Regions{plainRegion(0, 4, 1000), plainRegion(6, 4, 1006, 6)}));
    unlockAndRestoreRegions(m_locator, locked());
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 8U);
}

TEST_F(UnlockTest, TokensOfAnUnlockEndInItsVoucher)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    Regions held = lockRange(m_locator, 0, 10);
    {
        const VoucherGuard voucher(m_locator.getMemPool(), 1);
        m_locator.unlockAndRestore(held, voucher);
        EXPECT_EQ(tokensIn(voucher), 1U); // one freed, one taken
        EXPECT_EQ(tokensOut(m_locator), 2U);
    }
    held = lockRange(m_locator, 0, 10);
    const VoucherGuard voucher(m_locator.getMemPool(), 1);
    m_locator.unlockAndRemove(held, voucher);
    EXPECT_EQ(tokensIn(voucher), 2U);
    EXPECT_EQ(tokensOut(m_locator), 2U);
}

TEST_F(UnlockTest, AnEmptyListNeedsNoVoucherNoMutexAndNoLock)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    Regions none;
    // Would stand still for ever if the mutex were taken, and stop the process if the locked map
    // were looked at.
    Access::mutex(m_locator).lock();
    m_locator.unlockAndRestore(none, nullptr);
    m_locator.unlockAndRemove(none, nullptr);
    Access::mutex(m_locator).unlock();
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 1000)}));
}

TEST_F(UnlockTest, AnEmptyListDoesNotResumeAWaiter)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    park(0, 10, 1);
    // Nothing is locked any more without an unlock's having seen it: only then would an empty list
    // find something to resume.
    {
        const VoucherGuard voucher(m_locator.getMemPool(), 0);
        m_locator.getMemPool()->setActiveVoucher(voucher);
        Access::locked(m_locator)->clear();
        m_locator.getMemPool()->setActiveVoucher(nullptr);
    }
    Regions none;
    m_locator.unlockAndRestore(none, nullptr);
    EXPECT_TRUE(m_control.enqueued().empty());
    EXPECT_NE(Access::lockWaiter(m_locator), nullptr);
    Access::dropLockWaiter(m_locator);
}

TEST_F(UnlockTest, APieceThatCannotGoBackIsReportedAndTheOthersDo)
{
    for (u64 i = 0; i < 3; ++i)
        insertRegion(m_locator, plainRegion(10 * i, 5, 1000 * (i + 1)));
    Regions held = lockRange(m_locator, 0, 30);
    {
        // Something else in its place, which no operation brings about while it is locked.
        const VoucherGuard voucher(m_locator.getMemPool(), 1);
        m_locator.getMemPool()->setActiveVoucher(voucher);
        Access::unlocked(m_locator)->insert(zeroesRegion(10, 3));
        m_locator.getMemPool()->setActiveVoucher(nullptr);
    }
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 3);
    const LogCapture log;
    m_locator.unlockAndRestore(held, voucher);
    // Looking for its left neighbour, it finds the intruder first.
    const std::vector<LogRecord> checks = log.softChecks();
    ASSERT_EQ(checks.size(), 2U) << testing::PrintToString(checks);
    EXPECT_TRUE(isSoftCheck(checks[0], "", "*lNeighbor < region",
                            " *lNeighbor=" + regionText(zeroesRegion(10, 3)) +
                                " region=" + regionText(held[1])));
    EXPECT_TRUE(isSoftCheck(checks[1], UNLOCK_SIGNATURE, "rc",
                            "failed to re-insert locked segment to region locator"));
    EXPECT_EQ(unlocked(), (Regions{held[0], zeroesRegion(10, 3), held[2]}));
    EXPECT_TRUE(locked().empty());
}

TEST_F(UnlockTest, OfAnImmutableLocatorIsReportedAndGoesOn)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    Regions held = lockRange(m_locator, 0, 10);
    m_locator.getConstEndIterator();
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    const LogCapture log;
    m_locator.unlockAndRestore(held, voucher);
    EXPECT_TRUE(isSoftCheck(log.only(), UNLOCK_SIGNATURE, "!m_immutable"));
    EXPECT_EQ(unlocked(), held);
}

TEST_F(UnlockDeathTest, WhileNothingIsLockedStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions regions = {plainRegion(0, 10, 1000)};
    EXPECT_DEATH(m_locator.unlockAndRestore(regions, voucher),
                 hardCheckPattern("m_lockedRegions->size() > 0"));
    EXPECT_DEATH(m_locator.unlockAndRemove(regions, voucher),
                 hardCheckPattern("m_lockedRegions->size() > 0"));
}

TEST_F(UnlockDeathTest, OfAPieceThatIsNotLockedStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    const Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions regions = {plainRegion(20, 10, 2000)};
    EXPECT_DEATH(m_locator.unlockAndRestore(regions, voucher),
                 hardCheckPattern("checkIntersection(*iter, curRegion)"));
    unlockAndRestoreRegions(m_locator, held);
}

// ---- the waiting request ----

TEST_F(UnlockTest, ThatLeavesAnyLockDoesNotResume)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(20, 10, 2000));
    const Regions met = lockRange(m_locator, 0, 10);
    const Regions unrelated = lockRange(m_locator, 20, 10);
    park(0, 10, 1);
    RL_LockWaiter* waiter = Access::lockWaiter(m_locator);

    // What it collided with is free now, and yet it waits.
    unlockAndRestoreRegions(m_locator, met);
    EXPECT_TRUE(m_control.enqueued().empty());
    EXPECT_EQ(Access::lockWaiter(m_locator), waiter);
    EXPECT_TRUE(m_parkedPieces.empty());
    EXPECT_EQ(unlocked(), met);

    unlockAndRestoreRegions(m_locator, unrelated);
    EXPECT_EQ(m_control.enqueued().size(), 1U);
    EXPECT_EQ(Access::lockWaiter(m_locator), nullptr);
    EXPECT_EQ(m_parkedPieces, met);
    EXPECT_EQ(locked(), met);
    unlockAndRestoreRegions(m_locator, m_parkedPieces);
}

TEST_F(UnlockTest, ThatEmptiesTheLocksResumesWithThePiecesOfThatMoment)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(15, 5, 2000));
    const Regions held = lockRange(m_locator, 0, 4);
    park(2, 15, 3);
    // Meanwhile an unlocked part of its range is overridden.
    insertRegion(m_locator, zeroesRegion(8, 4));
    m_parkedPieces = {plainRegion(77, 1, 77)}; // is replaced, not added to
    unlockAndRestoreRegions(m_locator, held);

    EXPECT_EQ(m_parkedPieces,
              (Regions{plainRegion(2, 6, 1002, 2), zeroesRegion(8, 4), plainRegion(15, 2, 2000)}));
    EXPECT_EQ(locked(), m_parkedPieces);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 2, 1000), plainRegion(17, 3, 2002, 2)}));
    EXPECT_EQ(m_locator.getMemPool()->getActiveVoucher(), nullptr);
    // Three freed, five made, out of six that it had.
    EXPECT_EQ(tokensIn(*m_parkedVoucher), 4U);
    unlockAndRestoreRegions(m_locator, m_parkedPieces);
    m_parkedVoucher.reset();
    EXPECT_EQ(tokensOut(m_locator), m_locator.getItemCount());
}

TEST_F(UnlockTest, AfterAResumptionAnotherRequestMayPark)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    Regions held = lockRange(m_locator, 0, 10);
    for (int round = 0; round < 3; ++round) {
        park(0, 10, 1);
        unlockAndRestoreRegions(m_locator, held);
        EXPECT_EQ(m_control.enqueued().size(), static_cast<size_t>(round + 1));
        EXPECT_EQ(Access::lockWaiter(m_locator), nullptr);
        held = m_parkedPieces;
    }
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_EQ(m_control.enqueued().size(), 3U);
}

TEST_F(UnlockTest, ThatRemovesEverythingResumesWithNothing)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    park(0, 10, 1);
    m_parkedPieces = {plainRegion(77, 1, 77)};
    unlockAndRemoveRegions(m_locator, held);
    EXPECT_TRUE(m_parkedPieces.empty());
    EXPECT_TRUE(locked().empty());
    ASSERT_EQ(m_control.enqueued().size(), 1U);
    EXPECT_EQ(m_control.enqueued()[0].m_status, RC_SUCCESS);
    EXPECT_EQ(Access::lockWaiter(m_locator), nullptr);
}

// ---- verbose lines ----

TEST_F(UnlockTest, AnEmptyListWritesItsVerboseLine)
{
    Regions none;
    const VerboseLogs verbose;
    const LogCapture log;
    m_locator.unlockAndRestore(none, nullptr);
    EXPECT_TRUE(
        isRecord(log.only(), LogModuleXel, InfoLevel, 0, UNLOCK_SIGNATURE, prefix() + "empty"));
}

TEST_F(UnlockTest, RestoreWritesItsStepsInOrder)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    Regions held = lockRange(m_locator, 4, 6);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    const LogCapture log;
    {
        const VerboseLogs verbose;
        m_locator.unlockAndRestore(held, voucher);
    }
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 5U) << testing::PrintToString(records);
    const std::string piece = regionText(plainRegion(4, 6, 1004, 4));
    const auto expect = [&](size_t i, const std::string& signature, const std::string& text) {
        EXPECT_TRUE(isRecord(records[i], LogModuleXel, InfoLevel, 0, signature, prefix() + text));
    };
    expect(0, UNLOCK_SIGNATURE, " a_regions[0]=" + piece + "  a_regions.size()=1 ");
    expect(1, PUNCH_OUT_SIGNATURE,
           " a_regions.size()=1 a_regionMap=" + address(Access::locked(m_locator)));
    expect(2, PUNCH_OUT_SIGNATURE, "erase whole  curRegion=" + piece);
    expect(3, UNLOCK_SIGNATURE, "insert unlocked " + piece);
    expect(4, COMBINE_SIGNATURE,
           "left merge left=" + regionText(plainRegion(0, 4, 1000)) + "  right=" + piece +
               "  combined=" + regionText(plainRegion(0, 10, 1000)) + " ");
}

TEST_F(UnlockTest, WithAWaiterWritesWhetherItResumes)
{
    insertRegion(m_locator, plainRegion(0, 5, 1000));
    insertRegion(m_locator, plainRegion(5, 5, 2000));
    Regions first = lockRange(m_locator, 0, 5);
    Regions second = lockRange(m_locator, 5, 5);
    park(5, 5, 1);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 2);
    const VerboseLogs verbose;
    {
        const LogCapture log;
        m_locator.unlockAndRemove(first, voucher);
        EXPECT_TRUE(isRecord(log.records().back(), LogModuleXel, InfoLevel, 0, UNLOCK_SIGNATURE,
                             prefix() + "There are locked regions. Not resuming lock waiter"));
    }
    const LogCapture log;
    m_locator.unlockAndRestore(second, voucher);
    const std::string piece = regionText(plainRegion(5, 5, 2000));
    const std::vector<std::string> texts = log.texts();
    const std::vector<std::string> expected = {
        " a_regions[0]=" + piece + "  a_regions.size()=1 ",
        " a_regions.size()=1 a_regionMap=" + address(Access::locked(m_locator)),
        "erase whole  curRegion=" + piece,
        "insert unlocked " + piece,
        "before resume  a_regions[0]=" + piece + " ",
        " a_regions.size()=1 a_regionMap=" + address(Access::unlocked(m_locator)),
        "erase whole  curRegion=" + piece,
        "insert " + piece,
        "after resume  a_regions[0]=" + piece + " "};
    ASSERT_EQ(texts.size(), expected.size()) << testing::PrintToString(texts);
    for (size_t i = 0; i < texts.size(); ++i)
        EXPECT_EQ(texts[i], prefix() + expected[i]);
    const LogRecord before = log.records()[4];
    EXPECT_TRUE(isRecord(before, LogModuleXel, InfoLevel, 0, UNLOCK_SIGNATURE, before.m_text));
    DynamicTweaks::instance()->t_RlVerboseLogs = false;
    unlockAndRestoreRegions(m_locator, m_parkedPieces);
}

} // namespace
