#include "RegionLocator/CountedRegionMap.h"

#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/infra/MemShieldControl.h"
#include "tests/support/Accelerators.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

// A map of its own on a locator's pool, with tokens enough for what a case does.
class CountedRegionMapTest : public testing::Test
{
protected:
    CountedRegionMapTest()
        : m_voucher(std::make_unique<ActiveVoucher>(m_locator.getMemPool(), 16)),
          m_map(std::make_unique<CountedRegionMap>(Access::allocator(m_locator)))
    {}

    ~CountedRegionMapTest() override
    {
        m_map.reset();
        m_voucher.reset();
    }

    Regions contents() const { return {m_map->begin(), m_map->end()}; }

    LogCapture m_log;
    RegionLocator m_locator{1, RL_MMI_View};
    std::unique_ptr<ActiveVoucher> m_voucher;
    std::unique_ptr<CountedRegionMap> m_map;
};

// ---- empty ----

TEST_F(CountedRegionMapTest, IsEmptyWhenNew)
{
    EXPECT_TRUE(m_map->empty());
    EXPECT_EQ(m_map->size(), 0u);
    EXPECT_EQ(m_map->sizeLb(), 0u);
    EXPECT_EQ(m_map->begin(), m_map->end());
    EXPECT_EQ(m_map->cbegin(), m_map->cend());
    EXPECT_EQ(m_map->lower_bound(SubRegionDescriptor(0)), m_map->end());
}

TEST_F(CountedRegionMapTest, ClearsAndErasesNothingWhenEmpty)
{
    m_map->clear();
    EXPECT_EQ(m_map->erase(m_map->begin(), m_map->end()), m_map->end());
    EXPECT_EQ(m_map->erase(plainRegion(0, 8, 100)), 0u);
    EXPECT_EQ(m_map->sizeLb(), 0u);
    EXPECT_TRUE(m_log.records().empty());
}

// ---- insert ----

TEST_F(CountedRegionMapTest, InsertsOneRegionAndCountsItsBlocks)
{
    const auto [place, inserted] = m_map->insert(plainRegion(8, 4, 100));
    EXPECT_TRUE(inserted);
    EXPECT_EQ(*place, plainRegion(8, 4, 100));
    EXPECT_EQ(m_map->sizeLb(), 4u);
    EXPECT_EQ(m_map->size(), 1u);
}

TEST_F(CountedRegionMapTest, KeepsRegionsInTheOrderOfTheirFirstBlocks)
{
    m_map->insert(plainRegion(20, 1, 100));
    m_map->insert(zeroesRegion(0, 2));
    m_map->insert(compressedRegion(10, 4, 300));
    EXPECT_EQ(contents(),
              (Regions{zeroesRegion(0, 2), compressedRegion(10, 4, 300), plainRegion(20, 1, 100)}));
    EXPECT_EQ(m_map->sizeLb(), 7u);
}

TEST_F(CountedRegionMapTest, RefusesASecondRegionWithTheSameFirstBlock)
{
    m_map->insert(plainRegion(8, 4, 100));
    const auto [place, inserted] = m_map->insert(plainRegion(8, 9, 200));
    EXPECT_FALSE(inserted);
    EXPECT_EQ(*place, plainRegion(8, 4, 100));
    EXPECT_EQ(contents(), Regions{plainRegion(8, 4, 100)});
    EXPECT_EQ(m_map->sizeLb(), 4u);
}

TEST_F(CountedRegionMapTest, InsertsBesideAHintThatIsRightAndOneThatIsWrong)
{
    m_map->insert(plainRegion(8, 4, 100));
    EXPECT_TRUE(m_map->insert(m_map->cbegin(), plainRegion(0, 1, 1)).second);
    EXPECT_TRUE(m_map->insert(m_map->cbegin(), plainRegion(20, 2, 2)).second);
    EXPECT_EQ(contents(),
              (Regions{plainRegion(0, 1, 1), plainRegion(8, 4, 100), plainRegion(20, 2, 2)}));
    EXPECT_EQ(m_map->sizeLb(), 7u);
}

