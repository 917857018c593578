#include "RegionLocator/HeldBackInserts.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <thread>
#include <tuple>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "common/infra/DynamicTweaks.h"
#include "tests/support/Accelerators.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

SfsDiskMetaItem item(u64 offset, u32 length, u64 address)
{
    SfsDiskMetaItem made;
    made.m_ioData = {address, offset};
    made.setUncompressedLengthBlocks(length);
    made.setType(SfsMetaType::UNCOMPRESSED_IO);
    return made;
}

TEST(HeldBackInsertsTest, KeepsRegionsInTheirOrderUntilItIsFull)
{
    HeldBackInserts held;
    EXPECT_TRUE(held.empty());
    RegionLocatorVoucher voucher;
    EXPECT_FALSE(held.isOpen());
    EXPECT_FALSE(held.add(plainRegion(0, 1, 0), &voucher));
    held.open(&voucher);
    EXPECT_TRUE(held.isOpen());
    for (u64 i = 0; i < HeldBackInserts::MOST; ++i)
        EXPECT_TRUE(held.add(plainRegion(100 - i, 1, i), &voucher));
    EXPECT_FALSE(held.add(plainRegion(0, 1, 0), &voucher));
    held.close();
    EXPECT_FALSE(held.isOpen());
    EXPECT_EQ(held.voucher(), &voucher);
    u64 i = 0;
    for (const SubRegionDescriptor& region : held) {
        EXPECT_EQ(region, plainRegion(100 - i, 1, i));
        ++i;
    }
    EXPECT_EQ(i, HeldBackInserts::MOST);
    held.clear();
    EXPECT_TRUE(held.empty());
}

TEST(HeldBackInsertsTest, KeepsRegionsOfTheVoucherThatItWasOpenedForOnly)
{
    HeldBackInserts held;
    RegionLocatorVoucher one;
    RegionLocatorVoucher other;
    held.open(&one);
    EXPECT_FALSE(held.add(plainRegion(0, 1, 0), &other));
    EXPECT_TRUE(held.add(plainRegion(0, 1, 0), &one));
    EXPECT_EQ(held.size(), 1U);
    held.close();
    EXPECT_FALSE(held.add(plainRegion(0, 1, 0), &one));
}

TEST(HeldBackInsertsTest, MakesRegionsOfItems)
{
    HeldBackInserts held;
    RegionLocatorVoucher voucher;
    EXPECT_FALSE(held.add(item(0, 8, 100), &voucher));
    held.open(&voucher);
    Regions expected;
    for (const SfsMetaType type :
         {SfsMetaType::UNCOMPRESSED_IO, SfsMetaType::ZEROS, SfsMetaType::COMPRESSED_IO}) {
        SfsDiskMetaItem made = item(8, 65535, 100);
        made.setType(type);
        made.setCompressedLengthBytes(777);
        EXPECT_TRUE(held.add(made, &voucher));
        expected.emplace_back(SfsItemDescriptor::genFromSfsDiskMetaItem(made));
    }
    // A region holds no such length; who inserts it reports that.
    EXPECT_FALSE(held.add(item(0, 0, 100), &voucher));
    EXPECT_FALSE(held.add(item(0, 65536, 100), &voucher));
    held.close();
    EXPECT_EQ(Regions(held.begin(), held.end()), expected);
}

// What was added before it was closed is there, and nothing comes after that.
TEST(HeldBackInsertsTest, ClosesAgainstAddsOfAnotherThread)
{
    HeldBackInserts held;
    RegionLocatorVoucher voucher;
    std::atomic<u64> added{0};
    std::atomic<bool> done{false};
    std::thread scan([&] {
        while (!done) {
            if (held.isOpen() && held.add(plainRegion(added, 1, added), &voucher))
                added.fetch_add(1);
        }
    });
    u64 seen = 0;
    for (int round = 0; round < 200 || seen < 200; ++round) {
        held.open(&voucher);
        std::this_thread::yield();
        held.close();
        const u32 size = held.size();
        u64 next = seen;
        for (const SubRegionDescriptor& region : held)
            EXPECT_EQ(region.m_viewOffsetBlocks, next++);
        EXPECT_EQ(held.size(), size);
        seen = next;
        held.clear();
    }
    done = true;
    scan.join();
    EXPECT_EQ(added.load(), seen);
}

