#include "RegionLocator/RegionLocatorMetaDataContainer.h"

#include <algorithm>
#include <limits>

#include "RegionLocator/RegionLocator.h"

namespace {

constexpr CpId_t NO_CHECKPOINT = std::numeric_limits<CpId_t>::max();

} // namespace

// ---- the voucher of a feeder ----

RegionLocatorMetaDataContainer::RegionLocatorMetaDataContainer(RegionLocator* rl)
    : m_regionLocator(rl), m_voucher(rl->getMemPool()->createVoucher()), m_bAborted(false)
{}

RegionLocatorMetaDataContainer::~RegionLocatorMetaDataContainer()
{
    m_regionLocator->settleScan();
    m_regionLocator->getMemPool()->destroyVoucher(m_voucher);
}

FutureStatus RegionLocatorMetaDataContainer::prepareToAdd(int opCount, u64 endTime)
{
    MutexGuard lock(m_abortMutex);
    if (m_bAborted) {
        LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
            << "memory allocation aborted" << std::endl;
        return makeSetFuture(RC_ABORTED);
    }
    m_regionLocator->settleScan();
    const int tokenCount = objsCountNeededForOperations() * opCount;
    return m_regionLocator->getMemPool()->fillVoucher(m_voucher, tokenCount, endTime, this);
}

void RegionLocatorMetaDataContainer::unPrepareToAdd()
{
    m_regionLocator->settleScan();
    m_regionLocator->getMemPool()->clearVoucher(m_voucher);
}

void RegionLocatorMetaDataContainer::abort()
{
    MutexGuard lock(m_abortMutex);
    LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3) << "aborting" << std::endl;
    m_bAborted = true;
    m_regionLocator->getMemPool()->cancelVoucherFill(this);
}

bool RegionLocatorMetaDataContainer::isAborted()
{
    MutexGuard lock(m_abortMutex);
    return m_bAborted;
}

// ---- inserting ----

inline bool RegionLocatorMetaDataContainer::isHeldBack(const SfsDiskMetaItem& meta)
{
    return (meta.is_io_type_with_ud() || meta.getType() == SfsMetaType::ZEROS) &&
           m_regionLocator->holdBackMore(meta, m_voucher);
}

int RegionLocatorMetaDataContainer_InsertAbstract::objsCountNeededForOperations()
{
    return RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::INSERT, 1);
}

void RegionLocatorMetaDataContainer_InsertAbstract::insert(const SfsDiskMetaItem& meta)
{
    switch (meta.getType()) {
    case SfsMetaType::UNCOMPRESSED_IO:
    case SfsMetaType::ZEROS:
    case SfsMetaType::COMPRESSED_IO: {
        HARD_CHECK(meta.getUncompressedLengthBlocks() > 0);
        const bool res = m_regionLocator->insertFromScan(
            SubRegionDescriptor(SfsItemDescriptor::genFromSfsDiskMetaItem(meta)), m_voucher);
        SOFT_CHECK(res, << "failed to insert to region locator");
        break;
    }
    case SfsMetaType::MD_ONLY:
        SOFT_CHECK(false, << " meta=" << meta << " "
                          << "inserted a 'MD only' into RL");
        break;
    default: break;
    }
}

// ---- up to a target checkpoint ----

RegionLocatorMetaDataContainer_Insert::RegionLocatorMetaDataContainer_Insert(RegionLocator* rl)
    : RegionLocatorMetaDataContainer_InsertAbstract(rl), m_targetCheckpointId(NO_CHECKPOINT),
      m_lastAddedCheckpoint(NO_CHECKPOINT, NO_CHECKPOINT)
{}

void RegionLocatorMetaDataContainer_Insert::init(CpId_t targetCheckpointID)
{
    m_targetCheckpointId = targetCheckpointID;
    // The timestamp stays: nobody reads it while there is no id.
    m_lastAddedCheckpoint.m_id = NO_CHECKPOINT;
}

void RegionLocatorMetaDataContainer_Insert::abort()
{
    m_targetCheckpointId = 0;
    RegionLocatorMetaDataContainer_InsertAbstract::abort();
}

[[gnu::flatten]] RcStatus
RegionLocatorMetaDataContainer_Insert::addMetaData(const SfsDiskMetaItem& meta,
                                                   const JournalPtr& /*journalPtr*/)
{
    return isHeldBack(meta) ? RC_SUCCESS : addByItself(meta, __PRETTY_FUNCTION__);
}

RcStatus RegionLocatorMetaDataContainer_Insert::addByItself(const SfsDiskMetaItem& meta,
                                                            const char* signature)
{
    if (meta.getType() != SfsMetaType::CHECKPOINT) {
        insert(meta);
        return RC_SUCCESS;
    }
    m_lastAddedCheckpoint = CtrlCp(meta.m_cpData.checkpoint, meta.m_cpData.timestamp);
    const CpId_t target = m_targetCheckpointId;
    if (m_lastAddedCheckpoint.m_id < target)
        return RC_SUCCESS;
    LogItem(LogModuleXel, InfoLevel, signature, 3)
        << "reached target checkpoint or above"
        << " m_lastAddedCheckpoint.m_id=" << m_lastAddedCheckpoint.m_id << " "
        << " m_targetCheckpointId=" << target << " " << std::endl;
    return RC_STOP_EXCLUDE_CURRENT;
}

// ---- everything, but for what only has metadata ----

int RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly::objsCountNeededForOperations()
{
    return std::max(RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::REMOVE, 1),
                    RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::INSERT, 1));
}

RcStatus RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly::addMetaData(
    const SfsDiskMetaItem& meta, const JournalPtr& /*journalPtr*/)
{
    if (isHeldBack(meta))
        return RC_SUCCESS;
    switch (meta.getType()) {
    case SfsMetaType::MD_ONLY:
        HARD_CHECK(meta.getUncompressedLengthBlocks() > 0);
        m_regionLocator->remove(meta.m_ioData.offsetBlocks, meta.getUncompressedLengthBlocks(),
                                m_voucher);
        break;
    case SfsMetaType::UNCOMPRESSED_IO:
    case SfsMetaType::ZEROS:
    case SfsMetaType::COMPRESSED_IO: {
        HARD_CHECK(meta.getUncompressedLengthBlocks() > 0);
        const bool res = m_regionLocator->insertFromScan(
            SubRegionDescriptor(SfsItemDescriptor::genFromSfsDiskMetaItem(meta)), m_voucher);
        SOFT_CHECK(res, << "failed to insert to region locator");
        break;
    }
    default: break;
    }
    return RC_SUCCESS;
}
