#include "RegionLocator/RegionLocatorMetaDataContainer.h"

#include <gtest/gtest.h>
#include <sstream>
#include <thread>

#include "RegionLocator/RegionLocator.h"
#include "host/infra/ManualClock.h"
#include "host/infra/MemShieldControl.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

constexpr u64 NONE = ~u64{0};
constexpr u32 CHUNK = 64 * 1024;
const std::string FILE_NAME = "../RegionLocatorMetaDataContainer.cpp";
const std::string INSERT_SIGNATURE =
    "void RegionLocatorMetaDataContainer_InsertAbstract::insert(const SfsDiskMetaItem&)";
const std::string INSERT_ADD_SIGNATURE =
    "virtual RcStatus RegionLocatorMetaDataContainer_Insert::addMetaData("
    "const SfsDiskMetaItem&, const JournalPtr&)";
const std::string OTHER_ADD_SIGNATURE =
    "virtual RcStatus RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly::addMetaData("
    "const SfsDiskMetaItem&, const JournalPtr&)";
const std::string PREPARE_SIGNATURE =
    "virtual FutureStatus RegionLocatorMetaDataContainer::prepareToAdd(int, u64)";
const std::string ABORT_SIGNATURE = "virtual void RegionLocatorMetaDataContainer::abort()";

SfsDiskMetaItem io(SfsMetaType type, u64 offset, u32 length, u64 address = 0, u32 storedBytes = 0)
{
    SfsDiskMetaItem item;
    item.m_ioData = {address, offset};
    item.setUncompressedLengthBlocks(length);
    item.setType(type);
    item.setCompressedLengthBytes(storedBytes);
    return item;
}

SfsDiskMetaItem checkpoint(CpId_t id, u64 timestamp)
{
    SfsDiskMetaItem item;
    item.m_cpData = {timestamp, id};
    item.setType(SfsMetaType::CHECKPOINT);
    return item;
}

std::string itemText(const SfsDiskMetaItem& item)
{
    std::ostringstream out;
    out << item;
    return out.str();
}

class FeederTest : public testing::Test
{
protected:
    Regions contents()
    {
        return {Access::unlocked(*m_locator)->begin(), Access::unlocked(*m_locator)->end()};
    }
    RcStatus add(SfsMetaDataContainer* feeder, const SfsDiskMetaItem& item)
    {
        return feeder->addMetaData(item, JournalPtr::invalid);
    }
    // Every item of the batch with memory for all of them, as a scan does it.
    void feed(SfsMetaDataContainer* feeder, const std::vector<SfsDiskMetaItem>& items)
    {
        ASSERT_EQ(feeder->prepareToAdd(static_cast<int>(items.size()), 0).get(), RC_SUCCESS);
        for (const SfsDiskMetaItem& item : items)
            EXPECT_EQ(add(feeder, item), RC_SUCCESS);
        feeder->unPrepareToAdd();
        EXPECT_EQ(tokensOut(*m_locator), m_locator->getItemCount());
    }
    RegionLocatorMetaDataContainer_Insert* insert() { return m_locator->getInsertContainer(); }
    RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly* other()
    {
        return m_locator->getInsertAllButRemoveMdOnlyContainer();
    }
    std::vector<RegionLocatorMetaDataContainer*> both() { return {insert(), other()}; }

    std::unique_ptr<RegionLocator> m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
};

using FeederDeathTest = FeederTest;

// ---- the reservation ----

TEST_F(FeederTest, EachOwnsOneVoucherOfItsLocator)
{
    EXPECT_EQ(Access::liveVouchers(*m_locator->getMemPool()), 2);
    {
        RegionLocatorMetaDataContainer_Insert third(m_locator.get());
        EXPECT_EQ(Access::liveVouchers(*m_locator->getMemPool()), 3);
        // With tokens left it gives them back, too.
        EXPECT_EQ(third.prepareToAdd(5, 0).get(), RC_SUCCESS);
        EXPECT_EQ(tokensOut(*m_locator), 10U);
    }
    EXPECT_EQ(Access::liveVouchers(*m_locator->getMemPool()), 2);
    EXPECT_EQ(tokensOut(*m_locator), 0U);
}

