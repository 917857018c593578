// Requests that met locked regions, and wait without a thread.
//
// A request that needs regions which somebody holds locked parks one waiter in the locator and
// answers RC_WAIT. The unlock that leaves nothing locked resumes it: on the unlocking thread, under
// the locator's mutex, the second half of the request runs, its result goes where the caller wanted
// it, and the caller's task goes back on the ready queue with RC_SUCCESS.
#pragma once

#include <vector>

#include "RegionLocator/RegionLocatorVoucher.h"
#include "RegionLocator/SubRegionDescriptor.h"
#include "common/headers/AsyncTask.h"

class RegionLocator;

// Created by the locator when a request parks, deleted by it after resume(). It owns nothing of
// what it points at. A locator that is destroyed leaves its parked waiter behind.
class RL_LockWaiter
{
public:
    RL_LockWaiter(RegionLocator* a_regionLocator, AsyncTask* a_pAsyncTask,
                  std::vector<SubRegionDescriptor>* a_subRegionsResult,
                  RegionLocatorVoucher* a_voucher);
    virtual ~RL_LockWaiter() = default;
    RL_LockWaiter(const RL_LockWaiter&) = delete;
    RL_LockWaiter& operator=(const RL_LockWaiter&) = delete;

    // Runs the second half of the request and wakes its task, with RC_NO_MEMORY and nothing locked
    // where the heap has no room for the answer. REQUIRES: the locator's mutex is held
    // and nothing is locked. Nothing that it calls may take that mutex.
    virtual void resume() = 0;

protected:
    // Installs the request's voucher. Soft check: none is installed.
    void prepareVoucher();

    // Takes the voucher off and enqueues the task, always at Normal priority: it holds up whoever
    // comes next to these regions, whatever its own priority is.
    void cleanup();
    // The same with the outcome that the task is told.
    void end(RcStatus rc);

    RegionLocator* m_regionLocator;
    AsyncTask* m_pAsyncTask;
    std::vector<SubRegionDescriptor>* m_subRegionsResult; // null: the request has no pieces
    RegionLocatorVoucher* m_voucher;
};

// A locking lookup.
class RL_LockWaiter_lookup : public RL_LockWaiter
{
public:
    RL_LockWaiter_lookup(RegionLocator* a_regionLocator, u64 a_viewOffsetBlocks, u32 a_lengthBlocks,
                         AsyncTask* a_pAsyncTask,
                         std::vector<SubRegionDescriptor>* a_subRegionsResult,
                         RegionLocatorVoucher* a_voucher);
    void resume() override;

private:
    u64 m_viewOffsetBlocks;
    u32 m_lengthBlocks;
};

// A get-first that found everything locked.
class RL_LockWaiter_getFirst : public RL_LockWaiter
{
public:
    RL_LockWaiter_getFirst(RegionLocator* a_regionLocator, AsyncTask* a_pAsyncTask,
                           std::vector<SubRegionDescriptor>* a_subRegionsResult, u32 a_maxBlocks,
                           u32 a_maxRegions, RegionLocatorVoucher* a_voucher);
    // Also stores 0 in the task's result.
    void resume() override;

private:
    u32 m_maxBlocks;
    u32 m_maxRegions;
};

// A lock-and-remove that met pieces of its own IO; it has no result.
class RL_LockWaiter_lockAndRemove : public RL_LockWaiter
{
public:
    RL_LockWaiter_lockAndRemove(RegionLocator* a_regionLocator, const SubRegionDescriptor& desc,
                                AsyncTask* a_pAsyncTask, RegionLocatorVoucher* a_voucher);
    void resume() override;

private:
    const SubRegionDescriptor m_desc;
};
