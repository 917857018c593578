#include "host/journal/JournalScanner.h"

#include <gtest/gtest.h>
#include <sstream>
#include <thread>

#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

// Writes down every call; answers what it is told to.
class Recorder : public SfsMetaDataContainer
{
public:
    explicit Recorder(bool offload) : m_offload(offload) {}

    FutureStatus prepareToAdd(int count, u64) override
    {
        m_calls << "prepare " << count << "\n";
        m_left = count;
        if (m_onPrepare)
            m_onPrepare();
        return makeSetFuture(m_prepareRc);
    }
    void unPrepareToAdd() override
    {
        m_calls << "unprepare\n";
        m_left = 0;
    }
    RcStatus addMetaData(const SfsDiskMetaItem& item, const JournalPtr& ptr) override
    {
        EXPECT_GT(m_left--, 0) << "more items than prepared for";
        m_thread = std::this_thread::get_id();
        m_calls << "add " << ptr << "\n";
        m_items.push_back(item);
        return m_items.size() == m_stopAt ? m_stopRc : RC_SUCCESS;
    }
    RcStatus metaGrainStarted(SfsDevAddr grain) override
    {
        m_calls << "start " << grain / SFS_GRAIN_BLOCKS << "\n";
        return RC_SUCCESS;
    }
    void metaGrainFinished(SfsDevAddr grain, u32 last) override
    {
        m_calls << "finish " << grain / SFS_GRAIN_BLOCKS << " " << last << "\n";
    }
    void done() override { m_calls << "done\n"; }
    bool isAddMetaDataDesireOffload() override { return m_offload; }

    const bool m_offload;
    std::ostringstream m_calls;
    std::vector<SfsDiskMetaItem> m_items;
    std::thread::id m_thread;
    RcStatus m_prepareRc = RC_SUCCESS;
    size_t m_stopAt = 0;
    RcStatus m_stopRc = RC_SUCCESS;
    std::function<void()> m_onPrepare;
    int m_left = 0;
};

// Every test runs with the container on the reading thread and on another one.
class JournalScannerTest : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override { m_store = openJournal(m_storage, JournalMode::Writer); }

    void zeroes(u64 count)
    {
        for (u64 i = 0; i < count; ++i)
            ASSERT_EQ(m_store->appendZeroes(m_next++, 1), RC_SUCCESS);
    }

    ScanResult scan(Recorder& recorder, const ScanOptions& options = {})
    {
        EXPECT_EQ(m_store->flush(), RC_SUCCESS);
        return JournalScanner(*m_store).scan(recorder, options);
    }

    CrashStorage m_storage;
    std::unique_ptr<JournalStore> m_store;
    u64 m_next = 0;
    Recorder m_recorder{GetParam()};
};

TEST_P(JournalScannerTest, EmptyJournalIsDoneAtOnce)
{
    const ScanResult result = scan(m_recorder);
    EXPECT_EQ(result.rc, RC_SUCCESS);
    EXPECT_EQ(m_recorder.m_calls.str(), "done\n");
    EXPECT_EQ(result.physicalItems, 0u);
}

TEST_P(JournalScannerTest, CallsComeInTheirOrder)
{
    zeroes(2);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    zeroes(1);
    ScanOptions options;
    options.batchItems = 2;
    const ScanResult result = scan(m_recorder, options);
    EXPECT_EQ(m_recorder.m_calls.str(), "prepare 2\nstart 1\nadd <1,0>\nadd <1,1>\nunprepare\n"
                                        "prepare 1\nadd <1,15>\nfinish 1 15\nunprepare\ndone\n");
    EXPECT_EQ(result.rc, RC_SUCCESS);
    EXPECT_FALSE(result.stopped);
    EXPECT_EQ(result.logicalItems, 3u);
    EXPECT_EQ(result.itemsBefore, 3u);
    EXPECT_EQ(result.last.entryNum, 15u);
    EXPECT_EQ(result.next.entryNum, 30u);
    EXPECT_EQ(m_recorder.m_thread == std::this_thread::get_id(), !GetParam());
}

