// One locator behind its gate: any number of readers, one who drains it, one who takes single IOs
// out and one who fills it again. Nobody may starve, and no order of them may reach a check that
// stops the process.
#include <atomic>
#include <gtest/gtest.h>
#include <random>
#include <thread>

#include "RegionLocator/RegionLocator.h"
#include "appliance/LocatorGate.h"
#include "host/Host.h"
#include "host/infra/Clock.h"
#include "host/tasks/BlockingTask.h"
#include "tests/support/ComesTrue.h"

namespace {

constexpr u32 IOS = 128;
constexpr u32 IO_BLOCKS = 8;
constexpr u64 BLOCKS = u64{IOS} * IO_BLOCKS;

class SharedLocatorTest : public testing::Test
{
protected:
    void SetUp() override
    {
        HostOptions options;
        options.m_log = LogOutputOptions{LogFormat::Text, "", WarnLevel};
        ASSERT_TRUE(m_host.start(std::move(options)).ok());
    }
    void TearDown() override { EXPECT_TRUE(m_host.stop().ok()); }

    static SubRegionDescriptor io(u32 index)
    {
        return SfsItemDescriptor::genUncompressed(
            u64{index} * IO_BLOCKS, IO_BLOCKS, SFS_GRAIN_BLOCKS + u64{index} * IO_BLOCKS, 0, false);
    }

    void fill(RegionLocatorVoucher* voucher, RegionLocatorMemPool::ActionType action, u64 count)
    {
        RegionLocatorMemPool* pool = m_locator.getMemPool();
        pool->clearVoucher(voucher);
        m_wrong += pool->fillVoucher(voucher,
                                     RegionLocatorMemPool::getVoucherRequirement(
                                         action, static_cast<int>(count)),
                                     Clock::NEVER, voucher)
                       .get() != RC_SUCCESS;
    }

    void enter(LocatorGate::Ticket* ticket, LocatorGate::Kind kind)
    {
        m_wrong += m_gate.enter(ticket, kind).get() != RC_SUCCESS;
    }

    void insertAll(RegionLocatorVoucher* voucher)
    {
        LocatorGate::Ticket ticket;
        enter(&ticket, LocatorGate::Kind::Alone);
        for (u32 i = 0; i < IOS; ++i) {
            fill(voucher, RegionLocatorMemPool::INSERT, 1);
            m_wrong += !m_locator.insert(io(i), voucher);
        }
        m_gate.leave(&ticket);
    }

    void readOnce(std::mt19937& random, RegionLocatorVoucher* voucher)
    {
        const u32 length = 1 + random() % 100;
        const u64 offset = random() % (BLOCKS - length);
        LocatorGate::Ticket ticket;
        enter(&ticket, LocatorGate::Kind::Locker);
        std::vector<SubRegionDescriptor> pieces;
        m_locator.lookup(nullptr, offset, length, &pieces, false, nullptr);
        fill(voucher, RegionLocatorMemPool::LOOKUP_LOCKED, pieces.size());
        m_wrong += runAndWait(m_host.getEngine(), [&](AsyncTask* task) {
                       return m_locator.lookup(task, offset, length, &pieces, true, voucher);
                   }) != RC_SUCCESS;
        m_gate.settled(&ticket);
        for (const SubRegionDescriptor& piece : pieces) {
            // What is handed out is where its IO was written.
            m_wrong +=
                piece.m_fifoOffsetOfIoStartBlocks != SFS_GRAIN_BLOCKS + piece.m_viewOffsetBlocks;
        }
        std::this_thread::yield();
        m_locator.unlockAndRestore(pieces, voucher);
        m_gate.leave(&ticket);
    }

    // Returns whether anything was left.
    bool drainOnce(RegionLocatorVoucher* voucher)
    {
        constexpr u32 STEP_BLOCKS = 64;
        LocatorGate::Ticket ticket;
        enter(&ticket, LocatorGate::Kind::Locker);
        fill(voucher, RegionLocatorMemPool::LOOKUP_LOCKED, STEP_BLOCKS);
        std::vector<SubRegionDescriptor> regions;
        m_wrong += runAndWait(m_host.getEngine(), [&](AsyncTask* task) {
                       return m_locator.getFirstBlocksAndLock(task, STEP_BLOCKS, &regions, voucher);
                   }) != RC_SUCCESS;
        m_gate.settled(&ticket);
        const bool any = !regions.empty();
        m_locator.unlockAndRemove(regions, voucher);
        m_gate.leave(&ticket);
        return any;
    }

    void trimOnce(std::mt19937& random, RegionLocatorVoucher* voucher)
    {
        LocatorGate::Ticket ticket;
        enter(&ticket, LocatorGate::Kind::Locker);
        fill(voucher, RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
        const SubRegionDescriptor gone = io(random() % IOS);
        m_wrong += runAndWait(m_host.getEngine(), [&](AsyncTask* task) {
                       return m_locator.lockAndRemove(task, gone, voucher);
                   }) != RC_SUCCESS;
        std::vector<SubRegionDescriptor> left;
        m_locator.lookup(nullptr, gone.m_viewOffsetBlocks, IO_BLOCKS, &left, false, nullptr);
        m_wrong += !left.empty();
        m_gate.leave(&ticket);
    }

    Host m_host;
    RegionLocator m_locator{1, RL_MMI_View};
    LocatorGate m_gate;
    std::atomic<u64> m_wrong{0};
};

TEST_F(SharedLocatorTest, NobodyStarvesBesideManyReaders)
{
    constexpr u32 READERS = 12;
    constexpr u64 ROUNDS = 1500;
    std::atomic<bool> stop{false};
    std::atomic<u64> reads[READERS] = {};
    std::atomic<u64> drains{0};
    std::atomic<u64> trims{0};
    std::vector<std::thread> threads;
    const auto start = [&](auto body) {
        threads.emplace_back([&, body] {
            RegionLocatorVoucher* voucher = m_locator.getMemPool()->createVoucher();
            while (!stop)
                body(voucher);
            m_locator.getMemPool()->destroyVoucher(voucher);
        });
    };
    std::vector<std::mt19937> random;
    for (u32 i = 0; i <= READERS; ++i)
        random.emplace_back(i);
    RegionLocatorVoucher* first = m_locator.getMemPool()->createVoucher();
    insertAll(first);
    m_locator.getMemPool()->destroyVoucher(first);
    for (u32 i = 0; i < READERS; ++i)
        start([&, i](RegionLocatorVoucher* voucher) {
            readOnce(random[i], voucher);
            ++reads[i];
        });
    start([&](RegionLocatorVoucher* voucher) {
        if (!drainOnce(voucher))
            insertAll(voucher);
        ++drains;
    });
    start([&](RegionLocatorVoucher* voucher) {
        trimOnce(random[READERS], voucher);
        ++trims;
    });

    const auto enough = [&] {
        bool all = drains >= ROUNDS && trims >= ROUNDS;
        for (const std::atomic<u64>& count : reads)
            all = all && count >= ROUNDS;
        return all;
    };
    EXPECT_TRUE(comesTrue(enough));
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GE(drains, ROUNDS);
    EXPECT_GE(trims, ROUNDS);
    for (const std::atomic<u64>& count : reads)
        EXPECT_GE(count, ROUNDS);
    EXPECT_EQ(m_wrong, 0u);
    EXPECT_EQ(m_gate.queued(), 0u);
    EXPECT_EQ(m_gate.holding(), 0u);
}

} // namespace
