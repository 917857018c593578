#include <functional>
#include <gtest/gtest.h>
#include <string>

#include "common/infra/DynamicTweaks.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

const std::string INSERT_SIGNATURE =
    "bool RegionLocator::insert(const SubRegionDescriptor&, RegionLocatorVoucher*)";
const std::string PUNCH_OUT_SIGNATURE = "void RegionLocator::punchOutRegions(CountedRegionMap*, "
                                        "const std::vector<SubRegionDescriptor>&)";

class LocatorTest : public testing::Test
{
protected:
    void insert(const Regions& regions)
    {
        for (const SubRegionDescriptor& region : regions)
            EXPECT_TRUE(insertRegion(m_locator, region)) << region;
    }

    static Regions contents(const CountedRegionMap* map) { return {map->begin(), map->end()}; }
    Regions unlocked() { return contents(Access::unlocked(m_locator)); }
    Regions locked() { return contents(Access::locked(m_locator)); }

    void expectCounters(u64 inserts, u64 insertLbs, u64 merges)
    {
        const RegionLocatorCounters counters = Access::counters(m_locator);
        EXPECT_EQ(counters.getInserts(), inserts);
        EXPECT_EQ(counters.getInsertLbs(), insertLbs);
        EXPECT_EQ(counters.getMerges(), merges);
    }

    LogCapture m_log;
    RegionLocator m_locator{1, RL_MMI_View};
};

// ---- insert: what it overlaps ----

class InsertTest : public LocatorTest
{
protected:
    // None of these cases has anything to report.
    ~InsertTest() override { EXPECT_TRUE(m_log.records().empty()); }
};

TEST_F(InsertTest, IntoAnEmptyLocator)
{
    insert({plainRegion(8, 8, 100)});
    EXPECT_EQ(unlocked(), Regions{plainRegion(8, 8, 100)});
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 8u);
    expectCounters(1, 8, 0);
}

TEST_F(InsertTest, OneOfEachKindBesideEachOtherStaysWhole)
{
    const Regions regions{plainRegion(0, 8, 100), plainRegion(8, 8, 108, 8), zeroesRegion(16, 4),
                          zeroesRegion(20, 4), compressedRegion(24, 8, 300, 0, 900, true)};
    insert(regions);
    EXPECT_EQ(unlocked(), regions); // neighbours of one IO and zeroes are not merged
    expectCounters(5, 32, 0);
}

TEST_F(InsertTest, OfTheSameRegionReplacesIt)
{
    insert({plainRegion(8, 8, 100), plainRegion(8, 8, 100)});
    EXPECT_EQ(unlocked(), Regions{plainRegion(8, 8, 100)});
    EXPECT_EQ(m_locator.getItemCount(), 1u);
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 8u);
    expectCounters(2, 16, 0);
}

TEST_F(InsertTest, OfTheSameBlocksReplacesWhateverIsThere)
{
    insert({plainRegion(8, 8, 100), compressedRegion(8, 8, 200, 0, 900, true)});
    EXPECT_EQ(unlocked(), Regions{compressedRegion(8, 8, 200, 0, 900, true)});
    insert({zeroesRegion(8, 8)});
    EXPECT_EQ(unlocked(), Regions{zeroesRegion(8, 8)});
    insert({plainRegion(8, 8, 300)});
    EXPECT_EQ(unlocked(), Regions{plainRegion(8, 8, 300)});
}

TEST_F(InsertTest, CutsMiddleOfPlainIntoTwoPieces)
{
    insert({plainRegion(8, 8, 100), plainRegion(10, 2, 200)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(8, 2, 100), plainRegion(10, 2, 200),
                                   plainRegion(12, 4, 104, 4)}));
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 8u);
    expectCounters(2, 10, 0);
}

TEST_F(InsertTest, CutsMiddleOfCompressedIntoTwoPieces)
{
    insert({compressedRegion(8, 8, 100, 0, 900, true), plainRegion(10, 2, 200)});
    EXPECT_EQ(unlocked(),
              (Regions{compressedRegion(8, 2, 100, 0, 900, false), plainRegion(10, 2, 200),
                       compressedRegion(12, 4, 100, 4, 900, false)}));
    expectCounters(2, 10, 0);
}

