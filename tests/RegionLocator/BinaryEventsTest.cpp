#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "common/infra/BinaryLogger.h"
#include "common/infra/DynamicTweaks.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

struct Event
{
    u32 m_code;
    u64 m_view;
    u8 m_kind;
    u64 m_length;
    u64 m_address;

    bool operator==(const Event&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Event& event)
{
    return out << event.m_code << " view " << event.m_view << " kind "
               << static_cast<u32>(event.m_kind) << " length " << event.m_length << " address "
               << event.m_address;
}

class BinaryEventsTest : public testing::Test
{
protected:
    BinaryEventsTest()
    {
        m_before =
            BinaryLogger::setSink([this](u32 code, u64 view, u8 kind, u64 length, u64 address) {
                m_events.push_back({code, view, kind, length, address});
                m_order.push_back(std::to_string(code));
            });
    }

    ~BinaryEventsTest() override
    {
        BinaryLogger::setSink(m_before);
        DynamicTweaks* tweaks = DynamicTweaks::instance();
        tweaks->t_BinVerboseLogs = false;
        tweaks->t_RlVerboseLogs = false;
        tweaks->t_IOVerboseLogs = false;
    }

    static void binaryVerbose(bool on) { DynamicTweaks::instance()->t_BinVerboseLogs = on; }

    std::vector<Event> eventsOfInserting(const SubRegionDescriptor& region)
    {
        m_events.clear();
        binaryVerbose(true);
        EXPECT_TRUE(insertRegion(m_locator, region));
        binaryVerbose(false);
        return m_events;
    }

    LogCapture m_log;
    RegionLocator m_locator{1, RL_MMI_View};
    BinaryLogger::Sink m_before;
    std::vector<Event> m_events;
    std::vector<std::string> m_order; // of events, and of log records where a test adds them
};

// ---- one record ----

TEST_F(BinaryEventsTest, RecordOfARegionWithData)
{
    const SubRegionDescriptor plain = plainRegion(8, 65535, 103, 3);
    binaryLogSfsRegionDesc(0xFFFFFFFF, &plain);
    const SubRegionDescriptor compressed =
        compressedRegion(~u64{0}, 4, 0xFFFF00000000FFFF, 2, 900, true);
    binaryLogSfsRegionDesc(0, &compressed);
    EXPECT_EQ(m_events, (std::vector<Event>{{0xFFFFFFFF, 8, 40, 65535, 103},
                                            {0, ~u64{0}, 40, 4, 0xFFFF00000000FFFF}}));
}

TEST_F(BinaryEventsTest, RecordOfZeroes)
{
    const SubRegionDescriptor zeroes = zeroesRegion(8, 4);
    binaryLogSfsRegionDesc(23, &zeroes);
    EXPECT_EQ(m_events, (std::vector<Event>{{23, 8, 41, 4, 0xFFFFFFFFFFFFFFFF}}));
}

TEST_F(BinaryEventsTest, RecordIsWrittenWhateverTheTweak)
{
    const SubRegionDescriptor plain = plainRegion(8, 4, 100);
    binaryLogSfsRegionDesc(21, &plain); // the tweak is its callers' business
    EXPECT_EQ(m_events.size(), 1u);
}

// ---- the events of an insert ----

TEST_F(BinaryEventsTest, NoneWhileTheTweakIsOff)
{
    DynamicTweaks::instance()->t_RlVerboseLogs = true;
    DynamicTweaks::instance()->t_IOVerboseLogs = true;
    insertRegion(m_locator, plainRegion(0, 8, 100));
    insertRegion(m_locator, plainRegion(2, 4, 200));
    EXPECT_TRUE(m_events.empty());
}

TEST_F(BinaryEventsTest, InsertIntoAnEmptyLocator)
{
    EXPECT_EQ(eventsOfInserting(plainRegion(8, 8, 100)), (std::vector<Event>{{23, 8, 40, 8, 100}}));
}

TEST_F(BinaryEventsTest, InsertOverAWholeRegionWritesNothingOfTheOldOne)
{
    insertRegion(m_locator, plainRegion(8, 8, 100));
    EXPECT_EQ(eventsOfInserting(zeroesRegion(8, 8)), (std::vector<Event>{{23, 8, 41, 8, ~u64{0}}}));
}

TEST_F(BinaryEventsTest, InsertIntoTheMiddleWritesTheCutItsRemaindersAndTheNewRegion)
{
    insertRegion(m_locator, plainRegion(8, 8, 100));
    EXPECT_EQ(
        eventsOfInserting(plainRegion(10, 2, 200)),
        (std::vector<Event>{
            {21, 8, 40, 8, 100}, {22, 8, 40, 2, 100}, {22, 12, 40, 4, 104}, {23, 10, 40, 2, 200}}));
}

TEST_F(BinaryEventsTest, InsertIntoTheMiddleOfZeroesAndOfCompressed)
{
    insertRegion(m_locator, zeroesRegion(8, 8));
    EXPECT_EQ(eventsOfInserting(plainRegion(10, 2, 200)),
              (std::vector<Event>{{21, 8, 41, 8, ~u64{0}},
                                  {22, 8, 41, 2, ~u64{0}},
                                  {22, 12, 41, 4, ~u64{0}},
                                  {23, 10, 40, 2, 200}}));
    insertRegion(m_locator, compressedRegion(8, 8, 300));
    EXPECT_EQ(
        eventsOfInserting(plainRegion(10, 2, 200)),
        (std::vector<Event>{
            {21, 8, 40, 8, 300}, {22, 8, 40, 2, 300}, {22, 12, 40, 4, 300}, {23, 10, 40, 2, 200}}));
}

TEST_F(BinaryEventsTest, InsertOverSeveralGoesFromLeftToRight)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    insertRegion(m_locator, zeroesRegion(8, 4));
    insertRegion(m_locator, plainRegion(12, 8, 300));
    EXPECT_EQ(eventsOfInserting(plainRegion(6, 8, 400)), (std::vector<Event>{{21, 0, 40, 8, 100},
                                                                             {22, 0, 40, 6, 100},
                                                                             {21, 12, 40, 8, 300},
                                                                             {22, 14, 40, 6, 302},
                                                                             {23, 6, 40, 8, 400}}));
}

