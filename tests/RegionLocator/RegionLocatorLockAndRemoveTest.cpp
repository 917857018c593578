#include <atomic>
#include <thread>

#include "tests/RegionLocator/DrainFixture.h"
#include "tests/support/ComesTrue.h"
#include "tests/support/Tokens.h"

namespace {

const std::string LOCK_AND_REMOVE_SIGNATURE =
    "RcStatus RegionLocator::lockAndRemove(AsyncTask*, const SubRegionDescriptor&, "
    "RegionLocatorVoucher*)";
const std::string WAITER_SIGNATURE =
    "RL_LockWaiter_lockAndRemove::RL_LockWaiter_lockAndRemove(RegionLocator*, const "
    "SubRegionDescriptor&, AsyncTask*, RegionLocatorVoucher*)";
const std::string NO_DATA_CONDITION = "desc.m_fifoOffsetOfIoStartBlocks != SFS_DEV_ADDR_INVALID";

class LockAndRemoveTest : public DrainFixture
{
protected:
    RcStatus lockAndRemove(const SubRegionDescriptor& io)
    {
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
        const RcStatus rc = m_locator.lockAndRemove(&m_task, io, voucher);
        EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
        return rc;
    }
    // Whether it parks; the waiter is taken away again.
    bool parks(const SubRegionDescriptor& io)
    {
        const bool waits = lockAndRemove(io) == RC_WAIT;
        EXPECT_EQ(dynamic_cast<RL_LockWaiter_lockAndRemove*>(Access::lockWaiter(m_locator)) !=
                      nullptr,
                  waits);
        if (waits)
            Access::dropLockWaiter(m_locator);
        return waits;
    }
};

TEST_F(LockAndRemoveTest, RemovesAtOnceAndLocksNothingWhereNothingIsLocked)
{
    insertRegion(m_locator, plainRegion(0, 40, 1000));
    insertRegion(m_locator, plainRegion(5, 5, 2000));
    insertRegion(m_locator, compressedRegion(15, 5, 3000));
    insertRegion(m_locator, zeroesRegion(25, 5));
    const LogCapture log;
    EXPECT_FALSE(parks(plainRegion(0, 40, 1000)));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(5, 5, 2000), compressedRegion(15, 5, 3000),
                                   zeroesRegion(25, 5)}));
    EXPECT_TRUE(locked().empty());
    EXPECT_EQ(tokensOut(m_locator), 3U);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(LockAndRemoveTest, OfAnIoWithNoPieceLeftChangesNothing)
{
    EXPECT_FALSE(parks(plainRegion(0, 10, 1000)));
    insertRegion(m_locator, plainRegion(0, 10, 2000));
    const LogCapture log;
    EXPECT_FALSE(parks(plainRegion(0, 10, 1000)));
    EXPECT_FALSE(parks(compressedRegion(0, 10, 2000)));
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 10, 2000)}));
    EXPECT_TRUE(log.records().empty());
}

TEST_F(LockAndRemoveTest, RemovesAtOnceWhenOnlyOtherIosOfTheRangeAreLocked)
{
    insertRegion(m_locator, plainRegion(0, 40, 1000));
    insertRegion(m_locator, plainRegion(5, 5, 2000));
    insertRegion(m_locator, compressedRegion(15, 5, 1000));
    insertRegion(m_locator, zeroesRegion(25, 5));
    Regions held;
    for (const u64 offset : {u64{5}, u64{15}, u64{25}})
        held.push_back(lockRange(m_locator, offset, 5).front());
    EXPECT_FALSE(parks(plainRegion(0, 40, 1000)));
    EXPECT_TRUE(unlocked().empty());
    EXPECT_EQ(locked(), held);
    unlockAndRestoreRegions(m_locator, held);
    EXPECT_EQ(unlocked(), held);
}