TEST_F(FeederTest, PreparesTwoTokensAnItemAndGivesBackWhatIsLeft)
{
    for (RegionLocatorMetaDataContainer* feeder : both()) {
        EXPECT_EQ(feeder->objsCountNeededForOperations(), 2);
        EXPECT_TRUE(feeder->isAddMetaDataDesireOffload());
        for (const int items : {0, 1, 17}) {
            const FutureStatus future = feeder->prepareToAdd(items, 0);
            EXPECT_TRUE(future.isSet());
            EXPECT_EQ(future.get(), RC_SUCCESS);
            EXPECT_EQ(tokensOut(*m_locator), 2U * static_cast<u64>(items));
            feeder->unPrepareToAdd();
            EXPECT_EQ(tokensOut(*m_locator), 0U);
        }
    }
}

TEST_F(FeederTest, PassesTheDeadlineOnAndTheStatusBack)
{
    ManualClock clock(1000);
    Clock* before = Clock::setInstance(&clock);
    m_locator.reset();
    {
        const LimitedMemory memory(CHUNK, CHUNK);
        RegionLocatorMemPool holder(6, RL_MMI_MD5);
        const VoucherGuard held(&holder, 1);
        m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
        for (RegionLocatorMetaDataContainer* feeder : both()) {
            EXPECT_EQ(feeder->prepareToAdd(1, 0).get(), RC_NO_MEMORY);
            // None is needed for no item.
            EXPECT_EQ(feeder->prepareToAdd(0, 0).get(), RC_SUCCESS);
            const FutureStatus future = feeder->prepareToAdd(1, clock.nowMs() + 5);
            clock.advanceMs(4);
            EXPECT_FALSE(future.isSet());
            clock.advanceMs(1);
            EXPECT_EQ(future.get(), RC_TIMED_OUT);
            EXPECT_EQ(tokensOut(*m_locator), 0U);
        }
        m_locator.reset();
    }
    Clock::setInstance(before);
}

// ---- giving up ----

TEST_F(FeederTest, AbortedBeforeItPreparesItAnswersAbortedForGood)
{
    for (RegionLocatorMetaDataContainer* feeder : both()) {
        EXPECT_FALSE(feeder->isAborted());
        {
            const LogCapture log;
            feeder->abort();
            EXPECT_TRUE(
                isRecord(log.only(), LogModuleXel, InfoLevel, 3, ABORT_SIGNATURE, "aborting"));
        }
        EXPECT_TRUE(feeder->isAborted());
        for (int i = 0; i < 2; ++i) {
            const LogCapture log;
            const FutureStatus future = feeder->prepareToAdd(5, NONE);
            EXPECT_TRUE(future.isSet());
            EXPECT_EQ(future.get(), RC_ABORTED);
            EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 3, PREPARE_SIGNATURE,
                                 "memory allocation aborted"));
            EXPECT_EQ(tokensOut(*m_locator), 0U);
        }
    }
}

TEST_F(FeederTest, AbortedWithABatchPreparedItStillTakesTheItems)
{
    ASSERT_EQ(insert()->prepareToAdd(1, 0).get(), RC_SUCCESS);
    insert()->abort();
    EXPECT_EQ(tokensOut(*m_locator), 2U); // a fill that is complete stays so
    EXPECT_EQ(add(insert(), io(SfsMetaType::UNCOMPRESSED_IO, 10, 5, 100)), RC_SUCCESS);
    EXPECT_EQ(contents(), (Regions{plainRegion(10, 5, 100)}));
    insert()->unPrepareToAdd();
    EXPECT_EQ(tokensOut(*m_locator), 1U);
}

TEST_F(FeederTest, AbortEndsAFillThatWaitsAndOnlyItsOwn)
{
    m_locator.reset();
    const LimitedMemory memory(CHUNK, CHUNK);
    RegionLocatorMemPool holder(6, RL_MMI_MD5);
    RegionLocatorVoucher* held = holder.createVoucher();
    ASSERT_EQ(holder.fillVoucher(held, 1, 0, nullptr).get(), RC_SUCCESS);
    m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
    const FutureStatus first = insert()->prepareToAdd(3, NONE);
    const FutureStatus second = other()->prepareToAdd(4, NONE);
    EXPECT_FALSE(first.isSet());
    insert()->abort();
    EXPECT_TRUE(first.isSet());
    EXPECT_EQ(first.get(), RC_ABORTED);
    EXPECT_FALSE(second.isSet());
    EXPECT_TRUE(insert()->isAborted());
    EXPECT_FALSE(other()->isAborted());
    holder.destroyVoucher(held);
    EXPECT_EQ(second.get(), RC_SUCCESS);
    EXPECT_EQ(tokensOut(*m_locator), 8U);
    other()->unPrepareToAdd();
    m_locator.reset();
}

