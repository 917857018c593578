// Every public operation from several threads at once, for ThreadSanitizer to look at. Threads wait
// for conditions, never for time, and at most one request at a time is in the position to park.

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "common/headers/AsyncTaskControl.h"
#include "common/infra/DynamicTweaks.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

constexpr int ROUNDS = 300;

// Runs all of them at once and waits for their ends.
void runTogether(const std::vector<std::function<void()>>& bodies)
{
    std::atomic<size_t> ready{0};
    std::vector<std::thread> threads;
    for (const std::function<void()>& body : bodies)
        threads.emplace_back([&] {
            ++ready;
            while (ready < bodies.size())
                std::this_thread::yield();
            body();
        });
    for (std::thread& thread : threads)
        thread.join();
}

// A task that a plain thread waits for.
struct WaitingTask : public AsyncTask
{
    Semaphore m_woken{0};
    RcStatus m_status = RC_WAIT;
};

// Wakes the thread behind the task that is put on the Normal queue.
class WakingControl : public AsyncTaskControl
{
public:
    WakingControl()
        : m_before(AsyncTaskControlPriority::setControl(AsyncTaskPriority::Normal, this))
    {}
    ~WakingControl() override
    {
        AsyncTaskControlPriority::setControl(AsyncTaskPriority::Normal, m_before);
    }
    void enqueueToReadyQueue(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID,
                             RcStatus status) override
    {
        auto* waiting = static_cast<WaitingTask*>(task);
        waiting->m_status = status;
        waiting->m_woken.post();
    }

private:
    AsyncTaskControl* m_before;
};

class LocatorThreadsTest : public testing::Test
{
protected:
    // One lock of a range and its end, for a thread that alone locks there.
    void lockAndUnlock(u64 offset, u32 length, bool restore)
    {
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 20);
        Regions pieces;
        ASSERT_EQ(m_locator.lookup(nullptr, offset, length, &pieces, true, voucher), RC_SUCCESS);
        const VoucherGuard back(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED, 20);
        if (restore)
            m_locator.unlockAndRestore(pieces, back);
        else
            m_locator.unlockAndRemove(pieces, back);
    }
    void expectBalance() { EXPECT_EQ(tokensOut(m_locator), m_locator.getItemCount() + 1); }
    // Whether pieces ascend without overlap inside the range.
    static bool isOrdered(const Regions& pieces, u64 offset, u64 end)
    {
        for (const SubRegionDescriptor& piece : pieces) {
            if (piece.m_viewOffsetBlocks < offset || piece.m_lengthBlocks == 0)
                return false;
            offset = piece.m_viewOffsetBlocks + piece.m_lengthBlocks;
        }
        return offset <= end;
    }

    LogCapture m_log; // keeps the records to itself
    RegionLocator m_locator{7, RL_MMI_View};
    // Keeps a block in the locator's pool. A fill that does not wait may fail while another thread
    // fetches one, and most operations here come with a voucher that was filled without waiting.
    const VoucherGuard m_block{m_locator.getMemPool(), 1};
};

TEST_F(LocatorThreadsTest, Inserts)
{
    std::vector<std::function<void()>> bodies;
    for (u64 thread = 0; thread < 3; ++thread)
        bodies.emplace_back([this, thread] {
            for (u64 i = 0; i < ROUNDS; ++i) {
                insertRegion(m_locator, plainRegion(thread * 100000 + 7 * i, 10, 1000 * thread));
                insertRegion(m_locator, plainRegion(500000 + i, 5, 1000 * thread));
            }
        });
    runTogether(bodies);
    EXPECT_EQ(m_locator.getStatistics().m_numIOsInserted, 6U * ROUNDS);
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 3U * (7 * ROUNDS + 3) + ROUNDS + 4);
    expectBalance();
}