// A locator that holds back the items of a scan from the first region on.
class ScanTest : public testing::Test
{
protected:
    ScanTest() : m_accelerators(Accelerators::ALL), m_locator(1, RL_MMI_View)
    {
        insertRegion(m_locator, plainRegion(1000, 8, 1000));
        m_feeder = m_locator.getInsertContainer();
        EXPECT_EQ(m_feeder->prepareToAdd(1000, 0).get(), RC_SUCCESS);
    }
    ~ScanTest() override { m_feeder->unPrepareToAdd(); }

    void add(u64 offset, u32 length, u64 address)
    {
        EXPECT_EQ(m_feeder->addMetaData(item(offset, length, address), JournalPtr::invalid),
                  RC_SUCCESS);
    }
    u32 heldBack() { return Access::heldBack(m_locator); }

    LogCapture m_log;
    Accelerators m_accelerators;
    RegionLocator m_locator;
    RegionLocatorMetaDataContainer_Insert* m_feeder;
};

TEST_F(ScanTest, HoldsItsItemsBackAndInsertsThemWhenThereAreEnough)
{
    for (u32 i = 0; i < HeldBackInserts::MOST; ++i) {
        add(8 * i, 8, 8 * i);
        EXPECT_EQ(heldBack(), i + 1);
    }
    add(800, 8, 800);
    EXPECT_EQ(heldBack(), 1U);
    EXPECT_EQ(m_locator.getItemCount(), HeldBackInserts::MOST + 2U);
    EXPECT_EQ(heldBack(), 0U);
}

// Items that begin where the one before ended are not searched for: over whatever is there.
TEST(ScanRunsTest, StoreWhatSingleInsertsStore)
{
    const LogCapture log;
    std::mt19937_64 random(11);
    for (const u64 accelerators : {Accelerators::SCANS, Accelerators::ALL}) {
        const Accelerators on(accelerators);
        RegionLocator fed(1, RL_MMI_View);
        RegionLocator single(2, RL_MMI_View);
        RegionLocatorMetaDataContainer_Insert* const feeder = fed.getInsertContainer();
        u64 next = 500;
        for (u32 round = 0; round < 60; ++round) {
            ASSERT_EQ(feeder->prepareToAdd(100, 0).get(), RC_SUCCESS);
            for (u32 i = 0; i < 100; ++i) {
                const u64 choice = random() % 8;
                if (choice == 0)
                    next = random() % 2000;
                else if (choice == 1 && next >= 8)
                    next -= random() % 8;
                const u32 length = static_cast<u32>(1 + random() % (round % 3 == 0 ? 3 : 40));
                const u64 address = 8 * (u64{round} * 100 + i) * 64;
                ASSERT_EQ(feeder->addMetaData(item(next, length, address), JournalPtr::invalid),
                          RC_SUCCESS);
                insertRegion(single, plainRegion(next, length, address));
                next += length;
            }
            feeder->unPrepareToAdd();
            ASSERT_EQ(fed.getItemCount(), single.getItemCount());
            ASSERT_EQ(fed.getTotalRegionBlocks(), single.getTotalRegionBlocks());
            ASSERT_EQ(lookupRange(fed, 0, 60000), lookupRange(single, 0, 60000));
        }
        EXPECT_EQ(tokensOut(fed), fed.getItemCount());
    }
}