TEST_F(FeederTest, AbortedFromAnotherThreadAtAnyMomentTheBalanceIsExact)
{
    m_locator.reset();
    const LimitedMemory memory(CHUNK, CHUNK);
    const LogCapture log; // keeps the records to itself
    for (int round = 0; round < 200; ++round) {
        RegionLocatorMemPool holder(6, RL_MMI_MD5);
        RegionLocatorVoucher* held = holder.createVoucher();
        ASSERT_EQ(holder.fillVoucher(held, 1, 0, nullptr).get(), RC_SUCCESS);
        m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
        RegionLocatorMetaDataContainer* feeder = both()[static_cast<size_t>(round % 2)];
        std::thread aborter([&] {
            for (int i = 0; i < round % 7; ++i)
                std::this_thread::yield();
            feeder->abort();
        });
        // Every third time nobody gives memory back: only the abort can end the fill.
        const bool release = round % 3 != 0;
        const FutureStatus future = feeder->prepareToAdd(5, NONE);
        if (release)
            holder.clearVoucher(held);
        const RcStatus rc = future.get();
        EXPECT_TRUE(rc == RC_ABORTED || (release && rc == RC_SUCCESS)) << rc;
        aborter.join();
        EXPECT_TRUE(feeder->isAborted());
        ASSERT_EQ(tokensOut(*m_locator), rc == RC_SUCCESS ? 10U : 0U);
        feeder->unPrepareToAdd();
        ASSERT_EQ(tokensOut(*m_locator), 0U);
        EXPECT_EQ(feeder->prepareToAdd(1, NONE).get(), RC_ABORTED);
        m_locator.reset();
        holder.destroyVoucher(held);
    }
}

// ---- what each item becomes ----

TEST_F(FeederTest, IoItemsOfTheThreeKindsAreInserted)
{
    for (int i = 0; i < 2; ++i) {
        m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
        feed(both()[static_cast<size_t>(i)],
             {io(SfsMetaType::UNCOMPRESSED_IO, 0, 10, 1000), io(SfsMetaType::ZEROS, 10, 10, 55),
              io(SfsMetaType::COMPRESSED_IO, 20, 10, 2000, 1234)});
        EXPECT_EQ(contents(), (Regions{plainRegion(0, 10, 1000), zeroesRegion(10, 10),
                                       compressedRegion(20, 10, 2000, 0, 1234)}));
        EXPECT_EQ(m_locator->getStatistics().m_numIOsInserted, 3U);
    }
}

TEST_F(FeederTest, LaterItemsOverrideEarlierOnes)
{
    feed(insert(), {io(SfsMetaType::UNCOMPRESSED_IO, 0, 10, 1000), io(SfsMetaType::ZEROS, 4, 2),
                    io(SfsMetaType::UNCOMPRESSED_IO, 0, 10, 3000),
                    io(SfsMetaType::UNCOMPRESSED_IO, 5, 1, 4000)});
    EXPECT_EQ(contents(), (Regions{plainRegion(0, 5, 3000), plainRegion(5, 1, 4000),
                                   plainRegion(6, 4, 3006, 6)}));
}

TEST_F(FeederTest, OtherItemsAreIgnored)
{
    insertRegion(*m_locator, plainRegion(0, 10, 1000));
    for (RegionLocatorMetaDataContainer* feeder : both()) {
        const LogCapture log;
        EXPECT_EQ(add(feeder, io(SfsMetaType::CSCAN_CHECKSUM, 0, 10, 5)), RC_SUCCESS);
        EXPECT_EQ(add(feeder, io(SfsMetaType::NUM_TYPES, 0, 10, 5)), RC_SUCCESS);
        EXPECT_EQ(add(feeder, io(static_cast<SfsMetaType>(4711), 0, 0, 5)), RC_SUCCESS);
        EXPECT_EQ(contents(), (Regions{plainRegion(0, 10, 1000)}));
        EXPECT_TRUE(log.records().empty());
    }
    EXPECT_EQ(insert()->getLastAddedCheckpoint().m_id, NONE);
}

