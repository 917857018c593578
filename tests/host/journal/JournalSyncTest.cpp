// Syncs that fail beside flushes, or run beside each other.
#include <atomic>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/infra/LogItem.h"
#include "host/journal/FileGrainStore.h"
#include "host/journal/JournalStore.h"
#include "host/journal/JournalTrim.h"
#include "host/volume/AsyncFileIo.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"
#include "tests/support/SlowStorage.h"

namespace {

using namespace std::chrono_literals;
using Call = CrashStorage::Call;
using Fate = CrashStorage::Fate;

// What is wrong shows as soon as somebody comes through who should wait; what is right only ends
// this time.
constexpr auto WAIT = 200ms;

// Holds one thread up until it is opened.
class Gate
{
public:
    void pass()
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_arrived = true;
        m_changed.notify_all();
        m_changed.wait(guard, [&] { return m_open; });
    }
    void waitForArrival()
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_changed.wait(guard, [&] { return m_arrived; });
    }
    void open()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_arrived = false;
    bool m_open = false;
};

class JournalSyncTest : public testing::Test
{
protected:
    JournalSyncTest()
        : m_sink(LogItem::setSink(
              [](LogModule, LogLevel, const std::string&, int, const std::string&) {}))
    {}
    ~JournalSyncTest() override { LogItem::setSink(m_sink); }

    static void append(JournalStore& store, u32 blocks)
    {
        const std::vector<u8> data = patternBlocks(blocks, blocks);
        ASSERT_EQ(store.append(0, data.data(), blocks), RC_SUCCESS);
    }

    // A journal of two data grains, of which the first one can go; whole and durable.
    static std::unique_ptr<CrashStorage> twoGrains()
    {
        CrashStorage storage;
        {
            const auto store = openJournal(storage, JournalMode::Writer);
            append(*store, SFS_GRAIN_BLOCKS - 100);
            EXPECT_EQ(store->flush(), RC_SUCCESS);
            append(*store, 200);
        }
        return storage.restart();
    }

    static JournalTrimPlan trimPlan(JournalStore& store)
    {
        JournalTrimPlan plan = planJournalTrim(store, 1, store.endPage());
        EXPECT_EQ(plan.m_rc, RC_SUCCESS);
        EXPECT_EQ(plan.m_dataGrains, 1u);
        EXPECT_GT(plan.m_begin.m_page, 0u);
        return plan;
    }

    static void expectStopped(JournalStore& store)
    {
        const std::vector<u8> data(BLOCK_BYTES);
        EXPECT_EQ(store.append(0, data.data(), 1), RC_IO_ERROR);
        EXPECT_EQ(store.flush(), RC_IO_ERROR);
        EXPECT_EQ(store.appendCheckpoint("", nullptr), RC_IO_ERROR);
        EXPECT_EQ(store.syncMetadata(JournalPtr::invalid), RC_IO_ERROR);
        EXPECT_EQ(store.setBegin(store.begin(), 0), RC_IO_ERROR);
        EXPECT_EQ(store.close(), RC_IO_ERROR);
    }

private:
    LogItem::Sink m_sink;
};

// The system tells a failed sync once. Told to an apply or a trim it must stop the journal as it
// does told to a flush: the flush after it would succeed without what was dropped.
TEST_F(JournalSyncTest, EveryFailedSyncOfApplyAndTrimStopsTheJournal)
{
    const auto start = twoGrains();
    const std::vector<std::function<RcStatus(JournalStore&)>> steps = {
        [](JournalStore& store) { return store.syncMetadata(JournalPtr::invalid); },
        [](JournalStore& store) {
            const JournalTrimPlan plan = trimPlan(store);
            return store.setBegin(plan.m_begin, plan.m_freedBlocks);
        },
        [](JournalStore& store) {
            u64 removed = 0;
            return store.removeTrimmed(&removed);
        }};
    for (size_t failing = 0; failing < steps.size(); ++failing) {
        u64 failures = 0;
        bool done = false;
        for (u64 n = 1; !done; ++n) {
            SCOPED_TRACE(testing::Message() << "step " << failing << ", sync " << n);
            const auto storage = start->restart();
            const auto store = openJournal(*storage, JournalMode::Writer);
            for (size_t step = failing == 2 ? 1 : failing; step < failing; ++step)
                ASSERT_EQ(steps[step](*store), RC_SUCCESS);
            storage->failCall(Call::Sync, n, RC_IO_ERROR);
            const RcStatus rc = steps[failing](*store);
            storage->noFaults();
            done = rc == RC_SUCCESS;
            if (done)
                continue;
            ++failures;
            EXPECT_EQ(rc, RC_IO_ERROR);
            expectStopped(*store);
        }
        EXPECT_GE(failures, 1u);
    }
}

