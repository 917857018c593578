#include <gtest/gtest.h>
#include <memory>

#include "common/infra/Tweaks.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

const char* const TWEAK = "t_XelCombineRegionLocatorRegionsDuringRestore";

class CombineTest : public testing::Test
{
protected:
    ~CombineTest() override { Tweaks::unset(TWEAK); }

    void insert(const Regions& regions)
    {
        for (const SubRegionDescriptor& region : regions)
            EXPECT_TRUE(insertRegion(*m_locator, region)) << region;
    }

    bool combine(const SubRegionDescriptor& region)
    {
        const ActiveVoucher voucher(m_locator->getMemPool(), 1);
        return Access::insertAndCombine(*m_locator, region);
    }

    Regions unlocked()
    {
        const CountedRegionMap* map = Access::unlocked(*m_locator);
        return {map->begin(), map->end()};
    }
    u64 merges() { return Access::counters(*m_locator).getMerges(); }

    LogCapture m_log;
    std::unique_ptr<RegionLocator> m_locator = std::make_unique<RegionLocator>(1, RL_MMI_View);
};

// ---- which neighbours there are ----

TEST_F(CombineTest, IntoAnEmptyMap)
{
    EXPECT_TRUE(combine(plainRegion(10, 4, 100)));
    EXPECT_EQ(unlocked(), Regions{plainRegion(10, 4, 100)});
    EXPECT_EQ(merges(), 0u);
}

TEST_F(CombineTest, WithTheLeftNeighbour)
{
    insert({plainRegion(10, 4, 100)});
    EXPECT_TRUE(combine(plainRegion(14, 2, 104, 4)));
    EXPECT_EQ(unlocked(), Regions{plainRegion(10, 6, 100)});
    EXPECT_EQ(m_locator->getTotalRegionBlocks(), 6u);
    EXPECT_EQ(merges(), 1u);
}

TEST_F(CombineTest, WithTheRightNeighbour)
{
    insert({plainRegion(14, 2, 104, 4)});
    EXPECT_TRUE(combine(plainRegion(10, 4, 100)));
    EXPECT_EQ(unlocked(), Regions{plainRegion(10, 6, 100)});
    EXPECT_EQ(merges(), 1u);
}

TEST_F(CombineTest, WithBothNeighboursOfOnePlainIo)
{
    insert({plainRegion(10, 4, 100), plainRegion(16, 4, 106, 6)});
    EXPECT_TRUE(combine(plainRegion(14, 2, 104, 4)));
    EXPECT_EQ(unlocked(), Regions{plainRegion(10, 10, 100)});
    EXPECT_EQ(m_locator->getTotalRegionBlocks(), 10u);
    EXPECT_EQ(merges(), 2u);
}

TEST_F(CombineTest, WithBothNeighboursOfOneCompressedIo)
{
    insert({compressedRegion(10, 4, 100, 0), compressedRegion(16, 4, 100, 6)});
    EXPECT_TRUE(combine(compressedRegion(14, 2, 100, 4)));
    EXPECT_EQ(unlocked(), Regions{compressedRegion(10, 10, 100, 0)});
    EXPECT_EQ(merges(), 2u);
}

TEST_F(CombineTest, WithBothNeighboursOfZeroes)
{
    insert({zeroesRegion(10, 4), zeroesRegion(16, 4)});
    EXPECT_TRUE(combine(zeroesRegion(14, 2)));
    EXPECT_EQ(unlocked(), Regions{zeroesRegion(10, 10)});
    EXPECT_EQ(merges(), 2u);
}

TEST_F(CombineTest, WithNeitherWhenBothAreOfOtherIos)
{
    insert({plainRegion(10, 4, 100), plainRegion(16, 4, 106)});
    EXPECT_TRUE(combine(plainRegion(14, 2, 104)));
    EXPECT_EQ(unlocked(),
              (Regions{plainRegion(10, 4, 100), plainRegion(14, 2, 104), plainRegion(16, 4, 106)}));
    EXPECT_EQ(merges(), 0u);
}

TEST_F(CombineTest, WithNeitherAcrossGaps)
{
    insert({plainRegion(10, 4, 100), plainRegion(18, 2, 108, 8)});
    EXPECT_TRUE(combine(plainRegion(15, 2, 105, 5)));
    EXPECT_EQ(unlocked().size(), 3u);
    EXPECT_EQ(merges(), 0u);
}