// Whatever items come, in whatever order, from two scans at a time, over regions that a cut changes
// and that it does not, and up to the last block.
TEST(ScanRunsTest, StoreOfAnyItemsWhatAPlainLocatorStores)
{
    const LogCapture log;
    constexpr u64 WORLD_BLOCKS = 2000;
    constexpr u32 ITEMS = 120;
    const SfsMetaType types[] = {SfsMetaType::UNCOMPRESSED_IO, SfsMetaType::UNCOMPRESSED_IO,
                                 SfsMetaType::ZEROS, SfsMetaType::COMPRESSED_IO};
    std::mt19937_64 random(12);
    for (const u64 base : {u64{0}, (u64{1} << 48) - WORLD_BLOCKS / 2, ~u64{0} - WORLD_BLOCKS}) {
        std::vector<std::unique_ptr<RegionLocator>> locators;
        for (const u64 accelerators :
             {Accelerators::NONE, Accelerators::SCANS, Accelerators::ALL}) {
            const Accelerators on(accelerators);
            locators.push_back(std::make_unique<RegionLocator>(1, RL_MMI_View));
        }
        std::vector<std::pair<u64, u32>> ranges; // to be covered just so once more
        u64 next = base;
        for (u32 round = 0; round < 60; ++round) {
            std::vector<SfsDiskMetaItem> items;
            for (u32 i = 0; i < ITEMS; ++i) {
                const u64 choice = random() % 8;
                u32 length = static_cast<u32>(1 + random() % (choice == 7 ? 200 : 12));
                if (choice == 0 && !ranges.empty())
                    std::tie(next, length) = ranges[random() % ranges.size()];
                else if (choice < 3 || next + length - base > WORLD_BLOCKS)
                    next = base + random() % (WORLD_BLOCKS - length);
                items.push_back(item(next, length, 70000 * (u64{round} * ITEMS + i)));
                items.back().setType(types[random() % 4]);
                items.back().setCompressedLengthBytes(static_cast<u32>(1 + random() % 5000));
                ranges.emplace_back(next, length);
                next += length;
            }
            const auto checked = ranges[random() % ranges.size()];
            for (const auto& locator : locators) {
                // Regions of which a cut takes the flag, though it leaves them whole.
                insertRegion(*locator, compressedRegion(checked.first, checked.second, round, 0,
                                                        777, round % 2 == 0));
                SfsMetaDataContainer* const one = locator->getInsertContainer();
                SfsMetaDataContainer* const other = locator->getInsertAllButRemoveMdOnlyContainer();
                ASSERT_EQ(one->prepareToAdd(ITEMS, 0).get(), RC_SUCCESS);
                ASSERT_EQ(other->prepareToAdd(ITEMS, 0).get(), RC_SUCCESS);
                for (u32 i = 0; i < ITEMS; ++i) {
                    SfsMetaDataContainer* const feeder =
                        round % 3 == 0 && i / 5 % 3 == 0 ? other : one;
                    ASSERT_EQ(feeder->addMetaData(items[i], JournalPtr::invalid), RC_SUCCESS);
                }
                one->unPrepareToAdd();
                other->unPrepareToAdd();
                EXPECT_EQ(tokensOut(*locator), locator->getItemCount());
                ASSERT_EQ(Access::regions(*locator, false), Access::regions(*locators[0], false));
                ASSERT_EQ(locator->getTotalRegionBlocks(), locators[0]->getTotalRegionBlocks());
            }
            if (ranges.size() > 300)
                ranges.erase(ranges.begin(), ranges.begin() + 200);
        }
    }
    EXPECT_TRUE(log.softChecks().empty());
}

TEST_F(ScanTest, InsertsInTheOrderOfTheJournal)
{
    add(0, 8, 100);
    add(4, 8, 200);
    add(0, 2, 300);
    EXPECT_EQ(lookupRange(m_locator, 0, 20),
              (Regions{plainRegion(0, 2, 300), plainRegion(2, 2, 102, 2), plainRegion(4, 8, 200)}));
}

