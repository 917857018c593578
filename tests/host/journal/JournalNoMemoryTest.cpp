// The journal where the heap gives nothing: a request is refused and leaves no trace, a flush is
// tried again or ends the journal's accepting; never is anything in between.

#include <gtest/gtest.h>

#include "host/journal/JournalScanner.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"
#include "tests/support/ReplacedHeap.h"

namespace {

constexpr u32 LENGTH = 8;

class JournalNoMemoryTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!HEAP_CAN_FAIL)
            GTEST_SKIP() << "the sanitizer's allocator does not fail";
    }
};

// After `failing` has run with each of its allocations failing in turn, until none does.
template <class Failing> u64 eachAllocation(Failing failing)
{
    u64 nth = 1;
    while (nth < 1000 && failing(nth))
        ++nth;
    EXPECT_LT(nth, 1000u);
    return nth - 1;
}

TEST_F(JournalNoMemoryTest, AnAppendIsRefusedAndLeavesNoTrace)
{
    for (const Compression compression : {Compression::None, Compression::Lz4}) {
        const u64 failures = eachAllocation([&](u64 nth) {
            CrashStorage storage;
            JournalOptions options;
            options.compression = compression;
            std::unique_ptr<JournalStore> store =
                openJournal(storage, JournalMode::Writer, options);
            std::vector<JournalRequest> expected;
            bool failed = false;
            for (u64 i = 0; i < 3; ++i) {
                const std::vector<u8> data = patternBlocks(nth * 10 + i, LENGTH, i != 1);
                RcStatus rc = RC_FAILURE;
                const u64 before = store->bytesUsed();
                {
                    FailingHeap heap(i == 0 ? nth : 0);
                    rc = store->append(i * LENGTH, data.data(), LENGTH);
                    failed |= i == 0 && heap.failed();
                }
                EXPECT_EQ(rc, i == 0 && failed ? RC_NO_MEMORY : RC_SUCCESS) << nth;
                if (rc == RC_SUCCESS)
                    expected.push_back({i * LENGTH, LENGTH, data});
                else
                    EXPECT_EQ(store->bytesUsed(), before);
            }
            EXPECT_EQ(store->itemCount(), expected.size());
            EXPECT_EQ(store->flush(), RC_SUCCESS);
            EXPECT_EQ(readBack(*store), expected) << nth;
            store.reset();
            store = openJournal(storage, JournalMode::Writer, options);
            EXPECT_EQ(readBack(*store), expected) << nth;
            return failed;
        });
        EXPECT_GT(failures, 5u);
    }
}

TEST_F(JournalNoMemoryTest, AFlushIsTriedAgainOrTheJournalAcceptsNothingMore)
{
    u64 again = 0;
    const u64 failures = eachAllocation([&](u64 nth) {
        CrashStorage storage;
        std::unique_ptr<JournalStore> store = openJournal(storage, JournalMode::Writer);
        const std::vector<u8> data = patternBlocks(nth, LENGTH);
        EXPECT_EQ(store->append(0, data.data(), LENGTH), RC_SUCCESS);
        RcStatus rc = RC_FAILURE;
        bool failed = false;
        {
            FailingHeap heap(nth);
            rc = store->flush();
            failed = heap.failed();
        }
        const RcStatus next = store->append(LENGTH, data.data(), LENGTH);
        if (rc == RC_IO_ERROR) {
            EXPECT_TRUE(failed);
            EXPECT_EQ(next, RC_IO_ERROR);
            EXPECT_EQ(store->flush(), RC_IO_ERROR);
        } else {
            EXPECT_EQ(rc, failed ? RC_NO_MEMORY : RC_SUCCESS);
            EXPECT_EQ(next, RC_SUCCESS);
            EXPECT_EQ(store->flush(), RC_SUCCESS) << "nothing is lost";
            EXPECT_EQ(store->durableItemCount(), 2u);
            again += failed;
        }
        store.reset();
        store = openJournal(storage, JournalMode::Writer);
        const std::vector<JournalRequest> found = readBack(*store);
        EXPECT_LE(found.size(), 2u);
        EXPECT_TRUE(rc == RC_IO_ERROR || found.size() == 2) << nth;
        for (const JournalRequest& request : found)
            EXPECT_EQ(request.m_bytes, data);
        return failed;
    });
    EXPECT_GT(again, 0u);
    EXPECT_GT(failures, again);
}