TEST_F(InsertTest, CutsMiddleOfZeroesIntoTwoPieces)
{
    insert({zeroesRegion(8, 8), plainRegion(10, 2, 200)});
    EXPECT_EQ(unlocked(),
              (Regions{zeroesRegion(8, 2), plainRegion(10, 2, 200), zeroesRegion(12, 4)}));
}

TEST_F(InsertTest, CutsLeftPart)
{
    insert({plainRegion(8, 8, 100), plainRegion(8, 3, 200)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(8, 3, 200), plainRegion(11, 5, 103, 3)}));
    insert({plainRegion(4, 5, 300)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(4, 5, 300), plainRegion(9, 2, 201, 1),
                                   plainRegion(11, 5, 103, 3)}));
}

TEST_F(InsertTest, CutsRightPart)
{
    insert({plainRegion(8, 8, 100), plainRegion(13, 3, 200)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(8, 5, 100), plainRegion(13, 3, 200)}));
    insert({plainRegion(15, 5, 300)});
    EXPECT_EQ(unlocked(),
              (Regions{plainRegion(8, 5, 100), plainRegion(13, 2, 200), plainRegion(15, 5, 300)}));
}

TEST_F(InsertTest, OverTwoNeighboursTrimsBoth)
{
    insert({plainRegion(0, 8, 100), compressedRegion(8, 8, 200), plainRegion(6, 4, 300)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 6, 100), plainRegion(6, 4, 300),
                                   compressedRegion(10, 6, 200, 2)}));
}

TEST_F(InsertTest, OverManyErasesTheCoveredAndTrimsTheEnds)
{
    insert({plainRegion(0, 8, 100), zeroesRegion(8, 4), compressedRegion(14, 2, 200),
            plainRegion(16, 8, 300), plainRegion(30, 2, 400)});
    insert({plainRegion(4, 16, 500)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 4, 100), plainRegion(4, 16, 500),
                                   plainRegion(20, 4, 304, 4), plainRegion(30, 2, 400)}));
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 26u);
    expectCounters(6, 40, 0);
}

TEST_F(InsertTest, OverAllLeavesOne)
{
    insert({plainRegion(10, 2, 100), plainRegion(20, 2, 200), plainRegion(30, 2, 300)});
    insert({zeroesRegion(0, 100)});
    EXPECT_EQ(unlocked(), Regions{zeroesRegion(0, 100)});
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 100u);
}

TEST_F(InsertTest, BetweenAndBesideNeighboursLeavesThem)
{
    insert({plainRegion(0, 8, 100), plainRegion(16, 8, 200), plainRegion(8, 8, 300)});
    EXPECT_EQ(unlocked(),
              (Regions{plainRegion(0, 8, 100), plainRegion(8, 8, 300), plainRegion(16, 8, 200)}));
}

TEST_F(InsertTest, OfTheLongestRegionAndOfOneBlock)
{
    insert({plainRegion(0, 65535, 100), plainRegion(65534, 1, 900)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 65534, 100), plainRegion(65534, 1, 900)}));
    expectCounters(2, 65536, 0);
}

TEST_F(InsertTest, KeepsTheVoucherBalanceExact)
{
    RegionLocatorMemPool* pool = m_locator.getMemPool();
    insert({plainRegion(0, 8, 100), plainRegion(2, 4, 200), plainRegion(0, 100, 300)});
    EXPECT_EQ(pool->getMemoryStats().usedBytesNet, 64u);
    insert({plainRegion(10, 10, 400)});
    EXPECT_EQ(pool->getMemoryStats().usedBytesNet, 3u * 64);
    EXPECT_EQ(pool->getActiveVoucher(), nullptr);
}

TEST_F(InsertTest, NeedsNoMoreThanTwoTokens)
{
    insert({plainRegion(0, 8, 100)});
    const VoucherGuard voucher(m_locator.getMemPool(), 2);
    EXPECT_TRUE(m_locator.insert(plainRegion(2, 4, 200), voucher)); // 1 freed, 3 made
    EXPECT_TRUE(voucher.get()->empty());
    EXPECT_EQ(m_locator.getItemCount(), 3u);
}

// ---- insert and locks ----

