#include "RegionLocator/RegionDirectory.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <random>
#include <utility>

#include "tests/support/Accelerators.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

// ---- its size ----

// Whatever is known of the regions: all, or as many as make it twice as long.
class RegionDirectorySizeTest : public testing::TestWithParam<bool>
{};

TEST_P(RegionDirectorySizeTest, IsAtLeastOneSlotAndLessThanThreeARegion)
{
    u64 slots = 0;
    const auto noted = [](u64 regions) { return GetParam() ? regions * 7 / 10 : regions; };
    const auto check = [&slots, &noted](u64 regions) {
        slots = RegionDirectory::wantedSlots(regions, slots, noted(regions));
        ASSERT_EQ(slots & (slots - 1), 0U) << regions;
        if (slots != 0) {
            ASSERT_GE(slots, regions);
            ASSERT_LT(slots, 3 * regions);
        }
    };
    for (u64 regions = 0; regions < 100000; ++regions)
        check(regions);
    EXPECT_EQ(slots, GetParam() ? 262144U : 131072U);
    for (u64 regions = 100000; regions-- > 0;)
        check(regions);
    EXPECT_EQ(slots, 0U);
}

INSTANTIATE_TEST_SUITE_P(IsCrowded, RegionDirectorySizeTest, testing::Bool());

TEST(RegionDirectorySlotsTest, StayWhileTheyAreWithinBounds)
{
    EXPECT_EQ(RegionDirectory::wantedSlots(1000, 1024, 1000), 1024U);
    EXPECT_EQ(RegionDirectory::wantedSlots(342, 1024, 342), 1024U);
    EXPECT_EQ(RegionDirectory::wantedSlots(341, 1024, 341), 512U);
    EXPECT_EQ(RegionDirectory::wantedSlots(1025, 1024, 1024), 2048U);
}

TEST(RegionDirectorySlotsTest, AreTwiceAsManyWhereRegionsAreCrowded)
{
    EXPECT_EQ(RegionDirectory::wantedSlots(800, 1024, 600), 1024U) << "three quarters are known";
    EXPECT_EQ(RegionDirectory::wantedSlots(800, 1024, 599), 2048U);
    EXPECT_EQ(RegionDirectory::wantedSlots(769, 1024, 540), 2048U);
    EXPECT_EQ(RegionDirectory::wantedSlots(768, 1024, 540), 1024U) << "half are free soon enough";
    EXPECT_EQ(RegionDirectory::wantedSlots(800, 2048, 560), 2048U) << "it is already";
}

// ---- its memory ----

TEST(RegionDirectoryMemoryTest, ComesFromTheProcessWidePoolAndGoesBack)
{
    const LogCapture log;
    for (const u32 chunkBytes : {4096U, 65536U, 100000U, 131072U}) {
        const LimitedMemory limited(chunkBytes);
        RegionLocator locator(1, RL_MMI_View);
        const u64 before = LimitedMemory::pool()->getMemoryStats().usedBytesGross;
        {
            RegionDirectoryMemory memory;
            ASSERT_TRUE(memory.obtain(*locator.getMemPool(), 16384));
            EXPECT_EQ(memory.slots(), 16384U);
            EXPECT_GE(memory.bytes(), 16384U * 8);
            EXPECT_EQ(memory.poolBytes(), memory.bytes());
            EXPECT_GT(LimitedMemory::pool()->getMemoryStats().usedBytesGross, before);
            RegionNode* const some = reinterpret_cast<RegionNode*>(&memory);
            for (u64 slot = 0; slot < memory.slots(); ++slot) {
                ASSERT_EQ(memory.at(slot), nullptr);
                memory.at(slot) = some + slot;
            }
            for (u64 slot = 0; slot < memory.slots(); ++slot)
                ASSERT_EQ(memory.at(slot), some + slot);
        }
        EXPECT_EQ(LimitedMemory::pool()->getMemoryStats().usedBytesGross, before);
    }
}