TEST_F(CombineTest, WithTheLeftAloneWhenTheRightIsAnotherIos)
{
    insert({plainRegion(10, 4, 100), plainRegion(16, 4, 900)});
    EXPECT_TRUE(combine(plainRegion(14, 2, 104, 4)));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(10, 6, 100), plainRegion(16, 4, 900)}));
    EXPECT_EQ(merges(), 1u);
}

TEST_F(CombineTest, WithTheRightAloneWhenTheLeftIsAnotherIos)
{
    insert({plainRegion(10, 4, 900), plainRegion(16, 4, 106, 6)});
    EXPECT_TRUE(combine(plainRegion(14, 2, 104, 4)));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(10, 4, 900), plainRegion(14, 6, 104, 4)}));
    EXPECT_EQ(merges(), 1u);
}

TEST_F(CombineTest, OnlyWithDirectNeighbours)
{
    insert({plainRegion(10, 4, 100), plainRegion(14, 2, 104, 4), plainRegion(18, 2, 108, 8),
            plainRegion(20, 2, 110, 10)});
    EXPECT_TRUE(combine(plainRegion(16, 2, 106, 6)));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(10, 4, 100), plainRegion(14, 6, 104, 4),
                                   plainRegion(20, 2, 110, 10)}));
    EXPECT_EQ(merges(), 2u);
}

// ---- zeroes and their limit ----

TEST_F(CombineTest, ZeroesUpToTheLimit)
{
    insert({zeroesRegion(0, 1024)});
    EXPECT_TRUE(combine(zeroesRegion(1024, 1024)));
    EXPECT_EQ(unlocked(), Regions{zeroesRegion(0, 2048)});
    EXPECT_EQ(merges(), 1u);
}

TEST_F(CombineTest, ZeroesBeyondTheLimitStayApart)
{
    insert({zeroesRegion(0, 1024)});
    EXPECT_TRUE(combine(zeroesRegion(1024, 1025)));
    EXPECT_EQ(unlocked(), (Regions{zeroesRegion(0, 1024), zeroesRegion(1024, 1025)}));
    EXPECT_EQ(merges(), 0u);
}

TEST_F(CombineTest, ZeroesFillTheLimitOnTheLeftBeforeTheRight)
{
    insert({zeroesRegion(0, 1000), zeroesRegion(2000, 1000)});
    EXPECT_TRUE(combine(zeroesRegion(1000, 1000)));
    EXPECT_EQ(unlocked(), (Regions{zeroesRegion(0, 2000), zeroesRegion(2000, 1000)}));
    EXPECT_EQ(merges(), 1u);
}

TEST_F(CombineTest, ZeroesMergeOnTheRightWhereTheLeftIsFull)
{
    insert({zeroesRegion(0, 2048), zeroesRegion(2049, 10)});
    EXPECT_TRUE(combine(zeroesRegion(2048, 1)));
    EXPECT_EQ(unlocked(), (Regions{zeroesRegion(0, 2048), zeroesRegion(2048, 11)}));
    EXPECT_EQ(merges(), 1u);
}

// ---- cscan ----

TEST_F(CombineTest, ACscanRegionIsStoredAsItIs)
{
    insert({compressedRegion(10, 4, 100, 0), compressedRegion(16, 4, 100, 6)});
    EXPECT_TRUE(combine(compressedRegion(14, 2, 100, 4, 1000, true)));
    EXPECT_EQ(unlocked(),
              (Regions{compressedRegion(10, 4, 100, 0), compressedRegion(14, 2, 100, 4, 1000, true),
                       compressedRegion(16, 4, 100, 6)}));
    EXPECT_EQ(merges(), 0u);
}

TEST_F(CombineTest, ACscanRegionIsStoredWithoutALookAtItsNeighbours)
{
    insert({compressedRegion(10, 4, 100, 0)});
    EXPECT_FALSE(combine(compressedRegion(10, 2, 900, 0, 1000, true)));
    EXPECT_TRUE(m_log.records().empty()); // the neighbour's check would have failed
}

TEST_F(CombineTest, NeighboursWithCscanAreLeftAlone)
{
    insert(
        {compressedRegion(10, 4, 100, 0, 1000, true), compressedRegion(16, 4, 100, 6, 1000, true)});
    EXPECT_TRUE(combine(compressedRegion(14, 2, 100, 4)));
    EXPECT_EQ(unlocked().size(), 3u);
    EXPECT_EQ(merges(), 0u);
}