TEST_F(FeederTest, MdOnlyIsReportedAndIgnoredByTheInserter)
{
    insertRegion(*m_locator, plainRegion(0, 10, 1000));
    // A length of 0 is not looked at.
    for (const u32 length : {u32{5}, u32{0}}) {
        const SfsDiskMetaItem item = io(SfsMetaType::MD_ONLY, 2, length);
        const LogCapture log;
        EXPECT_EQ(add(insert(), item), RC_SUCCESS);
        EXPECT_TRUE(isSoftCheck(log.only(), INSERT_SIGNATURE, "false",
                                " meta=" + itemText(item) + " inserted a 'MD only' into RL",
                                FILE_NAME));
        EXPECT_EQ(contents(), (Regions{plainRegion(0, 10, 1000)}));
    }
}

TEST_F(FeederTest, MdOnlyRemovesExactlyItsRangeInTheOther)
{
    feed(other(), {io(SfsMetaType::UNCOMPRESSED_IO, 0, 10, 1000), io(SfsMetaType::ZEROS, 10, 10),
                   io(SfsMetaType::MD_ONLY, 4, 8), io(SfsMetaType::MD_ONLY, 100, 8)});
    EXPECT_EQ(contents(), (Regions{plainRegion(0, 4, 1000), zeroesRegion(12, 8)}));
    EXPECT_EQ(m_locator->getStatistics().m_numIOsInserted, 2U);
}

TEST_F(FeederTest, AWholeBatchOfTheCostliestItemsNeverRunsOutOfTokens)
{
    std::vector<SfsDiskMetaItem> items = {io(SfsMetaType::UNCOMPRESSED_IO, 0, 1000, 0)};
    for (u64 i = 1; i < 100; ++i)
        items.push_back(io(i % 2 == 0 ? SfsMetaType::MD_ONLY : SfsMetaType::ZEROS, 10 * i, 2));
    const LogCapture log;
    feed(other(), items);
    EXPECT_TRUE(log.softChecks().empty());
    EXPECT_EQ(m_locator->getItemCount(), 100U + 50U); // 100 parts of the first, 50 of zeroes
}

TEST_F(FeederTest, ARefusedInsertIsReportedAndTheScanGoesOn)
{
    insertRegion(*m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(*m_locator, 0, 10);
    const std::string signatures[] = {INSERT_SIGNATURE, OTHER_ADD_SIGNATURE};
    for (size_t i = 0; i < 2; ++i) {
        RegionLocatorMetaDataContainer* feeder = both()[i];
        ASSERT_EQ(feeder->prepareToAdd(1, 0).get(), RC_SUCCESS);
        const u64 tokens = tokensOut(*m_locator);
        const LogCapture log;
        EXPECT_EQ(add(feeder, io(SfsMetaType::ZEROS, 9, 5)), RC_SUCCESS);
        const std::vector<LogRecord> records = log.records();
        ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
        EXPECT_TRUE(isRecord(records[0], LogModuleXel, InfoLevel, 3,
                             "bool RegionLocator::insert(const SubRegionDescriptor&, "
                             "RegionLocatorVoucher*)",
                             "trying to insert to region locator when there are intersecting "
                             "locked regions"));
        EXPECT_TRUE(isSoftCheck(records[1], signatures[i], "res",
                                "failed to insert to region locator", FILE_NAME));
        EXPECT_EQ(tokensOut(*m_locator), tokens);
        feeder->unPrepareToAdd();
    }
    EXPECT_EQ(m_locator->getItemCount(), 1U);
    unlockAndRestoreRegions(*m_locator, held);
}

TEST_F(FeederDeathTest, AnItemOfLengthZeroStopsTheProcess)
{
    const std::string pattern =
        hardCheckPattern("meta.getUncompressedLengthBlocks() > 0", FILE_NAME);
    for (const SfsMetaType type :
         {SfsMetaType::UNCOMPRESSED_IO, SfsMetaType::ZEROS, SfsMetaType::COMPRESSED_IO}) {
        EXPECT_DEATH(add(insert(), io(type, 5, 0, 100, 10)), pattern);
        EXPECT_DEATH(add(other(), io(type, 5, 0, 100, 10)), pattern);
    }
    EXPECT_DEATH(add(other(), io(SfsMetaType::MD_ONLY, 5, 0)), pattern);
}

// ---- checkpoints ----

TEST_F(FeederTest, ANewInserterHasNoTargetAndHasSeenNothing)
{
    EXPECT_EQ(insert()->getTargetCheckpointId(), NONE);
    EXPECT_EQ(insert()->getLastAddedCheckpoint().m_id, NONE);
    EXPECT_EQ(insert()->getLastAddedCheckpoint().m_timestamp, NONE);
    const LogCapture log;
    EXPECT_EQ(add(insert(), checkpoint(NONE - 1, 5)), RC_SUCCESS);
    EXPECT_EQ(insert()->getLastAddedCheckpoint().m_id, NONE - 1);
    EXPECT_EQ(insert()->getLastAddedCheckpoint().m_timestamp, 5U);
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(add(insert(), checkpoint(NONE, 6)), RC_STOP_EXCLUDE_CURRENT);
}

TEST_F(FeederTest, ACheckpointBelowTheTargetIsNotedOneAtItOrAboveStops)
{
    insert()->init(10);
    EXPECT_EQ(insert()->getTargetCheckpointId(), 10U);
    {
        const LogCapture log;
        EXPECT_EQ(add(insert(), checkpoint(9, 900)), RC_SUCCESS);
        EXPECT_TRUE(log.records().empty());
    }
    for (const CpId_t id : {CpId_t{10}, CpId_t{11}, CpId_t{1} << 63}) {
        const LogCapture log;
        EXPECT_EQ(add(insert(), checkpoint(id, 100 * id)), RC_STOP_EXCLUDE_CURRENT);
        EXPECT_EQ(insert()->getLastAddedCheckpoint().m_id, id);
        EXPECT_EQ(insert()->getLastAddedCheckpoint().m_timestamp, 100 * id);
        EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 3, INSERT_ADD_SIGNATURE,
                             "reached target checkpoint or above m_lastAddedCheckpoint.m_id=" +
                                 std::to_string(id) + "  m_targetCheckpointId=10 "));
    }
    EXPECT_EQ(m_locator->getItemCount(), 0U);
}