TEST_F(LockAndRemoveTest, OfACompressedIoWaitsForItsAddressOnly)
{
    insertRegion(m_locator, compressedRegion(0, 40, 1000));
    insertRegion(m_locator, compressedRegion(10, 10, 1001));
    insertRegion(m_locator, plainRegion(20, 10, 1000));
    Regions held = lockRange(m_locator, 10, 20);
    EXPECT_FALSE(parks(compressedRegion(0, 5, 1000)));
    Regions own = lockRange(m_locator, 39, 1);
    EXPECT_TRUE(parks(compressedRegion(0, 40, 1000)));
    unlockAndRestoreRegions(m_locator, own);
    EXPECT_FALSE(parks(compressedRegion(0, 40, 1000)));
    EXPECT_TRUE(unlocked().empty());
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(LockAndRemoveTest, IgnoresLocksOutsideItsViewRange)
{
    // The same journal blocks, mapped and locked elsewhere.
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(50, 10, 1000));
    const Regions held = lockRange(m_locator, 50, 10);
    EXPECT_FALSE(parks(plainRegion(0, 10, 1000)));
    EXPECT_TRUE(unlocked().empty());
    EXPECT_EQ(locked(), held);
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(LockAndRemoveTest, ParksForOneLockedBlockOfItsOwnAndTouchesNothing)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    for (u64 block = 0; block < 10; ++block) {
        const Regions held = lockRange(m_locator, block, 1);
        const Regions rest = unlocked();
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
        EXPECT_EQ(m_locator.lockAndRemove(&m_task, plainRegion(0, 10, 1000), voucher), RC_WAIT);
        EXPECT_EQ(locked(), held);
        EXPECT_EQ(unlocked(), rest);
        EXPECT_EQ(tokensIn(voucher), 1U);
        EXPECT_EQ(m_pool->getActiveVoucher(), nullptr);
        Access::dropLockWaiter(m_locator);
        unlockAndRestoreRegions(m_locator, held);
    }
}

TEST_F(LockAndRemoveTest, OneTokenIsEnough)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    {
        // One freed, two made.
        const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
        EXPECT_EQ(m_locator.lockAndRemove(&m_task, plainRegion(4, 2, 1004, 4), voucher),
                  RC_SUCCESS);
        EXPECT_TRUE(voucher.get()->empty());
    }
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 4, 1000), plainRegion(6, 4, 1006, 6)}));
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
    EXPECT_EQ(m_locator.lockAndRemove(&m_task, plainRegion(0, 10, 1000), voucher), RC_SUCCESS);
    EXPECT_EQ(tokensIn(voucher), 3U);
    EXPECT_EQ(m_locator.getItemCount(), 0U);
}

// ---- checks and verbose lines ----

TEST_F(LockAndRemoveTest, OfZeroesIsReportedAndTakesEverythingInTheRange)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, compressedRegion(10, 10, 2000));
    {
        const LogCapture log;
        EXPECT_FALSE(parks(zeroesRegion(5, 10)));
        EXPECT_TRUE(isSoftCheck(log.only(), LOCK_AND_REMOVE_SIGNATURE, NO_DATA_CONDITION,
                                "invalid fifo offset"));
    }
    EXPECT_EQ(unlocked(), (Regions{plainRegion(0, 5, 1000), compressedRegion(15, 5, 2000, 5)}));
    // Without an address, anybody's lock in the range is its own.
    const Regions held = lockRange(m_locator, 0, 1);
    const LogCapture log;
    EXPECT_TRUE(parks(zeroesRegion(0, 10)));
    EXPECT_TRUE(isSoftCheck(log.only(), LOCK_AND_REMOVE_SIGNATURE, NO_DATA_CONDITION,
                            "invalid fifo offset"));
    unlockAndRestoreRegions(m_locator, held);
}

TEST_F(LockAndRemoveTest, AcrossGrainsIsNotReported)
{
    insertRegion(m_locator, plainRegion(0, 10, (1 << 15) - 5));
    const LogCapture log;
    EXPECT_FALSE(parks(plainRegion(0, 10, (1 << 15) - 5)));
    EXPECT_TRUE(log.records().empty());
    EXPECT_TRUE(unlocked().empty());
}

TEST_F(LockAndRemoveTest, FromAnImmutableLocatorIsReportedAndGoesOn)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    m_locator.getConstBeginIterator();
    const LogCapture log;
    EXPECT_FALSE(parks(plainRegion(0, 10, 1000)));
    EXPECT_TRUE(isSoftCheck(log.only(), LOCK_AND_REMOVE_SIGNATURE, "!m_immutable"));
    EXPECT_TRUE(unlocked().empty());
}

