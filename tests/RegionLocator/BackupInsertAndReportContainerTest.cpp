#include "RegionLocator/BackupInsertAndReportContainer.h"

#include <gtest/gtest.h>

#include "tests/RegionLocator/BackupFeederFixture.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

constexpr u32 CHUNK = 64 * 1024;
const std::string FILE_NAME = "../BackupInsertAndReportContainer.cpp";
const std::string INIT_SIGNATURE =
    "virtual void BackupInsertAndReportContainer::init(CpId_t, CpId_t)";
const std::string BEFORE_SIGNATURE = "RcStatus BackupInsertAndReportContainer::beforeReachedViewCp("
                                     "const SfsDiskMetaItem&, const JournalPtr&)";
const std::string AFTER_SIGNATURE = "RcStatus BackupInsertAndReportContainer::afterReachedViewCp("
                                    "const SfsDiskMetaItem&, const JournalPtr&)";
const std::string INSERT_ADD_SIGNATURE =
    "virtual RcStatus RegionLocatorMetaDataContainer_Insert::addMetaData("
    "const SfsDiskMetaItem&, const JournalPtr&)";

// ---- construction and arming ----

TEST_F(BackupFeederTest, ANewOneInsertsWithoutEndAndOwnsAVoucher)
{
    const int vouchers = Access::liveVouchers(*m_locator->getMemPool());
    {
        const LogCapture log;
        BackupInsertAndReportContainer feeder(MIRROR, m_locator.get(), &m_manager);
        EXPECT_EQ(Access::liveVouchers(*m_locator->getMemPool()), vouchers + 1);
        EXPECT_FALSE(feeder.reachedBackupViewCheckpoint());
        EXPECT_EQ(feeder.ioReportFailureRc(), RC_SUCCESS);
        EXPECT_TRUE(feeder.isAddMetaDataDesireOffload());
        EXPECT_EQ(feeder.prepareToAdd(3, 0).get(), RC_SUCCESS);
        EXPECT_EQ(tokensOut(*m_locator), 6U);
        EXPECT_EQ(feeder.addMetaData(checkpoint(NONE - 1), PLACE), RC_SUCCESS);
        EXPECT_TRUE(log.records().empty());
        EXPECT_EQ(m_manager.m_asked, 0U);
    }
    EXPECT_EQ(Access::liveVouchers(*m_locator->getMemPool()), vouchers);
    EXPECT_EQ(tokensOut(*m_locator), 0U);
}

TEST_F(BackupFeederTest, WithoutArmingAllOnesIsBothTheViewAndTheNewestCheckpoint)
{
    const LogCapture quiet;
    BackupInsertAndReportContainer feeder(MIRROR, m_locator.get(), &m_manager);
    EXPECT_EQ(feeder.addMetaData(checkpoint(NONE, 5), PLACE), RC_STOP_EXCLUDE_CURRENT);
    EXPECT_TRUE(feeder.reachedBackupViewCheckpoint());
    EXPECT_EQ(feeder.addMetaData(checkpoint(NONE - 1, 5), PLACE), RC_SUCCESS);
    EXPECT_EQ(feeder.addMetaData(checkpoint(NONE, 5), PLACE), RC_STOP_EXCLUDE_CURRENT);
    EXPECT_EQ(quiet.texts().size(), 2U);
}

TEST_F(BackupFeederTest, ArmingIsLogged)
{
    BackupInsertAndReportContainer feeder(MIRROR, m_locator.get(), &m_manager);
    for (const CpId_t newest : {VIEW, NEWEST}) {
        const LogCapture log;
        feeder.init(VIEW, newest);
        EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 3, INIT_SIGNATURE,
                             "Ltr<42>  viewTargetCheckpointID=10  incrementalLastCheckpointId=" +
                                 std::to_string(newest) + " "));
    }
}

