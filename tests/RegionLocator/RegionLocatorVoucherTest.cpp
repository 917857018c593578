#include "RegionLocator/RegionLocatorVoucher.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "RegionLocator/RegionLocatorMemPool.h"
#include "common/infra/MemShield.h"
#include "host/infra/ManualClock.h"
#include "host/infra/MemShieldControl.h"
#include "host/infra/MemWatchedReport.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;
using Pool = RegionLocatorMemPool;

constexpr u32 CHUNK = 64 * 1024;
constexpr int CHUNK_TOKENS = CHUNK / 64;
constexpr u64 NEVER = ~u64{0};
const std::string POOL_FILE = "../RegionLocatorMemPool.cpp";
const std::string VOUCHER_FILE = "../RegionLocatorVoucher.cpp";

u64 tokensOut(const Pool& pool)
{
    return pool.getMemoryStats().usedBytesGross / 64;
}

MemWatchedGroup watchedVouchers()
{
    for (const MemWatchedGroup& group : memWatchedReport())
        if (group.m_name == "VoucherVec")
            return group;
    return {"VoucherVec", 0, 0, 0};
}

// The clock of the process, moved by the test.
class ClockGuard
{
public:
    ClockGuard() : m_before(Clock::setInstance(&m_clock)) {}
    ~ClockGuard() { Clock::setInstance(m_before); }
    ManualClock m_clock{1000};

private:
    Clock* m_before;
};

// All memory is with another pool until release().
class Exhausted
{
public:
    Exhausted() { EXPECT_EQ(m_holder.fillVoucher(m_held, 1, 0, nullptr).get(), RC_SUCCESS); }
    ~Exhausted() { m_holder.destroyVoucher(m_held); }
    void release() { m_holder.clearVoucher(m_held); }

private:
    LimitedMemory m_memory{CHUNK, CHUNK};
    Pool m_holder{99, RL_MMI_MD5};
    RegionLocatorVoucher* m_held = m_holder.createVoucher();
};

// ---- sizes ----

TEST(VoucherTest, RequirementOfEachAction)
{
    for (const int count : {0, 1, 3, 1000}) {
        EXPECT_EQ(Pool::getVoucherRequirement(Pool::LOOKUP_LOCKED, count), 2 * count);
        EXPECT_EQ(Pool::getVoucherRequirement(Pool::INSERT, count), 2 * count);
        EXPECT_EQ(Pool::getVoucherRequirement(Pool::REMOVE, count), count);
        EXPECT_EQ(Pool::getVoucherRequirement(Pool::LOCK_AND_REMOVE, count), count);
    }
    EXPECT_EQ(static_cast<u32>(Pool::LOOKUP_LOCKED), 0U);
    EXPECT_EQ(static_cast<u32>(Pool::INSERT), 1U);
    EXPECT_EQ(static_cast<u32>(Pool::REMOVE), 2U);
    EXPECT_EQ(static_cast<u32>(Pool::LOCK_AND_REMOVE), 3U);
    EXPECT_EQ(sizeof(Pool::ActionType), 4U);
}

TEST(VoucherTest, AnUnknownActionIsReportedAndNeedsNothing)
{
    const LogCapture log;
    EXPECT_EQ(Pool::getVoucherRequirement(static_cast<Pool::ActionType>(4), 3), 0);
    EXPECT_TRUE(isSoftCheck(log.only(),
                            "static int RegionLocatorMemPool::getVoucherRequirement("
                            "ActionType, int)",
                            "false", "unknown action type4", POOL_FILE));
}

// ---- life ----

TEST(VoucherTest, IsEmptyCountedAndWatchedWhileItLives)
{
    Pool pool(5, RL_MMI_View);
    const u64 containers = watchedVouchers().m_containers;
    const u64 items = watchedVouchers().m_items;
    const u64 objects = MemShieldControl::liveObjects();
    RegionLocatorVoucher* voucher = pool.createVoucher();
    EXPECT_TRUE(voucher->empty());
    EXPECT_EQ(Access::liveVouchers(pool), 1);
    EXPECT_EQ(watchedVouchers().m_containers, containers + 1);
    EXPECT_EQ(MemShieldControl::liveObjects(), objects + 1);
    EXPECT_EQ(pool.fillVoucher(voucher, 7, 0, nullptr).get(), RC_SUCCESS);
    EXPECT_EQ(watchedVouchers().m_items, items + 7);
    EXPECT_EQ(watchedVouchers().m_sizeBytes, 0U); // the tokens are the pool's, not the vector's
    pool.destroyVoucher(voucher);
    EXPECT_EQ(Access::liveVouchers(pool), 0);
    EXPECT_EQ(watchedVouchers().m_containers, containers);
    EXPECT_EQ(MemShieldControl::liveObjects(), objects);
    EXPECT_EQ(tokensOut(pool), 0U);
}