TEST_F(CountedRegionMapTest, RefusesASecondRegionWithTheSameFirstBlockAlsoBesideAHint)
{
    m_map->insert(plainRegion(8, 4, 100));
    const auto [place, inserted] = m_map->insert(m_map->cbegin(), plainRegion(8, 9, 200));
    EXPECT_FALSE(inserted);
    EXPECT_EQ(*place, plainRegion(8, 4, 100));
    EXPECT_EQ(m_map->sizeLb(), 4u);
}

TEST_F(CountedRegionMapTest, TakesOneTokenARegionAndNoneForARefusedOne)
{
    // The voucher's stack hands out a token, and a freed one comes back on top of it.
    void* const top = m_locator.getMemPool()->getToken();
    m_locator.getMemPool()->freeToken(top);
    const auto place = m_map->insert(plainRegion(8, 4, 100)).first;
    const auto* node = reinterpret_cast<const u8*>(&*place);
    EXPECT_GE(node, static_cast<u8*>(top));
    EXPECT_LE(node + sizeof(SubRegionDescriptor), static_cast<u8*>(top) + 64);

    void* const second = m_locator.getMemPool()->getToken();
    m_locator.getMemPool()->freeToken(second);
    m_map->insert(plainRegion(8, 9, 200));
    void* const stillSecond = m_locator.getMemPool()->getToken();
    m_locator.getMemPool()->freeToken(stillSecond);
    EXPECT_EQ(stillSecond, second);

    m_map->erase(place);
    void* const back = m_locator.getMemPool()->getToken();
    m_locator.getMemPool()->freeToken(back);
    EXPECT_EQ(back, top);
}

// ---- lower bound ----

TEST_F(CountedRegionMapTest, LowerBoundIsTheFirstRegionNotBelow)
{
    m_map->insert(plainRegion(8, 4, 100));
    m_map->insert(plainRegion(20, 4, 200));
    EXPECT_EQ(m_map->lower_bound(SubRegionDescriptor(7))->m_viewOffsetBlocks, 8u);
    EXPECT_EQ(m_map->lower_bound(SubRegionDescriptor(8))->m_viewOffsetBlocks, 8u);
    EXPECT_EQ(m_map->lower_bound(SubRegionDescriptor(9))->m_viewOffsetBlocks, 20u);
    EXPECT_EQ(m_map->lower_bound(SubRegionDescriptor(21)), m_map->end());
}

// ---- erase ----

TEST_F(CountedRegionMapTest, ErasesTheRegionAtAPlaceAndReturnsTheNext)
{
    m_map->insert(plainRegion(0, 2, 100));
    m_map->insert(plainRegion(8, 4, 200));
    const auto next = m_map->erase(m_map->begin());
    EXPECT_EQ(*next, plainRegion(8, 4, 200));
    EXPECT_EQ(m_map->sizeLb(), 4u);
    EXPECT_EQ(m_map->erase(next), m_map->end());
    EXPECT_EQ(m_map->sizeLb(), 0u);
    EXPECT_TRUE(m_map->empty());
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CountedRegionMapTest, ErasesARangeInTheMiddleAndReturnsItsEnd)
{
    for (u64 i = 0; i < 5; ++i)
        m_map->insert(plainRegion(10 * i, static_cast<u32>(i + 1), 100 * i));
    const auto last = std::next(m_map->begin(), 3);
    EXPECT_EQ(m_map->erase(std::next(m_map->begin()), last), last);
    EXPECT_EQ(contents(),
              (Regions{plainRegion(0, 1, 0), plainRegion(30, 4, 300), plainRegion(40, 5, 400)}));
    EXPECT_EQ(m_map->sizeLb(), 10u);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CountedRegionMapTest, ErasesTheWholeRange)
{
    for (u64 i = 0; i < 5; ++i)
        m_map->insert(plainRegion(10 * i, 3, 100 * i));
    EXPECT_EQ(m_map->erase(m_map->begin(), m_map->end()), m_map->end());
    EXPECT_TRUE(m_map->empty());
    EXPECT_EQ(m_map->sizeLb(), 0u);
}