TEST_F(JournalSyncTest, PagesForWhichASyncFoundNoSpaceAreLostAsWell)
{
    const auto start = twoGrains();
    for (const bool isTrim : {false, true}) {
        const auto storage = start->restart();
        const auto store = openJournal(*storage, JournalMode::Writer);
        const JournalBegin begin = trimPlan(*store).m_begin;
        storage->failCall(Call::Sync, 1, RC_NO_SPACE);
        EXPECT_EQ(isTrim ? store->setBegin(begin, 0) : store->syncMetadata(JournalPtr::invalid),
                  RC_IO_ERROR);
        expectStopped(*store);
    }
}

// Or the flush would take the failure that the other one was told of for a success.
TEST_F(JournalSyncTest, MetadataIsNotSyncedBesideAFlush)
{
    for (const bool isTrim : {false, true}) {
        Gate gate;
        std::atomic<u64> calls{0};
        SlowStorage storage(twoGrains(), 0);
        const auto store = openJournal(storage, JournalMode::Writer);
        append(*store, 1);
        storage.start([&](u64 call) {
            calls = call;
            if (call == 1)
                gate.pass();
        });
        std::thread flushing([&] { EXPECT_EQ(store->flush(), RC_SUCCESS); });
        gate.waitForArrival();
        std::atomic<bool> done{false};
        std::thread syncing([&] {
            EXPECT_EQ(isTrim ? store->setBegin(store->begin(), 0)
                             : store->syncMetadata(JournalPtr::invalid),
                      RC_SUCCESS);
            done = true;
        });
        std::this_thread::sleep_for(WAIT);
        EXPECT_EQ(calls, 1u);
        EXPECT_FALSE(done);
        gate.open();
        flushing.join();
        syncing.join();
        storage.start({});
    }
}

// A sync of a new grain must not end before the folder is synced, nor when another thread is just
// about to do that.
TEST_F(JournalSyncTest, NewGrainIsDurableForEachWhoSyncsIt)
{
    Gate gate;
    auto below = std::make_unique<CrashStorage>();
    CrashStorage& names = *below;
    SlowStorage storage(std::move(below), 0);
    ASSERT_EQ(storage.makeDir("journal"), RC_SUCCESS);
    FileGrainStore grains(storage, "journal", false, AsyncFileIo::instance());
    ASSERT_EQ(grains.create(GrainKind::Data, 1), RC_SUCCESS);
    ASSERT_EQ(grains.create(GrainKind::Meta, 1), RC_SUCCESS);
    ASSERT_EQ(names.unsyncedNames(), 2u);
    storage.start([&](u64 call) {
        if (call == 2) // after the file's
            gate.pass();
    });
    std::thread other([&] { EXPECT_EQ(grains.sync(GrainKind::Meta, 1), RC_SUCCESS); });
    gate.waitForArrival();
    std::mutex mutex;
    std::condition_variable changed;
    bool ended = false;
    std::thread waiter([&] {
        EXPECT_EQ(grains.sync(GrainKind::Data, 1), RC_SUCCESS);
        EXPECT_EQ(names.unsyncedNames(), 0u);
        const std::lock_guard<std::mutex> guard(mutex);
        ended = true;
        changed.notify_all();
    });
    {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait_for(guard, WAIT, [&] { return ended; });
    }
    gate.open();
    waiter.join();
    other.join();
    storage.start({});
}

TEST_F(JournalSyncTest, FolderThatCouldNotBeSyncedFailsForGood)
{
    CrashStorage storage;
    ASSERT_EQ(storage.makeDir("journal"), RC_SUCCESS);
    FileGrainStore grains(storage, "journal", false, AsyncFileIo::instance());
    ASSERT_EQ(grains.create(GrainKind::Data, 1), RC_SUCCESS);
    storage.failCall(Call::Sync, 1, RC_NO_MEMORY);
    EXPECT_EQ(grains.syncRemovals(), RC_NO_MEMORY); // nothing was tried
    storage.failCall(Call::Sync, 1, RC_IO_ERROR);
    EXPECT_EQ(grains.syncRemovals(), RC_IO_ERROR);
    EXPECT_EQ(grains.syncRemovals(), RC_IO_ERROR);
    EXPECT_EQ(grains.sync(GrainKind::Data, 1), RC_IO_ERROR);
}

