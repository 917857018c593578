#include <memory>
#include <thread>

#include "host/infra/MemShieldControl.h"
#include "tests/RegionLocator/DrainFixture.h"
#include "tests/support/FakeTaskControl.h"
#include "tests/support/Tokens.h"

namespace {

constexpr u32 NO_LIMIT = ~u32{0};

const std::string UNLOCK_SIGNATURE = "void RegionLocator::unlockRegions(std::vector<"
                                     "SubRegionDescriptor>&, bool, RegionLocatorVoucher*)";
const std::string PREPARE_SIGNATURE = "void RL_LockWaiter::prepareVoucher()";
const std::string RESUME_FIRST_SIGNATURE =
    "std::vector<SubRegionDescriptor> RegionLocator::resumeGetFirst(u32, u32, bool&)";
const std::string RESUME_REMOVE_SIGNATURE =
    "void RegionLocator::resumeLockAndRemove(const SubRegionDescriptor&)";
const std::string REMOVE_WAITER_SIGNATURE = "virtual void RL_LockWaiter_lockAndRemove::resume()";

class DrainWaitersTest : public DrainFixture
{
protected:
    DrainWaitersTest() { m_task.setResult(99); }

    void parkFirst(u32 maxBlocks, u32 maxRegions)
    {
        m_voucher =
            std::make_unique<VoucherGuard>(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 5);
        ASSERT_EQ(
            maxBlocks == NO_LIMIT
                ? m_locator.getFirstRegionsAndLock(&m_task, maxRegions, &m_regions, *m_voucher)
                : m_locator.getFirstBlocksAndLock(&m_task, maxBlocks, &m_regions, *m_voucher),
            RC_WAIT);
    }
    void parkRemove(const SubRegionDescriptor& io)
    {
        m_voucher =
            std::make_unique<VoucherGuard>(m_locator, RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
        ASSERT_EQ(m_locator.lockAndRemove(&m_task, io, *m_voucher), RC_WAIT);
    }
    // Whether the task was woken, once, as waiters wake.
    testing::AssertionResult woken()
    {
        const std::vector<EnqueuedTask> enqueued = m_control.enqueued();
        if (enqueued.size() != 1)
            return testing::AssertionFailure() << enqueued.size() << " tasks enqueued";
        if (enqueued[0].m_task != &m_task || enqueued[0].m_priority != AsyncTaskPriority::Normal ||
            enqueued[0].m_queue != AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL ||
            enqueued[0].m_status != RC_SUCCESS)
            return testing::AssertionFailure() << "another task, queue, priority or status";
        if (Access::lockWaiter(m_locator) != nullptr)
            return testing::AssertionFailure() << "the waiter is still there";
        if (m_pool->getActiveVoucher() != nullptr)
            return testing::AssertionFailure() << "a voucher is still active";
        return testing::AssertionSuccess();
    }
    bool mutexIsFree()
    {
        // From another thread, as the woken task would come.
        bool free = false;
        std::thread([&] {
            if (Access::mutex(m_locator).tryLock()) {
                free = true;
                Access::mutex(m_locator).unlock();
            }
        }).join();
        return free;
    }

    FakeTaskControl m_control;
    AsyncTask m_task{AsyncTaskPriority::Lowest};
    Regions m_regions;
    std::unique_ptr<VoucherGuard> m_voucher;
};

using DrainWaitersDeathTest = DrainWaitersTest;

// ---- get-first ----

TEST_F(DrainWaitersTest, GetFirstWakesWithTheFirstRegionsLocked)
{
    for (u64 i = 0; i < 3; ++i)
        insertRegion(m_locator, plainRegion(10 * i, 5, 1000 * (i + 1)));
    const Regions held = lockRange(m_locator, 0, 30);
    parkFirst(NO_LIMIT, 5);
    m_regions = {plainRegion(77, 1, 77)}; // replaced, not added to
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_TRUE(woken());
    EXPECT_EQ(m_regions, held);
    EXPECT_EQ(locked(), held);
    EXPECT_TRUE(unlocked().empty());
    EXPECT_EQ(Access::locked(m_locator)->sizeLb(), 15U);
    EXPECT_EQ(m_task.getResult(), 0U);
    // Each token was freed into the voucher and taken from it again.
    EXPECT_EQ(tokensIn(*m_voucher), 10U);
    unlockAndRestoreRegions(m_locator, m_regions);
}

TEST_F(DrainWaitersTest, GetFirstHandsBack0AlsoWhenALimitStoppedIt)
{
    for (const bool byBlocks : {false, true}) {
        RegionLocator locator(8, RL_MMI_View);
        for (u64 i = 0; i < 5; ++i)
            insertRegion(locator, plainRegion(4 * i, 4, 1000 * (i + 1)));
        const Regions held = lockRange(locator, 0, 20);
        const VoucherGuard voucher(locator, RegionLocatorMemPool::LOOKUP_LOCKED, 5);
        m_task.setResult(99);
        ASSERT_EQ(byBlocks ? locator.getFirstBlocksAndLock(&m_task, 10, &m_regions, voucher)
                           : locator.getFirstRegionsAndLock(&m_task, 2, &m_regions, voucher),
                  RC_WAIT);
        EXPECT_EQ(m_task.getResult(), 99U);
        unlockAndRestoreRegions(locator, held);
        EXPECT_EQ(m_regions, (Regions{held[0], held[1]}));
        EXPECT_EQ(Access::locked(locator)->size(), 2U);
        EXPECT_EQ(Access::unlocked(locator)->size(), 3U);
        EXPECT_EQ(m_task.getResult(), 0U);
        unlockAndRestoreRegions(locator, m_regions);
    }
}

TEST_F(DrainWaitersTest, GetFirstStopsAtTheFirstRegionThatDoesNotFit)
{
    insertRegion(m_locator, plainRegion(0, 4, 1000));
    insertRegion(m_locator, plainRegion(10, 9, 2000));
    insertRegion(m_locator, plainRegion(20, 1, 3000));
    const Regions held = lockRange(m_locator, 0, 30);
    parkFirst(12, NO_LIMIT);
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_TRUE(woken());
    EXPECT_EQ(m_regions, (Regions{held[0]}));
    EXPECT_EQ(unlocked(), (Regions{held[1], held[2]}));
    unlockAndRestoreRegions(m_locator, m_regions);
}

TEST_F(DrainWaitersTest, GetFirstMayReachItsLimits)
{
    insertRegion(m_locator, plainRegion(0, 4, 1000));
    insertRegion(m_locator, zeroesRegion(10, 8));
    const Regions held = lockRange(m_locator, 0, 30);
    parkFirst(12, NO_LIMIT);
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_EQ(m_regions, held);
    unlockAndRestoreRegions(m_locator, m_regions);
}

TEST_F(DrainWaitersTest, GetFirstTakesWhatIsThereWhenItWakes)
{
    insertRegion(m_locator, plainRegion(20, 10, 1000));
    Regions left = lockRange(m_locator, 20, 5);
    const Regions right = lockRange(m_locator, 25, 5);
    parkFirst(NO_LIMIT, 2);
    // A lower one comes meanwhile, and the pieces become one region again.
    insertRegion(m_locator, compressedRegion(3, 4, 2000));
    unlockAndRestoreRegions(m_locator, left);
    EXPECT_TRUE(m_control.enqueued().empty());
    EXPECT_TRUE(m_regions.empty());
    EXPECT_EQ(m_task.getResult(), 99U);
    unlockAndRestoreRegions(m_locator, right);
    EXPECT_TRUE(woken());
    EXPECT_EQ(m_regions, (Regions{compressedRegion(3, 4, 2000), plainRegion(20, 10, 1000)}));
    unlockAndRestoreRegions(m_locator, m_regions);
}

TEST_F(DrainWaitersTest, GetFirstWakesWithNothingWhenNothingIsLeft)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    // Its limits do not matter then.
    parkFirst(NO_LIMIT, 0);
    m_regions = {plainRegion(77, 1, 77)};
    unlockAndRemoveRegions(m_locator, held);
    EXPECT_TRUE(woken());
    EXPECT_TRUE(m_regions.empty());
    EXPECT_EQ(m_task.getResult(), 0U);
    EXPECT_EQ(tokensIn(*m_voucher), 10U);
    EXPECT_EQ(tokensOut(m_locator), 10U);
}

TEST_F(DrainWaitersTest, GetFirstsResultsAreThereBeforeItsTaskIsEnqueued)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    Regions seen;
    u64 result = 99;
    RegionLocatorVoucher* active = nullptr;
    bool wasFree = true;
    LookingControl control([&] {
        seen = m_regions;
        result = m_task.getResult();
        active = m_pool->getActiveVoucher();
        wasFree = mutexIsFree();
    });
    parkFirst(NO_LIMIT, 1);
    active = *m_voucher;
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_EQ(control.m_calls, 1);
    EXPECT_EQ(seen, held);
    EXPECT_EQ(result, 0U);
    EXPECT_EQ(active, nullptr);
    EXPECT_FALSE(wasFree);
    unlockAndRestoreRegions(m_locator, m_regions);
}