TEST_F(JournalNoMemoryTest, ClosingNeverEndsTheProcessAndLosesNothingFlushed)
{
    const u64 failures = eachAllocation([&](u64 nth) {
        CrashStorage storage;
        std::unique_ptr<JournalStore> store = openJournal(storage, JournalMode::Writer);
        const std::vector<u8> data = patternBlocks(nth, LENGTH);
        EXPECT_EQ(store->append(0, data.data(), LENGTH), RC_SUCCESS);
        EXPECT_EQ(store->flush(), RC_SUCCESS);
        if (nth % 2 == 0) {
            EXPECT_EQ(store->append(LENGTH, data.data(), LENGTH), RC_SUCCESS);
        }
        bool failed = false;
        {
            FailingHeap heap((nth + 1) / 2);
            store.reset();
            failed = heap.failed();
        }
        store = openJournal(storage, JournalMode::Writer);
        const std::vector<JournalRequest> found = readBack(*store);
        EXPECT_GE(found.size(), failed || nth % 2 != 0 ? 1u : 2u) << nth;
        return failed || nth % 2 != 0;
    });
    EXPECT_GT(failures, 5u);
}

// Counts what it is given, on whatever thread.
class Counter : public SfsMetaDataContainer
{
public:
    explicit Counter(bool offload) : m_offload(offload) {}
    FutureStatus prepareToAdd(int, u64) override { return makeSetFuture(RC_SUCCESS); }
    void unPrepareToAdd() override {}
    RcStatus metaGrainStarted(SfsDevAddr) override { return RC_SUCCESS; }
    bool isAddMetaDataDesireOffload() override { return m_offload; }
    RcStatus addMetaData(const SfsDiskMetaItem&, const JournalPtr&) override
    {
        ++m_items;
        return RC_SUCCESS;
    }
    void done() override { ++m_done; }

    const bool m_offload;
    u64 m_items = 0;
    u64 m_done = 0;
};

TEST_F(JournalNoMemoryTest, AScanEndsWithItAndTellsItsContainer)
{
    constexpr u64 ITEMS = 40000; // more than one chunk of pages
    CrashStorage storage;
    const std::unique_ptr<JournalStore> store = openJournal(storage, JournalMode::Writer);
    for (u64 i = 0; i < ITEMS; ++i)
        ASSERT_EQ(store->appendZeroes(i, 1), RC_SUCCESS);
    ASSERT_EQ(store->flush(), RC_SUCCESS);
    for (const bool offload : {false, true}) {
        u64 ended = 0;
        const u64 failures = eachAllocation([&](u64 nth) {
            Counter counter(offload);
            JournalScanner scanner(*store);
            ScanResult result;
            bool failed = false;
            {
                FailingHeap heap(nth);
                result = scanner.scan(counter);
                failed = heap.failed();
            }
            EXPECT_EQ(counter.m_done, 1u) << nth;
            EXPECT_EQ(result.physicalItems, counter.m_items) << nth;
            // Without a thread of its own it goes on.
            EXPECT_TRUE(result.rc == RC_NO_MEMORY || result.rc == RC_SUCCESS) << nth;
            EXPECT_TRUE(result.rc == RC_NO_MEMORY || counter.m_items == ITEMS) << nth;
            ended += result.rc != RC_SUCCESS;
            return failed;
        });
        // How much this thread needs depends on whether the one that reads ahead was faster.
        EXPECT_GT(failures, 0u);
        EXPECT_GT(ended, 0u);
    }
}

} // namespace