TEST_F(BackupFeederTest, AViewAboveTheLastIsReportedAndArmedAllTheSame)
{
    BackupInsertAndReportContainer feeder(MIRROR, m_locator.get(), &m_manager);
    {
        const LogCapture log;
        feeder.init(11, 10);
        const std::vector<LogRecord> records = log.records();
        ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
        EXPECT_TRUE(
            isRecord(records[0], LogModuleXel, InfoLevel, 3, INIT_SIGNATURE,
                     "Ltr<42>  viewTargetCheckpointID=11  incrementalLastCheckpointId=10 "));
        EXPECT_TRUE(isSoftCheck(records[1], INIT_SIGNATURE,
                                "viewTargetCheckpointID <= incrementalLastCheckpointId", "",
                                FILE_NAME));
    }
    const LogCapture quiet;
    EXPECT_EQ(feeder.addMetaData(checkpoint(10, 1), PLACE), RC_SUCCESS);
    EXPECT_EQ(feeder.addMetaData(checkpoint(11, 2), PLACE), RC_STOP_EXCLUDE_CURRENT);
    EXPECT_TRUE(feeder.reachedBackupViewCheckpoint());
    EXPECT_EQ(feeder.addMetaData(checkpoint(9, 3), PLACE), RC_SUCCESS);
    EXPECT_EQ(feeder.addMetaData(checkpoint(10, 3), PLACE), RC_STOP_EXCLUDE_CURRENT);
    EXPECT_EQ(quiet.softChecks().size(), 0U);
}

TEST_F(BackupFeederTest, ArmingAgainResetsNoState)
{
    make(&m_manager);
    // Inserting: the new view counts.
    m_feeder->init(12, 15);
    EXPECT_EQ(add(checkpoint(11)), RC_SUCCESS);
    EXPECT_EQ(add(checkpoint(12)), RC_STOP_EXCLUDE_CURRENT);
    // Reporting: the new last counts, the new view does not bring inserting back.
    m_feeder->init(16, 18);
    EXPECT_TRUE(m_feeder->reachedBackupViewCheckpoint());
    EXPECT_EQ(add(checkpoint(16)), RC_SUCCESS);
    EXPECT_EQ(add(write(8)), RC_SUCCESS);
    EXPECT_EQ(m_manager.m_calls, (Calls{"timestamp 0", reportCall(8, 4)}));
    // Report failed.
    m_manager.m_failReport = 2;
    EXPECT_EQ(add(write(16)), RC_SUCCESS);
    m_feeder->init(16, 18);
    EXPECT_EQ(m_feeder->ioReportFailureRc(), RC_NO_MEMORY);
    EXPECT_EQ(add(write(24)), RC_SUCCESS);
    EXPECT_EQ(m_manager.m_reports, 2U);
    // Stopped.
    m_feeder->abort();
    m_feeder->init(100, 200);
    expectStopped();
    EXPECT_TRUE(contents().empty());
}

// ---- inserting ----

TEST_F(BackupFeederTest, UpToTheViewEveryIoIsInsertedAndNoneReported)
{
    make(&m_manager);
    const LogCapture log;
    EXPECT_EQ(m_feeder->prepareToAdd(6, 0).get(), RC_SUCCESS);
    EXPECT_EQ(tokensOut(*m_locator), 12U);
    EXPECT_EQ(add(io(SfsMetaType::UNCOMPRESSED_IO, 0, 10, 1000)), RC_SUCCESS);
    EXPECT_EQ(add(io(SfsMetaType::ZEROS, 10, 10, 55)), RC_SUCCESS);
    EXPECT_EQ(add(checkpoint(VIEW - 1, 5)), RC_SUCCESS);
    EXPECT_EQ(add(io(SfsMetaType::COMPRESSED_IO, 20, 10, 2000, 1234)), RC_SUCCESS);
    EXPECT_EQ(add(io(SfsMetaType::CSCAN_CHECKSUM, 0, 10, 5)), RC_SUCCESS);
    EXPECT_EQ(add(io(SfsMetaType::NUM_TYPES, 0, 10, 5)), RC_SUCCESS);
    m_feeder->unPrepareToAdd();
    EXPECT_EQ(contents(), (Regions{plainRegion(0, 10, 1000), zeroesRegion(10, 10),
                                   compressedRegion(20, 10, 2000, 0, 1234)}));
    EXPECT_EQ(tokensOut(*m_locator), 3U);
    EXPECT_TRUE(log.records().empty());
    EXPECT_TRUE(m_manager.m_calls.empty());
    EXPECT_EQ(m_manager.m_asked, 0U);
    EXPECT_FALSE(m_feeder->reachedBackupViewCheckpoint());
}