TEST_F(DrainWaitersDeathTest, GetFirstWhoseFirstRegionDoesNotFitStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    for (const auto& [maxBlocks, maxRegions] :
         {std::pair<u32, u32>{9, NO_LIMIT}, {0, NO_LIMIT}, {NO_LIMIT, 0}})
        EXPECT_DEATH(
            {
                parkFirst(maxBlocks, maxRegions);
                unlockAndRestoreRegions(m_locator, held);
            },
            hardCheckPattern("numBlocks > 0"));
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(DrainWaitersDeathTest, GetFirstResumedBesideLocksStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 5);
    const VoucherGuard voucher(m_pool, 4);
    EXPECT_DEATH(
        {
            const MutexGuard lock(Access::mutex(m_locator));
            RL_LockWaiter_getFirst(&m_locator, &m_task, &m_regions, NO_LIMIT, 1, voucher).resume();
        },
        hardCheckPattern("m_lockedRegions->empty()"));
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(DrainWaitersTest, GetFirstWritesItsStepsBetweenThoseOfTheUnlock)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, zeroesRegion(20, 10));
    Regions held = lockRange(m_locator, 0, 30);
    const Regions stored = held;
    parkFirst(NO_LIMIT, 2);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 2);
    const LogCapture log;
    {
        const VerboseLogs verbose;
        m_locator.unlockAndRestore(held, voucher);
    }
    const std::vector<LogRecord> all = log.records();
    ASSERT_GE(all.size(), 6U) << testing::PrintToString(all);
    const std::vector<LogRecord> records(all.end() - 6, all.end());
    const std::string first = "before resume  a_regions[0]=" + regionText(stored[0]) + " ";
    EXPECT_TRUE(isTrace(records[0], UNLOCK_SIGNATURE, first));
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(isTrace(records[2 * i + 1], RESUME_FIRST_SIGNATURE,
                            "erase from unlocked " + regionText(stored[i])));
        EXPECT_TRUE(isTrace(records[2 * i + 2], RESUME_FIRST_SIGNATURE,
                            "insert locked " + regionText(stored[i])));
    }
    EXPECT_TRUE(isTrace(records[5], UNLOCK_SIGNATURE,
                        "after resume  a_regions[0]=" + regionText(stored[0]) + " "));
    unlockAndRestoreRegions(m_locator, m_regions);
}