TEST(VoucherTest, DestroyingMoreThanWereCreatedIsReportedAndTheCountGoesNegative)
{
    Pool first(5, RL_MMI_View);
    Pool second(6, RL_MMI_View);
    RegionLocatorVoucher* voucher = first.createVoucher();
    {
        const LogCapture log;
        second.destroyVoucher(voucher);
        EXPECT_TRUE(isSoftCheck(log.only(),
                                "void RegionLocatorMemPool::destroyVoucher(RegionLocatorVoucher*)",
                                "m_activeVouchersCountForDebug > 0", "RLMemPool<6> ", POOL_FILE));
    }
    EXPECT_EQ(Access::liveVouchers(second), -1);
    EXPECT_EQ(Access::liveVouchers(first), 1);
    // Even again, so that both pools end quietly.
    voucher = second.createVoucher();
    first.destroyVoucher(voucher);
}

TEST(VoucherTest, DestroyedWithTokensReportsThem)
{
    alignas(64) u8 token[64];
    const LogCapture log;
    {
        RegionLocatorVoucher voucher;
        voucher.addObj(token);
    }
    EXPECT_TRUE(isSoftCheck(log.only(), "RegionLocatorVoucher::~RegionLocatorVoucher()",
                            "m_objs.empty()", "", VOUCHER_FILE));
}

TEST(VoucherTest, ClearedMayBeFilledAgain)
{
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    for (int count = 1; count < 200; count += 50) {
        EXPECT_EQ(pool.fillVoucher(voucher, count, 0, nullptr).get(), RC_SUCCESS);
        EXPECT_EQ(tokensIn(voucher), static_cast<size_t>(count));
        EXPECT_EQ(tokensOut(pool), static_cast<u64>(count));
        pool.clearVoucher(voucher);
        EXPECT_TRUE(voucher->empty());
        EXPECT_EQ(tokensOut(pool), 0U);
    }
    pool.clearVoucher(voucher); // nothing to give back
    pool.destroyVoucher(voucher);
}

// ---- the stack ----

TEST(VoucherTest, TakesSegmentsInOrderAndGivesTheLastFirst)
{
    u8 bytes[5];
    ScatteredBuf buf;
    // Each segment is one token, whatever its size.
    buf.addSegment(MemorySegment(64, &bytes[0], nullptr));
    buf.addSegment(MemorySegment(640, &bytes[1], nullptr));
    buf.addSegment(MemorySegment(1, &bytes[2], nullptr));
    RegionLocatorVoucher voucher;
    voucher.addMemorySegments(buf);
    voucher.addObj(&bytes[3]);
    for (int i = 3; i >= 0; --i) {
        EXPECT_FALSE(voucher.empty());
        EXPECT_EQ(voucher.getObj(), &bytes[i]);
    }
    EXPECT_TRUE(voucher.empty());
}

// What comes from the pool at once is the bottom of the stack, in the order of a fill that waited.
TEST(VoucherTest, GivesTheTokensOfAFillInTheOrderOfItsSegments)
{
    Pool pool(5, RL_MMI_View);
    const VoucherGuard some(&pool, 7); // so that no run begins with its word
    ModuleMemoryInformation* const group = pool.getMmi("segments");
    for (const int count : {1, 2, 63, 64, 65, 130, 5000}) {
        RegionLocatorVoucher* const voucher = pool.createVoucher();
        // A block is there by now, so that one fill is as good as another.
        ASSERT_EQ(pool.fillVoucher(voucher, count, 0, nullptr).get(), RC_SUCCESS);
        pool.clearVoucher(voucher);
        ScatteredBuf buf;
        ASSERT_EQ(pool.fillBufNoWait(&buf, static_cast<u32>(count) * 64, group), RC_SUCCESS);
        std::vector<u8*> expected;
        for (u32 i = 0; i < buf.getSegmentsCount(); ++i)
            expected.push_back(buf.getSegment(i).getPtr());
        buf.deleteContent();
        ASSERT_EQ(pool.fillVoucher(voucher, count, 0, nullptr).get(), RC_SUCCESS);
        const u64 items = watchedVouchers().m_items;
        u8 own[2];
        voucher->addObj(&own[0]);
        EXPECT_EQ(voucher->getObj(), &own[0]);
        for (size_t i = expected.size(); i-- > 0;) {
            ASSERT_FALSE(voucher->empty());
            ASSERT_EQ(voucher->getObj(), expected[i]) << i << " of " << count;
        }
        EXPECT_TRUE(voucher->empty());
        EXPECT_EQ(watchedVouchers().m_items, items - static_cast<u64>(count));
        for (u8* token : expected)
            voucher->addObj(token);
        pool.destroyVoucher(voucher);
        EXPECT_EQ(tokensOut(pool), 7U);
    }
}