TEST_F(BackupFeederTest, WhatTheInserterReportsIsNotTheFeedersFailure)
{
    make(&m_manager);
    {
        const LogCapture log;
        EXPECT_EQ(add(io(SfsMetaType::MD_ONLY, 5, 5)), RC_SUCCESS);
        EXPECT_EQ(log.only().m_level, AssertLevel);
    }
    insertRegion(*m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(*m_locator, 0, 10);
    {
        const LogCapture log;
        EXPECT_EQ(addPrepared(write(8)), RC_SUCCESS);
        EXPECT_EQ(log.softChecks().size(), 1U);
    }
    unlockAndRestoreRegions(*m_locator, held);
    EXPECT_EQ(contents(), (Regions{plainRegion(0, 10, 1000)}));
    EXPECT_EQ(m_feeder->ioReportFailureRc(), RC_SUCCESS);
}

TEST_F(BackupFeederTest, TheViewCheckpointEndsThePhaseAndSendsItsTimestamp)
{
    make(&m_manager);
    // What becomes of the timestamp is the manager's affair.
    m_manager.m_timestampRc = RC_NOT_FOUND;
    const LogCapture log;
    EXPECT_EQ(add(checkpoint(VIEW, 1010)), RC_STOP_EXCLUDE_CURRENT);
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
    EXPECT_TRUE(isRecord(records[0], LogModuleXel, InfoLevel, 3, INSERT_ADD_SIGNATURE,
                         "reached target checkpoint or above m_lastAddedCheckpoint.m_id=10  "
                         "m_targetCheckpointId=10 "));
    EXPECT_TRUE(isRecord(records[1], LogModuleXel, InfoLevel, 3, BEFORE_SIGNATURE,
                         "Ltr<42> reached checkpoint 10"));
    EXPECT_TRUE(m_feeder->reachedBackupViewCheckpoint());
    EXPECT_EQ(m_manager.m_calls, Calls{"timestamp 1010"});
    EXPECT_EQ(m_feeder->ioReportFailureRc(), RC_SUCCESS);
}

TEST_F(BackupFeederTest, ACheckpointAboveTheViewStopsAndReportsNothingAfterIt)
{
    make(&m_manager);
    for (const CpId_t id : {VIEW + 1, NEWEST, NEWEST + 1, NONE}) {
        const LogCapture log;
        EXPECT_EQ(add(checkpoint(id, 5)), RC_STOP_EXCLUDE_CURRENT);
        EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 3, INSERT_ADD_SIGNATURE,
                             "reached target checkpoint or above m_lastAddedCheckpoint.m_id=" +
                                 std::to_string(id) + "  m_targetCheckpointId=10 "));
        EXPECT_FALSE(m_feeder->reachedBackupViewCheckpoint());
    }
    EXPECT_EQ(m_manager.m_asked, 0U);
    // It goes on inserting, as it is not stopped either.
    EXPECT_EQ(addPrepared(write(0)), RC_SUCCESS);
    EXPECT_EQ(contents(), (Regions{plainRegion(0, 4, 40000)}));
    EXPECT_TRUE(m_manager.m_calls.empty());
}

// ---- without a manager to report to ----

TEST_F(BackupFeederTest, WithoutAManagerTheViewCheckpointStopsForGood)
{
    FakeManager disabled;
    disabled.m_enabled = false;
    for (ILtrIncrementManager* manager : {static_cast<ILtrIncrementManager*>(nullptr),
                                          static_cast<ILtrIncrementManager*>(&disabled)}) {
        make(manager);
        EXPECT_FALSE(m_feeder->ltrIncrementManagerAvailable());
        EXPECT_EQ(addPrepared(write(0)), RC_SUCCESS);
        {
            const LogCapture log;
            EXPECT_EQ(add(checkpoint(VIEW, 1010)), RC_STOP_EXCLUDE_CURRENT);
            const std::vector<LogRecord> records = log.records();
            ASSERT_EQ(records.size(), 2U);
            EXPECT_TRUE(isRecord(records[1], LogModuleXel, InfoLevel, 3, BEFORE_SIGNATURE,
                                 "Ltr<42> reached checkpoint 10"));
        }
        EXPECT_TRUE(m_feeder->reachedBackupViewCheckpoint());
        EXPECT_EQ(m_feeder->ioReportFailureRc(), RC_SUCCESS);
        expectStopped();
        // Even though one could be reported to by now.
        disabled.m_enabled = true;
        expectStopped();
        disabled.m_enabled = false;
    }
    EXPECT_TRUE(disabled.m_calls.empty());
}

