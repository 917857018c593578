#include "RegionLocator/SubRegionDescriptor.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <limits>
#include <set>
#include <sstream>
#include <type_traits>

#include "tests/support/Regions.h"

namespace {

constexpr u64 MAX = std::numeric_limits<u64>::max();

// ---- layout ----

TEST(SubRegionDescriptorTest, FieldsLieInTheirOrderWithoutAVirtualTable)
{
    EXPECT_EQ(offsetof(SfsItemDescriptor, m_viewOffsetBlocks), 0u);
    EXPECT_EQ(offsetof(SfsItemDescriptor, m_fifoOffsetOfIoStartBlocks), 8u);
    EXPECT_EQ(offsetof(SfsItemDescriptor, m_ioTotalLengthBytes), 16u);
    EXPECT_EQ(offsetof(SfsItemDescriptor, m_lengthBlocks), 20u);
    EXPECT_EQ(offsetof(SfsItemDescriptor, m_regionOffsetLBsWithinIo), 22u);
    EXPECT_EQ(offsetof(SfsItemDescriptor, m_flags), 24u);
    EXPECT_FALSE(std::is_polymorphic_v<SubRegionDescriptor>);
}

TEST(SubRegionDescriptorTest, AddsNoFieldToTheItem)
{
    EXPECT_EQ(sizeof(SubRegionDescriptor), sizeof(SfsItemDescriptor));
    EXPECT_EQ(sizeof(SubRegionDescriptor), 32u);
    EXPECT_TRUE(std::is_trivially_copyable_v<SubRegionDescriptor>);
}

TEST(SubRegionDescriptorTest, FieldsHaveTheirWidths)
{
    EXPECT_TRUE((std::is_same_v<decltype(SubRegionDescriptor::m_viewOffsetBlocks), u64>));
    EXPECT_TRUE((std::is_same_v<decltype(SubRegionDescriptor::m_fifoOffsetOfIoStartBlocks), u64>));
    EXPECT_TRUE((std::is_same_v<decltype(SubRegionDescriptor::m_ioTotalLengthBytes), u32>));
    EXPECT_TRUE((std::is_same_v<decltype(SubRegionDescriptor::m_lengthBlocks), u16>));
    EXPECT_TRUE((std::is_same_v<decltype(SubRegionDescriptor::m_regionOffsetLBsWithinIo), u16>));
    EXPECT_TRUE((std::is_same_v<decltype(SubRegionDescriptor::m_flags), u8>));
}

// ---- construction ----

TEST(SubRegionDescriptorTest, IsMadeOfAnItemWithAllSixFieldsUnchanged)
{
    SfsItemDescriptor item;
    item.m_viewOffsetBlocks = 0x1122334455667788;
    item.m_fifoOffsetOfIoStartBlocks = 0x99AABBCCDDEEFF00;
    item.m_ioTotalLengthBytes = 0x12345678;
    item.m_lengthBlocks = 0xABCD;
    item.m_regionOffsetLBsWithinIo = 0xEF01;
    item.m_flags = 0xA5; // bits that no reader knows are carried as well
    const SubRegionDescriptor region(item);
    EXPECT_EQ(region.m_viewOffsetBlocks, 0x1122334455667788u);
    EXPECT_EQ(region.m_fifoOffsetOfIoStartBlocks, 0x99AABBCCDDEEFF00u);
    EXPECT_EQ(region.m_ioTotalLengthBytes, 0x12345678u);
    EXPECT_EQ(region.m_lengthBlocks, 0xABCDu);
    EXPECT_EQ(region.m_regionOffsetLBsWithinIo, 0xEF01u);
    EXPECT_EQ(region.m_flags, 0xA5u);
}

TEST(SubRegionDescriptorTest, KeyHasTheViewOffsetAndNothingElse)
{
    const SubRegionDescriptor key(0x8000000000000001ULL);
    EXPECT_EQ(key.m_viewOffsetBlocks, 0x8000000000000001u);
    EXPECT_EQ(key.m_fifoOffsetOfIoStartBlocks, 0u);
    EXPECT_EQ(key.m_ioTotalLengthBytes, 0u);
    EXPECT_EQ(key.m_lengthBlocks, 0u);
    EXPECT_EQ(key.m_regionOffsetLBsWithinIo, 0u);
    EXPECT_FALSE(key.isCompressed());
    EXPECT_FALSE(key.isAllZeroes());
    EXPECT_FALSE(key.isCscan());
}

// ---- order ----

TEST(SubRegionDescriptorTest, OrderIsByViewOffset)
{
    EXPECT_TRUE(plainRegion(7, 100, 900) < plainRegion(8, 1, 1));
    EXPECT_FALSE(plainRegion(8, 1, 1) < plainRegion(7, 100, 900));
}

TEST(SubRegionDescriptorTest, OrderIsUnsigned)
{
    EXPECT_TRUE(SubRegionDescriptor(1) < SubRegionDescriptor(MAX));
    EXPECT_FALSE(SubRegionDescriptor(MAX) < SubRegionDescriptor(1));
    EXPECT_TRUE(SubRegionDescriptor(MAX - 1) < SubRegionDescriptor(MAX));
}

TEST(SubRegionDescriptorTest, EqualOffsetsAreEquivalentWhateverTheOtherFields)
{
    const Regions regions{plainRegion(8, 1, 1), plainRegion(8, 100, 900, 3),
                          compressedRegion(8, 4, 70, 2, 999, true), zeroesRegion(8, 5)};
    for (const SubRegionDescriptor& a : regions)
        for (const SubRegionDescriptor& b : regions)
            EXPECT_FALSE(a < b) << a << " " << b;
}

TEST(SubRegionDescriptorTest, KeySortsBeforeARegionOneBlockLater)
{
    EXPECT_TRUE(SubRegionDescriptor(10) < plainRegion(11, 4, 1));
    EXPECT_FALSE(plainRegion(11, 4, 1) < SubRegionDescriptor(10));
}

TEST(SubRegionDescriptorTest, KeyIsEquivalentToARegionAtItsBlock)
{
    EXPECT_FALSE(SubRegionDescriptor(10) < plainRegion(10, 4, 1));
    EXPECT_FALSE(plainRegion(10, 4, 1) < SubRegionDescriptor(10));
}

TEST(SubRegionDescriptorTest, ASetHoldsOneRegionPerFirstBlockAndErasesItByValue)
{
    std::set<SubRegionDescriptor> set;
    EXPECT_TRUE(set.insert(plainRegion(8, 4, 100)).second);
    EXPECT_FALSE(set.insert(compressedRegion(8, 9, 200)).second);
    EXPECT_EQ(*set.begin(), plainRegion(8, 4, 100));
    EXPECT_EQ(set.erase(zeroesRegion(8, 77)), 1u);
    EXPECT_TRUE(set.empty());
}

// ---- printing ----

TEST(SubRegionDescriptorTest, PrintsAsTheItemDoes)
{
    for (const SubRegionDescriptor& region :
         {plainRegion(8, 4, 100, 2), compressedRegion(8, 4, 100, 2), zeroesRegion(8, 4)}) {
        std::ostringstream item;
        region.toStream(item);
        std::ostringstream out;
        std::ostream& returned = out << region;
        EXPECT_EQ(&returned, &out);
        EXPECT_EQ(out.str(), item.str());
    }
}

TEST(SubRegionDescriptorTest, PrintsAllSixFieldsOnOneLine)
{
    EXPECT_EQ(regionText(compressedRegion(11, 22, 33, 44, 55, true)),
              "[view=11 length=22 fifo=33 offsetInIo=44 ioBytes=55 flags=5]");
    EXPECT_EQ(regionText(zeroesRegion(11, 2)),
              "[view=11 length=2 fifo=none offsetInIo=0 ioBytes=1024 flags=2]");
}

TEST(SubRegionDescriptorTest, PrintsAListOneRegionALine)
{
    const SubRegionDescriptor a = plainRegion(1, 2, 3);
    const SubRegionDescriptor b = zeroesRegion(4, 5);
    std::ostringstream none;
    none << Regions{};
    EXPECT_EQ(none.str(), "");
    std::ostringstream one;
    one << Regions{a};
    EXPECT_EQ(one.str(), regionText(a) + "\n");
    std::ostringstream two;
    two << Regions{a, b};
    EXPECT_EQ(two.str(), regionText(a) + "\n" + regionText(b) + "\n");
}

// ---- the item's generators and readers ----

TEST(SubRegionDescriptorTest, PlainRegionStatesItsOwnLengthInBytes)
{
    const SubRegionDescriptor region = plainRegion(10, 4, 103, 3);
    EXPECT_EQ(region.m_ioTotalLengthBytes, 2048u);
    EXPECT_EQ(region.getIoTotalLengthLBs(), 4u);
    EXPECT_EQ(region.getOrigIoFifoOffsetLbs(), 100u);
    EXPECT_FALSE(region.isCompressed() || region.isAllZeroes() || region.isCscan());
}

TEST(SubRegionDescriptorTest, CompressedRegionKeepsTheStoredIosAddressAndLength)
{
    const SubRegionDescriptor region = compressedRegion(10, 4, 103, 3, 1025, true);
    EXPECT_EQ(region.m_ioTotalLengthBytes, 1025u);
    EXPECT_EQ(region.getIoTotalLengthLBs(), 3u); // rounded up
    EXPECT_EQ(region.getOrigIoFifoOffsetLbs(), 103u);
    EXPECT_TRUE(region.isCompressed());
    EXPECT_FALSE(region.isAllZeroes());
    EXPECT_TRUE(region.isCscan());
    EXPECT_FALSE(compressedRegion(10, 4, 103, 3, 1025, false).isCscan());
}

TEST(SubRegionDescriptorTest, ZeroesHaveNoAddress)
{
    const SubRegionDescriptor region = zeroesRegion(10, 65535);
    EXPECT_EQ(region.m_fifoOffsetOfIoStartBlocks, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(region.m_lengthBlocks, 65535u);
    EXPECT_TRUE(region.isAllZeroes());
    EXPECT_FALSE(region.isCompressed() || region.isCscan());
}

TEST(SubRegionDescriptorTest, IsMadeOfEachKindOfJournalItem)
{
    SfsDiskMetaItem item;
    item.m_ioData = {500, 10};
    item.setUncompressedLengthBlocks(8);
    item.setType(SfsMetaType::UNCOMPRESSED_IO);
    EXPECT_EQ(SubRegionDescriptor(SfsItemDescriptor::genFromSfsDiskMetaItem(item)),
              plainRegion(10, 8, 500));
    item.setType(SfsMetaType::ZEROS);
    EXPECT_EQ(SubRegionDescriptor(SfsItemDescriptor::genFromSfsDiskMetaItem(item)),
              zeroesRegion(10, 8));
    item.setType(SfsMetaType::COMPRESSED_IO);
    item.setCompressedLengthBytes(1234);
    EXPECT_EQ(SubRegionDescriptor(SfsItemDescriptor::genFromSfsDiskMetaItem(item)),
              compressedRegion(10, 8, 500, 0, 1234));
}

// ---- grains ----

TEST(SfsGrainTest, TopSixteenBitsOfAnAddressDoNotCount)
{
    EXPECT_EQ(SFS_GRAIN_OF(0xFFFF00000000FFFFULL), SFS_GRAIN_OF(0x000000000000FFFFULL));
    EXPECT_EQ(SFS_GRAIN_OF(0xFFFF00000000FFFFULL), 1u);
    EXPECT_EQ(SFS_GRAIN_OF(SFS_DEV_ADDR_INVALID), 0x1FFFFFFFFu); // 33 bits
}

TEST(SfsGrainTest, NextGrainBeginsAt32768Blocks)
{
    EXPECT_EQ(SFS_GRAIN_OF(0x7FFFULL), 0u);
    EXPECT_EQ(SFS_GRAIN_OF(0x8000ULL), 1u);
}

#define TEXT_OF(...) #__VA_ARGS__
#define EXPANDED_TEXT_OF(...) TEXT_OF(__VA_ARGS__)

TEST(SfsGrainTest, ACheckOfTwoGrainsPrintsItsArithmetic)
{
    EXPECT_STREQ(
        EXPANDED_TEXT_OF(SFS_GRAIN_OF(desc.m_fifoOffsetOfIoStartBlocks) == SFS_GRAIN_OF(fifoEnd)),
        "(((desc.m_fifoOffsetOfIoStartBlocks)&0xffffffffffffLL)/(1 << 15)) == "
        "(((fifoEnd)&0xffffffffffffLL)/(1 << 15))");
}

} // namespace