TEST_F(LocatorThreadsTest, PlainLookupsDuringInserts)
{
    std::atomic<bool> done{false};
    insertRegion(m_locator, plainRegion(0, 1000, 5000));
    const auto look = [&] {
        while (!done) {
            const Regions pieces = lookupRange(m_locator, 100, 500);
            u64 covered = 0;
            for (const SubRegionDescriptor& piece : pieces)
                covered += piece.m_lengthBlocks;
            ASSERT_EQ(covered, 500U);
            ASSERT_TRUE(isOrdered(pieces, 100, 600));
        }
    };
    runTogether({[&] {
                     for (u64 i = 0; i < ROUNDS; ++i)
                         insertRegion(m_locator, zeroesRegion(3 * i % 900, 17));
                     done = true;
                 },
                 look, look});
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 1000U);
    expectBalance();
}

TEST_F(LocatorThreadsTest, LocksOfDisjointRanges)
{
    for (u64 i = 0; i < 30; ++i)
        insertRegion(m_locator, plainRegion(10 * i, 10, 1000 * (i + 1)));
    std::vector<std::function<void()>> bodies;
    for (u64 thread = 0; thread < 3; ++thread)
        bodies.emplace_back([this, thread] {
            for (u64 i = 0; i < ROUNDS; ++i)
                lockAndUnlock(100 * thread + i % 50, 50, true);
        });
    runTogether(bodies);
    EXPECT_EQ(m_locator.getItemCount(), 30U);
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), 300U);
    expectBalance();
}

TEST_F(LocatorThreadsTest, LocksThatConsumeWhatAWriterInserts)
{
    std::atomic<bool> done{false};
    runTogether({[&] {
                     for (u64 i = 0; i < ROUNDS; ++i) {
                         const SubRegionDescriptor region = plainRegion(5 * i % 100, 10, 1000);
                         while (!insertRegion(m_locator, region))
                             std::this_thread::yield(); // locked at this moment
                     }
                     done = true;
                 },
                 [&] {
                     while (!done)
                         lockAndUnlock(0, 110, false);
                 }});
    lockAndUnlock(0, 110, false);
    EXPECT_EQ(m_locator.getItemCount(), 0U);
    EXPECT_EQ(m_locator.getStatistics().m_numIOsInserted, static_cast<u64>(ROUNDS));
    expectBalance();
}

TEST_F(LocatorThreadsTest, RemovesDuringInsertsAndLookups)
{
    std::atomic<int> writers{2};
    runTogether({[&] {
                     for (u64 i = 0; i < ROUNDS; ++i)
                         insertRegion(m_locator, plainRegion(3 * i % 300, 20, 100 * i));
                     --writers;
                 },
                 [&] {
                     for (u64 i = 0; i < ROUNDS; ++i)
                         removeRange(m_locator, 7 * i % 300, 11);
                     --writers;
                 },
                 [&] {
                     while (writers > 0)
                         ASSERT_TRUE(isOrdered(lookupRange(m_locator, 0, 400), 0, 400));
                 }});
    removeRange(m_locator, 0, 1000);
    EXPECT_EQ(m_locator.getItemCount(), 0U);
    expectBalance();
}