TEST(VoucherTest, TakesMoreTokensInThanItHasRoomForAndKnowsThemAll)
{
    const LogCapture log;
    Pool pool(5, RL_MMI_View);
    const VoucherGuard source(&pool, 2000);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    std::vector<u8*> tokens;
    while (!source.get()->empty()) {
        tokens.push_back(source.get()->getObj());
        voucher->addObj(tokens.back());
    }
    EXPECT_EQ(tokensIn(voucher), 2000U);
    // The last ones first, and then some back in.
    for (size_t i = 2000; i-- > 1000;)
        ASSERT_EQ(voucher->getObj(), tokens[i]);
    for (size_t i = 1000; i < 1500; ++i)
        voucher->addObj(tokens[i]);
    EXPECT_EQ(pool.fillVoucher(voucher, 10, 0, nullptr).get(), RC_SUCCESS); // and reports it
    EXPECT_EQ(log.softChecks().size(), 1U);
    EXPECT_EQ(tokensIn(voucher), 1510U);
    for (size_t i = 1500; i < 2000; ++i)
        voucher->addObj(tokens[i]);
    pool.destroyVoucher(voucher);
    EXPECT_EQ(tokensOut(pool), 0U);
}

TEST(VoucherTest, HandsOutDistinctAlignedTokensOfThePool)
{
    Pool pool(5, RL_MMI_View);
    const VoucherGuard voucher(&pool, 500);
    std::vector<u8*> tokens;
    while (!voucher.get()->empty())
        tokens.push_back(voucher.get()->getObj());
    ASSERT_EQ(tokens.size(), 500U);
    for (u8* token : tokens)
        voucher.get()->addObj(token);
    std::sort(tokens.begin(), tokens.end());
    for (size_t i = 1; i < tokens.size(); ++i)
        EXPECT_GE(tokens[i] - tokens[i - 1], 64);
    for (u8* token : tokens)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(token) % 64, 0U); // a node is one cache line
}

TEST(VoucherDeathTest, AnEmptyOneHasNoTokenToGive)
{
    RegionLocatorVoucher voucher;
    EXPECT_DEATH(voucher.getObj(), "RegionLocatorVoucher.cpp [0-9]+: !m_objs\\.empty\\(\\) failed");
}

// ---- filling at once ----

TEST(VoucherTest, FillOfNothingIsSuccessfulAtOnce)
{
    const Exhausted memory;
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    const u64 objects = MemShieldControl::liveObjects();
    for (const u64 timeout : {u64{0}, NEVER}) {
        const FutureStatus future = pool.fillVoucher(voucher, 0, timeout, voucher);
        EXPECT_TRUE(future.isSet());
        EXPECT_EQ(future.get(), RC_SUCCESS);
        EXPECT_TRUE(voucher->empty());
    }
    EXPECT_EQ(MemShieldControl::liveObjects(), objects);
    pool.destroyVoucher(voucher);
}

TEST(VoucherTest, FillWithoutTimeIsSetWhenItReturns)
{
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    const u64 objects = MemShieldControl::liveObjects();
    {
        const FutureStatus future = pool.fillVoucher(voucher, 100, 0, nullptr);
        EXPECT_TRUE(future.isSet());
        EXPECT_EQ(future.get(), RC_SUCCESS);
    }
    EXPECT_EQ(tokensIn(voucher), 100U);
    EXPECT_EQ(tokensOut(pool), 100U);
    EXPECT_EQ(MemShieldControl::liveObjects(), objects);
    pool.destroyVoucher(voucher);
}