// ---- lock-and-remove ----

TEST_F(DrainWaitersTest, LockAndRemoveRemovesTheIoWhenItWakes)
{
    insertRegion(m_locator, plainRegion(0, 40, 1000));
    insertRegion(m_locator, plainRegion(5, 5, 2000));
    insertRegion(m_locator, zeroesRegion(25, 5));
    const Regions held = lockRange(m_locator, 0, 3);
    SubRegionDescriptor io = plainRegion(0, 40, 1000);
    parkRemove(io);
    io = plainRegion(5, 5, 2000); // it has its own copy
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_TRUE(woken());
    EXPECT_EQ(unlocked(), (Regions{plainRegion(5, 5, 2000), zeroesRegion(25, 5)}));
    EXPECT_TRUE(locked().empty());
    EXPECT_EQ(m_task.getResult(), 99U);
    // The three pieces that it removed.
    EXPECT_EQ(tokensIn(*m_voucher), 4U);
}

TEST_F(DrainWaitersTest, LockAndRemoveWaitsForEveryLockOnceItIsParked)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(50, 10, 2000));
    const Regions other = lockRange(m_locator, 50, 10);
    const Regions own = lockRange(m_locator, 0, 10);
    parkRemove(plainRegion(0, 10, 1000));
    unlockAndRestoreRegions(m_locator, own);
    EXPECT_TRUE(m_control.enqueued().empty());
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 1000)}));
    unlockAndRestoreRegions(m_locator, other);
    EXPECT_TRUE(woken());
    EXPECT_EQ(unlocked(), (Regions{plainRegion(50, 10, 2000)}));
}

TEST_F(DrainWaitersTest, LockAndRemoveIsDoneBeforeItsTaskIsEnqueued)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(10, 10, 2000));
    const Regions held = lockRange(m_locator, 2, 4);
    Regions seen;
    RegionLocatorVoucher* active = nullptr;
    bool wasFree = true;
    LookingControl control([&] {
        seen = unlocked();
        active = m_pool->getActiveVoucher();
        wasFree = mutexIsFree();
    });
    parkRemove(plainRegion(0, 10, 1000));
    active = *m_voucher;
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_EQ(control.m_calls, 1);
    EXPECT_EQ(seen, (Regions{plainRegion(10, 10, 2000)}));
    EXPECT_EQ(active, nullptr);
    EXPECT_FALSE(wasFree);
}