TEST_F(BackupFeederTest, AvailableIsWhatTheManagerSaysAtThatMoment)
{
    make(&m_manager);
    EXPECT_TRUE(m_feeder->ltrIncrementManagerAvailable());
    m_manager.m_enabled = false;
    EXPECT_FALSE(m_feeder->ltrIncrementManagerAvailable());
    EXPECT_EQ(m_manager.m_asked, 2U);
}

TEST_F(BackupFeederTest, DisabledBeforeTheViewIsReachedItStopsThereEnabledItReports)
{
    make(&m_manager);
    m_manager.m_enabled = false;
    EXPECT_EQ(add(checkpoint(VIEW - 1)), RC_SUCCESS);
    m_manager.m_enabled = true;
    reachView();
    EXPECT_EQ(add(write(0)), RC_SUCCESS);
    EXPECT_EQ(m_manager.m_calls, (Calls{"timestamp 1010", reportCall(0, 4)}));
}

TEST_F(BackupFeederTest, DisabledWhileReportingEveryItemEndsTheScanSilentlyUntilEnabledAgain)
{
    make(&m_manager);
    reachView();
    m_manager.m_enabled = false;
    for (const SfsDiskMetaItem& item :
         {write(0), checkpoint(VIEW + 1), checkpoint(NEWEST), io(SfsMetaType::MD_ONLY, 5, 1)}) {
        const LogCapture log;
        EXPECT_EQ(add(item), RC_STOP_EXCLUDE_CURRENT);
        EXPECT_TRUE(log.records().empty());
    }
    m_manager.m_enabled = true;
    EXPECT_EQ(add(write(0)), RC_SUCCESS);
    EXPECT_EQ(m_manager.m_calls, (Calls{"timestamp 1010", reportCall(0, 4)}));
}

// ---- reporting ----

TEST_F(BackupFeederTest, AfterTheViewIosAreReportedAndNothingIsInserted)
{
    make(&m_manager);
    EXPECT_EQ(addPrepared(write(0)), RC_SUCCESS);
    reachView();
    const Regions before = contents();
    const LogCapture log;
    EXPECT_EQ(add(io(SfsMetaType::UNCOMPRESSED_IO, 100, 10, 1000)), RC_SUCCESS);
    EXPECT_EQ(add(io(SfsMetaType::ZEROS, 200, 65535)), RC_SUCCESS);
    EXPECT_EQ(add(io(SfsMetaType::COMPRESSED_IO, u64{1} << 40, 30, 2000, 1234)), RC_SUCCESS);
    // Neither the length nor the manager's view of it is looked at.
    EXPECT_EQ(add(io(SfsMetaType::UNCOMPRESSED_IO, 0, 0)), RC_SUCCESS);
    EXPECT_EQ(add(io(SfsMetaType::ZEROS, NONE, ~u32{0})), RC_SUCCESS);
    EXPECT_EQ(m_manager.m_calls,
              (Calls{"timestamp 1010", reportCall(100, 10), reportCall(200, 65535),
                     reportCall(u64{1} << 40, 30), reportCall(0, 0), reportCall(NONE, ~u32{0})}));
    EXPECT_EQ(contents(), before);
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(m_feeder->ioReportFailureRc(), RC_SUCCESS);
}

TEST_F(BackupFeederTest, OtherItemsAndEarlierCheckpointsPassUnreported)
{
    make(&m_manager);
    reachView();
    const LogCapture log;
    for (const SfsDiskMetaItem& item :
         {checkpoint(0), checkpoint(VIEW - 1), checkpoint(VIEW, 5), checkpoint(NEWEST - 1),
          io(SfsMetaType::MD_ONLY, 5, 1), io(SfsMetaType::CSCAN_CHECKSUM, 5, 1),
          io(SfsMetaType::NUM_TYPES, 5, 1), io(static_cast<SfsMetaType>(4711), 5, 1)})
        EXPECT_EQ(add(item), RC_SUCCESS);
    EXPECT_EQ(m_manager.m_calls, Calls{"timestamp 1010"});
    EXPECT_TRUE(log.records().empty());
}