TEST(RegionDirectoryMemoryTest, ComesFromTheHeapWhereAChunkOfThePoolWouldBeTooMuch)
{
    const LogCapture log;
    const LimitedMemory limited(1U << 20, 0);
    RegionLocator locator(1, RL_MMI_View);
    for (u64 slots = 1; slots <= 65536; slots *= 2) {
        RegionDirectoryMemory memory;
        ASSERT_TRUE(memory.obtain(*locator.getMemPool(), slots));
        EXPECT_EQ(memory.slots(), slots);
        EXPECT_EQ(memory.bytes(), slots * 8);
        EXPECT_EQ(memory.poolBytes(), 0U);
        EXPECT_EQ(memory.run(0), slots);
        RegionNode* const some = reinterpret_cast<RegionNode*>(&memory);
        for (u64 slot = 0; slot < slots; ++slot) {
            ASSERT_EQ(memory.at(slot), nullptr);
            memory.at(slot) = some + slot;
        }
        RegionDirectoryMemory other;
        other.swap(memory);
        EXPECT_EQ(memory.slots() + memory.bytes(), 0U);
        for (u64 slot = 0; slot < slots; ++slot)
            ASSERT_EQ(other.at(slot), some + slot);
    }
    RegionDirectoryMemory memory;
    EXPECT_FALSE(memory.obtain(*locator.getMemPool(), 131072));
}

TEST(RegionDirectoryMemoryTest, IsNotToBeHadFromAPoolThatHasNone)
{
    const LogCapture log;
    const LimitedMemory limited(4096, 8 * 4096);
    RegionLocator locator(1, RL_MMI_View);
    RegionDirectoryMemory memory;
    EXPECT_FALSE(memory.obtain(*locator.getMemPool(), 16384));
    EXPECT_EQ(memory.slots(), 0U);
    EXPECT_EQ(LimitedMemory::pool()->getMemoryStats().usedBytesGross, 0U);
}

// ---- what it knows ----

class RegionDirectoryTest : public testing::Test
{
protected:
    static constexpr u64 REGIONS = 1000;

    RegionDirectoryTest()
        : m_voucher(std::make_unique<ActiveVoucher>(m_locator.getMemPool(), REGIONS)),
          m_map(std::less<SubRegionDescriptor>(),
                RlAllocator<SubRegionDescriptor>(Access::allocator(m_locator)))
    {}
    ~RegionDirectoryTest() override
    {
        m_map.clear();
        m_voucher.reset();
    }

    void fill(u64 firstBlocks, u64 distanceBlocks)
    {
        for (u64 i = 0; i < REGIONS; ++i)
            m_map.insert(plainRegion(firstBlocks + i * distanceBlocks, 8, 8 * i));
        RegionDirectoryMemory memory;
        ASSERT_TRUE(memory.obtain(*m_locator.getMemPool(), 1024));
        m_directory.install(memory, m_map, 8 * REGIONS);
        EXPECT_EQ(memory.slots(), 0U);
    }

    RegionNode* near(u64 offset) const
    {
        return m_directory.near(offset, m_directory.peek(offset));
    }

    LogCapture m_log;
    RegionLocator m_locator{1, RL_MMI_View};
    std::unique_ptr<ActiveVoucher> m_voucher;
    RegionMap m_map;
    RegionDirectory m_directory;
};

TEST_F(RegionDirectoryTest, IsOffWithoutMemoryAndThenKnowsAndKeepsNothing)
{
    EXPECT_FALSE(m_directory.isOn());
    EXPECT_EQ(m_directory.bytes(), 0U);
    const auto place = m_map.insert(plainRegion(8, 8, 0)).first;
    m_directory.note(place._M_node, 8);
    m_directory.move(place._M_node, 8, 16);
    m_directory.forget(place._M_node, 16);
    m_directory.forgetAll();
}