TEST_F(LocatorThreadsTest, OneRequestParksWhileOthersReadLockAndInsert)
{
    const WakingControl control;
    insertRegion(m_locator, plainRegion(0, 100, 1000));
    insertRegion(m_locator, plainRegion(200, 100, 2000));
    Semaphore held{0};
    Semaphore finished{0};
    std::atomic<int> parked{0};
    std::atomic<bool> done{false};
    runTogether({[&] {
                     // Holds the range; gives it back while the other one asks.
                     for (int i = 0; i < ROUNDS; ++i) {
                         const Regions pieces = lockRange(m_locator, 0, 60);
                         held.post();
                         // Every other time the unlock and the request race.
                         while (i % 2 == 0 && !RegionLocatorTestAccess::lockWaiter(m_locator))
                             std::this_thread::yield();
                         unlockAndRestoreRegions(m_locator, pieces);
                         finished.wait();
                     }
                 },
                 [&] {
                     // The only one that may park.
                     for (int i = 0; i < ROUNDS; ++i) {
                         held.wait();
                         WaitingTask task;
                         Regions pieces;
                         const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOOKUP_LOCKED,
                                                    3);
                         if (m_locator.lookup(&task, 40, 40, &pieces, true, voucher) == RC_WAIT) {
                             task.m_woken.wait();
                             EXPECT_EQ(task.m_status, RC_SUCCESS);
                             ++parked;
                         }
                         ASSERT_EQ(pieces.size(), 1U);
                         ASSERT_EQ(pieces[0], plainRegion(40, 40, 1040, 40));
                         unlockAndRestoreRegions(m_locator, pieces);
                         finished.post();
                     }
                     done = true;
                 },
                 [&] {
                     // Beside the locks; it ends by itself, for as long as it holds anything the
                     // parked one is not woken.
                     for (u64 i = 0; i < ROUNDS; ++i)
                         lockAndUnlock(200 + i % 90, 10, true);
                 },
                 [&] {
                     for (u64 i = 0; !done; ++i) {
                         insertRegion(m_locator, zeroesRegion(400 + i % 50, 4));
                         ASSERT_TRUE(isOrdered(lookupRange(m_locator, 0, 500), 0, 500));
                     }
                 }});
    EXPECT_GE(parked, ROUNDS / 2);
    EXPECT_EQ(lookupRange(m_locator, 0, 300),
              (Regions{plainRegion(0, 100, 1000), plainRegion(200, 100, 2000)}));
    expectBalance();
}

TEST_F(LocatorThreadsTest, QueriesAndReportsDuringChanges)
{
    std::atomic<bool> done{false};
    runTogether({[&] {
                     for (u64 i = 0; i < ROUNDS; ++i) {
                         insertRegion(m_locator, plainRegion(1000 + i, 8, 10 * i));
                         lockAndUnlock(1000 + i / 2, 4, true);
                     }
                     done = true;
                 },
                 [&] {
                     while (!done) {
                         const u64 first = m_locator.getFirstOffest();
                         ASSERT_TRUE(first == 1000 || first == ~u64{0});
                         ASSERT_LE(m_locator.getItemCount(), 4U * ROUNDS);
                         ASSERT_LE(m_locator.getTotalRegionBlocks(), ROUNDS + 7U);
                     }
                 },
                 [&] {
                     while (!done) {
                         m_locator.printStatistics("test");
                         m_locator.getMemPool()->printMemoryUsage();
                         m_locator.getMemPool()->getMemoryStats();
                         m_log.clear();
                     }
                 }});
    EXPECT_EQ(m_locator.getTotalRegionBlocks(), ROUNDS + 7U);
    expectBalance();
}

TEST_F(LocatorThreadsTest, IteratorsAreHandedOutDuringLookups)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    const auto walk = [&] {
        for (int i = 0; i < ROUNDS; ++i) {
            const RegionMap::const_iterator end = m_locator.getConstEndIterator();
            int regions = 0;
            for (auto region = m_locator.getConstBeginIterator(); region != end; ++region)
                ++regions;
            ASSERT_EQ(regions, 1);
            ASSERT_EQ(lookupRange(m_locator, 0, 10).size(), 1U);
        }
    };
    runTogether({walk, walk});
}

TEST_F(LocatorThreadsTest, TweaksChangeAtAnyMoment)
{
    std::atomic<bool> done{false};
    DynamicTweaks* tweaks = DynamicTweaks::instance();
    runTogether({[&] {
                     for (u64 i = 0; i < ROUNDS; ++i) {
                         insertRegion(m_locator, plainRegion(i, 8, 10 * i));
                         lockAndUnlock(i / 2, 4, true);
                     }
                     done = true;
                 },
                 [&] {
                     while (!done) {
                         for (std::atomic<bool>* tweak :
                              {&tweaks->t_RlVerboseLogs, &tweaks->t_BinVerboseLogs,
                               &tweaks->t_IOVerboseLogs})
                             *tweak = !*tweak;
                     }
                     tweaks->t_RlVerboseLogs = false;
                     tweaks->t_BinVerboseLogs = false;
                     tweaks->t_IOVerboseLogs = false;
                 }});
    EXPECT_TRUE(m_log.softChecks().empty()) << testing::PrintToString(m_log.softChecks());
    expectBalance();
}

