#include "RegionLocator/RL_LockWaiter.h"

#include <new>

#include "RegionLocator/RegionLocator.h"
#include "common/headers/AsyncTaskControl.h"
#include "common/infra/DynamicTweaks.h"

RL_LockWaiter::RL_LockWaiter(RegionLocator* a_regionLocator, AsyncTask* a_pAsyncTask,
                             std::vector<SubRegionDescriptor>* a_subRegionsResult,
                             RegionLocatorVoucher* a_voucher)
    : m_regionLocator(a_regionLocator), m_pAsyncTask(a_pAsyncTask),
      m_subRegionsResult(a_subRegionsResult), m_voucher(a_voucher)
{}

void RL_LockWaiter::prepareVoucher()
{
    RegionLocatorMemPool* pool = m_regionLocator->getMemPool();
    SOFT_CHECK(pool->getActiveVoucher() == NULL);
    pool->setActiveVoucher(m_voucher);
}

void RL_LockWaiter::cleanup()
{
    end(RC_SUCCESS);
}

void RL_LockWaiter::end(RcStatus rc)
{
    m_regionLocator->getMemPool()->setActiveVoucher(nullptr);
    AsyncTaskControlPriority::getControl(AsyncTaskPriority::Normal)
        ->enqueueToReadyQueue(m_pAsyncTask, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL, rc);
}

RL_LockWaiter_lookup::RL_LockWaiter_lookup(RegionLocator* a_regionLocator, u64 a_viewOffsetBlocks,
                                           u32 a_lengthBlocks, AsyncTask* a_pAsyncTask,
                                           std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                           RegionLocatorVoucher* a_voucher)
    : RL_LockWaiter(a_regionLocator, a_pAsyncTask, a_subRegionsResult, a_voucher),
      m_viewOffsetBlocks(a_viewOffsetBlocks), m_lengthBlocks(a_lengthBlocks)
{}

void RL_LockWaiter_lookup::resume()
{
    m_regionLocator->m_mutex.assertHeld();
    prepareVoucher();
    try {
        *m_subRegionsResult = m_regionLocator->resumeLookup(m_viewOffsetBlocks, m_lengthBlocks);
    } catch (const std::bad_alloc&) {
        end(RC_NO_MEMORY); // the list comes before the locks, so nothing is locked
        return;
    }
    cleanup();
}

RL_LockWaiter_getFirst::RL_LockWaiter_getFirst(RegionLocator* a_regionLocator,
                                               AsyncTask* a_pAsyncTask,
                                               std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                               u32 a_maxBlocks, u32 a_maxRegions,
                                               RegionLocatorVoucher* a_voucher)
    : RL_LockWaiter(a_regionLocator, a_pAsyncTask, a_subRegionsResult, a_voucher),
      m_maxBlocks(a_maxBlocks), m_maxRegions(a_maxRegions)
{}

void RL_LockWaiter_getFirst::resume()
{
    m_regionLocator->m_mutex.assertHeld();
    prepareVoucher();
    bool bHasMore = false;
    try {
        *m_subRegionsResult = m_regionLocator->resumeGetFirst(m_maxBlocks, m_maxRegions, bHasMore);
    } catch (const std::bad_alloc&) {
        end(RC_NO_MEMORY);
        return;
    }
    m_pAsyncTask->setResult(bHasMore ? 1 : 0);
    cleanup();
}

RL_LockWaiter_lockAndRemove::RL_LockWaiter_lockAndRemove(RegionLocator* a_regionLocator,
                                                         const SubRegionDescriptor& desc,
                                                         AsyncTask* a_pAsyncTask,
                                                         RegionLocatorVoucher* a_voucher)
    : RL_LockWaiter(a_regionLocator, a_pAsyncTask, nullptr, a_voucher), m_desc(desc)
{
    if (DynamicTweaks::instance()->t_RlVerboseLogs)
        LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 0)
            << " m_desc=" << m_desc << " " << std::endl;
}

void RL_LockWaiter_lockAndRemove::resume()
{
    if (DynamicTweaks::instance()->t_RlVerboseLogs)
        LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 0)
            << " m_desc=" << m_desc << " " << std::endl;
    m_regionLocator->m_mutex.assertHeld();
    prepareVoucher();
    m_regionLocator->resumeLockAndRemove(m_desc);
    cleanup();
}
