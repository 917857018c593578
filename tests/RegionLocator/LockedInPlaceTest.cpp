#include "RegionLocator/LockedInPlace.h"

#include <functional>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

#include "common/infra/DynamicTweaks.h"
#include "tests/support/Accelerators.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

constexpr u64 REGIONS = 64;

// A locator that locks in place from the first region on: regions of eight blocks with gaps of as
// many.
class LockedInPlaceTest : public testing::Test
{
protected:
    LockedInPlaceTest() : m_locator(1, RL_MMI_View)
    {
        for (u64 i = 0; i < REGIONS; ++i)
            insertRegion(m_locator, region(i));
    }

    static SubRegionDescriptor region(u64 i) { return plainRegion(16 * i, 8, 1000 + 100 * i); }

    RegionNode* node(u64 i)
    {
        return Access::unlockedMap(m_locator)->lastAtOrBefore(16 * i)._M_node;
    }
    u32 inPlace() { return Access::lockedInPlace(m_locator); }
    Regions locked() { return Access::regions(m_locator, true); }

    LogCapture m_log;
    Accelerators m_accelerators{Accelerators::ALL};
    RegionLocator m_locator;
};

// ---- the list ----

TEST_F(LockedInPlaceTest, FindsItsNodesByTheirFirstBlocks)
{
    LockedInPlace list;
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.find(0, 0), LockedInPlace::MOST);
    for (u64 i = 0; i < LockedInPlace::MOST; ++i) {
        EXPECT_TRUE(list.hasRoom(LockedInPlace::MOST - i));
        EXPECT_FALSE(list.hasRoom(LockedInPlace::MOST - i + 1));
        list.add(node(i));
    }
    EXPECT_FALSE(list.hasRoom(1));
    for (u32 i = 0; i < LockedInPlace::MOST; ++i) {
        for (const u32 from : {0U, i, i + 1, LockedInPlace::MOST}) {
            ASSERT_EQ(list.find(u64{16} * i, from), i);
            ASSERT_EQ(list.find(u64{16} * i + 1, from), LockedInPlace::MOST);
        }
        ASSERT_EQ(list.at(i), node(i));
        ASSERT_TRUE(list.holds(node(i)));
    }
    EXPECT_FALSE(list.holds(node(LockedInPlace::MOST)));
    list.shrinkTo(3);
    EXPECT_EQ(list.size(), 3U);
    EXPECT_FALSE(list.holds(node(3)));
}

TEST_F(LockedInPlaceTest, ForgetsWhatIsReleasedAndKeepsTheOrder)
{
    LockedInPlace list;
    for (u64 i = 0; i < 5; ++i)
        list.add(node(i));
    list.release(1);
    list.release(4);
    EXPECT_FALSE(list.holds(node(1)));
    EXPECT_EQ(list.at(3), node(3));
    list.tidy();
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list.at(0), node(0));
    EXPECT_EQ(list.at(1), node(2));
    EXPECT_EQ(list.at(2), node(3));
}

TEST_F(LockedInPlaceTest, KnowsWhichRangesItMeets)
{
    LockedInPlace list;
    EXPECT_FALSE(list.intersects(0, 1000));
    list.add(node(1)); // 16 to 24
    list.add(node(4)); // 64 to 72
    EXPECT_FALSE(list.intersects(0, 16));
    EXPECT_TRUE(list.intersects(0, 17));
    EXPECT_TRUE(list.intersects(18, 2));
    EXPECT_TRUE(list.intersects(23, 1));
    EXPECT_FALSE(list.intersects(24, 40));
    EXPECT_TRUE(list.intersects(24, 41));
    EXPECT_FALSE(list.intersects(72, 1000));
}

// ---- the locator ----

TEST_F(LockedInPlaceTest, AWholeRegionStaysWhereItIsUntilItIsGivenBack)
{
    RegionNode* const before = node(3);
    const Regions pieces = lockRange(m_locator, 48, 8);
    EXPECT_EQ(pieces, Regions{region(3)});
    EXPECT_EQ(inPlace(), 1U);
    EXPECT_TRUE(Access::lockedMap(m_locator)->empty());
    EXPECT_EQ(locked(), pieces);
    unlockAndRestoreRegions(m_locator, pieces);
    EXPECT_EQ(inPlace(), 0U);
    EXPECT_EQ(node(3), before);
    EXPECT_EQ(tokensOut(m_locator), REGIONS);
}

TEST_F(LockedInPlaceTest, ADroppedRegionIsGoneWithItsToken)
{
    const Regions pieces = lockRange(m_locator, 48, 24);
    EXPECT_EQ(pieces, (Regions{region(3), region(4)}));
    EXPECT_EQ(inPlace(), 2U);
    unlockAndRemoveRegions(m_locator, pieces);
    EXPECT_EQ(inPlace(), 0U);
    EXPECT_TRUE(lookupRange(m_locator, 48, 24).empty());
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 8 * (REGIONS - 2));
    EXPECT_EQ(tokensOut(m_locator), REGIONS - 2);
}