TEST_F(RegionDirectoryTest, KnowsEveryRegionOfAViewThatItIsLongEnoughFor)
{
    fill(0, 8);
    EXPECT_EQ(m_directory.granuleBlocks(), 8U);
    for (auto place = m_map.begin(); place != m_map.end(); ++place)
        for (u64 within = 0; within < 8; ++within)
            ASSERT_EQ(near(place->m_viewOffsetBlocks + within), place._M_node);
    // Just behind the last region it is that one, and far behind it is nothing.
    EXPECT_EQ(near(8 * REGIONS + 15), std::prev(m_map.end())._M_node);
    EXPECT_EQ(near(8 * REGIONS + 40), nullptr);
}

TEST_F(RegionDirectoryTest, CountsWhatIsNoted)
{
    fill(0, 8);
    EXPECT_EQ(m_directory.noted(), REGIONS);
    RegionNode* const first = m_map.begin()._M_node;
    m_directory.note(first, 0);
    EXPECT_EQ(m_directory.noted(), REGIONS);
    m_directory.forget(first, 0);
    m_directory.forget(first, 0);
    m_directory.forget(first, 8);
    EXPECT_EQ(m_directory.noted(), REGIONS - 1);
    m_directory.move(std::next(m_map.begin())._M_node, 8, 0);
    EXPECT_EQ(m_directory.noted(), REGIONS - 1);
    m_directory.note(first, 8);
    EXPECT_EQ(m_directory.noted(), REGIONS);
    m_directory.forgetAll();
    EXPECT_EQ(m_directory.noted(), 0U);
}

TEST_F(RegionDirectoryTest, KnowsWhoReachesOverABlockFromAGranuleBefore)
{
    fill(0, 8);
    for (u64 i = 1; i < REGIONS; ++i)
        ASSERT_EQ(m_directory.reaching(8 * i), nullptr);
    // One region over four granules is known as far as its reach is looked for.
    const auto place = std::next(m_map.begin(), 5);
    for (auto covered = std::next(place); covered->m_viewOffsetBlocks < 72;
         covered = m_map.erase(covered))
        m_directory.forget(covered._M_node, covered->m_viewOffsetBlocks);
    const_cast<SubRegionDescriptor&>(*place).m_lengthBlocks = 32;
    EXPECT_EQ(m_directory.reaching(47), nullptr); // starts in the block's own granule
    for (u64 block = 48; block < 64; ++block)
        EXPECT_EQ(m_directory.reaching(block), place._M_node);
    EXPECT_EQ(m_directory.reaching(64), nullptr);
    EXPECT_EQ(m_directory.reaching(72), nullptr);
    EXPECT_EQ(m_directory.reaching(0), nullptr);
}

TEST_F(RegionDirectoryTest, WarmsAnyRangeAndChangesNothing)
{
    fill(8 * 700, 16);
    const Regions before(m_map.begin(), m_map.end());
    for (const auto& [first, end] : {std::pair<u64, u64>{0, 1},
                                     {0, 0},
                                     {8, 7},
                                     {5600, 9000},
                                     {8 * 1023, 8 * 1024 + 1},
                                     {8 * 1000, 8 * 5000},
                                     {~u64{0} - 9, ~u64{0}}})
        m_directory.warmRange(first, end);
    EXPECT_EQ(before, Regions(m_map.begin(), m_map.end()));
}

TEST_F(RegionDirectoryTest, SpreadsAViewThatIsFarLongerThanItself)
{
    fill(1 << 20, 1 << 20);
    u64 known = 0;
    for (auto place = m_map.begin(); place != m_map.end(); ++place) {
        RegionNode* const node = near(place->m_viewOffsetBlocks);
        ASSERT_TRUE(node == nullptr || node == place._M_node);
        known += node == nullptr ? 0 : 1;
    }
    EXPECT_GT(known, REGIONS / 2);
}

TEST_F(RegionDirectoryTest, ForgetsARegionThatLeavesAndNoOther)
{
    fill(0, 8);
    const auto place = m_map.find(SubRegionDescriptor(80));
    // Another node in the slot stays.
    m_directory.forget(std::next(place)._M_node, 80);
    EXPECT_EQ(near(80), place._M_node);
    m_directory.forget(place._M_node, 80);
    EXPECT_EQ(m_directory.peek(80), nullptr);
    EXPECT_EQ(near(80), std::prev(place)._M_node);
}