TEST_F(BinaryEventsTest, RefusedInsertWritesNone)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    const Regions pieces = lockRange(m_locator, 0, 8);
    binaryVerbose(true);
    EXPECT_FALSE(insertRegion(m_locator, plainRegion(0, 8, 200)));
    binaryVerbose(false);
    EXPECT_TRUE(m_events.empty());
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(BinaryEventsTest, RemovalWritesTheCutAndItsRemainders)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    binaryVerbose(true);
    removeRange(m_locator, 2, 2);
    binaryVerbose(false);
    EXPECT_EQ(m_events,
              (std::vector<Event>{{21, 0, 40, 8, 100}, {22, 0, 40, 2, 100}, {22, 4, 40, 4, 104}}));
}

TEST_F(BinaryEventsTest, StandBetweenTheTracesOfTheSameSteps)
{
    insertRegion(m_locator, plainRegion(8, 8, 100));
    const LogItem::Sink before = LogItem::setSink(
        [this](LogModule, LogLevel, const std::string&, int, const std::string& text) {
            m_order.push_back(text.substr(text.find(">: ") + 3).substr(0, 6));
        });
    m_order.clear();
    DynamicTweaks::instance()->t_RlVerboseLogs = true;
    eventsOfInserting(plainRegion(10, 2, 200));
    LogItem::setSink(before);
    EXPECT_EQ(m_order, (std::vector<std::string>{"[view=", " a_reg", "21", "erase ", "22", "insert",
                                                 "22", "insert", "23", "result"}));
}

TEST_F(BinaryEventsTest, CutIsWrittenWhileTheRegionIsStillStored)
{
    insertRegion(m_locator, plainRegion(8, 8, 100));
    std::vector<size_t> sizes;
    const BinaryLogger::Sink before = BinaryLogger::setSink(
        [&](u32, u64, u8, u64, u64) { sizes.push_back(Access::unlocked(m_locator)->size()); });
    eventsOfInserting(plainRegion(10, 2, 200));
    BinaryLogger::setSink(before);
    // Each record comes before its own change: the cut, two remainders, the new region.
    EXPECT_EQ(sizes, (std::vector<size_t>{1, 0, 1, 2}));
}

} // namespace