TEST_F(BackupFeederTest, TheNewestCheckpointOrOneAboveItStopsForGood)
{
    for (const CpId_t id : {NEWEST, NEWEST + 1, CpId_t{1} << 63, NONE}) {
        make(&m_manager);
        reachView();
        {
            const LogCapture log;
            EXPECT_EQ(add(checkpoint(id)), RC_STOP_EXCLUDE_CURRENT);
            EXPECT_TRUE(log.records().empty());
        }
        EXPECT_TRUE(m_feeder->reachedBackupViewCheckpoint());
        expectStopped();
    }
}

TEST_F(BackupFeederTest, WhenTheViewIsTheNewestTheScanThatGoesOnEndsAtOnce)
{
    make(&m_manager, VIEW, VIEW);
    reachView();
    // The item that ended the first scan begins the second.
    EXPECT_EQ(add(checkpoint(VIEW, 1010)), RC_STOP_EXCLUDE_CURRENT);
    expectStopped();
    EXPECT_EQ(m_manager.m_calls, Calls{"timestamp 1010"});
}

TEST_F(BackupFeederTest, TheNthReportFailsForEveryN)
{
    constexpr u64 ITEMS = 6;
    for (u64 n = 1; n <= ITEMS; ++n)
        for (const RcStatus failure : {RC_NO_MEMORY, RC_FAILURE, RC_STOP_EXCLUDE_CURRENT}) {
            m_manager = FakeManager();
            m_manager.m_failReport = n;
            m_manager.m_failRc = failure;
            make(&m_manager);
            reachView();
            const LogCapture log;
            Calls expected = {"timestamp 1010"};
            for (u64 i = 1; i <= ITEMS; ++i) {
                EXPECT_EQ(add(write(10 * i)), RC_SUCCESS);
                EXPECT_EQ(add(checkpoint(VIEW + i)), RC_SUCCESS);
                if (i <= n)
                    expected.push_back(reportCall(10 * i, 4));
                EXPECT_EQ(m_feeder->ioReportFailureRc(), i < n ? RC_SUCCESS : failure);
            }
            EXPECT_EQ(m_manager.m_calls, expected);
            EXPECT_TRUE(isRecord(log.only(), LogModuleXel, ErrorLevel, 3, AFTER_SIGNATURE,
                                 "Ltr<42> failed to report candidate IO <" +
                                     std::to_string(10 * n) + ",4> (probably due to memory) rc=" +
                                     std::to_string(static_cast<u32>(failure)) + " "));
            // The newest checkpoint does not stop it any more: the scan runs to its end.
            EXPECT_EQ(add(checkpoint(NEWEST)), RC_SUCCESS);
            EXPECT_EQ(add(checkpoint(NONE)), RC_SUCCESS);
            EXPECT_EQ(add(io(SfsMetaType::MD_ONLY, 5, 1)), RC_SUCCESS);
            EXPECT_EQ(add(write(1000)), RC_SUCCESS);
            EXPECT_EQ(m_manager.m_calls, expected);
            EXPECT_TRUE(contents().empty());
            EXPECT_EQ(log.records().size(), 1U);
            m_feeder->abort();
            expectStopped();
            EXPECT_EQ(m_feeder->ioReportFailureRc(), failure);
        }
}

TEST_F(BackupFeederTest, FailedToReportAndDisabledItEndsTheScan)
{
    make(&m_manager);
    reachView();
    m_manager.m_failReport = 1;
    EXPECT_EQ(add(write(0)), RC_SUCCESS);
    m_manager.m_enabled = false;
    EXPECT_EQ(add(write(0)), RC_STOP_EXCLUDE_CURRENT);
    m_manager.m_enabled = true;
    EXPECT_EQ(add(write(0)), RC_SUCCESS);
    EXPECT_EQ(m_manager.m_reports, 1U);
}

// ---- the reservation ----

