#include "host/increments/GranuleMap.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <ostream>
#include <random>
#include <set>

#include "tests/support/Sanitized.h"

bool operator==(const LtrChangedRange& a, const LtrChangedRange& b)
{
    return a.m_offsetBlocks == b.m_offsetBlocks && a.m_lengthBlocks == b.m_lengthBlocks;
}

std::ostream& operator<<(std::ostream& out, const LtrChangedRange& range)
{
    return out << "[" << range.m_offsetBlocks << " +" << range.m_lengthBlocks << "]";
}

namespace {

using Ranges = std::vector<LtrChangedRange>;
constexpr u64 NO_LIMIT = ~u64{0};

// ---- geometry ----

TEST(GranuleGeometryTest, TakesUpTo32BitsOfGranules)
{
    EXPECT_FALSE((GranuleGeometry{0, 8}.isValid()));
    EXPECT_FALSE((GranuleGeometry{100, 0}.isValid()));
    EXPECT_TRUE((GranuleGeometry{1, 1}.isValid()));
    const u64 sixteenTiB = u64{1} << 35;
    EXPECT_TRUE((GranuleGeometry{sixteenTiB, 8}.isValid()));
    EXPECT_FALSE((GranuleGeometry{sixteenTiB + 1, 8}.isValid()));
    EXPECT_FALSE((GranuleGeometry{sixteenTiB, 7}.isValid()));
    EXPECT_TRUE((GranuleGeometry{u64{1} << 63, ~u32{0}}.isValid()));
    EXPECT_FALSE((GranuleGeometry{~u64{0}, ~u32{0}}.isValid()));
    EXPECT_EQ((GranuleGeometry{17, 8}.granules()), 3U);
    EXPECT_EQ((GranuleGeometry{16, 8}.granules()), 2U);
    EXPECT_EQ((GranuleGeometry{1, 8}.granules()), 1U);
}

TEST(GranuleGeometryTest, ContainsWhatLiesWithinTheVolume)
{
    const GranuleGeometry geometry{100, 8};
    EXPECT_TRUE(geometry.contains(0, 100));
    EXPECT_TRUE(geometry.contains(99, 1));
    EXPECT_FALSE(geometry.contains(5, 0));
    EXPECT_FALSE(geometry.contains(99, 2));
    EXPECT_FALSE(geometry.contains(100, 1));
    EXPECT_FALSE(geometry.contains(50, ~u64{0}));
    EXPECT_FALSE(geometry.contains(~u64{0}, 2));
}

// ---- ranges by shape ----

TEST(GranuleMapTest, EmptyHasNoRanges)
{
    const GranuleMap map({100, 8});
    EXPECT_TRUE(map.isEmpty());
    EXPECT_EQ(map.ranges(), Ranges{});
    EXPECT_EQ(map.memoryBytes(), 0U);
}

TEST(GranuleMapTest, OneBlockMarksItsWholeGranule)
{
    for (const u64 block : {u64{8}, u64{11}, u64{15}}) {
        GranuleMap map({100, 8});
        EXPECT_EQ(map.add(block, 1, NO_LIMIT), RC_SUCCESS);
        EXPECT_EQ(map.granules(), 1U);
        EXPECT_EQ(map.ranges(), (Ranges{{8, 8}}));
    }
}

TEST(GranuleMapTest, ARangeMarksEveryGranuleThatItTouches)
{
    GranuleMap map({100, 8});
    EXPECT_EQ(map.add(15, 2, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{8, 16}}));
    EXPECT_EQ(map.add(40, 8, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{8, 16}, {40, 8}}));
}

TEST(GranuleMapTest, NeighboursBecomeOneRange)
{
    GranuleMap map({100, 8});
    for (const u64 granule : {4, 2, 3, 3})
        EXPECT_EQ(map.add(granule * 8, 1, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{16, 24}}));
}

TEST(GranuleMapTest, TheFirstGranuleAndTheLastThatTheVolumeCutsShort)
{
    GranuleMap map({101, 8});
    EXPECT_EQ(map.add(0, 1, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.add(100, 1, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{0, 8}, {96, 5}}));
    EXPECT_EQ(map.add(0, 101, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{0, 101}}));
}

TEST(GranuleMapTest, TheLargestVolumeAtBothEndsAndWhole)
{
    const u64 blocks = u64{1} << 35;
    GranuleMap map({blocks - 3, 8});
    EXPECT_EQ(map.add(blocks - 4, 1, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{blocks - 8, 5}}));
    EXPECT_EQ(map.add(0, 1, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{0, 8}, {blocks - 8, 5}}));
    EXPECT_EQ(map.add(0, blocks - 3, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.ranges(), (Ranges{{0, blocks - 3}}));
    EXPECT_EQ(map.granules(), u64{1} << 32);
}