TEST(VoucherTest, FillWithoutTimeAndWithoutMemoryFailsAndTakesNothing)
{
    Exhausted memory;
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    const FutureStatus future = pool.fillVoucher(voucher, 1, 0, nullptr);
    EXPECT_TRUE(future.isSet());
    EXPECT_EQ(future.get(), RC_NO_MEMORY);
    EXPECT_TRUE(voucher->empty());
    EXPECT_EQ(tokensOut(pool), 0U);
    memory.release();
    EXPECT_EQ(pool.fillVoucher(voucher, 1, 0, nullptr).get(), RC_SUCCESS);
    // More than there is: what could be had goes back.
    RegionLocatorVoucher* large = pool.createVoucher();
    EXPECT_EQ(pool.fillVoucher(large, 2 * CHUNK_TOKENS, 0, nullptr).get(), RC_NO_MEMORY);
    EXPECT_TRUE(large->empty());
    EXPECT_EQ(tokensOut(pool), 1U);
    pool.destroyVoucher(large);
    pool.destroyVoucher(voucher);
}

TEST(VoucherTest, FillOfOneThatHoldsTokensIsReportedAndAdds)
{
    Pool pool(5, RL_MMI_View);
    const VoucherGuard voucher(&pool, 3);
    const LogCapture log;
    EXPECT_EQ(pool.fillVoucher(voucher, 4, 0, nullptr).get(), RC_SUCCESS);
    EXPECT_TRUE(isSoftCheck(log.only(),
                            "FutureStatus RegionLocatorMemPool::fillVoucher("
                            "RegionLocatorVoucher*, int, u64, void*)",
                            "voucher->empty()", "RLMemPool<5> voucher not empty", POOL_FILE));
    EXPECT_EQ(tokensIn(voucher), 7U);
    // Also when nothing is to be added.
    EXPECT_EQ(pool.fillVoucher(voucher, 0, 0, nullptr).get(), RC_SUCCESS);
    EXPECT_EQ(log.records().size(), 2U);
    EXPECT_EQ(tokensIn(voucher), 7U);
}

// ---- filling later ----

TEST(VoucherTest, FillThatWaitsIsServedWhenMemoryComesBack)
{
    Exhausted memory;
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    const FutureStatus future = pool.fillVoucher(voucher, 10, NEVER, voucher);
    EXPECT_FALSE(future.isSet());
    memory.release();
    EXPECT_EQ(future.get(), RC_SUCCESS);
    EXPECT_EQ(tokensIn(voucher), 10U);
    pool.destroyVoucher(voucher);
}

TEST(VoucherTest, TheVoucherIsFullBeforeItsFutureIsSet)
{
    class Look : public FutureObserver<RcStatus>
    {
    public:
        explicit Look(RegionLocatorVoucher* voucher) : m_voucher(voucher) {}
        void update(const RcStatus&) override { m_tokens = tokensIn(m_voucher); }
        RegionLocatorVoucher* m_voucher;
        size_t m_tokens = 0;
    };
    Exhausted memory;
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    Look look(voucher);
    const FutureStatus future = pool.fillVoucher(voucher, 10, NEVER, voucher);
    future.attach(&look);
    memory.release();
    EXPECT_EQ(future.get(), RC_SUCCESS);
    EXPECT_EQ(look.m_tokens, 10U);
    pool.destroyVoucher(voucher);
}

TEST(VoucherTest, FillTimesOutAtItsDeadlineAndNotBefore)
{
    ClockGuard clock;
    Exhausted memory;
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* voucher = pool.createVoucher();
    const u64 objects = MemShieldControl::liveObjects();
    {
        const FutureStatus future = pool.fillVoucher(voucher, 10, 1050, voucher);
        clock.m_clock.advanceMs(49);
        EXPECT_FALSE(future.isSet());
        clock.m_clock.advanceMs(1);
        EXPECT_TRUE(future.isSet());
        EXPECT_EQ(future.get(), RC_TIMED_OUT);
    }
    EXPECT_TRUE(voucher->empty());
    EXPECT_EQ(tokensOut(pool), 0U);
    // Its memory may come now: nobody takes it.
    memory.release();
    EXPECT_TRUE(voucher->empty());
    EXPECT_EQ(pool.getMemoryStats().usedBytesGross, 0U);
    EXPECT_EQ(MemShieldControl::liveObjects(), objects);
    EXPECT_EQ(pool.fillVoucher(voucher, 10, 0, nullptr).get(), RC_SUCCESS);
    pool.destroyVoucher(voucher);
}