TEST_F(BackupFeederTest, BeforeTheViewABatchIsReservedAfterItNothingIs)
{
    make(&m_manager);
    m_feeder->unPrepareToAdd(); // nothing to undo
    EXPECT_EQ(m_feeder->prepareToAdd(5, 0).get(), RC_SUCCESS);
    EXPECT_EQ(tokensOut(*m_locator), 10U);
    reachView();
    EXPECT_EQ(tokensOut(*m_locator), 10U);
    const FutureStatus future = m_feeder->prepareToAdd(1 << 30, 0);
    EXPECT_TRUE(future.isSet());
    EXPECT_EQ(future.get(), RC_SUCCESS);
    EXPECT_EQ(tokensOut(*m_locator), 10U);
    // What was reserved before the view is given back after it.
    m_feeder->unPrepareToAdd();
    EXPECT_EQ(tokensOut(*m_locator), 0U);
    m_feeder->unPrepareToAdd();
    EXPECT_EQ(m_feeder->prepareToAdd(5, 0).get(), RC_SUCCESS);
    EXPECT_EQ(tokensOut(*m_locator), 0U);
}

TEST_F(BackupFeederTest, TheDeadlineAndTheStatusOfAFillArePassedOn)
{
    m_locator.reset();
    const LimitedMemory memory(CHUNK, CHUNK);
    RegionLocatorMemPool holder(6, RL_MMI_MD5);
    RegionLocatorVoucher* held = holder.createVoucher();
    ASSERT_EQ(holder.fillVoucher(held, 1, 0, nullptr).get(), RC_SUCCESS);
    m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
    make(&m_manager);
    EXPECT_EQ(m_feeder->prepareToAdd(1, 0).get(), RC_NO_MEMORY);
    const FutureStatus future = m_feeder->prepareToAdd(1, NONE);
    EXPECT_FALSE(future.isSet());
    holder.destroyVoucher(held);
    EXPECT_EQ(future.get(), RC_SUCCESS);
    EXPECT_EQ(tokensOut(*m_locator), 2U);
    m_feeder->unPrepareToAdd();
    m_feeder.reset();
    m_locator.reset();
}

TEST_F(BackupFeederTest, WithNoPreparationLeftToUndoNothingIsGivenBack)
{
    m_locator.reset();
    const LimitedMemory memory(CHUNK, CHUNK);
    RegionLocatorMemPool holder(6, RL_MMI_MD5);
    RegionLocatorVoucher* held = holder.createVoucher();
    ASSERT_EQ(holder.fillVoucher(held, 1, 0, nullptr).get(), RC_SUCCESS);
    m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
    make(&m_manager);
    // No scanner does so: undone before it is complete, the fill brings tokens that no preparation
    // stands for.
    const FutureStatus future = m_feeder->prepareToAdd(1, NONE);
    m_feeder->unPrepareToAdd();
    holder.destroyVoucher(held);
    EXPECT_EQ(future.get(), RC_SUCCESS);
    EXPECT_EQ(tokensOut(*m_locator), 2U);
    m_feeder->unPrepareToAdd();
    EXPECT_EQ(tokensOut(*m_locator), 2U);
    // Counted apart, one more preparation is undone, and with it all that is there.
    EXPECT_EQ(m_feeder->prepareToAdd(0, 0).get(), RC_SUCCESS);
    m_feeder->unPrepareToAdd();
    EXPECT_EQ(tokensOut(*m_locator), 0U);
    m_feeder.reset();
    m_locator.reset();
}

// ---- the interface's own answers ----

TEST_F(BackupFeederTest, AGrainsStartIsLoggedItsEndAndTheScansAreNot)
{
    make(&m_manager);
    const LogCapture log;
    EXPECT_EQ(m_feeder->metaGrainStarted(0x1f8000), RC_SUCCESS);
    m_feeder->metaGrainFinished(0x1f8000, 5);
    m_feeder->done();
    EXPECT_TRUE(isRecord(log.only(), LogModuleCommon, InfoLevel, 3,
                         "virtual RcStatus SfsMetaDataContainer::metaGrainStarted(SfsDevAddr)",
                         " metaGrain=1f8000 "));
    EXPECT_EQ(add(checkpoint(VIEW - 1)), RC_SUCCESS);
}

} // namespace
