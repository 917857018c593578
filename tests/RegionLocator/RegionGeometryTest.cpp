#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>

#include "common/infra/DynamicTweaks.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

constexpr u64 MAX = std::numeric_limits<u64>::max();

const std::string CAN_COMBINE_SIGNATURE =
    "bool RegionLocator::canCombine(const SubRegionDescriptor&, const SubRegionDescriptor&)";
const std::string EQUAL_SIGNATURE =
    "bool RegionLocator::equalSubregions(const SubRegionDescriptor&, "
    "const SubRegionDescriptor&) const";
const std::string INTERSECTION_SIGNATURE =
    "SubRegionDescriptor RegionLocator::getIntersection(const SubRegionDescriptor&, u64, u32) "
    "const";
const std::string SUBTRACT_SIGNATURE =
    "std::vector<SubRegionDescriptor> RegionLocator::subtractRegions("
    "const SubRegionDescriptor&, const SubRegionDescriptor&) const";

class RegionGeometryTest : public testing::Test
{
protected:
    bool intersects(const SubRegionDescriptor& region, u64 offset, u32 length)
    {
        return Access::checkIntersection(m_locator, region, offset, length);
    }
    SubRegionDescriptor intersection(const SubRegionDescriptor& region, u64 offset, u32 length)
    {
        return Access::getIntersection(m_locator, region, offset, length);
    }
    bool equal(const SubRegionDescriptor& a, const SubRegionDescriptor& b)
    {
        return Access::equalSubregions(m_locator, a, b);
    }
    Regions subtract(const SubRegionDescriptor& older, const SubRegionDescriptor& newer)
    {
        return Access::subtractRegions(m_locator, older, newer);
    }
    bool canCombine(const SubRegionDescriptor& left, const SubRegionDescriptor& right)
    {
        return Access::canCombine(m_locator, left, right);
    }

    // What the operations wrote; none of them writes anything when all is well.
    LogCapture m_log;
    RegionLocator m_locator{1, RL_MMI_View};
};

// ---- checkIntersection ----

using CheckIntersectionTest = RegionGeometryTest;

TEST_F(CheckIntersectionTest, RegionInsideTheRange)
{
    EXPECT_TRUE(intersects(plainRegion(10, 4, 1), 8, 8));
    EXPECT_TRUE(intersects(plainRegion(8, 8, 1), 8, 8));
}

TEST_F(CheckIntersectionTest, RegionAroundTheRange)
{
    EXPECT_TRUE(intersects(plainRegion(0, 100, 1), 8, 8));
}

TEST_F(CheckIntersectionTest, RegionThatOverlapsByOneBlock)
{
    EXPECT_TRUE(intersects(plainRegion(4, 5, 1), 8, 8));
    EXPECT_TRUE(intersects(plainRegion(15, 5, 1), 8, 8));
}

TEST_F(CheckIntersectionTest, RegionThatOnlyTouches)
{
    EXPECT_FALSE(intersects(plainRegion(4, 4, 1), 8, 8));
    EXPECT_FALSE(intersects(plainRegion(16, 4, 1), 8, 8));
}

TEST_F(CheckIntersectionTest, RegionFarAway)
{
    EXPECT_FALSE(intersects(plainRegion(0, 4, 1), 8, 8));
    EXPECT_FALSE(intersects(plainRegion(30, 4, 1), 8, 8));
}

TEST_F(CheckIntersectionTest, EmptyRangeMeetsNothingThatStartsAtOrAfterIt)
{
    EXPECT_FALSE(intersects(plainRegion(8, 8, 1), 8, 0));
    EXPECT_FALSE(intersects(plainRegion(9, 8, 1), 8, 0));
}

TEST_F(CheckIntersectionTest, EmptyRangeMeetsARegionThatReachesPastIt)
{
    EXPECT_TRUE(intersects(plainRegion(7, 2, 1), 8, 0));
    EXPECT_FALSE(intersects(plainRegion(7, 1, 1), 8, 0));
}

TEST_F(CheckIntersectionTest, SumsHave64Bits)
{
    EXPECT_TRUE(intersects(plainRegion(0xFFFFFFFFULL, 1, 1), 0xFFFFFFF0ULL, 0xFFFFFFFF));
    EXPECT_TRUE(intersects(plainRegion(0xFFFFFFFFULL, 65535, 1), 0x100000000ULL, 1));
    EXPECT_FALSE(intersects(plainRegion(MAX - 3, 1, 1), MAX - 7, 8)); // the range's end wraps to 0
}