TEST_F(RegionDirectoryTest, FollowsARegionThatMovesToAnotherGranule)
{
    fill(0, 8);
    const auto place = m_map.find(SubRegionDescriptor(80));
    m_directory.move(place._M_node, 80, 83);
    EXPECT_EQ(m_directory.peek(80), place._M_node);
    m_directory.move(place._M_node, 83, 90);
    EXPECT_EQ(m_directory.peek(80), nullptr);
    EXPECT_EQ(m_directory.peek(90), place._M_node);
}

TEST_F(RegionDirectoryTest, IsThrownAwayAndGivesItsMemoryBack)
{
    fill(0, 8);
    m_directory.forgetAll();
    for (u64 i = 0; i < REGIONS; ++i)
        ASSERT_EQ(m_directory.peek(8 * i), nullptr);
    RegionDirectoryMemory none;
    m_directory.install(none, m_map, 8 * REGIONS);
    EXPECT_FALSE(m_directory.isOn());
    EXPECT_EQ(none.slots(), 1024U);
}

// ---- in a locator ----

TEST(LocatorDirectoryTest, ComesAndGoesWithReservationsAndStaysWithinItsBound)
{
    const LogCapture log;
    const Accelerators on(Accelerators::DIRECTORY, 100);
    RegionLocator locator(1, RL_MMI_View);
    for (u64 i = 0; i < 1000; ++i) {
        insertRegion(locator, plainRegion(8 * i, 8, 8 * i));
        ASSERT_LE(locator.getAcceleratorBytes(), 24 * locator.getItemCount());
        ASSERT_EQ(locator.getAcceleratorBytes() != 0, locator.getItemCount() >= 100) << i;
    }
    for (u64 i = 0; i < 1000; ++i) {
        removeRange(locator, 8 * ((i * 617) % 1000), 8);
        ASSERT_LE(locator.getAcceleratorBytes(), 24 * locator.getItemCount()) << i;
    }
    EXPECT_EQ(locator.getAcceleratorBytes(), 0U);
}

TEST(LocatorDirectoryTest, IsDoneWithoutWhereThePoolHasNoMemoryForIt)
{
    const LogCapture log;
    constexpr u32 CHUNK_BYTES = 16 * 1024; // 255 tokens, or a table of 2048 slots
    const Accelerators on(Accelerators::DIRECTORY, 1300);
    const LimitedMemory limited(CHUNK_BYTES, 6 * CHUNK_BYTES);
    RegionLocator locator(1, RL_MMI_View);
    for (u64 i = 0; i < 1400; ++i)
        insertRegion(locator, plainRegion(8 * i, 8, 8 * i));
    EXPECT_EQ(locator.getAcceleratorBytes(), 0U);
    // Asking in vain is not repeated with every operation.
    EXPECT_FALSE(RegionLocatorTestAccess::unlockedMap(locator)->isDirectoryDue());
    EXPECT_EQ(lookupRange(locator, 800, 16),
              (Regions{plainRegion(800, 8, 800), plainRegion(808, 8, 808)}));
}

TEST(LocatorDirectoryTest, OfASmallMapStaysWhereThePoolHasNoMemory)
{
    const LogCapture log;
    const Accelerators on(Accelerators::DIRECTORY, 100);
    const LimitedMemory limited(64 * 1024, 64 * 1024);
    RegionLocator locator(1, RL_MMI_View);
    for (u64 i = 0; i < 500; ++i)
        insertRegion(locator, plainRegion(8 * i, 8, 8 * i));
    EXPECT_EQ(locator.getAcceleratorBytes(), 512U * 8);
    // The pool would not have it back.
    RegionLocatorMemPool& pool = *locator.getMemPool();
    RegionLocatorVoucher* const voucher = pool.createVoucher();
    EXPECT_EQ(pool.fillVoucher(voucher, 1000, 0, nullptr).get(), RC_NO_MEMORY);
    pool.destroyVoucher(voucher);
    EXPECT_EQ(locator.getAcceleratorBytes(), 512U * 8);
}

