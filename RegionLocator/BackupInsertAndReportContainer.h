// The feeder of a backup: one journal scan fills a locator up to the view's checkpoint, and then
// reports every later write to the increment manager, as a candidate for the next increment.
//
//   state         | entered by                                | an item is
//   --------------+-------------------------------------------+----------------------------------
//   inserting     | construction and init()                   | inserted into the locator
//   reporting     | the view checkpoint met exactly, with an  | reported to the manager
//                 | increment manager to report to            |
//   report failed | a report that failed                      | passed over
//   stopped       | the newest checkpoint; the view checkpoint| refused: the scan ends
//                 | without a manager; abort()                |
//
// The scan is ended twice by RC_STOP_EXCLUDE_CURRENT: at the view checkpoint and at the newest one.
#pragma once

#include <atomic>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "XelControl/ILtrIncrementManager.h"

// Serves one backup: init() does not rearm it.
//
// Thread safety: one scan makes the calls of SfsMetaDataContainer; abort() may come from any thread
// at any moment, and an item that is being handled then may still be taken. The queries are for
// after the scan.
class BackupInsertAndReportContainer : public SfsMetaDataContainer
{
public:
    // rl, mgr: not owned; they outlive the container. mgr may be null. mirrorId: for log lines.
    BackupInsertAndReportContainer(u64 mirrorId, RegionLocator* rl, ILtrIncrementManager* mgr);

    // Fills the locator's voucher while inserting; reporting needs no memory.
    FutureStatus prepareToAdd(int opCount, u64 endTime) override;
    void unPrepareToAdd() override;
    RcStatus addMetaData(const SfsDiskMetaItem& meta, const JournalPtr& journalPtr) override;
    RcStatus metaGrainStarted(SfsDevAddr metaGrain) override;
    void metaGrainFinished(SfsDevAddr, u32) override {}
    void done() override {}
    bool isAddMetaDataDesireOffload() override { return true; }

    // Names the checkpoint of the view, and the newest one that the next increment may cover.
    // Soft check: in that order.
    virtual void init(CpId_t viewTargetCheckpointID, CpId_t incrementalLastCheckpointId);

    // For good: ends a fill that waits, and refuses every later item.
    virtual void abort();

    // Whether the view checkpoint was found.
    bool reachedBackupViewCheckpoint() const { return m_reachedBackupViewCp; }
    // RC_SUCCESS, or the status of the first candidate that could not be reported.
    RcStatus ioReportFailureRc() const { return m_ioReportFailureRc; }
    bool ltrIncrementManagerAvailable();

private:
    RcStatus beforeReachedViewCp(const SfsDiskMetaItem& meta, const JournalPtr& journalPtr);
    RcStatus afterReachedViewCp(const SfsDiskMetaItem& meta, const JournalPtr& journalPtr);

    ILtrIncrementManager* m_ltrIncManager;
    bool m_reachedBackupViewCp;
    RcStatus m_ioReportFailureRc;
    std::atomic<bool> m_stop; // abort() sets it without a lock
    RegionLocatorMetaDataContainer_Insert m_insertContainer;
    u64 m_prepareToAddCallCount; // preparations of the insert container that are not yet undone
    CpId_t m_newestCheckpointId;
    u64 m_mirrorId;
};