TEST_F(CountedRegionMapTest, ErasesAStoredRegionByValue)
{
    m_map->insert(plainRegion(0, 2, 100));
    m_map->insert(plainRegion(8, 4, 200));
    EXPECT_EQ(m_map->erase(plainRegion(8, 4, 200)), 1u);
    EXPECT_EQ(contents(), Regions{plainRegion(0, 2, 100)});
    EXPECT_EQ(m_map->sizeLb(), 2u);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CountedRegionMapTest, ErasesNothingForAKeyThatIsNotThere)
{
    m_map->insert(plainRegion(0, 2, 100));
    EXPECT_EQ(m_map->erase(plainRegion(1, 1, 101)), 0u); // inside, yet not a first block
    EXPECT_EQ(m_map->sizeLb(), 2u);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CountedRegionMapTest, EraseByValueSubtractsThePassedLength)
{
    m_map->insert(plainRegion(0, 10, 100));
    m_map->insert(plainRegion(20, 4, 200));
    EXPECT_EQ(m_map->erase(plainRegion(20, 3, 200)), 1u);
    EXPECT_EQ(m_map->sizeLb(), 11u);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CountedRegionMapTest, ClearEmptiesAtOnce)
{
    for (u64 i = 0; i < 5; ++i)
        m_map->insert(plainRegion(10 * i, 3, 100 * i));
    m_map->clear();
    EXPECT_TRUE(m_map->empty());
    EXPECT_EQ(m_map->sizeLb(), 0u);
    EXPECT_TRUE(m_map->insert(plainRegion(0, 1, 1)).second);
}

// ---- all at once ----

TEST_F(CountedRegionMapTest, IsTakenApartInBatchesAndEmptyFromTheBeginningOn)
{
    for (u64 i = 0; i < 11; ++i)
        m_map->insert(plainRegion(10 * i, 3, 100 * i));
    std::vector<size_t> tokens;
    m_map->takeApart(4, [&] {
        EXPECT_TRUE(m_map->empty());
        EXPECT_EQ(m_map->sizeLb(), 0u);
        tokens.push_back(tokensIn(m_locator.getMemPool()->getActiveVoucher()));
    });
    EXPECT_EQ(tokens, (std::vector<size_t>{16 - 11 + 4, 16 - 11 + 8}));
    EXPECT_EQ(tokensIn(m_locator.getMemPool()->getActiveVoucher()), 16u);
    EXPECT_TRUE(m_map->insert(plainRegion(0, 1, 1)).second);
    EXPECT_EQ(m_map->size(), 1u);
}

TEST_F(CountedRegionMapTest, KnowsThatATotalIsWrongUntilItIsEmpty)
{
    m_map->insert(plainRegion(0, 8, 100));
    m_map->insert(plainRegion(8, 8, 100));
    m_map->erase(plainRegion(0, 8, 100));
    m_map->erase(plainRegion(100, 8, 100));
    EXPECT_TRUE(m_map->isTotalRight());
    m_map->erase(plainRegion(8, 7, 100));
    EXPECT_FALSE(m_map->isTotalRight());
    m_map->clear();
    EXPECT_TRUE(m_map->isTotalRight());
}

// ---- neighbours ----

// With and without a directory that may name them.
TEST(CountedRegionMapNeighboursTest, AreTheSetsOwn)
{
    const LogCapture log;
    for (const u64 accelerators : {Accelerators::NONE, Accelerators::ALL}) {
        const Accelerators on(accelerators);
        RegionLocator locator(1, RL_MMI_View);
        std::mt19937_64 random(7);
        insertRegion(locator, plainRegion(~u64{0} - 7, 8, 100)); // ends where blocks begin again
        insertRegion(locator, plainRegion(0, 3, 100));
        for (u64 i = 0; i < 3000; ++i) {
            const u64 offset = random() % 2000;
            if (i % 3 == 0)
                removeRange(locator, offset, 1 + random() % 9);
            else
                insertRegion(locator, plainRegion(offset, 1 + random() % 9, 8 * i));
            if (i % 100 != 0)
                continue;
            const CountedRegionMap& map = *Access::unlocked(locator);
            for (auto place = map.cbegin(); place != map.cend(); ++place) {
                ASSERT_EQ(map.after(place), std::next(place));
                ASSERT_EQ(map.before(place), place == map.cbegin() ? map.cend() : std::prev(place));
            }
        }
        EXPECT_EQ(locator.getAcceleratorBytes() > 0, accelerators == Accelerators::ALL);
    }
}