TEST_F(DrainWaitersTest, LockAndRemoveThatFindsNothingLeftReportsItAndWakes)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    const SubRegionDescriptor io = plainRegion(0, 10, 1000);
    parkRemove(io);
    {
        const LogCapture log;
        unlockAndRemoveRegions(m_locator, held);
        EXPECT_TRUE(isSoftCheck(log.only(), RESUME_REMOVE_SIGNATURE, "res.size() > 0",
                                "Region is not unlocked. desc=" + regionText(io)));
    }
    EXPECT_TRUE(woken());
    EXPECT_TRUE(unlocked().empty());
    EXPECT_EQ(tokensIn(*m_voucher), 1U);
}

TEST_F(DrainWaitersTest, LockAndRemoveResumedBesideLocksReportsItAndRemovesWhatIsThere)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 4);
    const VoucherGuard voucher(m_pool, 2);
    {
        const LogCapture log;
        {
            const MutexGuard lock(Access::mutex(m_locator));
            RL_LockWaiter_lockAndRemove(&m_locator, plainRegion(0, 10, 1000), &m_task, voucher)
                .resume();
        }
        std::ostringstream extras;
        extras << "When resuming, no locked regions are allowed.  m_lockedRegions="
               << Access::locked(m_locator);
        EXPECT_TRUE(isSoftCheck(log.only(), RESUME_REMOVE_SIGNATURE, "m_lockedRegions->size() == 0",
                                extras.str()));
    }
    EXPECT_TRUE(woken());
    EXPECT_TRUE(unlocked().empty());
    EXPECT_EQ(locked(), held);
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(DrainWaitersTest, LockAndRemoveWritesItsStepsBetweenThoseOfTheUnlock)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(4, 2, 2000));
    Regions held = lockRange(m_locator, 0, 4);
    const SubRegionDescriptor io = plainRegion(0, 10, 1000);
    parkRemove(io);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    const LogCapture log;
    {
        const VerboseLogs verbose;
        m_locator.unlockAndRestore(held, voucher);
    }
    const std::vector<LogRecord> all = log.records();
    ASSERT_GE(all.size(), 7U) << testing::PrintToString(all);
    const std::vector<LogRecord> records(all.end() - 7, all.end());
    const std::string own[] = {regionText(plainRegion(0, 4, 1000)),
                               regionText(plainRegion(6, 4, 1006, 6))};
    EXPECT_TRUE(
        isTrace(records[0], UNLOCK_SIGNATURE, "before resume  a_regions[0]=" + own[0] + " "));
    EXPECT_TRUE(isRecord(records[1], LogModuleXel, InfoLevel, 0, REMOVE_WAITER_SIGNATURE,
                         " m_desc=" + regionText(io) + " "));
    EXPECT_TRUE(isTrace(records[2], RESUME_REMOVE_SIGNATURE,
                        regionText(io) + " res=" + own[0] + "\n" + own[1] + "\n res.size()=2"));
    EXPECT_TRUE(
        isTrace(records[3], PUNCH_OUT_SIGNATURE, punchOutText("2", Access::unlocked(m_locator))));
    EXPECT_TRUE(isTrace(records[4], PUNCH_OUT_SIGNATURE, "erase whole  curRegion=" + own[0]));
    EXPECT_TRUE(isTrace(records[5], PUNCH_OUT_SIGNATURE, "erase whole  curRegion=" + own[1]));
    EXPECT_TRUE(
        isTrace(records[6], UNLOCK_SIGNATURE, "after resume  a_regions[0]=" + own[0] + " "));
}

// ---- both ----

TEST_F(DrainWaitersTest, ResumedWithAVoucherStillInPlaceReportThatAndUseTheirOwn)
{
    const VoucherGuard other(m_pool, 3);
    const VoucherGuard own(m_pool, 2);
    for (const bool remove : {false, true}) {
        insertRegion(m_locator, plainRegion(0, 10, 1000));
        const LogCapture log;
        {
            const MutexGuard lock(Access::mutex(m_locator));
            m_pool->setActiveVoucher(other);
            if (remove)
                RL_LockWaiter_lockAndRemove(&m_locator, plainRegion(2, 2, 1002, 2), &m_task, own)
                    .resume();
            else
                RL_LockWaiter_getFirst(&m_locator, &m_task, &m_regions, NO_LIMIT, 1, own).resume();
        }
        const std::vector<LogRecord> records = log.records();
        // The second is the pool's.
        ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
        EXPECT_TRUE(isSoftCheck(records[0], PREPARE_SIGNATURE, "pool->getActiveVoucher() == __null",
                                "", "../RL_LockWaiter.cpp"));
        EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
        EXPECT_EQ(tokensIn(other), 3U);
        EXPECT_EQ(tokensIn(own), remove ? 1U : 2U);
        if (!remove)
            unlockAndRemoveRegions(m_locator, m_regions);
    }
    EXPECT_EQ(m_control.enqueued().size(), 2U);
}