TEST_F(LockedInPlaceTest, PiecesOfRegionsAndWhatThereIsNoRoomForMoveAtOnce)
{
    const Regions part = lockRange(m_locator, 0, 4);
    EXPECT_EQ(inPlace(), 0U);
    const Regions most = lockRange(m_locator, 16, 16 * LockedInPlace::MOST);
    EXPECT_EQ(inPlace(), LockedInPlace::MOST);
    const Regions more = lockRange(m_locator, 16 * (LockedInPlace::MOST + 1), 8);
    EXPECT_EQ(inPlace(), LockedInPlace::MOST);
    EXPECT_EQ(Access::lockedMap(m_locator)->size(), 2U);
    EXPECT_EQ(locked().size(), LockedInPlace::MOST + 2U);
    for (const Regions& pieces : {most, more, part})
        unlockAndRestoreRegions(m_locator, pieces);
    EXPECT_TRUE(locked().empty());
    EXPECT_EQ(m_locator.getItemCount(), REGIONS);
    EXPECT_EQ(m_locator.getMerges(), 1U);
}

TEST_F(LockedInPlaceTest, ACompressedRegionWithAChecksumOfItsWholeMoves)
{
    insertRegion(m_locator, compressedRegion(2000, 8, 5000, 0, 1000, true));
    const Regions pieces = lockRange(m_locator, 2000, 8);
    EXPECT_EQ(inPlace(), 0U);
    EXPECT_EQ(pieces, Regions{compressedRegion(2000, 8, 5000)});
    unlockAndRestoreRegions(m_locator, pieces);
}

// A cut of it would have a place in its IO that the field for it cannot hold.
TEST_F(LockedInPlaceTest, ARegionOfWhosePiecesThereIsSomethingToReportMoves)
{
    insertRegion(m_locator, plainRegion(2000, 16, 5000, 65530));
    const Regions pieces = lockRange(m_locator, 2000, 16);
    EXPECT_EQ(inPlace(), 0U);
    m_log.clear();
    EXPECT_FALSE(insertRegion(m_locator, plainRegion(2008, 8, 9000)));
    // What was reported of the piece, and that the insert was refused.
    ASSERT_EQ(m_log.records().size(), 2U);
    EXPECT_NE(m_log.records()[0].m_text.find("offsetFromOrigIoLbs=65538"), std::string::npos)
        << m_log.records()[0].m_text;
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LockedInPlaceTest, InsertsOverItAreRefusedAndOthersAreNot)
{
    const Regions pieces = lockRange(m_locator, 16, 8);
    EXPECT_FALSE(insertRegion(m_locator, plainRegion(23, 1, 9000)));
    EXPECT_FALSE(insertRegion(m_locator, plainRegion(10, 7, 9000)));
    EXPECT_TRUE(insertRegion(m_locator, plainRegion(10, 6, 9000)));
    EXPECT_TRUE(insertRegion(m_locator, plainRegion(24, 10, 9100)));
    EXPECT_EQ(inPlace(), 1U);
    EXPECT_EQ(lookupRange(m_locator, 10, 22),
              (Regions{plainRegion(10, 6, 9000), region(1), plainRegion(24, 8, 9100)}));
    unlockAndRestoreRegions(m_locator, pieces);
    EXPECT_EQ(m_locator.getMerges(), 0U);
}

TEST_F(LockedInPlaceTest, GivenBackInAnotherOrderOrInPartItIsAllTheSame)
{
    const Regions first = lockRange(m_locator, 0, 40); // regions 0 to 2
    const Regions second = lockRange(m_locator, 64, 40);
    EXPECT_EQ(inPlace(), 6U);
    unlockAndRestoreRegions(m_locator, {second[2], second[0]});
    EXPECT_EQ(inPlace(), 4U);
    EXPECT_EQ(locked(), (Regions{region(0), region(1), region(2), region(5)}));
    // Blocks out of the middle of one: everything moves, and that one is cut.
    const SubRegionDescriptor middle = plainRegion(18, 2, 1102, 2);
    unlockAndRestoreRegions(m_locator, {middle});
    EXPECT_EQ(inPlace(), 0U);
    EXPECT_EQ(locked(), (Regions{region(0), plainRegion(16, 2, 1100), plainRegion(20, 4, 1104, 4),
                                 region(2), region(5)}));
    unlockAndRestoreRegions(m_locator, {second[1], first[0], first[2]});
    unlockAndRestoreRegions(m_locator, {plainRegion(16, 2, 1100), plainRegion(20, 4, 1104, 4)});
    EXPECT_TRUE(locked().empty());
    EXPECT_EQ(lookupRange(m_locator, 16, 8), Regions{region(1)});
    EXPECT_EQ(tokensOut(m_locator), REGIONS);
}