// ---- failed checks: the operation goes on, and the total wraps ----

TEST_F(CountedRegionMapTest, EraseByValueReportsALengthAboveTheTotal)
{
    m_map->insert(plainRegion(0, 8, 100));
    EXPECT_EQ(m_map->erase(plainRegion(0, 12, 100)), 1u);
    EXPECT_TRUE(m_map->empty());
    EXPECT_EQ(m_map->sizeLb(), u64{8} - 12);
    EXPECT_TRUE(isSoftCheck(m_log.only(), "size_t CountedRegionMap::erase(SubRegionDescriptor)",
                            "m_sizeLb >= found * regionSizeLb"));
    m_map->clear();
}

TEST_F(CountedRegionMapTest, EraseAtAPlaceReportsALengthAboveTheTotal)
{
    m_map->insert(plainRegion(0, 8, 100));
    m_map->insert(plainRegion(8, 8, 200));
    m_map->erase(plainRegion(0, 12, 100)); // leaves a total of 4 for a region of 8
    EXPECT_EQ(m_map->erase(m_map->begin()), m_map->end());
    EXPECT_EQ(m_map->sizeLb(), u64{4} - 8);
    EXPECT_TRUE(m_map->empty());
    EXPECT_TRUE(isSoftCheck(m_log.only(),
                            "CountedRegionMap::iterator "
                            "CountedRegionMap::erase(const_iterator)",
                            "m_sizeLb >= (*iter).m_lengthBlocks"));
    m_map->clear();
}

TEST_F(CountedRegionMapTest, EraseOfARangeReportsEachLengthAboveTheTotal)
{
    m_map->insert(plainRegion(0, 8, 100));
    m_map->insert(plainRegion(8, 2, 200));
    m_map->insert(plainRegion(16, 8, 300));
    m_map->erase(plainRegion(0, 14, 100)); // leaves a total of 4 for regions of 2 and 8
    EXPECT_EQ(m_map->erase(m_map->begin(), m_map->end()), m_map->end());
    EXPECT_EQ(m_map->sizeLb(), u64{4} - 10);
    EXPECT_TRUE(m_map->empty());
    EXPECT_TRUE(isSoftCheck(m_log.only(),
                            "CountedRegionMap::iterator "
                            "CountedRegionMap::erase(const_iterator, const_iterator)",
                            "m_sizeLb >= (*iter).m_lengthBlocks"));
    m_map->clear();
}

// ---- the labels that memory is accounted under ----

TEST(CountedRegionMapShieldTest, MapsAndSetsAreTrackedUnderTheirNames)
{
    if (MemShieldControl::enable() != RC_SUCCESS)
        GTEST_SKIP() << "an earlier test of this process has left tracked objects behind";
    const auto count = [](const std::string& typeName) {
        u64 objects = 0;
        for (const MemShieldGroup& group : MemShieldControl::liveGroups())
            if (group.m_typeName == typeName && group.m_file == "../RegionLocator.cpp")
                objects += group.m_count;
        return objects;
    };
    {
        LogCapture log;
        RegionLocator locator(1, RL_MMI_View);
        EXPECT_EQ(count("CountedRegionMap"), 2u);
        EXPECT_EQ(count("RegionMap"), 2u);
        insertRegion(locator, plainRegion(0, 8, 100)); // nodes are not tracked objects
        EXPECT_EQ(count("RegionMap"), 2u);
    }
    EXPECT_EQ(count("CountedRegionMap"), 0u);
    EXPECT_EQ(count("RegionMap"), 0u);
    EXPECT_EQ(MemShieldControl::disable(), RC_SUCCESS);
}

// ---- emptying a locator's map ----

// A total that is too small by design makes the range erase report at one chosen region: a window
// on the state in the middle of clearMap.
class ClearMapTest : public testing::Test
{
protected:
    static constexpr u32 LENGTH = 4;

