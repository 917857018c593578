#include <cstddef>
#include <future>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <sstream>

#include "host/infra/MemWatchedReport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

constexpr u64 NO_OFFSET = 0xFFFFFFFFFFFFFFFF;
const char* const PRINT_SIGNATURE = "void RegionLocator::printStatistics(const std::string&)";

// The numbers of a statistics line.
struct Line
{
    u64 m_inserts = 0;
    u64 m_insertLbs = 0;
    int m_overlapPerc = 0;
    u64 m_unlocked = 0;
    u64 m_locked = 0;
    u64 m_total = 0;
    u64 m_avgIo = 0;
    u64 m_avgRegion = 0;
    u64 m_merges = 0;

    std::string text(const std::string& prefix, const void* locator) const
    {
        std::ostringstream out;
        out << "RLSTATS " << prefix << "<" << locator << ">:  m_counters.getInserts()=" << m_inserts
            << "  m_counters.getInsertLbs()=" << m_insertLbs << "  overlapPerc=" << m_overlapPerc
            << "  m_unlockedRegions->size()=" << m_unlocked
            << "  m_lockedRegions->size()=" << m_locked << "  totalRegionBlocks=" << m_total
            << "  avgIoSizeLbs=" << m_avgIo << "  avgRegionSizeLbs=" << m_avgRegion
            << "  m_counters.getMerges()=" << m_merges << " ";
        return out.str();
    }
};

class StatisticsTest : public testing::Test
{
protected:
    void insert(const Regions& regions)
    {
        for (const SubRegionDescriptor& region : regions)
            EXPECT_TRUE(insertRegion(*m_locator, region)) << region;
    }

    void expectLine(const Line& line, const std::string& prefix = "prefix ")
    {
        m_log.clear();
        m_locator->printStatistics(prefix);
        EXPECT_TRUE(isRecord(m_log.only(), LogModuleXel, InfoLevel, 3, PRINT_SIGNATURE,
                             line.text(prefix, m_locator.get())));
    }

    LogCapture m_log;
    std::unique_ptr<RegionLocator> m_locator = std::make_unique<RegionLocator>(1, RL_MMI_View);
};

// ---- a new locator ----