TEST_F(DrainWaitersTest, OfALocatorThatIsDestroyedAreNeitherResumedNorFreed)
{
    for (const bool remove : {false, true}) {
        RL_LockWaiter* waiter = nullptr;
        u64 before = 0;
        {
            RegionLocator locator(8, RL_MMI_View);
            insertRegion(locator, plainRegion(0, 10, 1000));
            lockRange(locator, 0, 10);
            const VoucherGuard voucher(locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
            ASSERT_EQ(remove ? locator.lockAndRemove(&m_task, plainRegion(0, 10, 1000), voucher)
                             : locator.getFirstRegionsAndLock(&m_task, 1, &m_regions, voucher),
                      RC_WAIT);
            waiter = Access::lockWaiter(locator);
            before = MemShieldControl::liveObjects();
        }
        EXPECT_LE(MemShieldControl::liveObjects(), before);
        EXPECT_TRUE(m_control.enqueued().empty());
        EXPECT_EQ(m_task.getResult(), 99U);
        // Still an object: a freed one would be found out here by the address sanitizer.
        EXPECT_EQ(dynamic_cast<RL_LockWaiter_lockAndRemove*>(waiter) != nullptr, remove);
        SHIELD_DELETE(waiter);
    }
}

TEST_F(DrainWaitersDeathTest, ASecondOneOfAnyKindStopsTheProcess)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const Regions held = lockRange(m_locator, 0, 10);
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
    const auto request = [&](int kind) {
        switch (kind) {
        case 0: return m_locator.lookup(&m_task, 0, 10, &m_regions, true, voucher);
        case 1: return m_locator.getFirstBlocksAndLock(&m_task, 10, &m_regions, voucher);
        default: return m_locator.lockAndRemove(&m_task, plainRegion(0, 10, 1000), voucher);
        }
    };
    for (int first = 0; first < 3; ++first) {
        for (int second = 0; second < 3; ++second) {
            ASSERT_EQ(request(first), RC_WAIT);
            EXPECT_DEATH(request(second), hardCheckPattern("m_lockWaiter == NULL"))
                << first << " " << second;
            Access::dropLockWaiter(m_locator);
        }
    }
    unlockAndRestoreRegions(m_locator, held);
}

// Without the fixture: tracking begins where nothing lives yet.
TEST(DrainWaitersNamesTest, AreTrackedUnderTheirNamesUntilTheyAreResumed)
{
    ASSERT_EQ(MemShieldControl::enable(), RC_SUCCESS);
    const auto tracked = [](const std::string& typeName) {
        u64 count = 0;
        for (const MemShieldGroup& group : MemShieldControl::liveGroups())
            if (group.m_typeName == typeName && group.m_file == "../RegionLocator.cpp")
                count += group.m_count;
        return count;
    };
    {
        const FakeTaskControl control;
        AsyncTask task;
        Regions regions;
        RegionLocator locator(8, RL_MMI_View);
        insertRegion(locator, plainRegion(0, 10, 1000));
        const VoucherGuard voucher(locator, RegionLocatorMemPool::LOOKUP_LOCKED, 1);
        Regions held = lockRange(locator, 0, 10);
        ASSERT_EQ(locator.getFirstRegionsAndLock(&task, 1, &regions, voucher), RC_WAIT);
        EXPECT_EQ(tracked("RL_LockWaiter_getFirst"), 1U);
        unlockAndRestoreRegions(locator, held);
        EXPECT_EQ(tracked("RL_LockWaiter_getFirst"), 0U);
        ASSERT_EQ(locator.lockAndRemove(&task, plainRegion(0, 10, 1000), voucher), RC_WAIT);
        EXPECT_EQ(tracked("RL_LockWaiter_lockAndRemove"), 1U);
        unlockAndRestoreRegions(locator, regions);
        EXPECT_EQ(tracked("RL_LockWaiter_lockAndRemove"), 0U);
    }
    EXPECT_EQ(MemShieldControl::disable(), RC_SUCCESS);
}

} // namespace
