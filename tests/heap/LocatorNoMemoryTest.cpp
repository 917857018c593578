// The locator and its vouchers where the heap gives nothing: an operation fails as a whole or goes
// well, and no token is lost or in two places.

#include <gtest/gtest.h>
#include <vector>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "tests/support/Accelerators.h"
#include "tests/support/FakeTaskControl.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/ReplacedHeap.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

constexpr u64 FROM_REGIONS = 1024;
constexpr u32 LENGTH = 8;

class LocatorNoMemoryTest : public testing::TestWithParam<u64>
{
protected:
    void SetUp() override
    {
        if (!HEAP_CAN_FAIL)
            GTEST_SKIP() << "the sanitizer's allocator does not fail";
    }

    static RegionLocatorVoucher* filled(RegionLocator& locator, u64 tokens)
    {
        RegionLocatorVoucher* const voucher = locator.getMemPool()->createVoucher();
        EXPECT_EQ(
            locator.getMemPool()->fillVoucher(voucher, static_cast<int>(tokens), 0, voucher).get(),
            RC_SUCCESS);
        return voucher;
    }

    // The voucher that the regions were inserted with, which has as many tokens left.
    static RegionLocatorVoucher* grow(RegionLocator& locator, u64 regions)
    {
        RegionLocatorVoucher* const voucher = filled(locator, 2 * regions);
        for (u64 i = 0; i < regions; ++i)
            EXPECT_TRUE(locator.insert(plainRegion(LENGTH * i, LENGTH, LENGTH * i), voucher));
        return voucher;
    }

    const LogCapture m_log; // keeps the records to itself
    const Accelerators m_accelerators{GetParam(), FROM_REGIONS};
};

// Runs it with a heap of which the first allocation fails, then the second and so on, until none
// does.
template <class Try> void withEachAllocationFailing(Try attempt)
{
    for (u64 nth = 1; attempt(nth); ++nth)
        ASSERT_LT(nth, 1000u);
}

TEST_P(LocatorNoMemoryTest, VouchersAlwaysGoBack)
{
    withEachAllocationFailing([](u64 nth) {
        RegionLocator locator(1, RL_MMI_View);
        RegionLocatorVoucher* const voucher = grow(locator, FROM_REGIONS + 5);
        const u64 regions = locator.getItemCount();
        bool failed;
        {
            FailingHeap heap(nth);
            EXPECT_NO_THROW(locator.getMemPool()->destroyVoucher(voucher));
            failed = heap.failed();
        }
        EXPECT_EQ(Access::liveVouchers(*locator.getMemPool()), 2) << nth; // the feeders'
        EXPECT_EQ(tokensOut(locator), regions) << nth;
        EXPECT_EQ(locator.getItemCount(), FROM_REGIONS + 5);
        return failed;
    });
}

TEST_P(LocatorNoMemoryTest, ManyTokensGoBackOnce)
{
    withEachAllocationFailing([](u64 nth) {
        RegionLocator locator(1, RL_MMI_View);
        RegionLocatorMemPool& pool = *locator.getMemPool();
        RegionLocatorVoucher* const first = filled(locator, 9000); // several blocks
        bool failed;
        {
            FailingHeap heap(nth);
            EXPECT_NO_THROW(pool.clearVoucher(first));
            failed = heap.failed();
        }
        EXPECT_EQ(tokensIn(first), 0u) << nth;
        EXPECT_EQ(tokensOut(locator), 0u) << nth;
        pool.destroyVoucher(first);
        return failed;
    });
}

TEST_P(LocatorNoMemoryTest, AFillHoldsAllOrNothing)
{
    withEachAllocationFailing([](u64 nth) {
        RegionLocator locator(1, RL_MMI_View);
        RegionLocatorMemPool& pool = *locator.getMemPool();
        RegionLocatorVoucher* const voucher = pool.createVoucher();
        RcStatus rc = RC_NO_MEMORY;
        bool failed;
        {
            FailingHeap heap(nth);
            try {
                rc = pool.fillVoucher(voucher, 9000, 0, voucher).get();
            } catch (const std::bad_alloc&) {
            }
            failed = heap.failed();
        }
        const u64 held = rc == RC_SUCCESS ? 9000 : 0;
        EXPECT_EQ(tokensIn(voucher), held) << nth;
        EXPECT_EQ(tokensOut(locator), held) << nth;
        pool.destroyVoucher(voucher);
        return failed;
    });
}