TEST_F(FeederTest, InitForgetsTheLastIdAndKeepsItsTimestamp)
{
    add(insert(), checkpoint(9, 900));
    insert()->init(20);
    EXPECT_EQ(insert()->getTargetCheckpointId(), 20U);
    EXPECT_EQ(insert()->getLastAddedCheckpoint().m_id, NONE);
    EXPECT_EQ(insert()->getLastAddedCheckpoint().m_timestamp, 900U);
}

TEST_F(FeederTest, AfterAnAbortTheNextCheckpointStopsWhicheverItIs)
{
    insert()->init(10);
    insert()->abort();
    EXPECT_EQ(insert()->getTargetCheckpointId(), 0U);
    const LogCapture log;
    EXPECT_EQ(add(insert(), checkpoint(0, 1)), RC_STOP_EXCLUDE_CURRENT);
    EXPECT_EQ(log.only().m_text, "reached target checkpoint or above m_lastAddedCheckpoint.m_id=0 "
                                 " m_targetCheckpointId=0 ");
    // A new target brings the scan back, but not the memory.
    insert()->init(10);
    EXPECT_EQ(add(insert(), checkpoint(1, 1)), RC_SUCCESS);
    EXPECT_TRUE(insert()->isAborted());
}

TEST_F(FeederTest, TheOtherNeverStops)
{
    const LogCapture log;
    EXPECT_EQ(add(other(), checkpoint(0, 1)), RC_SUCCESS);
    EXPECT_EQ(add(other(), checkpoint(NONE, 1)), RC_SUCCESS);
    EXPECT_TRUE(log.records().empty());
}

// ---- the interface's own answers ----

TEST_F(FeederTest, AGrainsStartIsLoggedItsEndAndTheScansAreNot)
{
    for (RegionLocatorMetaDataContainer* feeder : both()) {
        const LogCapture log;
        EXPECT_EQ(feeder->metaGrainStarted(0x1f8000), RC_SUCCESS);
        feeder->metaGrainFinished(0x1f8000, 5);
        feeder->done();
        EXPECT_TRUE(isRecord(log.only(), LogModuleCommon, InfoLevel, 3,
                             "virtual RcStatus SfsMetaDataContainer::metaGrainStarted(SfsDevAddr)",
                             " metaGrain=1f8000 "));
    }
}

} // namespace
