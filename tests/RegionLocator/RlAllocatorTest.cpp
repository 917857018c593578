#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "RegionLocator/CountedRegionMap.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;
using Node = std::_Rb_tree_node<SubRegionDescriptor>;

static_assert(sizeof(Node) == 64);

class RlAllocatorTest : public testing::Test
{
protected:
    u64 tokensUsed() { return m_pool.getMemoryStats().usedBytesGross / 64; }

    RegionLocatorMemPool m_pool{5, RL_MMI_View};
};

TEST_F(RlAllocatorTest, OnlyTheSetsNodeUsesThePool)
{
    EXPECT_TRUE(Access::usesPool(RlAllocator<Node>(&m_pool)));
    EXPECT_FALSE(Access::usesPool(RlAllocator<int>(&m_pool)));
    EXPECT_FALSE(Access::usesPool(RlAllocator<SubRegionDescriptor>(&m_pool)));
    EXPECT_FALSE(Access::usesPool(RlAllocator<std::_Rb_tree_node<int>>(&m_pool)));
    EXPECT_FALSE(Access::usesPool(RlAllocator<Node*>(&m_pool)));
}

TEST_F(RlAllocatorTest, CopiesAndConversionsKeepThePoolAndDecideByTheirOwnType)
{
    const RlAllocator<int> numbers(&m_pool);
    const RlAllocator<Node> nodes(numbers);
    const RlAllocator<Node> copy(nodes);
    const RlAllocator<int> back(nodes);
    const RlAllocator<int>::rebind<Node>::other rebound(numbers);
    EXPECT_TRUE(Access::usesPool(nodes));
    EXPECT_TRUE(Access::usesPool(copy));
    EXPECT_TRUE(Access::usesPool(rebound));
    EXPECT_FALSE(Access::usesPool(back));
    for (RegionLocatorMemPool* pool :
         {Access::pool(nodes), Access::pool(copy), Access::pool(back), Access::pool(rebound)})
        EXPECT_EQ(pool, &m_pool);
}

TEST_F(RlAllocatorTest, EqualityIsThatOfThePools)
{
    RegionLocatorMemPool other(6, RL_MMI_View);
    EXPECT_TRUE(RlAllocator<int>(&m_pool) == RlAllocator<Node>(&m_pool));
    EXPECT_FALSE(RlAllocator<int>(&m_pool) == RlAllocator<int>(&other));
    EXPECT_TRUE(RlAllocator<int>(&m_pool) != RlAllocator<int>(&other));
}

TEST_F(RlAllocatorTest, OtherTypesAreOnTheHeapAndNeverTouchThePool)
{
    // No voucher is active, so a token would stop the process.
    RlAllocator<int> numbers(&m_pool);
    int* three = numbers.allocate(3);
    three[2] = 7;
    numbers.deallocate(three, 3);
    RlAllocator<SubRegionDescriptor> regions(&m_pool);
    SubRegionDescriptor* two = regions.allocate(2, nullptr);
    regions.deallocate(two, 2);
    std::vector<int, RlAllocator<int>> vector{RlAllocator<int>(&m_pool)};
    vector.assign(1000, 1);
    EXPECT_EQ(tokensUsed(), 0U);
}

TEST_F(RlAllocatorTest, ANodeIsOneTokenWhateverTheNumber)
{
    const VoucherGuard voucher(&m_pool, 3);
    m_pool.setActiveVoucher(voucher);
    RlAllocator<Node> nodes(&m_pool);
    Node* one = nodes.allocate(1);
    EXPECT_EQ(tokensIn(voucher), 2U);
    Node* several = nodes.allocate(5, one);
    EXPECT_EQ(tokensIn(voucher), 1U);
    nodes.deallocate(one, 1);
    EXPECT_EQ(nodes.allocate(1), one);
    nodes.deallocate(one, 1);
    nodes.deallocate(several, 5);
    EXPECT_EQ(tokensIn(voucher), 3U);
    m_pool.setActiveVoucher(nullptr);
}

TEST_F(RlAllocatorTest, ConstructDestroyAddressAndMaxSizeAreTheOrdinaryOnes)
{
    RlAllocator<std::string> strings(&m_pool);
    std::string* place = strings.allocate(1);
    strings.construct(place, std::string(100, 'x'));
    EXPECT_EQ(*place, std::string(100, 'x'));
    EXPECT_EQ(strings.address(*place), place);
    const std::string& constant = *place;
    EXPECT_EQ(strings.address(constant), place);
    strings.destroy(place);
    strings.deallocate(place, 1);
    EXPECT_EQ(strings.max_size(), ~size_t{0} / sizeof(std::string));
    EXPECT_EQ(RlAllocator<char>(&m_pool).max_size(), ~size_t{0});
}

TEST_F(RlAllocatorTest, ASetTakesOneTokenANodeAndGivesItBack)
{
    RlAllocator<int> source(&m_pool);
    RegionMap map{std::less<SubRegionDescriptor>(), RlAllocator<SubRegionDescriptor>(source)};
    const VoucherGuard voucher(&m_pool, 4);
    m_pool.setActiveVoucher(voucher);
    for (u64 i = 0; i < 4; ++i)
        map.insert(plainRegion(10 * i, 5, 100 * i));
    EXPECT_TRUE(voucher.get()->empty());
    // One that is there already needs none.
    EXPECT_FALSE(map.insert(plainRegion(10, 9, 1)).second);
    map.erase(map.begin());
    EXPECT_EQ(tokensIn(voucher), 1U);
    map.clear();
    EXPECT_EQ(tokensIn(voucher), 4U);
    m_pool.setActiveVoucher(nullptr);
}

} // namespace