TEST(VoucherTest, WhatAFailedFillHadAlreadyGoesBack)
{
    ClockGuard clock;
    const LimitedMemory memory(CHUNK, 2 * CHUNK);
    Pool holder(6, RL_MMI_View);
    const VoucherGuard held(&holder, 1);
    Pool pool(5, RL_MMI_View);
    // More than the tokens of the one block that is left, which it obtains before it waits.
    for (const bool cancel : {true, false}) {
        RegionLocatorVoucher* voucher = pool.createVoucher();
        const FutureStatus future =
            pool.fillVoucher(voucher, CHUNK_TOKENS + 1, clock.m_clock.nowMs() + 10, voucher);
        EXPECT_FALSE(future.isSet());
        if (cancel)
            pool.cancelVoucherFill(voucher);
        else
            clock.m_clock.advanceMs(10);
        EXPECT_TRUE(future.isSet());
        EXPECT_EQ(future.get(), cancel ? RC_ABORTED : RC_TIMED_OUT);
        EXPECT_TRUE(voucher->empty());
        EXPECT_EQ(tokensOut(pool), 0U);
        EXPECT_EQ(pool.fillVoucher(voucher, 10, 0, nullptr).get(), RC_SUCCESS);
        pool.destroyVoucher(voucher);
    }
    EXPECT_EQ(LimitedMemory::pool()->getMemoryStats().usedBytesGross, CHUNK); // the holder's
}

TEST(VoucherTest, CancelEndsOnlyTheFillOfItsToken)
{
    Exhausted memory;
    Pool pool(5, RL_MMI_View);
    RegionLocatorVoucher* first = pool.createVoucher();
    RegionLocatorVoucher* second = pool.createVoucher();
    const FutureStatus firstFill = pool.fillVoucher(first, 5, NEVER, first);
    const FutureStatus secondFill = pool.fillVoucher(second, 6, NEVER, second);
    pool.cancelVoucherFill(&pool);
    EXPECT_FALSE(firstFill.isSet());
    EXPECT_FALSE(secondFill.isSet());
    pool.cancelVoucherFill(first);
    EXPECT_TRUE(firstFill.isSet());
    EXPECT_EQ(firstFill.get(), RC_ABORTED);
    EXPECT_FALSE(secondFill.isSet());
    EXPECT_TRUE(first->empty());
    memory.release();
    EXPECT_EQ(secondFill.get(), RC_SUCCESS);
    EXPECT_EQ(tokensIn(second), 6U);
    EXPECT_EQ(tokensOut(pool), 6U);
    // A fill that is complete stays so.
    pool.cancelVoucherFill(second);
    EXPECT_EQ(tokensIn(second), 6U);
    pool.destroyVoucher(first);
    pool.destroyVoucher(second);
}

TEST(VoucherTest, CancelledServedOrTimedOutAtAnyMomentTheBalanceIsExact)
{
    ClockGuard clock;
    int outcomes[3] = {0, 0, 0};
    for (int round = 0; round < 300; ++round) {
        Exhausted memory;
        Pool pool(5, RL_MMI_View);
        RegionLocatorVoucher* voucher = pool.createVoucher();
        std::atomic<int> ready{0};
        const auto together = [&ready] {
            ++ready;
            while (ready < 3)
                std::this_thread::yield();
        };
        std::thread canceller([&] {
            together();
            for (int i = 0; i < round % 7; ++i)
                std::this_thread::yield();
            pool.cancelVoucherFill(voucher);
        });
        std::thread mover([&] {
            together();
            for (int i = 0; i < round % 5; ++i)
                std::this_thread::yield();
            // In two rounds of three the deadline stays away.
            clock.m_clock.advanceMs(round % 3 == 0 ? 1 : 0);
        });
        const u64 deadline = clock.m_clock.nowMs() + 1;
        together();
        const FutureStatus future = pool.fillVoucher(voucher, 10, deadline, voucher);
        for (int i = 0; i < round % 11; ++i)
            std::this_thread::yield();
        memory.release();
        const RcStatus rc = future.get();
        canceller.join();
        mover.join();
        switch (rc) {
        case RC_SUCCESS: ++outcomes[0]; break;
        case RC_ABORTED: ++outcomes[1]; break;
        default: EXPECT_EQ(rc, RC_TIMED_OUT); ++outcomes[2];
        }
        const u64 expected = rc == RC_SUCCESS ? 10 : 0;
        ASSERT_EQ(tokensIn(voucher), expected);
        ASSERT_EQ(tokensOut(pool), expected);
        pool.destroyVoucher(voucher);
        ASSERT_EQ(tokensOut(pool), 0U);
    }
    RecordProperty("served", outcomes[0]);
    RecordProperty("cancelled", outcomes[1]);
    RecordProperty("timed_out", outcomes[2]);
}

} // namespace