// The same where so many are free already, which are handed out as runs.
TEST_P(LocatorNoMemoryTest, AFillOfFreeTokensHoldsAllOrNothing)
{
    constexpr u64 TOKENS = 1000;
    withEachAllocationFailing([](u64 nth) {
        RegionLocator locator(1, RL_MMI_View);
        RegionLocatorMemPool& pool = *locator.getMemPool();
        pool.destroyVoucher(grow(locator, 1)); // the pool keeps a block while it is in use
        EXPECT_GT(pool.getMemoryStats().freeBytes, TOKENS * 64);
        RegionLocatorVoucher* const voucher = pool.createVoucher();
        RcStatus rc = RC_NO_MEMORY;
        bool failed;
        {
            FailingHeap heap(nth);
            try {
                rc = pool.fillVoucher(voucher, TOKENS, 0, voucher).get();
            } catch (const std::bad_alloc&) {
            }
            failed = heap.failed();
        }
        const u64 held = rc == RC_SUCCESS ? TOKENS : 0;
        EXPECT_EQ(voucher->empty(), held == 0) << nth;
        EXPECT_EQ(tokensOut(locator), held + 1) << nth;
        // Whether or not there was room for what an insert frees.
        for (u64 i = 0; held != 0 && i < TOKENS / 2; ++i)
            EXPECT_TRUE(locator.insert(plainRegion(LENGTH * i, LENGTH, LENGTH * i), voucher));
        if (held != 0) {
            EXPECT_TRUE(locator.insert(plainRegion(0, LENGTH * TOKENS / 2, 0), voucher));
        }
        pool.destroyVoucher(voucher);
        EXPECT_EQ(locator.getItemCount(), 1u);
        EXPECT_EQ(tokensOut(locator), 1u) << nth;
        return failed;
    });
}

class Outcome : public FutureObserver<RcStatus>
{
public:
    void update(const RcStatus& rc) override { m_rc = rc; }
    RcStatus m_rc = RC_WAIT;
};

// Somebody waits for tokens, and whoever gives his back meets a heap that gives nothing.
TEST_P(LocatorNoMemoryTest, AFillThatWaitsIsServedOrRefusedAndLosesNothing)
{
    constexpr u32 BLOCK_BYTES_OF_POOL = 16384;
    MemoryPoolImpl* const global = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
    global->init(BLOCK_BYTES_OF_POOL, 0, 2 * BLOCK_BYTES_OF_POOL);
    withEachAllocationFailing([](u64 nth) {
        RegionLocator locator(1, RL_MMI_View);
        RegionLocatorMemPool& pool = *locator.getMemPool();
        RegionLocatorVoucher* const first = filled(locator, 400);
        RegionLocatorVoucher* const second = pool.createVoucher();
        Outcome outcome;
        const FutureStatus waiting = pool.fillVoucher(second, 300, ~u64{0}, second);
        waiting.attach(&outcome);
        EXPECT_EQ(outcome.m_rc, RC_WAIT);
        bool failed;
        {
            FailingHeap heap(nth);
            EXPECT_NO_THROW(pool.clearVoucher(first));
            failed = heap.failed();
        }
        EXPECT_EQ(outcome.m_rc, RC_SUCCESS) << nth;
        EXPECT_EQ(tokensIn(second), 300u) << nth;
        EXPECT_EQ(tokensOut(locator), 300u) << nth;
        pool.destroyVoucher(first);
        pool.destroyVoucher(second);
        return failed;
    });
    global->init(256 * 1024, 0, ~u64{0});
}

// A fill for which the process-wide pool has to wait, and the heap fails while it is asked.
TEST_P(LocatorNoMemoryTest, ABlockThatComesForNobodyGoesBack)
{
    constexpr u32 BLOCK_BYTES_OF_POOL = 16384;
    MemoryPoolImpl* const global = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
    global->init(BLOCK_BYTES_OF_POOL, 0, BLOCK_BYTES_OF_POOL);
    withEachAllocationFailing([global](u64 nth) {
        bool failed;
        {
            RegionLocator locator(1, RL_MMI_View);
            RegionLocatorMemPool& pool = *locator.getMemPool();
            RegionLocatorVoucher* const voucher = pool.createVoucher();
            FutureStatus future;
            Outcome outcome;
            {
                RegionLocator other(2, RL_MMI_View);
                RegionLocatorVoucher* const all = filled(other, 100);
                {
                    FailingHeap heap(nth);
                    try {
                        future = pool.fillVoucher(voucher, 100, ~u64{0}, voucher);
                    } catch (const std::bad_alloc&) {
                        outcome.m_rc = RC_NO_MEMORY;
                    }
                    failed = heap.failed();
                }
                if (outcome.m_rc == RC_WAIT)
                    future.attach(&outcome);
                other.getMemPool()->destroyVoucher(all);
            }
            EXPECT_EQ(outcome.m_rc, failed ? RC_NO_MEMORY : RC_SUCCESS) << nth;
            EXPECT_EQ(tokensIn(voucher), failed ? 0u : 100u) << nth;
            pool.destroyVoucher(voucher);
        }
        EXPECT_EQ(global->getMemoryStats().usedBytesGross, 0u) << nth;
        return failed;
    });
    global->init(256 * 1024, 0, ~u64{0});
}