TEST(GranuleMapTest, RangesOverTheEdgesOfContainers)
{
    const u64 edge = 65536;
    GranuleMap map({10 * edge, 1});
    EXPECT_EQ(map.add(edge - 1, 2, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.add(3 * edge, edge, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.add(5 * edge - 1, 1, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.add(6 * edge + 7, 2 * edge, NO_LIMIT), RC_SUCCESS);
    EXPECT_EQ(
        map.ranges(),
        (Ranges{{edge - 1, 2}, {3 * edge, edge}, {5 * edge - 1, 1}, {6 * edge + 7, 2 * edge}}));
}

// ---- against a plain set ----

Ranges rangesOf(const std::set<u64>& granules, const GranuleGeometry& geometry)
{
    Ranges ranges;
    for (const u64 granule : granules) {
        const u64 offset = granule * geometry.m_granuleBlocks;
        const u64 end = std::min(offset + geometry.m_granuleBlocks, geometry.m_volumeBlocks);
        if (!ranges.empty() &&
            ranges.back().m_offsetBlocks + ranges.back().m_lengthBlocks == offset)
            ranges.back().m_lengthBlocks += end - offset;
        else
            ranges.push_back({offset, end - offset});
    }
    return ranges;
}

void compareWithSet(u64 seed)
{
    std::mt19937_64 random(seed);
    const u32 granuleBlocks = static_cast<u32>(1 + random() % 9);
    const GranuleGeometry geometry{1 + random() % 2000000, granuleBlocks};
    // From single blocks all over to long ranges: arrays, runs and plain bits.
    const u64 longest = u64{1} << (random() % 16);
    const u64 steps = longest > 4096 ? 12 : 2000;
    GranuleMap map(geometry);
    std::set<u64> model;
    for (u64 step = 0; step < steps; ++step) {
        const u64 offset = random() % geometry.m_volumeBlocks;
        const u64 length = std::min(1 + random() % longest, geometry.m_volumeBlocks - offset);
        ASSERT_EQ(map.add(offset, length, NO_LIMIT), RC_SUCCESS);
        for (u64 block = offset; block < offset + length; ++block)
            model.insert(block / granuleBlocks);
    }
    EXPECT_EQ(map.granules(), model.size());
    const Ranges expected = rangesOf(model, geometry);
    EXPECT_EQ(map.ranges(), expected);

    const std::string bytes = map.serialize();
    GranuleMap again(geometry);
    ASSERT_TRUE(again.deserialize(bytes));
    EXPECT_EQ(again.ranges(), expected);
    EXPECT_EQ(again.memoryBytes(), map.memoryBytes());
    // What was made compact takes more as any other does.
    ASSERT_EQ(again.add(0, 1, NO_LIMIT), RC_SUCCESS);
    model.insert(0);
    EXPECT_EQ(again.ranges(), rangesOf(model, geometry));
}

TEST(GranuleMapTest, RandomEqualsAPlainSet)
{
    for (u64 seed = 1; seed <= (IS_WATCHED ? 10 : 40); ++seed) {
        compareWithSet(seed);
        ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed;
    }
}

// ---- the limit ----

TEST(GranuleMapTest, RefusesWhatMightPassTheLimitAndMarksNothing)
{
    constexpr u64 LIMIT = 20000;
    std::mt19937_64 random(5);
    GranuleMap map({u64{1} << 30, 8});
    std::set<u64> model;
    RcStatus rc = RC_SUCCESS;
    u64 block = 0;
    while (rc == RC_SUCCESS) {
        block = random() % (u64{1} << 30);
        rc = map.add(block, 1, LIMIT);
        if (rc == RC_SUCCESS)
            model.insert(block / 8);
        ASSERT_LE(map.memoryBytes(), LIMIT);
        ASSERT_LT(model.size(), LIMIT);
    }
    EXPECT_EQ(rc, RC_NO_MEMORY);
    EXPECT_EQ(map.ranges(), rangesOf(model, map.geometry()));
    // 20000 bytes are good for hundreds of scattered granules, at 50 bytes each.
    EXPECT_GT(model.size(), 300U);
    // What it has it takes again; and with more room it goes on.
    for (const u64 granule : model)
        EXPECT_EQ(map.add(granule * 8 + 3, 1, LIMIT), RC_SUCCESS);
    EXPECT_EQ(map.add(block, 1, LIMIT), RC_NO_MEMORY);
    EXPECT_EQ(map.add(block, 1, 2 * LIMIT), RC_SUCCESS);
}

TEST(GranuleMapTest, TheLimitCountsWhatIsTakenNotHowOftenItWasAdded)
{
    GranuleMap map({u64{1} << 30, 8});
    // One container whose 60000 entries become plain bits of 8 KiB.
    for (u64 granule = 0; granule < 60000; ++granule)
        ASSERT_EQ(map.add((granule * 7919 % 65536) * 8, 1, 20000), RC_SUCCESS) << granule;
    EXPECT_EQ(map.granules(), 60000U);
}

TEST(GranuleMapTest, WithoutRoomItTakesNothing)
{
    GranuleMap map({100, 8});
    EXPECT_EQ(map.add(0, 1, 0), RC_NO_MEMORY);
    EXPECT_TRUE(map.isEmpty());
}

TEST(GranuleMapTest, MarkingAHugeVolumeAtOnceTakesLittle)
{
    GranuleMap map({u64{1} << 35, 8});
    EXPECT_EQ(map.add(0, u64{1} << 35, u64{8} << 20), RC_SUCCESS);
}

// ---- what is not a bitmap ----

TEST(GranuleMapTest, RefusesBytesThatAreNoBitmapOfTheVolume)
{
    GranuleMap map({800, 8});
    ASSERT_EQ(map.add(792, 1, NO_LIMIT), RC_SUCCESS);
    const std::string bytes = map.serialize();
    EXPECT_TRUE(map.deserialize(bytes));
    EXPECT_FALSE(map.deserialize(""));
    EXPECT_TRUE(map.isEmpty());
    EXPECT_FALSE(map.deserialize(bytes + '\0'));
    for (size_t length = 0; length < bytes.size(); ++length)
        EXPECT_FALSE(map.deserialize(bytes.substr(0, length))) << length;
    EXPECT_FALSE(map.deserialize(std::string(100, 'x')));
    GranuleMap shorter({792, 8});
    EXPECT_FALSE(shorter.deserialize(bytes));
    EXPECT_TRUE(shorter.isEmpty());
    EXPECT_TRUE(map.deserialize(bytes));
    EXPECT_EQ(map.ranges(), (Ranges{{792, 8}}));
}

} // namespace