// ---- results and tokens ----

TEST_F(CombineTest, OnAnOccupiedFirstBlockIsReportedAndReturnsFalse)
{
    insert({plainRegion(10, 4, 100)});
    EXPECT_FALSE(combine(plainRegion(10, 2, 900)));
    EXPECT_EQ(unlocked(), Regions{plainRegion(10, 4, 100)});
    EXPECT_EQ(m_log.softChecks().size(), 1u); // the left neighbour is not on the left
}

TEST_F(CombineTest, GivesTheNodesOfBothNeighboursBack)
{
    insert({plainRegion(10, 4, 100), plainRegion(16, 4, 106, 6)});
    combine(plainRegion(14, 2, 104, 4));
    EXPECT_EQ(m_locator->getMemPool()->getMemoryStats().usedBytesNet, 64u);
}

TEST_F(CombineTest, CountsNoInsert)
{
    insert({plainRegion(10, 4, 100)});
    combine(plainRegion(14, 2, 104, 4));
    EXPECT_EQ(Access::counters(*m_locator).getInserts(), 1u);
    EXPECT_EQ(Access::counters(*m_locator).getInsertLbs(), 4u);
}

// ---- through the public operations ----

TEST_F(CombineTest, RestoredMiddleMakesTheRegionWholeAgain)
{
    for (const SubRegionDescriptor& region :
         {plainRegion(10, 10, 100), compressedRegion(10, 10, 100, 0, 1000), zeroesRegion(10, 10)}) {
        const u64 before = merges();
        insert({region});
        const Regions pieces = lockRange(*m_locator, 14, 2);
        EXPECT_EQ(unlocked().size(), 2u);
        unlockAndRestoreRegions(*m_locator, pieces);
        EXPECT_EQ(unlocked(), Regions{region});
        EXPECT_EQ(merges(), before + 2);
    }
}

TEST_F(CombineTest, RestoredPiecesBesideWhatWasInsertedMeanwhileStayApart)
{
    insert({plainRegion(10, 10, 100)});
    const Regions pieces = lockRange(*m_locator, 14, 2);
    insert({plainRegion(16, 1, 900)});
    unlockAndRestoreRegions(*m_locator, pieces);
    EXPECT_EQ(unlocked(), (Regions{plainRegion(10, 6, 100), plainRegion(16, 1, 900),
                                   plainRegion(17, 3, 107, 7)}));
    EXPECT_EQ(merges(), 1u);
}

// ---- the tweak ----

TEST_F(CombineTest, IsOnWithoutTheTweak)
{
    EXPECT_TRUE(Access::combinesDuringRestore(*m_locator));
}

TEST_F(CombineTest, IsOnExactlyWhenTheTweakIsOne)
{
    Tweaks::set(TWEAK, 1);
    EXPECT_TRUE(Access::combinesDuringRestore(*std::make_unique<RegionLocator>(2, RL_MMI_View)));
    for (const u64 value : {u64{0}, u64{2}, u64{3}, u64{0x100000001}, ~u64{0}}) {
        Tweaks::set(TWEAK, value);
        EXPECT_FALSE(
            Access::combinesDuringRestore(*std::make_unique<RegionLocator>(2, RL_MMI_View)))
            << value;
    }
}

TEST_F(CombineTest, NeverMergesWithTheTweakOff)
{
    Tweaks::set(TWEAK, 0);
    m_locator = std::make_unique<RegionLocator>(2, RL_MMI_View);
    insert({plainRegion(10, 4, 100), plainRegion(16, 4, 106, 6), zeroesRegion(30, 2)});
    EXPECT_TRUE(combine(plainRegion(14, 2, 104, 4)));
    EXPECT_TRUE(combine(zeroesRegion(32, 2)));
    EXPECT_EQ(unlocked(),
              (Regions{plainRegion(10, 4, 100), plainRegion(14, 2, 104, 4),
                       plainRegion(16, 4, 106, 6), zeroesRegion(30, 2), zeroesRegion(32, 2)}));
    EXPECT_EQ(merges(), 0u);
}

TEST_F(CombineTest, TweakIsReadOnceAtConstruction)
{
    Tweaks::set(TWEAK, 0);
    insert({plainRegion(10, 4, 100)});
    EXPECT_TRUE(combine(plainRegion(14, 2, 104, 4)));
    EXPECT_EQ(unlocked(), Regions{plainRegion(10, 6, 100)});
}

} // namespace
