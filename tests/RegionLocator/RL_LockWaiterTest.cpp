#include "RegionLocator/RL_LockWaiter.h"

#include <thread>

#include "host/infra/MemShieldControl.h"
#include "tests/RegionLocator/LocatorFixture.h"
#include "tests/support/FakeTaskControl.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/Tokens.h"

namespace {

using Access = RegionLocatorTestAccess;

// Shows the steps that the waiters of each kind share.
class BareWaiter : public RL_LockWaiter
{
public:
    using RL_LockWaiter::cleanup;
    using RL_LockWaiter::m_pAsyncTask;
    using RL_LockWaiter::m_regionLocator;
    using RL_LockWaiter::m_subRegionsResult;
    using RL_LockWaiter::m_voucher;
    using RL_LockWaiter::prepareVoucher;
    using RL_LockWaiter::RL_LockWaiter;
    void resume() override {}
};

class LockWaiterTest : public LocatorFixture
{
protected:
    Regions m_pieces;
};

TEST_F(LockWaiterTest, KeepsWhatItIsGivenInTheStatedOrder)
{
    const VoucherGuard voucher(m_pool, 1);
    BareWaiter waiter(&m_locator, &m_task, &m_pieces, voucher);
    EXPECT_EQ(waiter.m_regionLocator, &m_locator);
    EXPECT_EQ(waiter.m_pAsyncTask, &m_task);
    EXPECT_EQ(waiter.m_subRegionsResult, &m_pieces);
    EXPECT_EQ(waiter.m_voucher, voucher.get());
    EXPECT_LT(static_cast<void*>(&waiter.m_regionLocator),
              static_cast<void*>(&waiter.m_pAsyncTask));
    EXPECT_LT(static_cast<void*>(&waiter.m_pAsyncTask),
              static_cast<void*>(&waiter.m_subRegionsResult));
    EXPECT_LT(static_cast<void*>(&waiter.m_subRegionsResult),
              static_cast<void*>(&waiter.m_voucher));
}

TEST_F(LockWaiterTest, PrepareInstallsItsVoucherSilently)
{
    const VoucherGuard voucher(m_pool, 1);
    BareWaiter waiter(&m_locator, &m_task, &m_pieces, voucher);
    const LogCapture log;
    waiter.prepareVoucher();
    EXPECT_EQ(m_pool->getActiveVoucher(), voucher.get());
    EXPECT_TRUE(log.records().empty());
    m_pool->setActiveVoucher(nullptr);
}

TEST_F(LockWaiterTest, PrepareReportsAVoucherInPlaceAndReplacesIt)
{
    const VoucherGuard before(m_pool, 1);
    const VoucherGuard voucher(m_pool, 1);
    BareWaiter waiter(&m_locator, &m_task, &m_pieces, voucher);
    m_pool->setActiveVoucher(before);
    const LogCapture log;
    waiter.prepareVoucher();
    EXPECT_EQ(m_pool->getActiveVoucher(), voucher.get());
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
    EXPECT_TRUE(isSoftCheck(records[0], "void RL_LockWaiter::prepareVoucher()",
                            "pool->getActiveVoucher() == __null", "", "../RL_LockWaiter.cpp"));
    EXPECT_TRUE(isSoftCheck(records[1],
                            "void RegionLocatorMemPool::setActiveVoucher(RegionLocatorVoucher*)",
                            "voucher == __null", "RLMemPool<7> a voucher is already set",
                            "../RegionLocatorMemPool.cpp"));
    m_pool->setActiveVoucher(nullptr);
}

TEST_F(LockWaiterTest, CleanupEnqueuesAtNormalPriorityWhateverTheTasksOwn)
{
    for (const AsyncTaskPriority priority :
         {AsyncTaskPriority::Normal, AsyncTaskPriority::Low, AsyncTaskPriority::Lowest}) {
        const FakeTaskControl control;
        AsyncTask task(priority);
        task.setResult(99);
        const VoucherGuard voucher(m_pool, 1);
        BareWaiter waiter(&m_locator, &task, &m_pieces, voucher);
        waiter.prepareVoucher();
        waiter.cleanup();
        EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
        const std::vector<EnqueuedTask> enqueued = control.enqueued();
        ASSERT_EQ(enqueued.size(), 1U);
        EXPECT_EQ(enqueued[0].m_task, &task);
        EXPECT_EQ(enqueued[0].m_priority, AsyncTaskPriority::Normal);
        EXPECT_EQ(enqueued[0].m_queue, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL);
        EXPECT_EQ(enqueued[0].m_status, RC_SUCCESS);
        EXPECT_EQ(task.getResult(), 99U);
    }
}

TEST_F(LockWaiterTest, LookupWakesALowTaskThroughTheNormalQueue)
{
    const FakeTaskControl control;
    AsyncTask task(AsyncTaskPriority::Lowest);
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    ASSERT_EQ(m_locator.lookup(&task, 0, 10, &m_pieces, true, voucher), RC_WAIT);
    unlockAndRestoreRegions(m_locator, held);
    const std::vector<EnqueuedTask> enqueued = control.enqueued();
    ASSERT_EQ(enqueued.size(), 1U);
    EXPECT_EQ(enqueued[0].m_task, &task);
    EXPECT_EQ(enqueued[0].m_priority, AsyncTaskPriority::Normal);
    unlockAndRestoreRegions(m_locator, m_pieces);
}

TEST_F(LockWaiterTest, TheResultIsThereAndTheVoucherOffBeforeTheTaskIsEnqueued)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard waiting(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    Regions seen;
    RegionLocatorVoucher* activeThen = waiting.get();
    bool mutexWasFree = true;
    LookingControl control([&] {
        seen = m_pieces;
        activeThen = m_pool->getActiveVoucher();
        // From another thread, as the woken task would come.
        std::thread([&] {
            mutexWasFree = false;
            if (Access::mutex(m_locator).tryLock()) {
                mutexWasFree = true;
                Access::mutex(m_locator).unlock();
            }
        }).join();
    });
    ASSERT_EQ(m_locator.lookup(&m_task, 2, 4, &m_pieces, true, waiting), RC_WAIT);
    const VoucherGuard unlocking(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    m_locator.unlockAndRestore(held, unlocking);
    EXPECT_EQ(control.m_calls, 1);
    EXPECT_EQ(seen, (Regions{plainRegion(2, 4, 1002, 2)}));
    EXPECT_EQ(activeThen, nullptr);
    EXPECT_FALSE(mutexWasFree);
    // Each operation paid from its own voucher: the unlock 1 freed and 1 taken, the waiter 1 freed
    // and 3 taken.
    EXPECT_EQ(tokensIn(unlocking), 2U);
    EXPECT_EQ(tokensIn(waiting), 0U);
    unlockAndRestoreRegions(m_locator, m_pieces);
}

TEST_F(LockWaiterTest, IsTrackedWhileItIsParkedAndFreedAfterItsResumption)
{
    const FakeTaskControl control;
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard waiting(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    const VoucherGuard unlocking(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    const u64 before = MemShieldControl::liveObjects();
    ASSERT_EQ(m_locator.lookup(&m_task, 0, 10, &m_pieces, true, waiting), RC_WAIT);
    EXPECT_EQ(MemShieldControl::liveObjects(), before + 1);
    EXPECT_NE(dynamic_cast<RL_LockWaiter_lookup*>(Access::lockWaiter(m_locator)), nullptr);
    m_locator.unlockAndRestore(held, unlocking);
    EXPECT_EQ(MemShieldControl::liveObjects(), before);
    EXPECT_EQ(Access::lockWaiter(m_locator), nullptr);
    unlockAndRestoreRegions(m_locator, m_pieces);
}

TEST_F(LockWaiterTest, WhoseRangeLostItsRegionsWakesWithAnEmptyResult)
{
    const FakeTaskControl control;
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard waiting(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    m_pieces = {plainRegion(77, 1, 77)};
    ASSERT_EQ(m_locator.lookup(&m_task, 3, 4, &m_pieces, true, waiting), RC_WAIT);
    unlockAndRemoveRegions(m_locator, held);
    EXPECT_TRUE(m_pieces.empty());
    ASSERT_EQ(control.enqueued().size(), 1U);
    EXPECT_EQ(control.enqueued()[0].m_status, RC_SUCCESS);
    EXPECT_EQ(tokensIn(waiting), 2U);
}

TEST_F(LockWaiterTest, ResumedWithAVoucherStillInPlaceReportsAndUsesItsOwn)
{
    const FakeTaskControl control;
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard waiting(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    ASSERT_EQ(m_locator.lookup(&m_task, 0, 10, &m_pieces, true, waiting), RC_WAIT);
    const VoucherGuard other(m_pool, 5);
    {
        // As if an unlock had forgotten to take its voucher off before it resumes.
        const MutexGuard lock(Access::mutex(m_locator));
        m_pool->setActiveVoucher(other);
        Access::locked(m_locator)->clear();
        const LogCapture log;
        RL_LockWaiter_lookup(&m_locator, 0, 10, &m_task, &m_pieces, waiting).resume();
        const std::vector<LogRecord> records = log.records();
        ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
        EXPECT_TRUE(isSoftCheck(records[0], "", "pool->getActiveVoucher() == __null", "",
                                "../RL_LockWaiter.cpp"));
    }
    EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
    EXPECT_EQ(tokensIn(waiting), 2U);
    EXPECT_EQ(control.enqueued().size(), 1U);
    Access::dropLockWaiter(m_locator);
}

TEST_F(LockWaiterTest, OfALocatorThatIsDestroyedIsNeitherResumedNorFreed)
{
    const FakeTaskControl control;
    RL_LockWaiter* waiter = nullptr;
    u64 before = 0;
    {
        RegionLocator locator(8, RL_MMI_View);
        insertRegion(locator, plainRegion(0, 10, 1000));
        lockRange(locator, 0, 10);
        const VoucherGuard waiting(locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
        before = MemShieldControl::liveObjects();
        ASSERT_EQ(locator.lookup(&m_task, 0, 10, &m_pieces, true, waiting), RC_WAIT);
        waiter = Access::lockWaiter(locator);
        EXPECT_EQ(MemShieldControl::liveObjects(), before + 1);
    }
    EXPECT_TRUE(control.enqueued().empty());
    EXPECT_TRUE(m_pieces.empty());
    SHIELD_DELETE(waiter);
}

// Of tracked objects, by type name and file.
u64 trackedAs(const std::string& typeName, const std::string& file)
{
    u64 count = 0;
    for (const MemShieldGroup& group : MemShieldControl::liveGroups())
        if (group.m_typeName == typeName && group.m_file == file)
            count += group.m_count;
    return count;
}

TEST(TrackedNamesTest, WaitersVouchersAndTheirHelpersAreKnownByTheirTypeNames)
{
    ASSERT_EQ(MemShieldControl::enable(), RC_SUCCESS);
    {
        const LimitedMemory memory(64 * 1024, 2 * 64 * 1024);
        const LogCapture log;
        const FakeTaskControl control;
        RegionLocator locator(7, RL_MMI_View);
        RegionLocatorMemPool holder(8, RL_MMI_View);
        const VoucherGuard held(&holder, 1);
        AsyncTask task;
        Regions parked;
        insertRegion(locator, plainRegion(0, 10, 1000));
        const Regions pieces = lockRange(locator, 0, 10);
        // Two feeders have one each.
        EXPECT_EQ(trackedAs("RegionLocatorVoucher", "../RegionLocatorMemPool.cpp"), 3U);
        const VoucherGuard waiting(locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
        EXPECT_EQ(trackedAs("RegionLocatorVoucher", "../RegionLocatorMemPool.cpp"), 4U);
        ASSERT_EQ(locator.lookup(&task, 0, 10, &parked, true, waiting), RC_WAIT);
        EXPECT_EQ(trackedAs("RL_LockWaiter_lookup", "../RegionLocator.cpp"), 1U);
        unlockAndRemoveRegions(locator, pieces);
        EXPECT_EQ(trackedAs("RL_LockWaiter_lookup", "../RegionLocator.cpp"), 0U);

        // More than there is: its observer waits, and a helper for the block behind it.
        RegionLocatorVoucher* large = locator.getMemPool()->createVoucher();
        const FutureStatus future =
            locator.getMemPool()->fillVoucher(large, 1500, ~u64{0}, &locator);
        EXPECT_FALSE(future.isSet());
        EXPECT_EQ(trackedAs("FillVoucherObserver", "../RegionLocatorMemPool.cpp"), 1U);
        EXPECT_EQ(trackedAs("AllocationHelper", "../RegionLocatorMemPool.cpp"), 1U);
        locator.getMemPool()->cancelVoucherFill(&locator);
        EXPECT_EQ(future.get(), RC_ABORTED);
        EXPECT_EQ(trackedAs("FillVoucherObserver", "../RegionLocatorMemPool.cpp"), 0U);
        EXPECT_EQ(trackedAs("AllocationHelper", "../RegionLocatorMemPool.cpp"), 0U);
        locator.getMemPool()->destroyVoucher(large);
    }
    EXPECT_EQ(MemShieldControl::disable(), RC_SUCCESS);
}

} // namespace