TEST_F(LocatorTest, InsertOverALockedBlockIsRefusedAndChangesNothing)
{
    insert({plainRegion(0, 8, 100), plainRegion(8, 8, 200), plainRegion(16, 8, 300)});
    const Regions pieces = lockRange(m_locator, 8, 8);
    const Regions before = unlocked();
    for (const SubRegionDescriptor& region :
         {plainRegion(1, 8, 900), plainRegion(15, 1, 900), plainRegion(15, 20, 900),
          plainRegion(8, 8, 900), plainRegion(0, 100, 900), plainRegion(10, 2, 900)}) {
        m_log.clear();
        RegionLocatorVoucher* voucher = m_locator.getMemPool()->createVoucher();
        EXPECT_FALSE(m_locator.insert(region, voucher)) << region;
        EXPECT_TRUE(voucher->empty());
        m_locator.getMemPool()->destroyVoucher(voucher);
        EXPECT_TRUE(isRecord(
            m_log.only(), LogModuleXel, InfoLevel, 3, INSERT_SIGNATURE,
            "trying to insert to region locator when there are intersecting locked regions"));
        EXPECT_EQ(unlocked(), before);
        EXPECT_EQ(locked(), pieces);
        EXPECT_EQ(m_locator.getMemPool()->getActiveVoucher(), nullptr);
    }
    expectCounters(3, 24, 0);
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LocatorTest, InsertThatOnlyTouchesALockedRegionIsTaken)
{
    insert({plainRegion(8, 8, 200)});
    const Regions pieces = lockRange(m_locator, 8, 8);
    insert({plainRegion(0, 8, 100), plainRegion(16, 8, 300)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 8, 100), plainRegion(16, 8, 300)}));
    EXPECT_EQ(locked(), pieces);
    EXPECT_TRUE(m_log.records().empty());
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LocatorTest, InsertLetsTheMutexGoWhenItIsRefused)
{
    insert({plainRegion(8, 8, 200)});
    const Regions pieces = lockRange(m_locator, 8, 8);
    EXPECT_FALSE(insertRegion(m_locator, plainRegion(8, 1, 900)));
    const bool free = Access::mutex(m_locator).tryLock();
    if (free)
        Access::mutex(m_locator).unlock();
    EXPECT_TRUE(free);
    unlockAndRestoreRegions(m_locator, pieces);
}

// ---- insert and immutable locators ----

TEST_F(LocatorTest, InsertIntoAnImmutableLocatorIsReportedAndGoesOn)
{
    m_locator.getConstBeginIterator();
    insert({plainRegion(8, 8, 100)});
    EXPECT_TRUE(isSoftCheck(m_log.only(), INSERT_SIGNATURE, "!m_immutable"));
    EXPECT_EQ(unlocked(), Regions{plainRegion(8, 8, 100)});
    expectCounters(1, 8, 0);
}

TEST_F(LocatorTest, InsertReportsImmutabilityBeforeItLooksForLocks)
{
    insert({plainRegion(8, 8, 100)});
    const Regions pieces = lockRange(m_locator, 8, 8);
    m_locator.getConstEndIterator();
    EXPECT_FALSE(insertRegion(m_locator, plainRegion(8, 8, 900)));
    const std::vector<LogRecord> records = m_log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(isSoftCheck(records[0], INSERT_SIGNATURE, "!m_immutable"));
    EXPECT_EQ(records[1].m_level, InfoLevel);
    unlockAndRestoreRegions(m_locator, pieces);
}

// ---- insert: what stops the process ----

class InsertDeathTest : public testing::Test
{
protected:
    InsertDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    RegionLocator m_locator{1, RL_MMI_View};
};

TEST_F(InsertDeathTest, ARegionOfNoBlocks)
{
    EXPECT_DEATH(insertRegion(m_locator, SubRegionDescriptor(8)),
                 hardCheckPattern("desc.m_lengthBlocks > 0"));
}

TEST_F(InsertDeathTest, ARegionWhosePlaceCannotBeCleared)
{
    // Beyond the last view offset a range ends before it starts, so it intersects nothing.
    const SubRegionDescriptor region = plainRegion(~u64{0} - 3, 8, 100);
    insertRegion(m_locator, region);
    EXPECT_DEATH(insertRegion(m_locator, region), hardCheckPattern("false"));
}

// ---- the punch-out alone ----