TEST_P(JournalScannerTest, StopsWithAndWithoutTheCurrentItem)
{
    zeroes(10);
    m_recorder.m_stopAt = 4;
    m_recorder.m_stopRc = RC_STOP_EXCLUDE_CURRENT;
    ScanResult result = scan(m_recorder);
    EXPECT_EQ(result.rc, RC_SUCCESS);
    EXPECT_TRUE(result.stopped);
    EXPECT_EQ(result.logicalItems, 3u);
    EXPECT_EQ(result.itemsBefore, 3u);
    EXPECT_EQ(result.last.entryNum, 2u);
    EXPECT_EQ(result.next.entryNum, 3u);

    Recorder second(GetParam());
    second.m_stopAt = 4;
    second.m_stopRc = RC_STOP_INCLUDE_CURRENT;
    result = scan(second);
    EXPECT_TRUE(result.stopped);
    EXPECT_EQ(result.logicalItems, 4u);
    EXPECT_EQ(result.last.entryNum, 3u);
    EXPECT_EQ(result.next.entryNum, 4u);
    const std::string calls = second.m_calls.str();
    EXPECT_EQ(calls.substr(calls.size() - 36), "add <1,3>\nfinish 1 3\nunprepare\ndone\n");
}

TEST_P(JournalScannerTest, EveryFailureOfTheContainerEndsTheScan)
{
    zeroes(3);
    m_recorder.m_prepareRc = RC_NO_MEMORY;
    ScanResult result = scan(m_recorder);
    EXPECT_EQ(result.rc, RC_NO_MEMORY);
    EXPECT_EQ(m_recorder.m_calls.str(), "prepare 3\nunprepare\ndone\n");

    Recorder second(GetParam());
    second.m_stopAt = 2;
    second.m_stopRc = RC_FAILURE;
    result = scan(second);
    EXPECT_EQ(result.rc, RC_FAILURE);
    EXPECT_FALSE(result.stopped);
    EXPECT_EQ(result.next.entryNum, 1u);
}

TEST_P(JournalScannerTest, LimitCountsRequestsAndNeverCutsOne)
{
    zeroes(2);
    ASSERT_EQ(m_store->appendZeroes(5, 3 * 65535), RC_SUCCESS); // three items
    ASSERT_EQ(m_store->appendCheckpoint("", nullptr), RC_SUCCESS);
    zeroes(2);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    const size_t physical[] = {0, 1, 2, 6, 7, 8, 8};
    for (u64 limit = 0; limit < std::size(physical); ++limit) {
        Recorder recorder(GetParam());
        ScanOptions options;
        options.limitItems = limit;
        const ScanResult result = scan(recorder, options);
        EXPECT_EQ(result.rc, RC_SUCCESS);
        EXPECT_FALSE(result.stopped);
        EXPECT_EQ(recorder.m_items.size(), physical[limit]) << limit;
        EXPECT_EQ(result.itemsBefore, std::min<u64>(limit, 5));
    }
}

TEST_P(JournalScannerTest, GoesOnWhereAScanEnded)
{
    zeroes(40);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    zeroes(7);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    for (u64 cut = 0; cut <= 47; ++cut) {
        Recorder first(GetParam());
        ScanOptions options;
        options.limitItems = cut;
        const ScanResult begun = scan(first, options);
        Recorder second(GetParam());
        options.limitItems = ~u64{0};
        options.start = begun.next;
        const ScanResult rest = scan(second, options);
        EXPECT_EQ(rest.rc, RC_SUCCESS);
        ASSERT_EQ(first.m_items.size(), cut);
        ASSERT_EQ(second.m_items.size(), 47 - cut);
        EXPECT_EQ(rest.itemsBefore, cut < 47 ? 47u : rest.itemsBefore);
        for (size_t i = 0; i < second.m_items.size(); ++i)
            EXPECT_EQ(second.m_items[i].m_ioData.offsetBlocks, cut + i);
    }
}