TEST_F(CheckIntersectionTest, OfTwoRegionsTakesTheSecondOnesRange)
{
    EXPECT_TRUE(Access::checkIntersection(m_locator, plainRegion(0, 9, 1), plainRegion(8, 8, 2)));
    EXPECT_FALSE(Access::checkIntersection(m_locator, plainRegion(0, 8, 1), zeroesRegion(8, 8)));
    EXPECT_TRUE(Access::checkIntersection(m_locator, plainRegion(7, 2, 1), SubRegionDescriptor(8)));
    EXPECT_FALSE(
        Access::checkIntersection(m_locator, SubRegionDescriptor(8), plainRegion(7, 1, 1)));
}

// ---- getIntersection ----

class GetIntersectionTest : public RegionGeometryTest
{
protected:
    ~GetIntersectionTest() override { EXPECT_EQ(m_log.softChecks().size(), m_expectedChecks); }
    size_t m_expectedChecks = 0;
};

TEST_F(GetIntersectionTest, WholeRegionInsideTheRange)
{
    EXPECT_EQ(intersection(plainRegion(10, 4, 103, 3), 8, 8), plainRegion(10, 4, 103, 3));
    EXPECT_EQ(intersection(plainRegion(10, 4, 103, 3), 10, 4), plainRegion(10, 4, 103, 3));
    EXPECT_EQ(intersection(compressedRegion(10, 4, 100, 3), 8, 8), compressedRegion(10, 4, 100, 3));
    EXPECT_EQ(intersection(zeroesRegion(10, 4), 8, 8), zeroesRegion(10, 4));
}

TEST_F(GetIntersectionTest, LeftPartOfPlainKeepsAddressAndOffset)
{
    EXPECT_EQ(intersection(plainRegion(10, 8, 103, 3), 4, 10), plainRegion(10, 4, 103, 3));
}

TEST_F(GetIntersectionTest, RightPartOfPlainMovesAddressAndOffset)
{
    EXPECT_EQ(intersection(plainRegion(10, 8, 103, 3), 13, 100), plainRegion(13, 5, 106, 6));
}

TEST_F(GetIntersectionTest, MiddleOfPlain)
{
    EXPECT_EQ(intersection(plainRegion(10, 8, 103, 3), 12, 2), plainRegion(12, 2, 105, 5));
}

TEST_F(GetIntersectionTest, LeftPartOfCompressedKeepsAddressAndOffset)
{
    EXPECT_EQ(intersection(compressedRegion(10, 8, 100, 3, 777), 4, 10),
              compressedRegion(10, 4, 100, 3, 777));
}

TEST_F(GetIntersectionTest, RightPartAndMiddleOfCompressedMoveOnlyTheOffset)
{
    EXPECT_EQ(intersection(compressedRegion(10, 8, 100, 3, 777), 13, 100),
              compressedRegion(13, 5, 100, 6, 777));
    EXPECT_EQ(intersection(compressedRegion(10, 8, 100, 3, 777), 12, 2),
              compressedRegion(12, 2, 100, 5, 777));
}

TEST_F(GetIntersectionTest, CompressedLosesItsCscanFlagEvenWhole)
{
    EXPECT_EQ(intersection(compressedRegion(10, 8, 100, 0, 777, true), 10, 8),
              compressedRegion(10, 8, 100, 0, 777, false));
    EXPECT_EQ(intersection(compressedRegion(10, 8, 100, 0, 777, true), 12, 2),
              compressedRegion(12, 2, 100, 2, 777, false));
}

TEST_F(GetIntersectionTest, ZeroesHaveNoAddressAndOffsetZero)
{
    SubRegionDescriptor zeroes = zeroesRegion(10, 8);
    zeroes.m_fifoOffsetOfIoStartBlocks = 5;
    zeroes.m_regionOffsetLBsWithinIo = 6;
    EXPECT_EQ(intersection(zeroes, 12, 2), zeroesRegion(12, 2));
    EXPECT_EQ(intersection(zeroes, 10, 8), zeroesRegion(10, 8));
}

TEST_F(GetIntersectionTest, WithAnEmptyRangeInsideIsEmpty)
{
    EXPECT_EQ(intersection(plainRegion(10, 8, 103, 3), 12, 0), plainRegion(12, 0, 105, 5));
}

TEST_F(GetIntersectionTest, WithARangeAbove32BitsOfOffset)
{
    const u64 far = 0x123456789ABCULL;
    EXPECT_EQ(intersection(plainRegion(far, 8, 100), far + 2, 0xFFFFFFFF),
              plainRegion(far + 2, 6, 102, 2));
}

TEST_F(GetIntersectionTest, LargestOffsetOfPlainIsFine)
{
    EXPECT_EQ(intersection(plainRegion(10, 8, 100, 0xFFFE), 11, 2),
              plainRegion(11, 2, 101, 0xFFFF));
}