class PunchOutTest : public LocatorTest
{
protected:
    ~PunchOutTest() override
    {
        DynamicTweaks::instance()->t_RlVerboseLogs = false;
        DynamicTweaks::instance()->t_BinVerboseLogs = false;
        DynamicTweaks::instance()->t_IOVerboseLogs = false;
    }

    void punchOut(const Regions& pieces)
    {
        const ActiveVoucher voucher(m_locator.getMemPool(), static_cast<int>(pieces.size()));
        Access::punchOutRegions(m_locator, Access::unlocked(m_locator), pieces);
    }

    // Stores regions as they are, also such as overlap.
    void store(const Regions& regions)
    {
        const ActiveVoucher voucher(m_locator.getMemPool(), static_cast<int>(regions.size()));
        for (const SubRegionDescriptor& region : regions)
            EXPECT_TRUE(Access::unlocked(m_locator)->insert(region).second);
    }

    Regions m_four{plainRegion(0, 8, 100), compressedRegion(8, 8, 200, 0, 900, true),
                   zeroesRegion(16, 8), plainRegion(24, 8, 300)};
};

TEST_F(PunchOutTest, OfNothingChangesNothing)
{
    store(m_four);
    punchOut({});
    EXPECT_EQ(unlocked(), m_four);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(PunchOutTest, OfNothingFromAnEmptyMap)
{
    punchOut({});
    EXPECT_TRUE(unlocked().empty());
}

TEST_F(PunchOutTest, OfOneWholeRegionOfEachKind)
{
    for (const SubRegionDescriptor& region :
         {plainRegion(8, 8, 100), compressedRegion(8, 8, 100, 0, 900), zeroesRegion(8, 8)}) {
        store({region});
        punchOut({region});
        EXPECT_TRUE(unlocked().empty());
        EXPECT_EQ(m_locator.getTotalRegionBlocks(), 0u);
    }
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(PunchOutTest, OfTheLeftTheRightAndTheMiddle)
{
    store(m_four);
    punchOut({plainRegion(0, 2, 100), compressedRegion(14, 2, 200, 6, 900),
              SubRegionDescriptor(zeroesRegion(18, 2))});
    EXPECT_EQ(unlocked(),
              (Regions{plainRegion(2, 6, 102, 2), compressedRegion(8, 6, 200, 0, 900),
                       zeroesRegion(16, 2), zeroesRegion(20, 4), plainRegion(24, 8, 300)}));
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 26u);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(PunchOutTest, OfTwoPiecesOfOneRegionInEitherOrder)
{
    const Regions expected{plainRegion(0, 1, 100), plainRegion(2, 2, 102, 2),
                           plainRegion(5, 3, 105, 5)};
    for (const Regions& pieces : {Regions{plainRegion(1, 1, 101, 1), plainRegion(4, 1, 104, 4)},
                                  Regions{plainRegion(4, 1, 104, 4), plainRegion(1, 1, 101, 1)}}) {
        store({plainRegion(0, 8, 100)});
        punchOut(pieces);
        EXPECT_EQ(unlocked(), expected);
        Access::clearMap(m_locator, Access::unlocked(m_locator));
    }
}

TEST_F(PunchOutTest, OfPiecesFarApartAndInReverse)
{
    store(m_four);
    punchOut({plainRegion(24, 8, 300), zeroesRegion(20, 4), plainRegion(0, 8, 100),
              compressedRegion(8, 8, 200, 0, 900)});
    EXPECT_EQ(unlocked(), Regions{zeroesRegion(16, 4)});
}

TEST_F(PunchOutTest, OfEverything)
{
    store(m_four);
    Regions pieces = m_four;
    pieces[1] = compressedRegion(8, 8, 200, 0, 900);
    punchOut(pieces);
    EXPECT_TRUE(unlocked().empty());
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 0u);
}

TEST_F(PunchOutTest, ReportsARemainderWhosePlaceIsTakenAndGoesOn)
{
    store({plainRegion(0, 16, 100), plainRegion(8, 4, 900)});
    punchOut({plainRegion(2, 6, 102, 2)});
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 2, 100), plainRegion(8, 4, 900)}));
    EXPECT_TRUE(isSoftCheck(m_log.only(), PUNCH_OUT_SIGNATURE, "rc"));
}