TEST_P(JournalScannerTest, WalksOverGrainsAndChunks)
{
    // More pages than a metadata grain has, without writing an item for each: one page a flush
    // would be slow, so long runs of zeroes make full pages.
    const u64 pages = JOURNAL_PAGES_PER_GRAIN + 100;
    const u64 length = pages * JOURNAL_PAGE_ITEMS * JOURNAL_MAX_ZEROES_BLOCKS;
    ASSERT_EQ(m_store->appendZeroes(0, length), RC_SUCCESS);
    u64 progressCalls = 0;
    u64 lastDone = 0;
    ScanOptions options;
    options.progress = [&](u64 donePages, u64 allPages) {
        EXPECT_GT(donePages, lastDone);
        EXPECT_LE(donePages, allPages);
        lastDone = donePages;
        ++progressCalls;
    };
    const ScanResult result = scan(m_recorder, options);
    EXPECT_EQ(result.rc, RC_SUCCESS) << result.message;
    EXPECT_EQ(result.logicalItems, 1u);
    EXPECT_EQ(result.physicalItems, pages * JOURNAL_PAGE_ITEMS);
    EXPECT_EQ(lastDone, pages);
    EXPECT_EQ(progressCalls, 17u);
    const std::string calls = m_recorder.m_calls.str();
    EXPECT_NE(calls.find("finish 1 491519\nunprepare\nprepare 1500\nstart 2\nadd <2,0>\n"),
              std::string::npos);

    // The request is one: an end that loses its last page loses all of it.
    m_store.reset();
    m_storage.cutFile("journal/m-0000000002", 99 * BLOCK_BYTES);
    const auto store = openJournal(m_storage, JournalMode::Writer);
    EXPECT_EQ(store->itemCount(), 0u);
    EXPECT_EQ(store->report().m_cutPages, JOURNAL_PAGES_PER_GRAIN + 99u);
}

TEST_P(JournalScannerTest, CancelEndsAtTheNextBatch)
{
    zeroes(100);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    JournalScanner scanner(*m_store);
    ScanOptions options;
    options.batchItems = 10;
    int batches = 0;
    m_recorder.m_onPrepare = [&] {
        if (++batches == 3)
            scanner.cancel();
    };
    const ScanResult result = scanner.scan(m_recorder, options);
    EXPECT_EQ(result.rc, RC_ABORTED);
    EXPECT_EQ(m_recorder.m_items.size(), 30u);
    EXPECT_EQ(result.next.entryNum, 30u);
}

TEST_P(JournalScannerTest, DamageSinceTheJournalWasOpenedEndsTheScan)
{
    zeroes(40);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    m_storage.setByte("journal/m-0000000001", BLOCK_BYTES + 77, 0x55);
    const ScanResult result = scan(m_recorder);
    EXPECT_EQ(result.rc, RC_DAMAGED);
    EXPECT_EQ(result.message,
              "the journal is damaged: metadata grain 1 page 1 (entries 15 to 29): not intact");
    EXPECT_EQ(m_recorder.m_items.size(), 15u) << "what lies before it was handed over";
}

TEST_P(JournalScannerTest, ThatThereIsNoDescriptorIsToldFromAContainerWithoutMemory)
{
    zeroes(40);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    m_storage.failCall(CrashStorage::Call::Read, 1, RC_NO_MEMORY);
    ScanResult result = JournalScanner(*m_store).scan(m_recorder);
    EXPECT_EQ(result.rc, RC_NO_MEMORY);
    EXPECT_NE(result.message.find("no file descriptor is left"), std::string::npos)
        << result.message;
    Recorder poor(GetParam());
    poor.m_prepareRc = RC_NO_MEMORY;
    result = scan(poor);
    EXPECT_EQ(result.rc, RC_NO_MEMORY);
    EXPECT_EQ(result.message, "");
}

TEST_P(JournalScannerTest, StartBehindTheEndIsRefused)
{
    zeroes(1);
    ScanOptions options;
    options.start = journalPtr(5, 0);
    EXPECT_EQ(scan(m_recorder, options).rc, RC_BAD_ARGUMENT);
}

INSTANTIATE_TEST_SUITE_P(, JournalScannerTest, testing::Bool(),
                         [](const auto& one) { return one.param ? "Offloaded" : "Inline"; });

} // namespace