TEST_F(LockAndRemoveTest, LooksAtItsArgumentBeforeItWaitsForTheLocator)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    m_locator.getConstBeginIterator();
    const VoucherGuard voucher(m_locator, RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
    const VerboseLogs verbose;
    const LogCapture log;
    std::atomic<bool> done{false};
    std::thread thread;
    {
        const MutexGuard lock(Access::mutex(m_locator));
        thread = std::thread([&] {
            m_locator.lockAndRemove(&m_task, zeroesRegion(0, 10), voucher);
            done = true;
        });
        EXPECT_TRUE(comesTrue([&] { return log.records().size() >= 2; }));
        const std::vector<LogRecord> records = log.records();
        EXPECT_EQ(records.size(), 2U) << testing::PrintToString(records);
        EXPECT_FALSE(done);
    }
    thread.join();
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 6U) << testing::PrintToString(records);
    EXPECT_TRUE(
        isTrace(records[0], LOCK_AND_REMOVE_SIGNATURE, " desc=" + regionText(zeroesRegion(0, 10))));
    EXPECT_TRUE(isSoftCheck(records[1], LOCK_AND_REMOVE_SIGNATURE, NO_DATA_CONDITION,
                            "invalid fifo offset"));
    EXPECT_TRUE(isSoftCheck(records[2], LOCK_AND_REMOVE_SIGNATURE, "!m_immutable"));
}

TEST_F(LockAndRemoveTest, WritesItsStepsWhenItRemovesAtOnce)
{
    insertRegion(m_locator, plainRegion(0, 10, 1000));
    insertRegion(m_locator, plainRegion(4, 2, 2000));
    const SubRegionDescriptor io = plainRegion(0, 10, 1000);
    const LogCapture log;
    {
        const VerboseLogs verbose;
        EXPECT_FALSE(parks(io));
    }
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 5U) << testing::PrintToString(records);
    EXPECT_TRUE(isTrace(records[0], LOCK_AND_REMOVE_SIGNATURE, " desc=" + regionText(io)));
    EXPECT_TRUE(isTrace(records[1], LOCK_AND_REMOVE_SIGNATURE, "not locked " + regionText(io)));
    EXPECT_TRUE(
        isTrace(records[2], PUNCH_OUT_SIGNATURE, punchOutText("2", Access::unlocked(m_locator))));
    EXPECT_TRUE(isTrace(records[3], PUNCH_OUT_SIGNATURE,
                        "erase whole  curRegion=" + regionText(plainRegion(0, 4, 1000))));
    EXPECT_TRUE(isTrace(records[4], PUNCH_OUT_SIGNATURE,
                        "erase whole  curRegion=" + regionText(plainRegion(6, 4, 1006, 6))));
}

TEST_F(LockAndRemoveTest, WritesItsStepsWhenItParks)
{
    insertRegion(m_locator, plainRegion(0, 20, 1000));
    insertRegion(m_locator, plainRegion(4, 2, 2000));
    const Regions held = lockRange(m_locator, 2, 6);
    ASSERT_EQ(held.size(), 3U);
    const SubRegionDescriptor io = plainRegion(0, 20, 1000);
    const LogCapture log;
    {
        const VerboseLogs verbose;
        EXPECT_TRUE(parks(io));
    }
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), 3U) << testing::PrintToString(records);
    EXPECT_TRUE(isTrace(records[0], LOCK_AND_REMOVE_SIGNATURE, " desc=" + regionText(io)));
    EXPECT_TRUE(isRecord(records[1], LogModuleXel, InfoLevel, 0, WAITER_SIGNATURE,
                         " m_desc=" + regionText(io) + " "));
    // Its own pieces only.
    std::ostringstream own;
    own << Regions{held[0], held[2]};
    EXPECT_TRUE(isTrace(records[2], LOCK_AND_REMOVE_SIGNATURE,
                        "locked " + regionText(io) + " " + own.str()));
    unlockAndRestoreRegions(m_locator, held);
}

} // namespace