TEST_F(PunchOutTest, ReportsWhatARemainderMeetsWhileAnyOfTheThreeTweaksIsOn)
{
    DynamicTweaks* tweaks = DynamicTweaks::instance();
    for (std::atomic<bool>* tweak :
         {&tweaks->t_IOVerboseLogs, &tweaks->t_BinVerboseLogs, &tweaks->t_RlVerboseLogs}) {
        store({plainRegion(0, 16, 100), plainRegion(10, 2, 900), zeroesRegion(14, 1)});
        *tweak = true;
        punchOut({plainRegion(2, 6, 102, 2)});
        *tweak = false;
        const std::vector<LogRecord> checks = m_log.softChecks();
        ASSERT_EQ(checks.size(), 1u);
        EXPECT_TRUE(isSoftCheck(checks[0], PUNCH_OUT_SIGNATURE, "intersecting.empty()",
                                "region locator has intersecting regions in it:\n" +
                                    regionText(plainRegion(10, 2, 900)) + "\n" +
                                    regionText(zeroesRegion(14, 1)) + "\n"));
        // The remainder goes in all the same.
        EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 2, 100), plainRegion(8, 8, 108, 8),
                                       plainRegion(10, 2, 900), zeroesRegion(14, 1)}));
        Access::clearMap(m_locator, Access::unlocked(m_locator));
        m_log.clear();
    }
}

TEST_F(PunchOutTest, DoesNotLookForOverlapsWhileTheTweaksAreOff)
{
    store({plainRegion(0, 16, 100), plainRegion(10, 2, 900)});
    punchOut({plainRegion(2, 6, 102, 2)});
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(PunchOutTest, ChecksOfAConsistentLocatorAddNoRecord)
{
    DynamicTweaks::instance()->t_IOVerboseLogs = true;
    insert({plainRegion(0, 16, 100), plainRegion(2, 6, 200), plainRegion(0, 3, 300)});
    EXPECT_TRUE(m_log.records().empty());
}

class PunchOutDeathTest : public InsertDeathTest
{
protected:
    void punchOut(const SubRegionDescriptor& piece)
    {
        const ActiveVoucher voucher(m_locator.getMemPool(), 2);
        Access::punchOutRegions(m_locator, Access::unlocked(m_locator), {piece});
    }
};

TEST_F(PunchOutDeathTest, FromAnEmptyMap)
{
    EXPECT_DEATH(punchOut(plainRegion(0, 8, 100)), hardCheckPattern("a_regionMap->size() > 0"));
}

TEST_F(PunchOutDeathTest, OfWhatNoRegionHolds)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    EXPECT_DEATH(punchOut(plainRegion(8, 4, 108, 8)),
                 hardCheckPattern("checkIntersection(*iter, curRegion)"));
}

TEST_F(PunchOutDeathTest, OfMoreThanTheRegionHolds)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    EXPECT_DEATH(punchOut(plainRegion(0, 9, 100)), hardCheckPattern("altRegions.size() > 0"));
}

// ---- range queries ----

class RangeQueryTest : public LocatorTest
{
protected:
    void SetUp() override
    {
        insert({plainRegion(8, 8, 100), zeroesRegion(16, 4), compressedRegion(24, 8, 200, 0, 900),
                plainRegion(40, 8, 300)});
    }

    Regions query(u64 offset, u32 length)
    {
        return Access::getIntersectingRegions(m_locator, Access::unlocked(m_locator), offset,
                                              length);
    }
    Regions exact(const SubRegionDescriptor& desc)
    {
        return Access::getIntersectingRegionsExact(m_locator, Access::unlocked(m_locator), desc);
    }
};

TEST_F(RangeQueryTest, OfAnEmptyMap)
{
    EXPECT_TRUE(
        Access::getIntersectingRegions(m_locator, Access::locked(m_locator), 0, 100).empty());
}

TEST_F(RangeQueryTest, BeforeBetweenAndAfterRegions)
{
    EXPECT_TRUE(query(0, 8).empty());
    EXPECT_TRUE(query(20, 4).empty());
    EXPECT_TRUE(query(48, 100).empty());
    EXPECT_TRUE(query(0, 0).empty());
}

TEST_F(RangeQueryTest, ClipsTheFirstAndTheLast)
{
    EXPECT_EQ(query(10, 16), (Regions{plainRegion(10, 6, 102, 2), zeroesRegion(16, 4),
                                      compressedRegion(24, 2, 200, 0, 900)}));
}