TEST_F(LocatorThreadsTest, Vouchers)
{
    const auto work = [this] {
        RegionLocatorMemPool* pool = m_locator.getMemPool();
        for (int i = 0; i < ROUNDS; ++i) {
            RegionLocatorVoucher* voucher = pool->createVoucher();
            const bool waits = i % 2 != 0;
            const FutureStatus future =
                pool->fillVoucher(voucher, i % 50, waits ? ~u64{0} : 0, voucher);
            pool->cancelVoucherFill(voucher);
            const RcStatus rc = future.get();
            // One that does not wait also fails while others wait, if only for a moment.
            ASSERT_TRUE(rc == RC_SUCCESS || rc == (waits ? RC_ABORTED : RC_NO_MEMORY)) << rc;
            ASSERT_EQ(tokensIn(voucher), rc == RC_SUCCESS ? static_cast<size_t>(i % 50) : 0U);
            if (i % 3 == 0)
                pool->clearVoucher(voucher);
            pool->destroyVoucher(voucher);
        }
    };
    runTogether({work, work, work});
    expectBalance();
}

TEST_F(LocatorThreadsTest, AScanIsAbortedWhileOthersRead)
{
    for (int round = 0; round < 20; ++round) {
        RegionLocator locator(8, RL_MMI_View);
        RegionLocatorMetaDataContainer_Insert* feeder = locator.getInsertContainer();
        feeder->init(1000);
        std::atomic<u64> batches{0};
        std::atomic<bool> done{false};
        runTogether({[&] {
                         u64 item = 0;
                         while (feeder->prepareToAdd(10, ~u64{0}).get() == RC_SUCCESS) {
                             for (int i = 0; i < 10; ++i, ++item) {
                                 SfsDiskMetaItem meta;
                                 meta.m_ioData = {5000, 3 * item % 500};
                                 meta.setUncompressedLengthBlocks(7);
                                 ASSERT_EQ(feeder->addMetaData(meta, JournalPtr::invalid),
                                           RC_SUCCESS);
                             }
                             SfsDiskMetaItem mark;
                             mark.setType(SfsMetaType::CHECKPOINT);
                             mark.m_cpData = {0, 1};
                             const RcStatus rc = feeder->addMetaData(mark, JournalPtr::invalid);
                             ASSERT_TRUE(rc == RC_SUCCESS || feeder->isAborted() ||
                                         rc == RC_STOP_EXCLUDE_CURRENT);
                             feeder->unPrepareToAdd();
                             ++batches;
                         }
                         done = true;
                     },
                     [&] {
                         while (batches < 5)
                             std::this_thread::yield();
                         EXPECT_FALSE(feeder->isAborted());
                         feeder->abort();
                     },
                     [&] {
                         while (!done)
                             ASSERT_TRUE(isOrdered(lookupRange(locator, 0, 600), 0, 600));
                     }});
        EXPECT_TRUE(feeder->isAborted());
        EXPECT_EQ(tokensOut(locator), locator.getItemCount());
        m_log.clear();
    }
}

TEST_F(LocatorThreadsTest, LocatorsComeAndGoSideBySide)
{
    const auto work = [] {
        for (u64 i = 0; i < 30; ++i) {
            RegionLocator locator(i, static_cast<RegionLocatorMmiType>(i % 4));
            auto* feeder = locator.getInsertAllButRemoveMdOnlyContainer();
            ASSERT_EQ(feeder->prepareToAdd(20, ~u64{0}).get(), RC_SUCCESS);
            for (u64 region = 0; region < 20; ++region) {
                SfsDiskMetaItem meta;
                meta.m_ioData = {100, 10 * region};
                meta.setUncompressedLengthBlocks(5);
                ASSERT_EQ(feeder->addMetaData(meta, JournalPtr::invalid), RC_SUCCESS);
            }
            ASSERT_EQ(locator.getItemCount(), 20U);
        }
    };
    runTogether({work, work, work});
}

} // namespace