TEST_F(StatisticsTest, NewLocatorHoldsNothing)
{
    EXPECT_EQ(m_locator->getFirstOffest(), NO_OFFSET);
    EXPECT_EQ(m_locator->getItemCount(), 0u);
    EXPECT_EQ(m_locator->getTotalRegionBlocks(), 0u);
    EXPECT_FALSE(Access::immutable(*m_locator));
    EXPECT_EQ(Access::lockWaiter(*m_locator), nullptr);
    EXPECT_EQ(m_locator->getMemPool()->getActiveVoucher(), nullptr);
    EXPECT_NE(m_locator->getInsertContainer(), nullptr);
    EXPECT_NE(m_locator->getInsertAllButRemoveMdOnlyContainer(), nullptr);
    EXPECT_EQ(m_locator->getMerges(), 0u);
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(StatisticsTest, PoolKnowsTheLocatorsId)
{
    RegionLocator locator(0x123456789ULL, RL_MMI_MD5);
    EXPECT_EQ(Access::id(*locator.getMemPool()), 0x123456789u);
    EXPECT_EQ(Access::pool(Access::allocator(locator)), locator.getMemPool());
}

TEST_F(StatisticsTest, MmiTypesHaveTheirNumbers)
{
    EXPECT_EQ(RL_MMI_MD5, 0u);
    EXPECT_EQ(RL_MMI_View, 1u);
    EXPECT_EQ(RL_MMI_Backup, 2u);
    EXPECT_EQ(RL_MMI_Apply, 3u);
}

// ---- counters ----

TEST(RegionLocatorCountersTest, BeginAtZeroAndGrow)
{
    RegionLocatorCounters counters;
    EXPECT_EQ(counters.getMerges(), 0u);
    EXPECT_EQ(counters.getInserts(), 0u);
    EXPECT_EQ(counters.getInsertLbs(), 0u);
    counters.updateInserts(65535);
    counters.updateInserts(1);
    counters.updateMerges();
    EXPECT_EQ(counters.getMerges(), 1u);
    EXPECT_EQ(counters.getInserts(), 2u);
    EXPECT_EQ(counters.getInsertLbs(), 65536u);
    EXPECT_EQ(sizeof(RegionLocatorCounters), 24u);
}

TEST(RegionLocatorStatisticsRecordTest, BeginsAtZeroInItsOrder)
{
    const RegionLocatorStatistics statistics;
    EXPECT_EQ(statistics.m_numIOsInserted, 0u);
    EXPECT_EQ(statistics.m_bytesInserted, 0u);
    EXPECT_EQ(statistics.m_uniqueBytesIosCover, 0u);
    EXPECT_EQ(statistics.m_numRegionsCreated, 0u);
    EXPECT_EQ(offsetof(RegionLocatorStatistics, m_numIOsInserted), 0u);
    EXPECT_EQ(offsetof(RegionLocatorStatistics, m_bytesInserted), 8u);
    EXPECT_EQ(offsetof(RegionLocatorStatistics, m_uniqueBytesIosCover), 16u);
    EXPECT_EQ(offsetof(RegionLocatorStatistics, m_numRegionsCreated), 24u);
    EXPECT_EQ(sizeof(RegionLocatorStatistics), 32u);
}

// ---- contents ----

TEST_F(StatisticsTest, FirstOffsetIsTheSmallerOfBothMaps)
{
    insert({plainRegion(10, 4, 100), plainRegion(20, 4, 200), plainRegion(30, 4, 300)});
    EXPECT_EQ(m_locator->getFirstOffest(), 10u);
    const Regions first = lockRange(*m_locator, 10, 4);
    EXPECT_EQ(m_locator->getFirstOffest(), 10u); // the locked one is before
    unlockAndRestoreRegions(*m_locator, first);
    const Regions second = lockRange(*m_locator, 20, 4);
    EXPECT_EQ(m_locator->getFirstOffest(), 10u); // the locked one is behind
    unlockAndRestoreRegions(*m_locator, second);
}

TEST_F(StatisticsTest, FirstOffsetWithOnlyLockedRegions)
{
    insert({plainRegion(10, 4, 100), plainRegion(20, 4, 200)});
    const Regions pieces = lockRange(*m_locator, 12, 100);
    const Regions rest = lockRange(*m_locator, 0, 12);
    EXPECT_EQ(m_locator->getFirstOffest(), 10u);
    unlockAndRemoveRegions(*m_locator, rest);
    EXPECT_EQ(m_locator->getFirstOffest(), 12u);
    unlockAndRemoveRegions(*m_locator, pieces);
    EXPECT_EQ(m_locator->getFirstOffest(), NO_OFFSET);
}

TEST_F(StatisticsTest, FirstOffsetZeroIsAnOffset)
{
    insert({plainRegion(0, 1, 100)});
    EXPECT_EQ(m_locator->getFirstOffest(), 0u);
}

TEST_F(StatisticsTest, CountsAndBlocksAreOverBothMaps)
{
    insert({plainRegion(10, 4, 100), zeroesRegion(20, 8)});
    const Regions pieces = lockRange(*m_locator, 12, 1);
    EXPECT_EQ(m_locator->getItemCount(), 4u);
    EXPECT_EQ(m_locator->getTotalRegionBlocks(), 12u);
    {
        RegionLocator& locator = *m_locator;
        MutexGuard lock(Access::mutex(locator));
        EXPECT_EQ(locator.getItemCountLocked(), 4u);
        EXPECT_EQ(locator.getTotalRegionBlocksLocked(), 12u);
    }
    unlockAndRestoreRegions(*m_locator, pieces);
    EXPECT_EQ(m_locator->getItemCount(), 2u);
}

// ---- iterators ----

TEST_F(StatisticsTest, IteratorsWalkTheUnlockedRegionsOnly)
{
    insert({plainRegion(10, 4, 100), plainRegion(20, 4, 200), plainRegion(30, 4, 300)});
    const Regions pieces = lockRange(*m_locator, 20, 4);
    EXPECT_EQ(Regions(m_locator->getConstBeginIterator(), m_locator->getConstEndIterator()),
              (Regions{plainRegion(10, 4, 100), plainRegion(30, 4, 300)}));
    m_log.clear();
    unlockAndRestoreRegions(*m_locator, pieces);
}

TEST_F(StatisticsTest, IteratorsOfAnEmptyLocatorMeet)
{
    EXPECT_EQ(m_locator->getConstBeginIterator(), m_locator->getConstEndIterator());
}

TEST_F(StatisticsTest, EitherIteratorMakesTheLocatorImmutableForGood)
{
    RegionLocator begin(1, RL_MMI_View);
    begin.getConstBeginIterator();
    EXPECT_TRUE(Access::immutable(begin));
    RegionLocator end(1, RL_MMI_View);
    end.getConstEndIterator();
    EXPECT_TRUE(Access::immutable(end));
    insertRegion(end, plainRegion(0, 8, 100));
    EXPECT_TRUE(Access::immutable(end));
}

TEST_F(StatisticsTest, OtherQueriesDoNotMakeTheLocatorImmutable)
{
    m_locator->getFirstOffest();
    m_locator->getItemCount();
    m_locator->getTotalRegionBlocks();
    m_locator->getStatistics();
    m_locator->printStatistics("");
    EXPECT_FALSE(Access::immutable(*m_locator));
}

// ---- the statistics record ----

TEST_F(StatisticsTest, RecordOfANewLocatorIsZero)
{
    const RegionLocatorStatistics statistics = m_locator->getStatistics();
    EXPECT_EQ(statistics.m_numIOsInserted, 0u);
    EXPECT_EQ(statistics.m_bytesInserted, 0u);
    EXPECT_EQ(statistics.m_uniqueBytesIosCover, 0u);
    EXPECT_EQ(statistics.m_numRegionsCreated, 0u);
}

TEST_F(StatisticsTest, RecordCountsBytesAs512ABlockOverBothMaps)
{
    insert({plainRegion(0, 8, 100), plainRegion(2, 4, 200), zeroesRegion(100, 65535)});
    const Regions pieces = lockRange(*m_locator, 0, 8);
    const RegionLocatorStatistics statistics = m_locator->getStatistics();
    EXPECT_EQ(statistics.m_numIOsInserted, 3u);
    EXPECT_EQ(statistics.m_bytesInserted, (8u + 4 + 65535) * 512);
    EXPECT_EQ(statistics.m_uniqueBytesIosCover, (8u + 65535) * 512);
    EXPECT_EQ(statistics.m_numRegionsCreated, 4u);
    unlockAndRestoreRegions(*m_locator, pieces);
}

TEST_F(StatisticsTest, RecordIsToBeHadUnderTheMutex)
{
    MutexGuard lock(Access::mutex(*m_locator)); // not recursive: taking it again would hang
    EXPECT_EQ(m_locator->getStatistics().m_numIOsInserted, 0u);
}

// ---- the statistics line ----

TEST_F(StatisticsTest, LineOfANewLocator)
{
    expectLine({});
}

TEST_F(StatisticsTest, LineWithoutAPrefix)
{
    expectLine({}, "");
}

TEST_F(StatisticsTest, LineOfTheSameEightBlocksTwice)
{
    insert({plainRegion(8, 8, 100), plainRegion(8, 8, 200)});
    Line line;
    line.m_inserts = 2;
    line.m_insertLbs = 16;
    line.m_overlapPerc = 50;
    line.m_unlocked = 1;
    line.m_total = 8;
    line.m_avgIo = 8;
    line.m_avgRegion = 8;
    expectLine(line);
}

TEST_F(StatisticsTest, LineWithoutOverlap)
{
    insert({plainRegion(0, 8, 100), zeroesRegion(100, 4)});
    Line line;
    line.m_inserts = 2;
    line.m_insertLbs = 12;
    line.m_unlocked = 2;
    line.m_total = 12;
    line.m_avgIo = 6;
    line.m_avgRegion = 6;
    expectLine(line);
}

TEST_F(StatisticsTest, LineTruncatesItsQuotients)
{
    insert({plainRegion(0, 8, 100), plainRegion(0, 8, 200), plainRegion(0, 9, 300),
            plainRegion(4, 1, 400)});
    Line line;
    line.m_inserts = 4;
    line.m_insertLbs = 26;
    line.m_overlapPerc = 100 - 34; // 34.6
    line.m_unlocked = 3;
    line.m_total = 9;
    line.m_avgIo = 6; // 6.5
    line.m_avgRegion = 3;
    expectLine(line);
}

TEST_F(StatisticsTest, LineComputesThePercentageInSinglePrecision)
{
    // In single precision 29 of 100 is 29 percent; in double precision it would be 28.999999.
    insert({plainRegion(0, 29, 100), plainRegion(0, 29, 200), plainRegion(0, 29, 300),
            plainRegion(0, 13, 400)});
    Line line;
    line.m_inserts = 4;
    line.m_insertLbs = 100;
    line.m_overlapPerc = 71;
    line.m_unlocked = 2;
    line.m_total = 29;
    line.m_avgIo = 25;
    line.m_avgRegion = 14;
    expectLine(line);
}

TEST_F(StatisticsTest, LineAfterEverythingIsRemoved)
{
    insert({plainRegion(0, 8, 100)});
    removeRange(*m_locator, 0, 8);
    Line line;
    line.m_inserts = 1;
    line.m_insertLbs = 8;
    line.m_overlapPerc = 100;
    line.m_avgIo = 8;
    expectLine(line);
}

TEST_F(StatisticsTest, LineCountsLockedRegionsAndMerges)
{
    insert({plainRegion(0, 8, 100), plainRegion(20, 8, 200)});
    unlockAndRestoreRegions(*m_locator, lockRange(*m_locator, 2, 2));
    const Regions pieces = lockRange(*m_locator, 20, 8);
    Line line;
    line.m_inserts = 2;
    line.m_insertLbs = 16;
    line.m_unlocked = 1;
    line.m_locked = 1;
    line.m_total = 16;
    line.m_avgIo = 8;
    line.m_avgRegion = 8;
    line.m_merges = 2;
    expectLine(line);
    unlockAndRestoreRegions(*m_locator, pieces);
}

TEST_F(StatisticsTest, LineIsWrittenUnderTheMutex)
{
    bool free = true;
    const LogItem::Sink before =
        LogItem::setSink([&](LogModule, LogLevel, const std::string&, int, const std::string&) {
            // From another thread: who holds a mutex may not try it.
            free = std::async(std::launch::async, [this] {
                       const bool taken = Access::mutex(*m_locator).tryLock();
                       if (taken)
                           Access::mutex(*m_locator).unlock();
                       return taken;
                   }).get();
        });
    m_locator->printStatistics("prefix");
    LogItem::setSink(before);
    EXPECT_FALSE(free);
}

// ---- destruction ----

TEST_F(StatisticsTest, DestructionWritesExactlyOneLineForDtor)
{
    insert({plainRegion(8, 8, 100), plainRegion(8, 8, 200)});
    Line line;
    line.m_inserts = 2;
    line.m_insertLbs = 16;
    line.m_overlapPerc = 50;
    line.m_unlocked = 1;
    line.m_total = 8;
    line.m_avgIo = 8;
    line.m_avgRegion = 8;
    const void* address = m_locator.get();
    m_locator.reset();
    EXPECT_TRUE(isRecord(m_log.only(), LogModuleXel, InfoLevel, 3, PRINT_SIGNATURE,
                         line.text("dtor", address)));
}

TEST_F(StatisticsTest, DestructionWithLockedRegionsGivesEverythingBack)
{
    insert({plainRegion(8, 8, 100), plainRegion(20, 8, 200)});
    lockRange(*m_locator, 10, 2);
    m_locator.reset();
    EXPECT_EQ(m_log.records().size(), 1u);
}

// ---- the memory watcher ----

TEST_F(StatisticsTest, WatcherSeesTheLocatorUnderItsNameAndNumbers)
{
    MemWatchedContainer* watched = m_locator.get();
    EXPECT_STREQ(watched->getName(), "RegionLocator");
    EXPECT_EQ(watched->getItemSizeBytes(), 40u);
    EXPECT_EQ(watched->getOverheadBytes(), 12u);
    insert({plainRegion(8, 8, 100), plainRegion(20, 8, 200)});
    const Regions pieces = lockRange(*m_locator, 8, 1);
    EXPECT_EQ(watched->getItemCount(), 3u);
    unlockAndRestoreRegions(*m_locator, pieces);
}

// Locators that the host's watcher knows, and their items.
std::pair<u64, u64> watchedLocators()
{
    for (const MemWatchedGroup& group : memWatchedReport())
        if (group.m_name == "RegionLocator")
            return {group.m_containers, group.m_items};
    return {0, 0};
}

TEST_F(StatisticsTest, WatcherKnowsTheLocatorWhileItLives)
{
    const auto [containers, items] = watchedLocators();
    {
        RegionLocator other(2, RL_MMI_View);
        insertRegion(other, plainRegion(8, 8, 100));
        EXPECT_EQ(watchedLocators(), std::make_pair(containers + 1, items + 1));
    }
    EXPECT_EQ(watchedLocators(), std::make_pair(containers, items));
}

} // namespace