TEST_F(RangeQueryTest, InsideOneRegion)
{
    EXPECT_EQ(query(26, 2), Regions{compressedRegion(26, 2, 200, 2, 900)});
}

TEST_F(RangeQueryTest, StartsAtARegion)
{
    EXPECT_EQ(query(16, 1), Regions{zeroesRegion(16, 1)});
    EXPECT_EQ(query(8, 8), Regions{plainRegion(8, 8, 100)});
}

TEST_F(RangeQueryTest, StartsInAGapAfterARegionThatEndsBeforeIt)
{
    EXPECT_EQ(query(22, 4), Regions{compressedRegion(24, 2, 200, 0, 900)});
}

TEST_F(RangeQueryTest, OfEverythingInViewOrder)
{
    EXPECT_EQ(query(0, 0xFFFFFFFF), unlocked());
}

TEST_F(RangeQueryTest, LeavesOutWhatIsExcluded)
{
    Regions seen;
    const Regions kept = Access::getIntersectingRegions(
        m_locator, Access::unlocked(m_locator), 10, 100, [&seen](const SubRegionDescriptor& piece) {
            seen.push_back(piece);
            return piece.isAllZeroes();
        });
    EXPECT_EQ(seen, query(10, 100)); // it is asked about the clipped piece
    EXPECT_EQ(kept, (Regions{plainRegion(10, 6, 102, 2), compressedRegion(24, 8, 200, 0, 900),
                             plainRegion(40, 8, 300)}));
}

TEST_F(RangeQueryTest, ExactOfCompressedKeepsTheIoWithItsAddress)
{
    EXPECT_EQ(exact(compressedRegion(0, 100, 200)), Regions{compressedRegion(24, 8, 200, 0, 900)});
    EXPECT_EQ(exact(compressedRegion(26, 100, 200)), Regions{compressedRegion(26, 6, 200, 2, 900)});
    EXPECT_TRUE(exact(compressedRegion(0, 100, 201)).empty());
    // A plain region that lies at that address is another IO's.
    EXPECT_TRUE(exact(compressedRegion(0, 100, 100)).empty());
}

TEST_F(RangeQueryTest, ExactOfZeroesKeepsEveryPiece)
{
    EXPECT_EQ(exact(zeroesRegion(10, 16)), query(10, 16));
}

TEST_F(RangeQueryTest, ExactOfPlainKeepsWhatOverlapsInTheJournal)
{
    EXPECT_EQ(exact(plainRegion(0, 100, 100)), Regions{plainRegion(8, 8, 100)});
    EXPECT_EQ(exact(plainRegion(8, 8, 100)), Regions{plainRegion(8, 8, 100)});
    EXPECT_EQ(exact(plainRegion(0, 65535, 0)),
              (Regions{plainRegion(8, 8, 100), plainRegion(40, 8, 300)}));
}

TEST_F(RangeQueryTest, ExactOfPlainLeavesOutWhatOnlyTouchesInTheJournal)
{
    EXPECT_TRUE(exact(plainRegion(8, 8, 92)).empty());   // ends where the piece begins
    EXPECT_TRUE(exact(plainRegion(8, 8, 108)).empty());  // begins where the piece ends
    EXPECT_EQ(exact(plainRegion(8, 8, 93)).size(), 1u);  // one block of the piece
    EXPECT_EQ(exact(plainRegion(8, 8, 107)).size(), 1u); // one block of the piece
}

TEST_F(RangeQueryTest, ExactOfPlainComparesTheClippedPiece)
{
    // Of the blocks 8 to 16 only the last four are in the range, and they lie at 104.
    EXPECT_TRUE(exact(plainRegion(12, 4, 100)).empty());
    EXPECT_EQ(exact(plainRegion(12, 4, 101)), Regions{plainRegion(12, 4, 104, 4)});
}

TEST_F(RangeQueryTest, ExactOfPlainNeverKeepsCompressedOrZeroes)
{
    EXPECT_TRUE(exact(plainRegion(24, 8, 200)).empty());
    EXPECT_TRUE(exact(plainRegion(16, 4, SFS_DEV_ADDR_INVALID - 2)).empty());
}

} // namespace