// Whatever is asked for, the items that were handed over before are in.
TEST_F(ScanTest, EveryOperationFindsWhatWasHandedOver)
{
    const VoucherGuard voucher(m_locator.getMemPool(), 100);
    Regions found;
    const std::vector<std::pair<const char*, std::function<void()>>> operations = {
        {"getItemCount", [&] { EXPECT_EQ(m_locator.getItemCount(), 2U); }},
        {"getTotalRegionBlocks", [&] { EXPECT_EQ(m_locator.getTotalRegionBlocks(), 16U); }},
        {"getFirstOffest", [&] { EXPECT_EQ(m_locator.getFirstOffest(), 500U); }},
        {"getStatistics",
         [&] {
             const RegionLocatorStatistics statistics = m_locator.getStatistics();
             EXPECT_EQ(statistics.m_numRegionsCreated, 2U);
             EXPECT_EQ(statistics.m_uniqueBytesIosCover, 16U * 512);
         }},
        {"printStatistics",
         [&] {
             m_log.clear();
             m_locator.printStatistics("p");
             EXPECT_NE(m_log.only().m_text.find("m_unlockedRegions->size()=2"), std::string::npos);
         }},
        {"lookup", [&] { EXPECT_EQ(lookupRange(m_locator, 500, 8).size(), 1U); }},
        {"lock and unlock",
         [&] {
             m_locator.lookup(nullptr, 500, 8, &found, true, voucher);
             EXPECT_EQ(found.size(), 1U);
             m_locator.unlockAndRestore(found, voucher);
         }},
        {"getFirstRegionsAndLock",
         [&] {
             m_locator.getFirstRegionsAndLock(nullptr, 1, &found, voucher);
             ASSERT_EQ(found.size(), 1U);
             EXPECT_EQ(found[0].m_viewOffsetBlocks, 500U);
             m_locator.unlockAndRestore(found, voucher);
         }},
        {"insert",
         [&] {
             m_locator.insert(plainRegion(500, 8, 7777), voucher);
             EXPECT_EQ(lookupRange(m_locator, 500, 8), Regions{plainRegion(500, 8, 7777)});
         }},
        {"remove by range",
         [&] {
             m_locator.remove(500, 4, voucher);
             EXPECT_EQ(lookupRange(m_locator, 500, 8).size(), 1U);
         }},
        {"remove exactly",
         [&] {
             m_locator.remove(plainRegion(500, 8, 500), voucher);
             EXPECT_TRUE(lookupRange(m_locator, 500, 8).empty());
         }},
        {"lockAndRemove",
         [&] {
             m_locator.lockAndRemove(nullptr, plainRegion(500, 8, 500), voucher);
             EXPECT_TRUE(lookupRange(m_locator, 500, 8).empty());
         }},
        {"unPrepareToAdd",
         [&] {
             m_feeder->unPrepareToAdd();
             EXPECT_EQ(Access::unlocked(m_locator)->size(), 2U);
             EXPECT_EQ(m_feeder->prepareToAdd(100, 0).get(), RC_SUCCESS);
         }},
    };
    for (const auto& [name, operation] : operations) {
        SCOPED_TRACE(name);
        add(500, 8, 500);
        EXPECT_EQ(heldBack(), 1U);
        operation();
        EXPECT_EQ(heldBack(), 0U);
    }
}

// They take no lock, so who holds it may ask as well, and gets what is in by then.
TEST_F(ScanTest, StatisticsAreToldUnderTheMutexToo)
{
    add(0, 8, 10);
    ASSERT_EQ(heldBack(), 1u);
    {
        MutexGuard guard(Access::mutex(m_locator));
        EXPECT_EQ(m_locator.getStatistics().m_numIOsInserted, 1u);
    }
    EXPECT_EQ(m_locator.getStatistics().m_numIOsInserted, 2u);
    EXPECT_EQ(heldBack(), 0u);
}

// They may be asked for at any moment, and no item of the scan is lost by it.
TEST_F(ScanTest, StatisticsBesideAScanLoseNothing)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a momentary view looks at what another thread changes, by design";
#endif
    constexpr u64 ITEMS = 100000;
    std::atomic<bool> done{false};
    std::thread asks([&] {
        while (!done)
            EXPECT_LE(m_locator.getStatistics().m_numIOsInserted, ITEMS + 1);
    });
    for (u64 i = 0; i < ITEMS; ++i) {
        if (i % 1000 == 0) {
            m_feeder->unPrepareToAdd();
            ASSERT_EQ(m_feeder->prepareToAdd(1000, 0).get(), RC_SUCCESS);
        }
        add(2000 + 16 * i, 8, 10 * i);
    }
    done = true;
    asks.join();
    EXPECT_EQ(m_locator.getItemCount(), ITEMS + 1);
    EXPECT_EQ(m_locator.getStatistics().m_numIOsInserted, ITEMS + 1);
}

