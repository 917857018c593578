#include "RegionLocator/RegionDescent.h"

#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <random>
#include <set>

#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

// A set of regions on a locator's pool, without the locator.
class RegionDescentTest : public testing::Test
{
protected:
    static constexpr int MOST = 2000;

    RegionDescentTest()
        : m_voucher(std::make_unique<ActiveVoucher>(m_locator.getMemPool(), MOST)),
          m_map(std::less<SubRegionDescriptor>(),
                RlAllocator<SubRegionDescriptor>(Access::allocator(m_locator)))
    {}
    ~RegionDescentTest() override
    {
        m_map.clear();
        m_voucher.reset();
    }

    // What the set's own search finds.
    RegionNode* expected(u64 offset) const
    {
        const auto after = m_map.upper_bound(SubRegionDescriptor(offset));
        return after == m_map.begin() ? nullptr : std::prev(after)._M_node;
    }

    void expectAgreement(u64 endOffset) const
    {
        const RegionDescent descent(m_map);
        for (u64 offset = 0; offset < endOffset; ++offset)
            ASSERT_EQ(descent.lastAtOrBefore(offset), expected(offset)) << offset;
        ASSERT_EQ(descent.lastAtOrBefore(~u64{0}), expected(~u64{0}));
        for (u64 first = 0; first < endOffset; first += 13)
            expectLockstepAgreement(descent, first, endOffset);
    }

    // Some blocks at once, near ones and far ones; none as well.
    void expectLockstepAgreement(const RegionDescent& descent, u64 first, u64 endOffset) const
    {
        constexpr u32 AT_ONCE = RegionDescent::MAX_LOCKSTEP;
        u64 offsets[AT_ONCE];
        RegionNode* found[AT_ONCE];
        const u32 count = static_cast<u32>(first) % (AT_ONCE + 1);
        for (u32 i = 0; i < count; ++i)
            offsets[i] = i % 2 == 0 ? first + i : (first * 7 + i * 31) % endOffset;
        descent.lastAtOrBefore(offsets, count, found);
        for (u32 i = 0; i < count; ++i)
            ASSERT_EQ(found[i], expected(offsets[i])) << offsets[i];
    }

    LogCapture m_log;
    RegionLocator m_locator{1, RL_MMI_View};
    std::unique_ptr<ActiveVoucher> m_voucher;
    RegionMap m_map;
};

TEST_F(RegionDescentTest, FindsNothingInAnEmptyMap)
{
    const RegionDescent descent(m_map);
    EXPECT_EQ(descent.lastAtOrBefore(0), nullptr);
    EXPECT_EQ(descent.lastAtOrBefore(~u64{0}), nullptr);
    const u64 offsets[] = {0, 5, ~u64{0}};
    RegionNode* found[3];
    descent.lastAtOrBefore(offsets, 3, found);
    for (RegionNode* node : found)
        EXPECT_EQ(node, nullptr);
    descent.warmRange(0, ~u64{0});
}

TEST_F(RegionDescentTest, FindsTheOnlyRegionFromItsFirstBlockOn)
{
    m_map.insert(plainRegion(10, 4, 100));
    const RegionDescent descent(m_map);
    EXPECT_EQ(descent.lastAtOrBefore(9), nullptr);
    EXPECT_EQ(descent.lastAtOrBefore(10), m_map.begin()._M_node);
    EXPECT_EQ(descent.lastAtOrBefore(1000), m_map.begin()._M_node);
}

TEST_F(RegionDescentTest, KnowsTheRegionAtTheLastBlockThereIs)
{
    m_map.insert(plainRegion(~u64{0}, 1, 100));
    const RegionDescent descent(m_map);
    EXPECT_EQ(descent.lastAtOrBefore(~u64{0} - 1), nullptr);
    EXPECT_EQ(descent.lastAtOrBefore(~u64{0}), m_map.begin()._M_node);
}

// Trees of every size up to some levels, grown from both ends and from the middle.
TEST_F(RegionDescentTest, FindsWhatTheSetFindsInTreesOfEveryShape)
{
    for (int size = 1; size < 70; ++size) {
        for (int shape = 0; shape < 3; ++shape) {
            m_map.clear();
            for (int i = 0; i < size; ++i) {
                const int place = shape == 0 ? i : shape == 1 ? size - i : (i * 37) % size;
                m_map.insert(plainRegion(3 * static_cast<u64>(place) + 1, 2, 100));
            }
            expectAgreement(3 * static_cast<u64>(size) + 5);
        }
    }
}

TEST_F(RegionDescentTest, FindsWhatTheSetFindsAfterManyChanges)
{
    std::mt19937_64 random(3);
    for (int i = 0; i < 4000; ++i) {
        const u64 offset = random() % 3000;
        if (random() % 2 == 0 && m_map.size() < MOST)
            m_map.insert(plainRegion(offset, 1, 100));
        else
            m_map.erase(SubRegionDescriptor(offset));
        if (i % 500 == 0)
            expectAgreement(3000);
    }
    expectAgreement(3000);
}

TEST_F(RegionDescentTest, WarmingChangesNothing)
{
    for (u64 i = 0; i < MOST; ++i)
        m_map.insert(plainRegion(4 * ((i * 1237) % MOST), 4, 100 + i));
    const Regions before(m_map.begin(), m_map.end());
    const RegionDescent descent(m_map);
    // Within the map, at its ends, beside it, empty, and more regions than are warmed at once.
    for (const auto& [first, end] : {std::pair<u64, u64>{100, 200},
                                     {0, 1},
                                     {4 * MOST - 4, 4 * MOST},
                                     {10 * MOST, 20 * MOST},
                                     {50, 50},
                                     {60, 50},
                                     {0, ~u64{0}}})
        descent.warmRange(first, end);
    EXPECT_EQ(before, Regions(m_map.begin(), m_map.end()));
}

TEST_F(RegionDescentTest, VisitsEachNodeOnceAlsoWhenTheyGoAsTheyAreVisited)
{
    std::mt19937_64 random(5);
    for (const u64 size : {0, 1, 2, 3, 15, 16, 17, 100, MOST}) {
        m_map.clear();
        while (m_map.size() < size)
            m_map.insert(plainRegion(random() % 100000, 1, 100));
        std::set<RegionNode*> nodes;
        for (auto place = m_map.begin(); place != m_map.end(); ++place)
            nodes.insert(place._M_node);
        RegionDescent::visitAll(m_map.end()._M_node->_M_parent, size,
                                [&nodes](RegionNode* node) { EXPECT_EQ(nodes.erase(node), 1U); });
        EXPECT_TRUE(nodes.empty());
    }
}

} // namespace
