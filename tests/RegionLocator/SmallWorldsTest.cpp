// All of a small world before anything random: eight blocks, every pair and triple of writes, every
// range locked beside every other one.

#include <array>
#include <gtest/gtest.h>

#include "tests/support/Accelerators.h"
#include "tests/support/LocatorModel.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sanitized.h"

namespace {

constexpr u32 WORLD_BLOCKS = 8;

struct Range
{
    u64 offset;
    u32 length;
};

std::vector<Range> allRanges()
{
    std::vector<Range> ranges;
    for (u64 offset = 0; offset < WORLD_BLOCKS; ++offset)
        for (u32 length = 1; offset + length <= WORLD_BLOCKS; ++length)
            ranges.push_back({offset, length});
    return ranges;
}

constexpr std::array<BlockOracle::Kind, 3> KINDS = {BlockOracle::Plain, BlockOracle::Compressed,
                                                    BlockOracle::Zeroes};

BlockOracle::Write makeWrite(const Range& range, BlockOracle::Kind kind, u64 number)
{
    // Apart in the journal by less than a world, so that addresses of different writes may touch.
    const u64 address = kind == BlockOracle::Zeroes ? ~u64{0} : 100 + number * WORLD_BLOCKS;
    return {range.offset, range.length, kind, address, 700};
}

std::string describe(const Range& range)
{
    return "[" + std::to_string(range.offset) + "+" + std::to_string(range.length) + "]";
}

// Each world plain and with everything that speeds a large index up.
class SmallWorldsTest : public testing::TestWithParam<u64>
{
    Accelerators m_accelerators{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Accelerators, SmallWorldsTest,
                         testing::Values(Accelerators::NONE, Accelerators::ALL));

TEST_P(SmallWorldsTest, EveryWriteOverEveryWriteThenEveryLookup)
{
    LogCapture log;
    const std::vector<Range> ranges = allRanges();
    for (const Range& older : ranges) {
        for (BlockOracle::Kind olderKind : KINDS) {
            for (const Range& newer : ranges) {
                for (BlockOracle::Kind newerKind : KINDS) {
                    LocatorModel model(WORLD_BLOCKS);
                    model.insert(makeWrite(older, olderKind, 0));
                    model.insert(makeWrite(newer, newerKind, 1));
                    model.verify();
                    for (const Range& looked : ranges)
                        model.lookup(looked.offset, looked.length);
                    ASSERT_EQ("", model.problem()) << describe(older) << describe(newer);
                    log.clear();
                }
            }
        }
    }
}

// Two writes, a range locked, and every third write: refused or stored beside the lock; then the
// lock is given back both ways.
TEST_P(SmallWorldsTest, EveryWriteBesideEveryLock)
{
    LogCapture log;
    const std::vector<Range> ranges = allRanges();
    size_t turn = 0;
    for (BlockOracle::Kind kind : KINDS) {
        for (const Range& cut : ranges) {
            for (const Range& locked : ranges) {
                // Beside a sanitizer every seventh, each time from another one on.
                for (size_t i = IS_WATCHED ? turn++ % 7 : 0; i < ranges.size();
                     i += IS_WATCHED ? 7 : 1) {
                    const Range& write = ranges[i];
                    for (bool restore : {true, false}) {
                        LocatorModel model(WORLD_BLOCKS);
                        model.insert(makeWrite({0, WORLD_BLOCKS}, kind, 0));
                        model.insert(makeWrite(cut, BlockOracle::Plain, 1));
                        model.lock(locked.offset, locked.length);
                        model.verify();
                        model.insert(makeWrite(write, kind, 2));
                        model.verify();
                        while (model.heldLists() > 0 && model.problem().empty())
                            model.unlock(0, restore);
                        model.verify();
                        ASSERT_EQ("", model.problem())
                            << describe(cut) << describe(locked) << describe(write) << restore;
                        log.clear();
                    }
                }
            }
        }
    }
}

// Every range removed from a world of three writes.
TEST_P(SmallWorldsTest, EveryRemovalFromEveryCut)
{
    LogCapture log;
    const std::vector<Range> ranges = allRanges();
    for (BlockOracle::Kind kind : KINDS) {
        for (const Range& cut : ranges) {
            for (const Range& removed : ranges) {
                for (bool throughFeeder : {true, false}) {
                    LocatorModel model(WORLD_BLOCKS);
                    model.insert(makeWrite({0, 5}, kind, 0));
                    model.insert(makeWrite(cut, BlockOracle::Compressed, 1));
                    if (throughFeeder)
                        model.feedMdOnly(removed.offset, removed.length);
                    else
                        model.removeRange(removed.offset, removed.length);
                    model.verify();
                    ASSERT_EQ("", model.problem()) << describe(cut) << describe(removed);
                    log.clear();
                }
            }
        }
    }
}

// Every pair of ranges locked one after the other: beside each other, or the second one parked
// until the first is given back, dropped or restored, in one go or block by block.
TEST_P(SmallWorldsTest, EveryLockThatMeetsEveryLock)
{
    LogCapture log;
    const std::vector<Range> ranges = allRanges();
    for (BlockOracle::Kind kind : KINDS) {
        for (const Range& first : ranges) {
            for (const Range& second : ranges) {
                for (bool restore : {true, false}) {
                    for (bool bit : {true, false}) {
                        LocatorModel model(WORLD_BLOCKS);
                        model.insert(makeWrite({1, 6}, kind, 0));
                        model.insert(makeWrite({3, 2}, BlockOracle::Plain, 1));
                        model.lock(first.offset, first.length);
                        model.lock(second.offset, second.length);
                        model.verify();
                        while (model.heldLists() > 0 && model.problem().empty()) {
                            if (bit)
                                model.unlockPartOfPiece(0, 0, 0, 1, restore);
                            else
                                model.unlock(0, restore);
                            model.verify();
                        }
                        ASSERT_FALSE(model.parked());
                        ASSERT_EQ("", model.problem())
                            << describe(first) << describe(second) << restore << bit;
                        log.clear();
                    }
                }
            }
        }
    }
}

} // namespace