    void fill(CountedRegionMap* map, u32 count)
    {
        const ActiveVoucher voucher(m_locator->getMemPool(), static_cast<int>(count));
        for (u32 i = 0; i < count; ++i)
            map->insert(plainRegion(u64{8} * i, LENGTH, u64{8} * i));
    }

    // `count` regions, whose total lasts for the first `lasting` of them.
    void fillShort(CountedRegionMap* map, u32 count, u32 lasting)
    {
        fill(map, count + 1);
        const ActiveVoucher voucher(m_locator->getMemPool(), 0);
        map->erase(plainRegion(0, LENGTH * (count + 1 - lasting), 0));
        ASSERT_EQ(map->sizeLb(), LENGTH * lasting);
    }

    struct Moment
    {
        size_t m_regionsLeft;
        bool m_voucherEmpty;
        s32 m_vouchers;
    };

    // Clears the unlocked map and tells what was seen at each report.
    std::vector<Moment> clearAndWatch()
    {
        std::vector<Moment> moments;
        RegionLocatorMemPool* pool = m_locator->getMemPool();
        CountedRegionMap* map = Access::unlocked(*m_locator);
        const LogItem::Sink before =
            LogItem::setSink([&](LogModule, LogLevel, const std::string&, int, const std::string&) {
                moments.push_back(
                    {map->size(), pool->getActiveVoucher()->empty(), Access::liveVouchers(*pool)});
            });
        Access::clearMap(*m_locator, map);
        LogItem::setSink(before);
        return moments;
    }

    LogCapture m_log;
    std::unique_ptr<RegionLocator> m_locator = std::make_unique<RegionLocator>(1, RL_MMI_View);
};