TEST_P(LocatorNoMemoryTest, ALookupWithoutRoomForItsAnswerLeavesNoVoucherActive)
{
    RegionLocator locator(1, RL_MMI_View);
    locator.getMemPool()->destroyVoucher(grow(locator, 100));
    const VoucherGuard voucher(locator.getMemPool(), 300);
    Regions pieces;
    {
        FailingHeap heap(1);
        EXPECT_THROW(locator.lookup(nullptr, 0, 80, &pieces, true, voucher), std::bad_alloc);
        EXPECT_EQ(locator.getMemPool()->getActiveVoucher(), nullptr);
    }
    {
        FailingHeap heap(1);
        EXPECT_THROW(locator.getFirstRegionsAndLock(nullptr, 10, &pieces, voucher), std::bad_alloc);
        EXPECT_EQ(locator.getMemPool()->getActiveVoucher(), nullptr);
    }
}

TEST_P(LocatorNoMemoryTest, TheFirstRegionsAreLockedAllOrNone)
{
    withEachAllocationFailing([](u64 nth) {
        RegionLocator locator(1, RL_MMI_View);
        locator.getMemPool()->destroyVoucher(grow(locator, 100));
        const VoucherGuard voucher(locator.getMemPool(), 20);
        Regions pieces;
        bool failed = false;
        {
            FailingHeap heap(nth);
            try {
                locator.getFirstRegionsAndLock(nullptr, 10, &pieces, voucher);
            } catch (const std::bad_alloc&) {
                failed = true;
            }
        }
        EXPECT_EQ(Access::locked(locator)->size(), failed ? 0u : 10u) << nth;
        EXPECT_EQ(pieces.size(), failed ? 0u : 10u) << nth;
        EXPECT_EQ(locator.getItemCount(), 100u) << nth;
        EXPECT_EQ(tokensOut(locator), 120u) << nth;
        locator.unlockAndRestore(pieces, voucher);
        EXPECT_EQ(lockRange(locator, 0, 100 * LENGTH).size(), 100u) << nth;
        return failed;
    });
}

TEST_P(LocatorNoMemoryTest, AWaiterWithoutRoomForItsAnswerIsToldSo)
{
    RegionLocator locator(1, RL_MMI_View);
    locator.getMemPool()->destroyVoucher(grow(locator, 100));
    Regions held = lockRange(locator, 0, 80);
    const FakeTaskControl control;
    AsyncTask task;
    Regions pieces;
    const VoucherGuard voucher(locator.getMemPool(), 300);
    ASSERT_EQ(locator.lookup(&task, 0, 80, &pieces, true, voucher), RC_WAIT);
    const VoucherGuard unlocking(locator.getMemPool(), 300);
    // The queue of the tests takes from the heap, too, so only the answer's allocation is let fail.
    {
        FailingHeap heap(1);
        locator.unlockAndRestore(held, unlocking);
        EXPECT_TRUE(heap.failed());
    }
    const std::vector<EnqueuedTask> woken = control.enqueued();
    ASSERT_EQ(woken.size(), 1u);
    EXPECT_EQ(woken[0].m_task, &task);
    EXPECT_EQ(woken[0].m_status, RC_NO_MEMORY);
    EXPECT_TRUE(pieces.empty());
    EXPECT_TRUE(Access::locked(locator)->empty());
    EXPECT_EQ(lockRange(locator, 0, 80).size(), 10u);
}

// The directory is what there can be less of, for a fill that does not wait and for one that does.
TEST_P(LocatorNoMemoryTest, AsManyRegionsFitAsWithoutADirectory)
{
    constexpr u32 PIECE_BYTES = 16384;
    MemoryPoolImpl* const global = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
    global->init(PIECE_BYTES, 0, 32 * PIECE_BYTES);
    const auto regionsThatFit = [](bool waits) {
        RegionLocator locator(1, RL_MMI_View);
        RegionLocatorMemPool& pool = *locator.getMemPool();
        for (u64 count = 0;; ++count) {
            RegionLocatorVoucher* const voucher = pool.createVoucher();
            const FutureStatus filled = pool.fillVoucher(voucher, 2, waits ? ~u64{0} : 0, voucher);
            if (!filled.isSet())
                pool.cancelVoucherFill(voucher);
            const bool isThere = filled.get() == RC_SUCCESS;
            if (isThere)
                locator.insert(plainRegion(LENGTH * count, LENGTH, LENGTH * count), voucher);
            pool.destroyVoucher(voucher);
            if (!isThere)
                return count;
        }
    };
    for (const bool waits : {false, true}) {
        const u64 with = regionsThatFit(waits);
        u64 without;
        {
            const Accelerators none(Accelerators::NONE, FROM_REGIONS);
            without = regionsThatFit(waits);
        }
        EXPECT_EQ(with, without) << waits;
        EXPECT_GT(without, 2 * FROM_REGIONS);
    }
    global->init(256 * 1024, 0, ~u64{0});
}

INSTANTIATE_TEST_SUITE_P(OffAndOn, LocatorNoMemoryTest,
                         testing::Values(Accelerators::NONE, Accelerators::ALL));

} // namespace