TEST(LocatorDirectoryTest, IsThereFromAFewRegionsOnUnlessTheTweakSaysOtherwise)
{
    const LogCapture log;
    for (const u64 fromRegions : {u64{15360}, u64{80}, u64{20}}) {
        const Accelerators on(Accelerators::DIRECTORY, fromRegions);
        RegionLocator locator(1, RL_MMI_View);
        for (u64 i = 0; i < 100; ++i) {
            insertRegion(locator, plainRegion(8 * i, 8, 8 * i));
            ASSERT_EQ(locator.getAcceleratorBytes() != 0,
                      locator.getItemCount() >= (fromRegions == 15360 ? 64 : fromRegions));
        }
    }
}

TEST(LocatorDirectoryTest, IsAskedForAgainWhenTheSizeHasChangedByAnEighth)
{
    const LogCapture log;
    const Accelerators on(Accelerators::DIRECTORY, 100);
    RegionLocator locator(1, RL_MMI_View);
    CountedRegionMap& map = *RegionLocatorTestAccess::unlockedMap(locator);
    const VoucherGuard voucher(locator.getMemPool(), 400);
    for (u64 i = 0; i < 160; ++i)
        ASSERT_TRUE(locator.insert(plainRegion(8 * i, 8, 8 * i), voucher));
    ASSERT_TRUE(map.isDirectoryDue());
    map.postponeDirectory();
    for (u64 i = 160; i < 180; ++i) {
        ASSERT_FALSE(map.isDirectoryDue()) << i;
        ASSERT_TRUE(locator.insert(plainRegion(8 * i, 8, 8 * i), voucher));
    }
    ASSERT_TRUE(locator.insert(plainRegion(8 * 180, 8, 8 * 180), voucher));
    EXPECT_TRUE(map.isDirectoryDue());
    map.postponeDirectory();
    for (u64 i = 0; i < 23; ++i)
        locator.remove(8 * i, 8, voucher);
    EXPECT_TRUE(map.isDirectoryDue());
    map.keepDirectory();
    EXPECT_TRUE(map.isDirectoryDue()); // 158 regions should have one
}

// Regions that lie anywhere: as many slots as it takes to know most of them, when there are many.
TEST(LocatorDirectoryTest, IsTwiceAsLongForRegionsAnywhereThanForThoseOnAGrid)
{
    const LogCapture log;
    constexpr u64 REGIONS = 14000;
    const Accelerators on(Accelerators::DIRECTORY, 100);
    for (const bool isOnGrid : {true, false}) {
        std::mt19937_64 random(5);
        RegionLocator locator(1, RL_MMI_View);
        CountedRegionMap& map = *RegionLocatorTestAccess::unlockedMap(locator);
        while (map.size() < REGIONS) {
            const u64 place = random() % (8 * REGIONS * 4);
            insertRegion(locator, plainRegion(isOnGrid ? place / 8 * 8 : place, 4, 8 * map.size()));
            ASSERT_LE(locator.getAcceleratorBytes(), 24 * std::max<u64>(map.size(), 1));
        }
        EXPECT_EQ(map.directorySlots(), isOnGrid ? 16384U : 32768U);
    }
}

TEST(LocatorDirectoryTest, IsNotThereWhenItIsSwitchedOff)
{
    const LogCapture log;
    const Accelerators on(Accelerators::ALL & ~Accelerators::DIRECTORY);
    RegionLocator locator(1, RL_MMI_View);
    for (u64 i = 0; i < 500; ++i)
        insertRegion(locator, plainRegion(8 * i, 8, 8 * i));
    EXPECT_EQ(locator.getAcceleratorBytes(), 0U);
}

} // namespace