TEST_F(ClearMapTest, EmptiesAnEmptyMap)
{
    const s32 vouchers = Access::liveVouchers(*m_locator->getMemPool());
    Access::clearMap(*m_locator, Access::unlocked(*m_locator));
    EXPECT_EQ(Access::liveVouchers(*m_locator->getMemPool()), vouchers);
    EXPECT_EQ(m_locator->getMemPool()->getActiveVoucher(), nullptr);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(ClearMapTest, GivesEveryTokenOf2500RegionsBack)
{
    CountedRegionMap* map = Access::unlocked(*m_locator);
    RegionLocatorMemPool* pool = m_locator->getMemPool();
    const s32 vouchers = Access::liveVouchers(*pool);
    fill(map, 2500);
    EXPECT_EQ(pool->getMemoryStats().usedBytesNet, 2500u * 64);
    Access::clearMap(*m_locator, map);
    EXPECT_TRUE(map->empty());
    EXPECT_EQ(map->sizeLb(), 0u);
    EXPECT_EQ(pool->getMemoryStats().usedBytesNet, 0u);
    EXPECT_EQ(Access::liveVouchers(*pool), vouchers);
    EXPECT_EQ(pool->getActiveVoucher(), nullptr);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(ClearMapTest, FirstBatchBeginsWithAVoucherOfItsOwn)
{
    const s32 vouchers = Access::liveVouchers(*m_locator->getMemPool());
    fillShort(Access::unlocked(*m_locator), 2500, 0);
    const std::vector<Moment> moments = clearAndWatch();
    ASSERT_EQ(moments.size(), 1u);
    EXPECT_EQ(moments[0].m_regionsLeft, 2500u);
    EXPECT_TRUE(moments[0].m_voucherEmpty);
    EXPECT_EQ(moments[0].m_vouchers, vouchers + 1);
}

TEST_F(ClearMapTest, FirstBatchEndsAtTheThousandthRegion)
{
    fillShort(Access::unlocked(*m_locator), 2500, 999);
    const std::vector<Moment> moments = clearAndWatch();
    ASSERT_EQ(moments.size(), 1u);
    EXPECT_EQ(moments[0].m_regionsLeft, 2500u); // the batch is counted before it is erased
    EXPECT_TRUE(moments[0].m_voucherEmpty);
}

TEST_F(ClearMapTest, SecondBatchFindsTheFirstOnesTokensGivenBack)
{
    for (const u32 lasting : {1000u, 1999u}) {
        fillShort(Access::unlocked(*m_locator), 2500, lasting);
        const std::vector<Moment> moments = clearAndWatch();
        ASSERT_EQ(moments.size(), 1u);
        EXPECT_EQ(moments[0].m_regionsLeft, 1500u);
        EXPECT_TRUE(moments[0].m_voucherEmpty);
    }
}

TEST_F(ClearMapTest, RestOf500IsClearedWithoutARangeErase)
{
    fillShort(Access::unlocked(*m_locator), 2500, 2000);
    EXPECT_TRUE(clearAndWatch().empty());
    EXPECT_TRUE(Access::unlocked(*m_locator)->empty());
    EXPECT_EQ(Access::unlocked(*m_locator)->sizeLb(), 0u);
}

TEST_F(ClearMapTest, ThousandRegionsNeedNoBatchAndOneMoreDoes)
{
    fillShort(Access::unlocked(*m_locator), 1000, 0);
    EXPECT_TRUE(clearAndWatch().empty());
    fillShort(Access::unlocked(*m_locator), 1001, 0);
    EXPECT_EQ(clearAndWatch().size(), 1u);
}

TEST_F(ClearMapTest, DestructorClearsTheLockedMapBeforeTheUnlockedOne)
{
    CountedRegionMap* unlocked = Access::unlocked(*m_locator);
    CountedRegionMap* locked = Access::locked(*m_locator);
    fillShort(unlocked, 1002, 0);
    fillShort(locked, 1001, 0);
    std::vector<std::pair<size_t, size_t>> sizes;
    const LogItem::Sink before = LogItem::setSink(
        [&](LogModule, LogLevel level, const std::string&, int, const std::string&) {
            if (level == AssertLevel)
                sizes.emplace_back(locked->size(), unlocked->size());
        });
    m_locator.reset();
    LogItem::setSink(before);
    EXPECT_EQ(sizes, (std::vector<std::pair<size_t, size_t>>{{1001, 1002}, {0, 1002}}));
}

// ---- places that were found before ----

// What is found for many blocks at once leads to the right region also when the map has changed.
TEST(LocateTest, LeadsToTheRightRegionWhateverHasChangedSince)
{
    constexpr u32 AT_ONCE = RegionDescent::MAX_LOCKSTEP;
    constexpr u64 VIEW_BLOCKS = 1000;
    const LogCapture log;
    RegionLocator locator{1, RL_MMI_View};
    const ActiveVoucher voucher(locator.getMemPool(), 2000);
    CountedRegionMap map(Access::allocator(locator));
    std::mt19937_64 random(5);
    const auto expected = [&map](u64 offset) {
        const auto after = map.lower_bound(SubRegionDescriptor(offset + 1));
        return after == map.begin() ? after : std::prev(after);
    };
    for (int round = 0; round < 300; ++round) {
        Regions sought;
        for (u32 i = 0; i < 1 + random() % AT_ONCE; ++i)
            sought.push_back(plainRegion(random() % VIEW_BLOCKS, 1, 100));
        RegionNode* located[AT_ONCE];
        map.locate(sought.data(), static_cast<u32>(sought.size()), located);
        for (u32 i = 0; i < sought.size(); ++i) {
            const u64 offset = sought[i].m_viewOffsetBlocks;
            const auto place = map.lastAtOrBefore(offset, located[i]);
            ASSERT_EQ(place, expected(offset)) << round;
            // It goes, it comes, or it begins later.
            if (random() % 2 == 0) {
                map.insert(plainRegion(offset, 1, 200));
            } else if (!map.empty() && random() % 2 == 0) {
                map.erase(place);
            } else if (!map.empty() && std::next(place) != map.cend() &&
                       place->m_viewOffsetBlocks + 1 < std::next(place)->m_viewOffsetBlocks) {
                map.replace(place, plainRegion(place->m_viewOffsetBlocks + 1, 1, 300));
            }
        }
        if (random() % 8 == 0)
            map.insert(plainRegion(random() % VIEW_BLOCKS, 1, 100));
    }
    EXPECT_GT(map.size(), 10U);
    map.clear();
}

} // namespace