TEST_F(ScanTest, WhatIsHeldBackIsInBeforeTheIteratorsAreOut)
{
    add(500, 8, 500);
    const RegionMap::const_iterator begin = m_locator.getConstBeginIterator();
    EXPECT_EQ(*begin, plainRegion(500, 8, 500));
    EXPECT_EQ(std::distance(begin, m_locator.getConstEndIterator()), 2);
    // From now on each item is reported as it comes.
    m_log.clear();
    add(600, 8, 600);
    EXPECT_EQ(heldBack(), 0U);
    EXPECT_TRUE(
        isSoftCheck(m_log.only(),
                    "bool RegionLocator::insert(const SubRegionDescriptor&, RegionLocatorVoucher*)",
                    "!m_immutable"));
}

TEST_F(ScanTest, AnItemThatMayBeRefusedIsNotHeldBack)
{
    const VoucherGuard voucher(m_locator.getMemPool(), 100);
    Regions locked;
    m_locator.lookup(nullptr, 1000, 8, &locked, true, voucher);
    add(1004, 8, 1);
    EXPECT_EQ(m_log.softChecks().size(), 1U);
    add(2000, 8, 1);
    EXPECT_EQ(heldBack(), 0U);
    EXPECT_EQ(m_locator.getItemCount(), 2U);
    m_locator.unlockAndRestore(locked, voucher);
}

TEST_F(ScanTest, ItemsAreTracedAsTheyComeAndThoseBeforeNotAtAll)
{
    add(500, 8, 500);
    m_log.clear();
    DynamicTweaks::instance()->t_RlVerboseLogs = true;
    add(600, 8, 600);
    DynamicTweaks::instance()->t_RlVerboseLogs = false;
    EXPECT_EQ(heldBack(), 0U);
    for (const LogRecord& record : m_log.records())
        EXPECT_EQ(record.m_text.find("view=500"), std::string::npos) << record;
    EXPECT_FALSE(m_log.records().empty());
    EXPECT_EQ(m_locator.getItemCount(), 3U);
}

TEST_F(ScanTest, TokensAddUpWhileItemsAreHeldBack)
{
    const u64 before = tokensOut(m_locator);
    for (u64 i = 0; i < 20; ++i)
        add(8 * i, 8, 8 * i);
    EXPECT_EQ(tokensOut(m_locator), before);
    m_feeder->unPrepareToAdd();
    EXPECT_EQ(tokensOut(m_locator), 21U);
}

TEST_F(ScanTest, AFeederThatGoesLeavesItsItems)
{
    {
        RegionLocatorMetaDataContainer_Insert feeder(&m_locator);
        ASSERT_EQ(feeder.prepareToAdd(10, 0).get(), RC_SUCCESS);
        add(100, 8, 100);
        // Items of another scan do not mix with this one's.
        feeder.addMetaData(item(200, 8, 200), JournalPtr::invalid);
        EXPECT_EQ(heldBack(), 1U);
    }
    EXPECT_EQ(heldBack(), 0U);
    EXPECT_EQ(m_locator.getItemCount(), 3U);
}

TEST(ScanOfASmallMapTest, HoldsNothingBack)
{
    const LogCapture log;
    RegionLocator locator(1, RL_MMI_View);
    auto* feeder = locator.getInsertContainer();
    ASSERT_EQ(feeder->prepareToAdd(10, 0).get(), RC_SUCCESS);
    feeder->addMetaData(item(0, 8, 0), JournalPtr::invalid);
    EXPECT_EQ(Access::heldBack(locator), 0U);
    EXPECT_EQ(Access::unlocked(locator)->size(), 1U);
    feeder->unPrepareToAdd();
}

} // namespace