// Neighbours of one IO become one region when the second of them comes back, not before.
TEST_F(LockedInPlaceTest, MergesWithNeighboursThatAreNotLocked)
{
    for (const bool leftFirst : {true, false}) {
        const u64 merges = m_locator.getMerges();
        const u64 before = tokensOut(m_locator);
        removeRange(m_locator, 5000, 100);
        insertRegion(m_locator, plainRegion(5000, 8, 9000));
        {
            const ActiveVoucher voucher(m_locator.getMemPool(), 2);
            Access::unlocked(m_locator)->insert(plainRegion(5008, 8, 9008, 8));
            Access::unlocked(m_locator)->insert(plainRegion(5016, 8, 9016, 16));
        }
        const Regions left = lockRange(m_locator, 5000, 8);
        const Regions middle = lockRange(m_locator, 5008, 8);
        const Regions right = lockRange(m_locator, 5016, 8);
        EXPECT_EQ(inPlace(), 3U);
        unlockAndRestoreRegions(m_locator, leftFirst ? left : right);
        EXPECT_EQ(m_locator.getMerges(), merges);
        unlockAndRestoreRegions(m_locator, leftFirst ? middle : left);
        EXPECT_EQ(m_locator.getMerges(), merges + (leftFirst ? 1 : 0));
        unlockAndRestoreRegions(m_locator, leftFirst ? right : middle);
        EXPECT_EQ(m_locator.getMerges(), merges + 2);
        EXPECT_EQ(inPlace(), 0U);
        EXPECT_EQ(lookupRange(m_locator, 5000, 100), Regions{plainRegion(5000, 24, 9000)});
        EXPECT_EQ(tokensOut(m_locator), before + (leftFirst ? 1 : 0));
    }
}

TEST_F(LockedInPlaceTest, OperationsThatLookAtTheLockedMapFindItThere)
{
    const VoucherGuard voucher(m_locator.getMemPool(), 100);
    AsyncTask task;
    Regions found;
    const std::vector<std::pair<const char*, std::function<void()>>> operations = {
        {"getFirstRegionsAndLock",
         [&] {
             m_locator.getFirstRegionsAndLock(&task, 1, &found, voucher);
             EXPECT_EQ(found, Regions{region(1)});
             m_locator.unlockAndRestore(found, voucher);
         }},
        {"lockAndRemove",
         [&] { EXPECT_EQ(m_locator.lockAndRemove(&task, region(63), voucher), RC_SUCCESS); }},
        {"printStatistics",
         [&] {
             m_log.clear();
             m_locator.printStatistics("p");
             EXPECT_NE(m_log.only().m_text.find("m_lockedRegions->size()=1 "), std::string::npos);
         }},
        {"getConstBeginIterator",
         [&] { EXPECT_EQ(*m_locator.getConstBeginIterator(), region(1)); }},
    };
    for (const auto& [name, operation] : operations) {
        SCOPED_TRACE(name);
        const Regions pieces = lockRange(m_locator, 0, 8);
        EXPECT_EQ(inPlace(), 1U);
        operation();
        EXPECT_EQ(inPlace(), 0U);
        EXPECT_EQ(Access::lockedMap(m_locator)->size(), 1U);
        EXPECT_EQ(locked(), pieces);
        unlockAndRestoreRegions(m_locator, pieces);
    }
    // From now on nothing is locked in place: somebody may be walking.
    const Regions pieces = lockRange(m_locator, 0, 8);
    EXPECT_EQ(inPlace(), 0U);
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(LockedInPlaceTest, AnUnlockThatIsTracedShowsAllItsSteps)
{
    const Regions pieces = lockRange(m_locator, 0, 8);
    m_log.clear();
    DynamicTweaks::instance()->t_RlVerboseLogs = true;
    const VoucherGuard voucher(m_locator.getMemPool(), 2);
    Regions given = pieces;
    m_locator.unlockAndRestore(given, voucher);
    Regions again;
    m_locator.lookup(nullptr, 0, 8, &again, true, voucher);
    EXPECT_EQ(inPlace(), 0U);
    DynamicTweaks::instance()->t_RlVerboseLogs = false;
    EXPECT_TRUE(m_log.softChecks().empty());
    u32 steps = 0;
    for (const LogRecord& record : m_log.records())
        steps += record.m_text.find("erase whole") != std::string::npos ||
                         record.m_text.find("insert ") != std::string::npos
                     ? 1
                     : 0;
    EXPECT_EQ(steps, 4U);
    m_locator.unlockAndRestore(again, voucher);
}

TEST(LockInASmallMapTest, MovesItsRegions)
{
    const LogCapture log;
    RegionLocator locator(1, RL_MMI_View);
    insertRegion(locator, plainRegion(0, 8, 100));
    const Regions pieces = lockRange(locator, 0, 8);
    EXPECT_EQ(Access::lockedInPlace(locator), 0U);
    EXPECT_EQ(Access::lockedMap(locator)->size(), 1U);
    unlockAndRestoreRegions(locator, pieces);
}

} // namespace