TEST_F(GetIntersectionTest, PlainReportsAnOffsetAbove16BitsAndTruncatesIt)
{
    m_expectedChecks = 1;
    EXPECT_EQ(intersection(plainRegion(10, 8, 100, 0xFFFE), 12, 2), plainRegion(12, 2, 102, 0));
    EXPECT_TRUE(isSoftCheck(m_log.only(), INTERSECTION_SIGNATURE, "offsetFromOrigIoLbs <= 0xFFFF",
                            " offsetFromOrigIoLbs=65536"));
}

TEST_F(GetIntersectionTest, CompressedReportsAnOffsetAbove16BitsAndTruncatesIt)
{
    m_expectedChecks = 1;
    EXPECT_EQ(intersection(compressedRegion(10, 8, 100, 0xFFFF, 777), 13, 2),
              compressedRegion(13, 2, 100, 2, 777));
    EXPECT_TRUE(isSoftCheck(m_log.only(), INTERSECTION_SIGNATURE, "regionOffsetWithinIo <= 0xFFFF",
                            " regionOffsetWithinIo=65538"));
}

// ---- equalSubregions ----

using EqualSubregionsTest = RegionGeometryTest;

TEST_F(EqualSubregionsTest, OtherOffsetOrLengthDiffersWithoutAnyReport)
{
    EXPECT_FALSE(equal(plainRegion(10, 8, 100), plainRegion(11, 8, 100)));
    EXPECT_FALSE(equal(plainRegion(10, 8, 100), plainRegion(10, 7, 100)));
    EXPECT_FALSE(equal(plainRegion(10, 8, 100), compressedRegion(10, 7, 900, 3)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(EqualSubregionsTest, SamePieceOfEachKind)
{
    EXPECT_TRUE(equal(plainRegion(10, 8, 103, 3), plainRegion(10, 8, 103, 3)));
    EXPECT_TRUE(equal(compressedRegion(10, 8, 100, 3), compressedRegion(10, 8, 100, 3)));
    EXPECT_TRUE(equal(zeroesRegion(10, 8), zeroesRegion(10, 8)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(EqualSubregionsTest, CscanFlagIsNotCompared)
{
    EXPECT_TRUE(equal(compressedRegion(10, 8, 100, 3, 777, true),
                      compressedRegion(10, 8, 100, 3, 777, false)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(EqualSubregionsTest, OtherAddressIsReportedAndStillEqual)
{
    EXPECT_TRUE(equal(plainRegion(10, 8, 100), plainRegion(10, 8, 200)));
    EXPECT_TRUE(isSoftCheck(
        m_log.only(), EQUAL_SIGNATURE,
        "a_region1.m_fifoOffsetOfIoStartBlocks == a_region2.m_fifoOffsetOfIoStartBlocks",
        " a_region1.m_fifoOffsetOfIoStartBlocks=100 a_region2.m_fifoOffsetOfIoStartBlocks=200"));
}

TEST_F(EqualSubregionsTest, OtherZeroesFlagIsReportedAndStillEqual)
{
    SubRegionDescriptor other = zeroesRegion(10, 8);
    other.m_fifoOffsetOfIoStartBlocks = 100;
    EXPECT_TRUE(equal(plainRegion(10, 8, 100), other));
    EXPECT_TRUE(isSoftCheck(m_log.only(), EQUAL_SIGNATURE,
                            "a_region1.isAllZeroes() == a_region2.isAllZeroes()",
                            " a_region1.isAllZeroes()=0 a_region2.isAllZeroes()=1"));
}

TEST_F(EqualSubregionsTest, OtherCompressedFlagIsReportedAndStillEqual)
{
    EXPECT_TRUE(equal(compressedRegion(10, 8, 100, 0, 8 * 512), plainRegion(10, 8, 100)));
    EXPECT_TRUE(isSoftCheck(m_log.only(), EQUAL_SIGNATURE,
                            "a_region1.isCompressed() == a_region2.isCompressed()",
                            " a_region1.isCompressed()=1 a_region2.isCompressed()=0"));
}

TEST_F(EqualSubregionsTest, OtherOffsetWithinTheIoIsReportedAndStillEqual)
{
    EXPECT_TRUE(equal(plainRegion(10, 8, 100, 3), plainRegion(10, 8, 100, 4)));
    EXPECT_TRUE(isSoftCheck(
        m_log.only(), EQUAL_SIGNATURE,
        "a_region1.m_regionOffsetLBsWithinIo == a_region2.m_regionOffsetLBsWithinIo",
        " a_region1.m_regionOffsetLBsWithinIo=3 a_region2.m_regionOffsetLBsWithinIo=4"));
}

TEST_F(EqualSubregionsTest, OtherIoLengthIsReportedAndStillEqual)
{
    EXPECT_TRUE(equal(compressedRegion(10, 8, 100, 3, 700), compressedRegion(10, 8, 100, 3, 701)));
    EXPECT_TRUE(isSoftCheck(
        m_log.only(), EQUAL_SIGNATURE,
        "a_region1.getIoTotalLengthBytes() == a_region2.getIoTotalLengthBytes()",
        " a_region1.getIoTotalLengthBytes()=700 a_region2.getIoTotalLengthBytes()=701"));
}

TEST_F(EqualSubregionsTest, EveryDifferenceIsReportedInItsOrder)
{
    EXPECT_TRUE(equal(compressedRegion(10, 8, 100, 3, 700), zeroesRegion(10, 8)));
    const std::vector<LogRecord> checks = m_log.records();
    ASSERT_EQ(checks.size(), 5u);
    EXPECT_TRUE(isSoftCheck(
        checks[0], EQUAL_SIGNATURE,
        "a_region1.m_fifoOffsetOfIoStartBlocks == a_region2.m_fifoOffsetOfIoStartBlocks",
        " a_region1.m_fifoOffsetOfIoStartBlocks=100"
        " a_region2.m_fifoOffsetOfIoStartBlocks=18446744073709551615"));
    EXPECT_TRUE(isSoftCheck(checks[1], EQUAL_SIGNATURE,
                            "a_region1.isAllZeroes() == a_region2.isAllZeroes()",
                            " a_region1.isAllZeroes()=0 a_region2.isAllZeroes()=1"));
    EXPECT_TRUE(isSoftCheck(checks[2], EQUAL_SIGNATURE,
                            "a_region1.isCompressed() == a_region2.isCompressed()",
                            " a_region1.isCompressed()=1 a_region2.isCompressed()=0"));
    EXPECT_TRUE(isSoftCheck(
        checks[3], EQUAL_SIGNATURE,
        "a_region1.m_regionOffsetLBsWithinIo == a_region2.m_regionOffsetLBsWithinIo",
        " a_region1.m_regionOffsetLBsWithinIo=3 a_region2.m_regionOffsetLBsWithinIo=0"));
    EXPECT_TRUE(isSoftCheck(
        checks[4], EQUAL_SIGNATURE,
        "a_region1.getIoTotalLengthBytes() == a_region2.getIoTotalLengthBytes()",
        " a_region1.getIoTotalLengthBytes()=700 a_region2.getIoTotalLengthBytes()=4096"));
}

// ---- subtractRegions ----

class SubtractTest : public RegionGeometryTest
{
protected:
    ~SubtractTest() override { EXPECT_EQ(m_log.softChecks().size(), m_expectedChecks); }
    size_t m_expectedChecks = 0;
};

TEST_F(SubtractTest, LeftPartOfPlainLeavesARightPieceMovedByTheCut)
{
    EXPECT_EQ(subtract(plainRegion(10, 8, 103, 3), plainRegion(10, 3, 900)),
              Regions{plainRegion(13, 5, 106, 6)});
}

TEST_F(SubtractTest, RightPartOfPlainLeavesALeftPieceInItsPlace)
{
    EXPECT_EQ(subtract(plainRegion(10, 8, 103, 3), plainRegion(15, 3, 900)),
              Regions{plainRegion(10, 5, 103, 3)});
}

TEST_F(SubtractTest, MiddleOfPlainLeavesTwoPiecesLeftFirst)
{
    EXPECT_EQ(subtract(plainRegion(10, 8, 103, 3), zeroesRegion(12, 2)),
              (Regions{plainRegion(10, 2, 103, 3), plainRegion(14, 4, 107, 7)}));
}

TEST_F(SubtractTest, LeftPartOfCompressedMovesOnlyTheOffset)
{
    EXPECT_EQ(subtract(compressedRegion(10, 8, 100, 3, 777), plainRegion(10, 3, 900)),
              Regions{compressedRegion(13, 5, 100, 6, 777)});
}

TEST_F(SubtractTest, RightPartOfCompressedLeavesALeftPieceInItsPlace)
{
    EXPECT_EQ(subtract(compressedRegion(10, 8, 100, 3, 777), plainRegion(15, 3, 900)),
              Regions{compressedRegion(10, 5, 100, 3, 777)});
}

TEST_F(SubtractTest, MiddleOfCompressedLeavesTwoPiecesWithoutCscan)
{
    EXPECT_EQ(subtract(compressedRegion(10, 8, 100, 3, 777, true), plainRegion(12, 2, 900)),
              (Regions{compressedRegion(10, 2, 100, 3, 777, false),
                       compressedRegion(14, 4, 100, 7, 777, false)}));
}

TEST_F(SubtractTest, LeftPartOfZeroesLeavesZeroesWithoutAddressAndOffset)
{
    SubRegionDescriptor zeroes = zeroesRegion(10, 8);
    zeroes.m_fifoOffsetOfIoStartBlocks = 5;
    zeroes.m_regionOffsetLBsWithinIo = 6;
    EXPECT_EQ(subtract(zeroes, plainRegion(10, 3, 900)), Regions{zeroesRegion(13, 5)});
}

TEST_F(SubtractTest, MiddleOfZeroesLeavesTwoPieces)
{
    EXPECT_EQ(subtract(zeroesRegion(10, 8), plainRegion(12, 2, 900)),
              (Regions{zeroesRegion(10, 2), zeroesRegion(14, 4)}));
}

TEST_F(SubtractTest, LeftPieceOfZeroesKeepsAddressAndOffsetAsTheyAre)
{
    SubRegionDescriptor zeroes = zeroesRegion(10, 8);
    zeroes.m_fifoOffsetOfIoStartBlocks = 5;
    zeroes.m_regionOffsetLBsWithinIo = 6;
    SubRegionDescriptor left = zeroesRegion(10, 3);
    left.m_fifoOffsetOfIoStartBlocks = 5;
    left.m_regionOffsetLBsWithinIo = 6;
    EXPECT_EQ(subtract(zeroes, plainRegion(13, 5, 900)), Regions{left});
}

TEST_F(SubtractTest, OneBlockAtEachEnd)
{
    EXPECT_EQ(subtract(plainRegion(10, 2, 100), plainRegion(10, 1, 900)),
              Regions{plainRegion(11, 1, 101, 1)});
    EXPECT_EQ(subtract(plainRegion(10, 2, 100), plainRegion(11, 1, 900)),
              Regions{plainRegion(10, 1, 100)});
}

TEST_F(SubtractTest, EmptyCutInsideSplits)
{
    EXPECT_EQ(subtract(plainRegion(10, 8, 100), SubRegionDescriptor(12)),
              (Regions{plainRegion(10, 2, 100), plainRegion(12, 6, 102, 2)}));
}

TEST_F(SubtractTest, NewerThatStartsBeforeIsReportedAndCutsTheLeftPart)
{
    m_expectedChecks = 1;
    EXPECT_EQ(subtract(plainRegion(10, 8, 100), plainRegion(8, 6, 900)),
              Regions{plainRegion(14, 4, 104, 4)});
    EXPECT_TRUE(isSoftCheck(m_log.only(), SUBTRACT_SIGNATURE,
                            "a_region1.m_viewOffsetBlocks <= a_region2.m_viewOffsetBlocks",
                            " a_region1.m_viewOffsetBlocks=10 a_region2.m_viewOffsetBlocks=8"));
}

TEST_F(SubtractTest, NewerThatEndsAfterIsReportedAndCutsTheRightPart)
{
    m_expectedChecks = 1;
    EXPECT_EQ(subtract(plainRegion(10, 8, 100), plainRegion(14, 6, 900)),
              Regions{plainRegion(10, 4, 100)});
    EXPECT_TRUE(isSoftCheck(m_log.only(), SUBTRACT_SIGNATURE, "end1 >= end2", " end1=18 end2=20"));
}

TEST_F(SubtractTest, NewerThatCoversAllLeavesNothing)
{
    m_expectedChecks = 3;
    EXPECT_TRUE(subtract(plainRegion(10, 8, 100), plainRegion(8, 12, 900)).empty());
    const std::vector<LogRecord> checks = m_log.records();
    ASSERT_EQ(checks.size(), 2u);
    EXPECT_TRUE(isSoftCheck(checks[0], SUBTRACT_SIGNATURE,
                            "a_region1.m_viewOffsetBlocks <= a_region2.m_viewOffsetBlocks",
                            " a_region1.m_viewOffsetBlocks=10 a_region2.m_viewOffsetBlocks=8"));
    EXPECT_TRUE(isSoftCheck(checks[1], SUBTRACT_SIGNATURE, "end1 >= end2", " end1=18 end2=20"));
    // From the same first block, only the end is beyond what is expected.
    EXPECT_TRUE(subtract(plainRegion(10, 8, 100), plainRegion(10, 9, 900)).empty());
}

TEST_F(SubtractTest, PlainReportsAnOffsetAbove16BitsAndTruncatesIt)
{
    m_expectedChecks = 1;
    EXPECT_EQ(subtract(plainRegion(10, 8, 100, 0xFFFE), plainRegion(10, 3, 900)),
              Regions{plainRegion(13, 5, 103, 1)});
    EXPECT_TRUE(isSoftCheck(m_log.only(), SUBTRACT_SIGNATURE, "offsetFromOrigIoLbs <= 0xFFFF",
                            " offsetFromOrigIoLbs=65537"));
}

TEST_F(SubtractTest, CompressedTruncatesAnOffsetAbove16BitsWithoutAReport)
{
    EXPECT_EQ(subtract(compressedRegion(10, 8, 100, 0xFFFE, 777), plainRegion(10, 3, 900)),
              Regions{compressedRegion(13, 5, 100, 1, 777)});
}

TEST(SubtractDeathTest, EqualRegionsStopTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RegionLocator locator(1, RL_MMI_View);
    EXPECT_DEATH(Access::subtractRegions(locator, plainRegion(10, 8, 100), plainRegion(10, 8, 100)),
                 hardCheckPattern("!equalSubregions(a_region1, a_region2)"));
}

TEST(SubtractDeathTest, RegionsThatDoNotMeetStopTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RegionLocator locator(1, RL_MMI_View);
    EXPECT_DEATH(Access::subtractRegions(locator, plainRegion(10, 8, 100), plainRegion(18, 8, 900)),
                 hardCheckPattern("checkIntersection(a_region1, a_region2)"));
}

// ---- canCombine ----

using CanCombineTest = RegionGeometryTest;

TEST_F(CanCombineTest, ConsecutivePiecesOfOnePlainIo)
{
    EXPECT_TRUE(canCombine(plainRegion(10, 4, 100), plainRegion(14, 2, 104, 4)));
    EXPECT_TRUE(canCombine(plainRegion(12, 2, 102, 2), plainRegion(14, 1, 104, 4)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CanCombineTest, ConsecutivePiecesOfOneCompressedIo)
{
    EXPECT_TRUE(canCombine(compressedRegion(10, 4, 100, 0), compressedRegion(14, 2, 100, 4)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CanCombineTest, NotWithCscanOnEitherSide)
{
    const SubRegionDescriptor left = compressedRegion(10, 4, 100, 0);
    const SubRegionDescriptor right = compressedRegion(14, 2, 100, 4);
    EXPECT_FALSE(canCombine(compressedRegion(10, 4, 100, 0, 1000, true), right));
    EXPECT_FALSE(canCombine(left, compressedRegion(14, 2, 100, 4, 1000, true)));
}

TEST_F(CanCombineTest, NotOfTwoKinds)
{
    EXPECT_FALSE(canCombine(plainRegion(10, 4, 100), zeroesRegion(14, 4)));
    EXPECT_FALSE(canCombine(zeroesRegion(10, 4), plainRegion(14, 4, 104)));
    EXPECT_FALSE(canCombine(plainRegion(10, 4, 100), compressedRegion(14, 4, 100, 4)));
    EXPECT_FALSE(canCombine(compressedRegion(10, 4, 100), plainRegion(14, 4, 104, 4)));
    EXPECT_FALSE(canCombine(compressedRegion(10, 4, 100), zeroesRegion(14, 4)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CanCombineTest, NotWithAGapAnOverlapOrInReverse)
{
    EXPECT_FALSE(canCombine(plainRegion(10, 4, 100), plainRegion(15, 2, 105, 5)));
    EXPECT_FALSE(canCombine(plainRegion(10, 4, 100), plainRegion(13, 2, 103, 3)));
    EXPECT_FALSE(canCombine(plainRegion(14, 2, 104, 4), plainRegion(10, 4, 100)));
    EXPECT_FALSE(canCombine(zeroesRegion(10, 4), zeroesRegion(15, 4)));
}

TEST_F(CanCombineTest, ZeroesUpTo2048BlocksWhateverTheirIos)
{
    EXPECT_TRUE(canCombine(zeroesRegion(0, 1024), zeroesRegion(1024, 1024)));
    EXPECT_FALSE(canCombine(zeroesRegion(0, 1024), zeroesRegion(1024, 1025)));
    EXPECT_TRUE(canCombine(zeroesRegion(0, 2047), zeroesRegion(2047, 1)));
    EXPECT_FALSE(canCombine(zeroesRegion(0, 2048), zeroesRegion(2048, 1)));
    EXPECT_FALSE(canCombine(zeroesRegion(0, 65535), zeroesRegion(65535, 2))); // no 16-bit sum
    SubRegionDescriptor other = zeroesRegion(1024, 1024);
    other.m_fifoOffsetOfIoStartBlocks = 77;
    EXPECT_TRUE(canCombine(zeroesRegion(0, 1024), other));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CanCombineTest, OtherKindsHaveNoSuchLimit)
{
    EXPECT_TRUE(canCombine(plainRegion(0, 20000, 100), plainRegion(20000, 20000, 20100, 20000)));
    EXPECT_TRUE(
        canCombine(compressedRegion(0, 3000, 100, 0), compressedRegion(3000, 3000, 100, 3000)));
}

TEST_F(CanCombineTest, NotOfTwoIosEvenWhereTheJournalIsContiguous)
{
    EXPECT_FALSE(canCombine(plainRegion(10, 4, 100), plainRegion(14, 2, 104)));
    EXPECT_FALSE(canCombine(compressedRegion(10, 4, 100, 0), compressedRegion(14, 2, 101, 4)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CanCombineTest, PlainPiecesApartInTheJournalAreReportedAndStillCombine)
{
    // One IO's address as both offsets tell it, yet the offset does not follow.
    const SubRegionDescriptor left = plainRegion(10, 4, 100);
    const SubRegionDescriptor right = plainRegion(14, 2, 105, 5);
    EXPECT_TRUE(canCombine(left, right));
    EXPECT_TRUE(isSoftCheck(m_log.only(), CAN_COMBINE_SIGNATURE,
                            "(left.m_fifoOffsetOfIoStartBlocks + left.m_lengthBlocks) == "
                            "right.m_fifoOffsetOfIoStartBlocks",
                            " left=" + regionText(left) + " right=" + regionText(right)));
}

TEST_F(CanCombineTest, CompressedPiecesApartInTheIoAreReportedAndStillCombine)
{
    const SubRegionDescriptor left = compressedRegion(10, 4, 100, 0);
    const SubRegionDescriptor right = compressedRegion(14, 2, 100, 5);
    EXPECT_TRUE(canCombine(left, right));
    EXPECT_TRUE(isSoftCheck(m_log.only(), CAN_COMBINE_SIGNATURE,
                            "(left.m_regionOffsetLBsWithinIo + left.m_lengthBlocks) == "
                            "right.m_regionOffsetLBsWithinIo",
                            " left=" + regionText(left) + " right=" + regionText(right)));
}

TEST_F(CanCombineTest, CompressedPiecesOfTwoIoLengthsAreReportedAndStillCombine)
{
    const SubRegionDescriptor left = compressedRegion(10, 4, 100, 0, 512);
    const SubRegionDescriptor right = compressedRegion(14, 2, 100, 4, 513);
    EXPECT_TRUE(canCombine(left, right));
    EXPECT_TRUE(isSoftCheck(m_log.only(), CAN_COMBINE_SIGNATURE,
                            "left.getIoTotalLengthLBs() == right.getIoTotalLengthLBs()",
                            " left=" + regionText(left) + " right=" + regionText(right)));
    m_log.clear();
    // Lengths are compared in blocks.
    EXPECT_TRUE(
        canCombine(compressedRegion(10, 4, 100, 0, 511), compressedRegion(14, 2, 100, 4, 512)));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CanCombineTest, CompressedPiecesReportBothDifferencesInTheirOrder)
{
    const SubRegionDescriptor left = compressedRegion(10, 4, 100, 0, 512);
    const SubRegionDescriptor right = compressedRegion(14, 2, 100, 5, 513);
    EXPECT_TRUE(canCombine(left, right));
    const std::vector<LogRecord> checks = m_log.records();
    ASSERT_EQ(checks.size(), 2u);
    EXPECT_NE(checks[0].m_text.find("m_regionOffsetLBsWithinIo"), std::string::npos);
    EXPECT_NE(checks[1].m_text.find("getIoTotalLengthLBs"), std::string::npos);
}

// ---- getLeftNeighbor ----

class LeftNeighborTest : public RegionGeometryTest
{
protected:
    void SetUp() override
    {
        insertRegion(m_locator, plainRegion(10, 4, 100));
        insertRegion(m_locator, plainRegion(20, 4, 200));
        m_map = Access::unlocked(m_locator);
    }

    CountedRegionMap* m_map = nullptr;
};

TEST_F(LeftNeighborTest, AtTheFirstEntryThereIsNone)
{
    EXPECT_EQ(Access::getLeftNeighbor(m_locator, plainRegion(4, 4, 900), m_map->cbegin()),
              m_map->cend());
}

TEST_F(LeftNeighborTest, InAnEmptyMapThereIsNone)
{
    RegionLocator empty(2, RL_MMI_View);
    const CountedRegionMap* map = Access::unlocked(empty);
    EXPECT_EQ(Access::getLeftNeighbor(empty, plainRegion(4, 4, 900), map->cend()), map->cend());
}

TEST_F(LeftNeighborTest, InTheMiddleAndAtTheEndItIsTheEntryBefore)
{
    EXPECT_EQ(
        *Access::getLeftNeighbor(m_locator, plainRegion(14, 4, 900), std::next(m_map->cbegin())),
        plainRegion(10, 4, 100));
    EXPECT_EQ(*Access::getLeftNeighbor(m_locator, plainRegion(30, 4, 900), m_map->cend()),
              plainRegion(20, 4, 200));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(LeftNeighborTest, ReportsANeighborThatIsNotBefore)
{
    const SubRegionDescriptor region = plainRegion(20, 2, 900);
    const auto left = Access::getLeftNeighbor(m_locator, region, m_map->cend());
    EXPECT_EQ(*left, plainRegion(20, 4, 200));
    EXPECT_TRUE(isSoftCheck(m_log.only(),
                            "std::set<SubRegionDescriptor, std::less<SubRegionDescriptor>, "
                            "RlAllocator<SubRegionDescriptor> >::const_iterator "
                            "RegionLocator::getLeftNeighbor(const SubRegionDescriptor&, "
                            "std::set<SubRegionDescriptor, std::less<SubRegionDescriptor>, "
                            "RlAllocator<SubRegionDescriptor> >::const_iterator)",
                            "*lNeighbor < region",
                            " *lNeighbor=" + regionText(plainRegion(20, 4, 200)) +
                                " region=" + regionText(region)));
}

// ---- combineR2L ----

class CombineR2LTest : public RegionGeometryTest
{
protected:
    ~CombineR2LTest() override { DynamicTweaks::instance()->t_RlVerboseLogs = false; }
};

TEST_F(CombineR2LTest, PlainTakesNothingOfTheRightOneButItsLength)
{
    EXPECT_EQ(Access::combineR2L(m_locator, plainRegion(10, 4, 103, 3), zeroesRegion(99, 7), "m"),
              plainRegion(10, 11, 103, 3));
}

TEST_F(CombineR2LTest, CompressedKeepsTheLeftOnesAddressOffsetAndIoLength)
{
    EXPECT_EQ(Access::combineR2L(m_locator, compressedRegion(10, 4, 100, 3, 777),
                                 compressedRegion(14, 7, 900, 9, 888, true), "m"),
              compressedRegion(10, 11, 100, 3, 777, false));
}

TEST_F(CombineR2LTest, CompressedKeepsTheLeftOnesCscanFlag)
{
    EXPECT_EQ(Access::combineR2L(m_locator, compressedRegion(10, 4, 100, 3, 777, true),
                                 compressedRegion(14, 7, 100, 7, 777), "m"),
              compressedRegion(10, 11, 100, 3, 777, true));
}

TEST_F(CombineR2LTest, ZeroesStayZeroes)
{
    EXPECT_EQ(Access::combineR2L(m_locator, zeroesRegion(10, 4), zeroesRegion(14, 7), "m"),
              zeroesRegion(10, 11));
}

TEST_F(CombineR2LTest, CountsOneMergeAndNothingElse)
{
    for (u64 i = 1; i <= 3; ++i) {
        Access::combineR2L(m_locator, zeroesRegion(10, 4), zeroesRegion(14, 7), "m");
        EXPECT_EQ(Access::counters(m_locator).getMerges(), i);
    }
    EXPECT_EQ(Access::counters(m_locator).getInserts(), 0u);
    EXPECT_EQ(Access::counters(m_locator).getInsertLbs(), 0u);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(CombineR2LTest, TracesTheMergeWhileAsked)
{
    DynamicTweaks::instance()->t_RlVerboseLogs = true;
    const SubRegionDescriptor left = plainRegion(10, 4, 100);
    const SubRegionDescriptor right = plainRegion(14, 2, 104, 4);
    const SubRegionDescriptor combined = Access::combineR2L(m_locator, left, right, "some message");
    std::ostringstream text;
    text << "<" << &m_locator << ">: some message left=" << left << "  right=" << right
         << "  combined=" << combined << " ";
    EXPECT_TRUE(isRecord(m_log.only(), LogModuleXel, InfoLevel, 0,
                         "SubRegionDescriptor RegionLocator::combineR2L(const "
                         "SubRegionDescriptor&, const SubRegionDescriptor&, const std::string&)",
                         text.str()));
}

} // namespace
