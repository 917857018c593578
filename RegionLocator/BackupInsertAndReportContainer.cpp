#include "RegionLocator/BackupInsertAndReportContainer.h"

#include <limits>

#define LTR_PREFIX "Ltr<" << m_mirrorId << "> "

BackupInsertAndReportContainer::BackupInsertAndReportContainer(u64 mirrorId, RegionLocator* rl,
                                                               ILtrIncrementManager* mgr)
    : m_ltrIncManager(mgr), m_reachedBackupViewCp(false), m_ioReportFailureRc(RC_SUCCESS),
      m_stop(false), m_insertContainer(rl), m_prepareToAddCallCount(0),
      m_newestCheckpointId(std::numeric_limits<CpId_t>::max()), m_mirrorId(mirrorId)
{}

void BackupInsertAndReportContainer::init(CpId_t viewTargetCheckpointID,
                                          CpId_t incrementalLastCheckpointId)
{
    LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
        << LTR_PREFIX << " viewTargetCheckpointID=" << viewTargetCheckpointID << " "
        << " incrementalLastCheckpointId=" << incrementalLastCheckpointId << " " << std::endl;
    SOFT_CHECK(viewTargetCheckpointID <= incrementalLastCheckpointId);
    m_insertContainer.init(viewTargetCheckpointID);
    m_newestCheckpointId = incrementalLastCheckpointId;
}

FutureStatus BackupInsertAndReportContainer::prepareToAdd(int opCount, u64 endTime)
{
    if (m_reachedBackupViewCp)
        return makeSetFuture(RC_SUCCESS);
    ++m_prepareToAddCallCount;
    return m_insertContainer.prepareToAdd(opCount, endTime);
}

void BackupInsertAndReportContainer::unPrepareToAdd()
{
    if (m_prepareToAddCallCount == 0)
        return;
    m_insertContainer.unPrepareToAdd();
    --m_prepareToAddCallCount;
}

RcStatus BackupInsertAndReportContainer::metaGrainStarted(SfsDevAddr metaGrain)
{
    return m_insertContainer.metaGrainStarted(metaGrain);
}

void BackupInsertAndReportContainer::abort()
{
    m_insertContainer.abort();
    m_stop = true;
}

bool BackupInsertAndReportContainer::ltrIncrementManagerAvailable()
{
    return m_ltrIncManager != nullptr && m_ltrIncManager->isEnabled();
}

RcStatus BackupInsertAndReportContainer::addMetaData(const SfsDiskMetaItem& meta,
                                                     const JournalPtr& journalPtr)
{
    if (m_stop) {
        LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
            << LTR_PREFIX << "stopped - " << journalPtr << ", "
            << " meta=" << meta << " " << std::endl;
        return RC_STOP_EXCLUDE_CURRENT;
    }
    RcStatus rc = RC_SUCCESS;
    if (!m_reachedBackupViewCp)
        rc = beforeReachedViewCp(meta, journalPtr);
    if (rc == RC_SUCCESS) {
        // An item is handled by one phase only; the one that ends the first never gets here.
        if (!m_reachedBackupViewCp)
            return RC_SUCCESS;
        if (!ltrIncrementManagerAvailable())
            return RC_STOP_EXCLUDE_CURRENT;
        rc = afterReachedViewCp(meta, journalPtr);
        if (rc == RC_SUCCESS)
            return rc;
    }
    SOFT_CHECK(rc == RC_SUCCESS || rc == RC_STOP_EXCLUDE_CURRENT, << LTR_PREFIX << "invalid"
                                                                  << " rc=" << rc << " ");
    return rc;
}

RcStatus BackupInsertAndReportContainer::beforeReachedViewCp(const SfsDiskMetaItem& meta,
                                                             const JournalPtr& journalPtr)
{
    const RcStatus rc = m_insertContainer.addMetaData(meta, journalPtr);
    if (rc != RC_SUCCESS && rc != RC_STOP_EXCLUDE_CURRENT) {
        SOFT_CHECK(rc == RC_SUCCESS || rc == RC_STOP_EXCLUDE_CURRENT,
                   << LTR_PREFIX << "invalid rc=" << rc
                   << " from RegionLocatorMetaDataContainer_Insert::addMetaData");
        SOFT_CHECK(rc == RC_SUCCESS || rc == RC_STOP_EXCLUDE_CURRENT, << LTR_PREFIX << "invalid"
                                                                      << " rc=" << rc << " ");
        return rc;
    }
    if (rc == RC_SUCCESS)
        return rc;
    SOFT_CHECK(meta.getType() == SfsMetaType::CHECKPOINT,
               << LTR_PREFIX << "Stopped on non-checkpoint"
               << " meta.getType()=" << meta.getType() << " ");
    // A checkpoint above the target ends the scan as well, but the view's own was not found, and so
    // nothing is reported after it.
    if (meta.m_cpData.checkpoint == m_insertContainer.getTargetCheckpointId()) {
        m_reachedBackupViewCp = true;
        LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
            << LTR_PREFIX << "reached checkpoint " << meta.m_cpData.checkpoint << std::endl;
        if (ltrIncrementManagerAvailable())
            m_ltrIncManager->setIncrementCandidateCpTimestamp(meta.m_cpData.timestamp);
        else
            m_stop = true;
    }
    return RC_STOP_EXCLUDE_CURRENT;
}

RcStatus BackupInsertAndReportContainer::afterReachedViewCp(const SfsDiskMetaItem& meta,
                                                            const JournalPtr& /*journalPtr*/)
{
    // After the first failure the increment is incomplete anyway; the scan runs on to its end.
    if (m_ioReportFailureRc != RC_SUCCESS)
        return RC_SUCCESS;
    switch (meta.getType()) {
    case SfsMetaType::CHECKPOINT:
        if (meta.m_cpData.checkpoint < m_newestCheckpointId)
            return RC_SUCCESS;
        m_stop = true;
        return RC_STOP_EXCLUDE_CURRENT;
    case SfsMetaType::UNCOMPRESSED_IO:
    case SfsMetaType::ZEROS:
    case SfsMetaType::COMPRESSED_IO: {
        const RcStatus rc = m_ltrIncManager->reportCandidateIO(meta.m_ioData.offsetBlocks,
                                                               meta.getUncompressedLengthBlocks());
        m_ioReportFailureRc = rc;
        if (rc != RC_SUCCESS)
            LogItem(LogModuleXel, ErrorLevel, __PRETTY_FUNCTION__, 3)
                << LTR_PREFIX << "failed to report candidate IO <" << meta.m_ioData.offsetBlocks
                << "," << meta.getUncompressedLengthBlocks() << "> (probably due to memory)"
                << " rc=" << rc << " " << std::endl;
        return RC_SUCCESS;
    }
    default: return RC_SUCCESS;
    }
}