// A trim that is killed before its beginning's new name is durable, a writer that comes next and
// removes grains, and a power cut that brings the old beginning back.
TEST_F(JournalSyncTest, NextWriterRemovesNothingBeforeTheBeginningIsDurable)
{
    const auto start = twoGrains();
    u64 newPage = 0;
    u64 killed = 0;
    bool done = false;
    for (u64 change = 1; !done; ++change) {
        const auto storage = start->restart();
        {
            const auto store = openJournal(*storage, JournalMode::Writer);
            const JournalTrimPlan plan = trimPlan(*store);
            newPage = plan.m_begin.m_page;
            storage->dieAfter(storage->changes() + change);
            done = store->setBegin(plan.m_begin, plan.m_freedBlocks) == RC_SUCCESS;
        }
        const auto left = storage->takeOver();
        JournalBegin seen;
        ASSERT_EQ(loadJournalBegin(*left, "journal", &seen), RC_SUCCESS);
        const size_t lost = left->unsyncedNames();
        if (done || seen.m_page != newPage || lost == 0)
            continue;
        ++killed;
        bool opened = false;
        for (u64 more = 1; !opened; ++more) {
            SCOPED_TRACE(testing::Message() << "killed after " << change << " and " << more);
            const auto next = left->takeOver();
            next->dieAfter(next->changes() + more);
            JournalOptions options;
            options.mode = JournalMode::Writer;
            opened = JournalStore::open(*next, options).m_rc == RC_SUCCESS;
            const bool old = next->unsyncedNames() >= lost;
            const auto image = next->crash([&](size_t unit) {
                return Fate{old && unit < lost ? Fate::Lost : Fate::Kept, 0};
            });
            const auto store = openJournal(*image, JournalMode::Writer);
            ASSERT_TRUE(store);
            EXPECT_EQ(readBack(*store).size(), store->begin().m_page == 0 ? 2u : 1u);
        }
    }
    EXPECT_GE(killed, 1u);
}

// Whoever appends or flushes beside it is refused or waited for.
TEST_F(JournalSyncTest, CloseBesideAppendsAndFlushesLosesNothingAcknowledged)
{
    CrashStorage storage;
    std::atomic<u64> accepted{0};
    {
        const auto store = openJournal(storage, JournalMode::Writer);
        std::vector<std::thread> threads;
        std::atomic<u32> started{0};
        for (u32 i = 0; i < 3; ++i)
            threads.emplace_back([&] {
                const std::vector<u8> data(BLOCK_BYTES, 7);
                for (RcStatus rc = RC_SUCCESS; rc == RC_SUCCESS; ++started) {
                    rc = store->append(0, data.data(), 1);
                    accepted += rc == RC_SUCCESS ? 1 : 0;
                    if (rc == RC_SUCCESS)
                        (void)store->flush();
                }
            });
        while (started < 30)
            std::this_thread::yield();
        EXPECT_EQ(store->close(), RC_SUCCESS);
        for (std::thread& thread : threads)
            thread.join();
    }
    const auto image = storage.crash([](size_t) { return Fate(); });
    const auto store = openJournal(*image, JournalMode::ReadOnly);
    EXPECT_EQ(store->itemCount(), accepted);
}

// Behind it another process may write.
TEST_F(JournalSyncTest, AFlushThatWaitedForAFailedOneWritesNothingBehindClose)
{
    for (int round = 0; round < 20; ++round) {
        auto crashing = std::make_unique<CrashStorage>();
        CrashStorage& below = *crashing;
        SlowStorage storage(std::move(crashing), 0);
        const auto store = openJournal(storage, JournalMode::Writer);
        ASSERT_EQ(store->appendZeroes(0, 1), RC_SUCCESS);
        below.failCall(Call::Sync, 1, RC_NO_SPACE, true);
        Gate gate;
        std::atomic<bool> isClosed{false};
        std::atomic<u32> late{0};
        storage.start([&](u64 call) {
            if (call == 1)
                gate.pass();
            late += isClosed;
        });
        std::vector<std::thread> threads;
        threads.emplace_back([&] { EXPECT_NE(store->flush(), RC_SUCCESS); });
        gate.waitForArrival();
        for (u32 i = 0; i < 3; ++i)
            threads.emplace_back([&] { EXPECT_NE(store->flush(), RC_SUCCESS); });
        threads.emplace_back([&] {
            EXPECT_NE(store->close(), RC_SUCCESS);
            isClosed = true;
        });
        std::this_thread::sleep_for(WAIT / 20); // for them to come to where they wait
        gate.open();
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(late, 0u) << round;
        storage.start({});
    }
}

} // namespace
