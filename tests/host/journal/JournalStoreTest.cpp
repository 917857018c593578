#include "host/journal/JournalStore.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "host/journal/FileStorage.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"
#include "tests/support/LogCapture.h"

namespace {

// A store over a fresh storage, and the requests it should hold.
class JournalStoreTest : public testing::Test
{
protected:
    void open(JournalOptions options = {})
    {
        m_options = options;
        m_store = openJournal(m_storage, JournalMode::Writer, options);
        ASSERT_NE(m_store, nullptr);
    }

    void reopen()
    {
        m_store.reset();
        m_store = openJournal(m_storage, JournalMode::Writer, m_options);
        ASSERT_NE(m_store, nullptr);
        EXPECT_EQ(m_store->report().m_text, "");
    }

    void append(u64 offset, u32 blocks, u64 seed, bool repetitive = false)
    {
        const std::vector<u8> data = patternBlocks(seed, blocks, repetitive);
        ASSERT_EQ(m_store->append(offset, data.data(), blocks), RC_SUCCESS);
        m_expected.push_back({offset, blocks, data});
    }

    void appendZeroes(u64 offset, u64 blocks)
    {
        ASSERT_EQ(m_store->appendZeroes(offset, blocks), RC_SUCCESS);
        m_expected.push_back({offset, blocks, {}});
    }

    void expectContent()
    {
        ASSERT_EQ(m_store->flush(), RC_SUCCESS);
        EXPECT_EQ(readBack(*m_store), m_expected);
        EXPECT_EQ(m_store->itemCount(), m_expected.size());
        EXPECT_EQ(m_store->durableItemCount(), m_expected.size());
    }

    CrashStorage m_storage;
    JournalOptions m_options;
    std::unique_ptr<JournalStore> m_store;
    std::vector<JournalRequest> m_expected;
};

TEST_F(JournalStoreTest, EmptyJournalHoldsNothingAndStaysSo)
{
    open();
    expectContent();
    EXPECT_EQ(m_store->bytesUsed(), 0u);
    reopen();
    expectContent();
    EXPECT_TRUE(m_store->checkpoints().empty());
}

TEST_F(JournalStoreTest, OneWriteComesBack)
{
    open();
    append(100, 8, 1);
    expectContent();
    reopen();
    expectContent();
}

TEST_F(JournalStoreTest, WhatWasNotFlushedIsFlushedByAnOrderlyEnd)
{
    open();
    append(5, 1, 1);
    EXPECT_EQ(m_store->durableItemCount(), 0u);
    reopen();
    expectContent();
}

TEST_F(JournalStoreTest, ManyWritesFillPagesExactlyAndBeyond)
{
    for (const int count : {14, 15, 16, 30, 31}) {
        SCOPED_TRACE(count);
        CrashStorage storage;
        std::vector<JournalRequest> expected;
        auto store = openJournal(storage, JournalMode::Writer);
        for (int i = 0; i < count; ++i) {
            expected.push_back({static_cast<u64>(i), 1, patternBlocks(static_cast<u64>(i), 1)});
            ASSERT_EQ(store->append(static_cast<u64>(i), expected.back().m_bytes.data(), 1),
                      RC_SUCCESS);
        }
        store.reset();
        store = openJournal(storage, JournalMode::Writer);
        EXPECT_EQ(readBack(*store), expected);
        // The items' pages, and the empty one of the orderly end.
        EXPECT_EQ(store->endPage(), static_cast<u64>((count + 14) / 15 + 1));
    }
}

TEST_F(JournalStoreTest, EachFlushBeginsAPage)
{
    open();
    for (u64 i = 0; i < 4; ++i) {
        append(i, 1, i);
        ASSERT_EQ(m_store->flush(), RC_SUCCESS);
        EXPECT_EQ(m_store->endPage(), i + 1);
    }
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    EXPECT_EQ(m_store->endPage(), 4u) << "a flush of nothing writes nothing";
    expectContent();
}

TEST_F(JournalStoreTest, ZeroesTakeNoDataHoweverLong)
{
    open();
    appendZeroes(0, 1);
    appendZeroes(10, 65535);
    appendZeroes(10, 65536);
    appendZeroes(0, u64{1} << 31); // more than two thousand pages of one request
    appendZeroes(7, 3);
    expectContent();
    EXPECT_EQ(m_store->itemCount(), 5u);
    reopen();
    expectContent();
}

TEST_F(JournalStoreTest, RequestThatDoesNotFitAPageBeginsOne)
{
    open();
    for (u64 i = 0; i < 14; ++i)
        appendZeroes(i, 1);
    appendZeroes(0, 2 * 65535); // two items, one slot left
    expectContent();
    EXPECT_EQ(m_store->endPage(), 2u);
}

TEST_F(JournalStoreTest, RequestIsSplitAtTheGrainsEnd)
{
    open();
    append(0, SFS_GRAIN_BLOCKS - 1024, 1);
    append(50, 1025, 2); // 1024 blocks in this grain, one in the next
    append(60, 1, 3);
    expectContent();
    EXPECT_EQ(m_store->itemCount(), 3u);
    reopen();
    append(61, 2, 4);
    expectContent();
}

TEST_F(JournalStoreTest, SmallRestOfAGrainIsLeftEmpty)
{
    open();
    append(0, SFS_GRAIN_BLOCKS - 1023, 1);
    append(50, 1024, 2);
    expectContent();
    EXPECT_NE(m_storage.sizeOf("journal/d-0000000002"), 0u);
    EXPECT_EQ(m_storage.sectorOffsets("journal/d-0000000001").size(),
              SFS_GRAIN_BLOCKS - 1023u + (SFS_GRAIN_BLOCKS - 1023 + 127) / 128)
        << "the first grain holds the first request alone";
}

TEST_F(JournalStoreTest, RequestLongerThanAGrainIsOneItem)
{
    open();
    append(3, 2 * SFS_GRAIN_BLOCKS + 5, 1);
    append(3, 1, 2);
    expectContent();
    reopen();
    expectContent();
}

TEST_F(JournalStoreTest, CompressionKeepsOnlyWhatSavesABlock)
{
    for (const Compression compression : {Compression::Lz4, Compression::Zstd}) {
        SCOPED_TRACE(compressionName(compression));
        CrashStorage storage;
        JournalOptions options;
        options.compression = compression;
        auto store = openJournal(storage, JournalMode::Writer, options);
        std::vector<JournalRequest> expected;
        u64 rawBlocks = 0;
        for (const u32 blocks : {1u, 2u, 8u, 256u, 2048u, 2049u, 5000u}) {
            for (const bool repetitive : {false, true}) {
                expected.push_back({blocks, blocks, patternBlocks(blocks, blocks, repetitive)});
                rawBlocks += blocks;
                ASSERT_EQ(store->append(blocks, expected.back().m_bytes.data(), blocks),
                          RC_SUCCESS);
            }
        }
        ASSERT_EQ(store->flush(), RC_SUCCESS);
        EXPECT_EQ(readBack(*store), expected);
        EXPECT_LT(store->bytesUsed(), rawBlocks * BLOCK_BYTES * 3 / 4);
        EXPECT_GT(store->bytesUsed(), rawBlocks * BLOCK_BYTES / 2);
        store.reset();
        store = openJournal(storage, JournalMode::ReadOnly);
        EXPECT_EQ(readBack(*store), expected);
    }
}

TEST_F(JournalStoreTest, CompressedRequestsAreSplitAtTheGrainsEndToo)
{
    JournalOptions options;
    options.compression = Compression::Zstd;
    open(options);
    append(0, SFS_GRAIN_BLOCKS - 1500, 1); // incompressible
    append(0, 2048, 2);
    append(9, 2048, 3, true);
    expectContent();
}

TEST_F(JournalStoreTest, CheckpointsHaveIdsTagsTimesAndItems)
{
    u64 now = 1000;
    JournalOptions options;
    options.nowUs = [&] { return now; };
    open(options);
    CpId_t id = 0;
    ASSERT_EQ(m_store->appendCheckpoint("", &id), RC_SUCCESS);
    EXPECT_EQ(id, 1u);
    append(0, 1, 1);
    appendZeroes(0, 200000);
    now = 900; // a clock that was set back
    ASSERT_EQ(m_store->appendCheckpoint("before the upgrade", &id), RC_SUCCESS);
    EXPECT_EQ(id, 2u);
    reopen();
    append(1, 1, 2);
    now = 5000;
    ASSERT_EQ(m_store->appendCheckpoint("after", &id), RC_SUCCESS);
    reopen();

    const std::vector<JournalCheckpoint> all = m_store->checkpoints();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].m_tag, "");
    EXPECT_EQ(all[0].m_itemsBefore, 0u);
    EXPECT_EQ(all[0].m_timestampUs, 1000u);
    EXPECT_EQ(all[1].m_id, 2u);
    EXPECT_EQ(all[1].m_tag, "before the upgrade");
    EXPECT_EQ(all[1].m_itemsBefore, 2u);
    EXPECT_EQ(all[1].m_timestampUs, 1000u);
    EXPECT_EQ(all[2].m_id, 3u);
    EXPECT_EQ(all[2].m_tag, "after");
    EXPECT_EQ(all[2].m_itemsBefore, 3u);
    EXPECT_EQ(all[2].m_timestampUs, 5000u);
    expectContent();
}

TEST_F(JournalStoreTest, ClockThatIsFarBehindIsToldOnceForEachOpening)
{
    constexpr u64 HOUR_US = u64{3600} * 1000000;
    u64 now = 10 * HOUR_US;
    JournalOptions options;
    options.nowUs = [&] { return now; };
    open(options);
    LogCapture log;
    const auto told = [&] { return log.beginningWith("the clock is ").size(); };
    ASSERT_EQ(m_store->appendCheckpoint("", nullptr), RC_SUCCESS);
    now -= HOUR_US / 60;
    ASSERT_EQ(m_store->appendCheckpoint("", nullptr), RC_SUCCESS);
    EXPECT_EQ(told(), 0u) << "a correction in passing";
    now -= HOUR_US;
    ASSERT_EQ(m_store->appendCheckpoint("", nullptr), RC_SUCCESS);
    ASSERT_EQ(m_store->appendCheckpoint("", nullptr), RC_SUCCESS);
    EXPECT_EQ(told(), 1u);
    reopen();
    ASSERT_EQ(m_store->appendCheckpoint("", nullptr), RC_SUCCESS);
    EXPECT_EQ(told(), 2u);
    now += 2 * HOUR_US;
    reopen();
    ASSERT_EQ(m_store->appendCheckpoint("", nullptr), RC_SUCCESS);
    EXPECT_EQ(told(), 2u) << "it has caught up";
}

TEST_F(JournalStoreTest, TagsAreTextOfBoundedLength)
{
    open();
    for (const std::string& tag :
         {std::string("\xff"), std::string("caf\xe9"), std::string("cut \xc3"), std::string("a\nb"),
          std::string("\x7f"), std::string(256, 'a')})
        EXPECT_EQ(m_store->appendCheckpoint(tag, nullptr), RC_BAD_ARGUMENT) << tag;
    EXPECT_TRUE(m_store->checkpoints().empty());
    EXPECT_EQ(m_store->appendCheckpoint("caf\xc3\xa9", nullptr), RC_SUCCESS);
    EXPECT_EQ(m_store->appendCheckpoint(std::string(255, 'a'), nullptr), RC_SUCCESS);
    reopen();
    ASSERT_EQ(m_store->checkpoints().size(), 2u);
    EXPECT_EQ(m_store->checkpoints()[0].m_tag, "caf\xc3\xa9");
}

TEST_F(JournalStoreTest, CheckpointIsDurableWhenItReturns)
{
    open();
    append(0, 1, 1);
    ASSERT_EQ(m_store->appendCheckpoint("t", nullptr), RC_SUCCESS);
    const auto image = m_storage.crash([](size_t) { return CrashStorage::Fate(); });
    const auto store = openJournal(*image, JournalMode::ReadOnly);
    ASSERT_EQ(store->checkpoints().size(), 1u);
    EXPECT_EQ(store->checkpoints()[0].m_tag, "t");
    EXPECT_EQ(readBack(*store), m_expected);
}

TEST_F(JournalStoreTest, RefusesBadArguments)
{
    JournalOptions options;
    options.volumeBlocks = 100;
    open(options);
    const std::vector<u8> data(BLOCK_BYTES);
    EXPECT_EQ(m_store->append(0, data.data(), 0), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_store->append(100, data.data(), 1), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_store->append(~u64{0}, data.data(), 1), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_store->appendZeroes(0, 0), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_store->appendZeroes(1, 100), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_store->appendZeroes(5, ~u64{0}), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_store->appendCheckpoint("two\nlines", nullptr), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_store->appendCheckpoint(std::string(256, 'x'), nullptr), RC_BAD_ARGUMENT);
    append(99, 1, 1);
    expectContent();
}

TEST_F(JournalStoreTest, ReaderChangesNothingAndSeesItsSnapshot)
{
    open();
    append(0, 1, 1);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    const auto reader = openJournal(m_storage, JournalMode::ReadOnly);
    const std::vector<JournalRequest> before = m_expected;
    append(1, 1, 2);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    EXPECT_EQ(readBack(*reader), before);
    const std::vector<u8> data(BLOCK_BYTES);
    EXPECT_EQ(reader->append(0, data.data(), 1), RC_BAD_ARGUMENT);
    EXPECT_EQ(reader->appendZeroes(0, 1), RC_BAD_ARGUMENT);
    EXPECT_EQ(reader->appendCheckpoint("", nullptr), RC_BAD_ARGUMENT);
    EXPECT_EQ(reader->flush(), RC_BAD_ARGUMENT);
    EXPECT_EQ(reader->close(), RC_SUCCESS);
    expectContent();
}

TEST_F(JournalStoreTest, ThereIsOneWriter)
{
    open();
    JournalOptions options;
    options.mode = JournalMode::Writer;
    JournalStore::Opened second = JournalStore::open(m_storage, options);
    EXPECT_EQ(second.m_rc, RC_IN_USE);
    EXPECT_EQ(second.m_message, "another process writes to this journal");
    EXPECT_EQ(second.m_store, nullptr);
    m_store.reset();
    EXPECT_EQ(JournalStore::open(m_storage, options).m_rc, RC_SUCCESS);
}

TEST_F(JournalStoreTest, ReaderFindsNoJournalWhereThereIsNone)
{
    const JournalStore::Opened opened = JournalStore::open(m_storage, {});
    EXPECT_EQ(opened.m_rc, RC_NOT_FOUND);
    EXPECT_EQ(opened.m_message, "there is no journal");
}

TEST_F(JournalStoreTest, LimitRefusesAndChangesNothing)
{
    JournalOptions options;
    options.limitBytes = 10 * (BLOCK_BYTES + 4) + 4 * BLOCK_BYTES;
    open(options);
    u64 i = 0;
    RcStatus rc = RC_SUCCESS;
    while (rc == RC_SUCCESS && i < 100) {
        const std::vector<u8> data = patternBlocks(i, 2);
        rc = m_store->append(i, data.data(), 2);
        if (rc == RC_SUCCESS)
            m_expected.push_back({i, 2, data});
        ++i;
    }
    EXPECT_EQ(rc, RC_NO_SPACE);
    EXPECT_GE(m_expected.size(), 5u);
    const u64 used = m_store->bytesUsed();
    const std::vector<u8> data = patternBlocks(1, 2);
    EXPECT_EQ(m_store->append(1, data.data(), 2), RC_NO_SPACE);
    EXPECT_EQ(m_store->bytesUsed(), used);
    expectContent();
    EXPECT_LE(m_store->bytesUsed(), options.limitBytes);
    reopen();
    expectContent();
    EXPECT_EQ(m_store->append(1, data.data(), 2), RC_NO_SPACE);
}

TEST_F(JournalStoreTest, ManyPendingItemsFlushThemselves)
{
    JournalOptions options;
    options.autoFlushItems = 20;
    open(options);
    for (u64 i = 0; i < 21; ++i)
        appendZeroes(i, 1);
    EXPECT_EQ(m_store->durableItemCount(), 20u);
    expectContent();
}

TEST_F(JournalStoreTest, ConcurrentAppendersAndFlushersLoseNothing)
{
    open();
    constexpr u64 THREADS = 4;
    constexpr u64 EACH = 300;
    std::vector<std::thread> threads;
    for (u64 t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (u64 i = 0; i < EACH; ++i) {
                const std::vector<u8> data = patternBlocks(t * EACH + i, 1);
                EXPECT_EQ(m_store->append(t * EACH + i, data.data(), 1), RC_SUCCESS);
                if (i % 7 == t) {
                    EXPECT_EQ(m_store->flush(), RC_SUCCESS);
                }
                if (i % 100 == 50) {
                    EXPECT_EQ(m_store->appendCheckpoint("t", nullptr), RC_SUCCESS);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    const std::vector<JournalRequest> all = readBack(*m_store);
    ASSERT_EQ(all.size(), THREADS * EACH);
    std::vector<u64> nextOf(THREADS, 0);
    for (const JournalRequest& one : all) {
        const u64 thread = one.m_offsetBlocks / EACH;
        EXPECT_EQ(one.m_offsetBlocks % EACH, nextOf[thread]++) << "a thread's own order";
        EXPECT_EQ(one.m_bytes, patternBlocks(one.m_offsetBlocks, 1));
    }
    const std::vector<JournalCheckpoint> checkpoints = m_store->checkpoints();
    ASSERT_EQ(checkpoints.size(), THREADS * 3);
    for (size_t i = 0; i < checkpoints.size(); ++i)
        EXPECT_EQ(checkpoints[i].m_id, i + 1);
}

TEST_F(JournalStoreTest, ReadersBesideAWriterAlwaysSeeAPrefix)
{
    open();
    std::atomic<bool> done{false};
    std::thread reader([&] {
        u64 last = 0;
        JournalOptions options;
        options.recovery = JournalRecovery::Strict;
        while (!done) {
            options.mode = JournalMode::ReadOnly;
            const JournalStore::Opened opened = JournalStore::open(m_storage, options);
            // A group that is being written at this moment is an end that is not whole.
            if (opened.m_rc != RC_SUCCESS) {
                EXPECT_TRUE(opened.m_report.m_damage.empty()) << opened.m_message;
                continue;
            }
            EXPECT_GE(opened.m_store->itemCount(), last);
            last = opened.m_store->itemCount();
        }
    });
    for (u64 i = 0; i < 400; ++i) {
        append(i, 1, i);
        if (i % 3 == 0) {
            ASSERT_EQ(m_store->flush(), RC_SUCCESS);
        }
    }
    done = true;
    reader.join();
    expectContent();
}

TEST_F(JournalStoreTest, ReadsAreCheckedForTheirShape)
{
    open();
    append(0, 4, 1);
    std::vector<u8> data(4 * BLOCK_BYTES);
    IODescriptorEx read;
    read.m_offsetBlocks = SFS_GRAIN_BLOCKS;
    read.m_lengthBlocks = 4;
    read.m_data = ScatteredBuf(data.data(), 3 * BLOCK_BYTES);
    EXPECT_EQ(m_store->readStored({read}, AioPriority::Normal).get(), RC_BAD_ARGUMENT);
    read.m_data = ScatteredBuf(data.data(), 4 * BLOCK_BYTES);
    EXPECT_EQ(m_store->readStored({read}, AioPriority::Normal).get(), RC_SUCCESS);
    EXPECT_EQ(data, m_expected[0].m_bytes);
    read.m_offsetBlocks = 2 * SFS_GRAIN_BLOCKS - 2;
    EXPECT_EQ(m_store->readStored({read}, AioPriority::Normal).get(), RC_BAD_ARGUMENT);
    read.m_offsetBlocks = SFS_GRAIN_BLOCKS + 2; // beyond what was written
    EXPECT_EQ(m_store->readStored({read}, AioPriority::Normal).get(), RC_DAMAGED);
    read.m_offsetBlocks = 9 * SFS_GRAIN_BLOCKS;
    EXPECT_EQ(m_store->readStored({read}, AioPriority::Normal).get(), RC_DAMAGED);
    read.m_offsetBlocks = SFS_DEV_ADDR_INVALID;
    EXPECT_EQ(m_store->readStored({read}, AioPriority::Normal).get(), RC_BAD_ARGUMENT);
}

TEST_F(JournalStoreTest, StreamStatusIsRemembered)
{
    open();
    EXPECT_EQ(m_store->streamStatus(), RC_SUCCESS);
    EXPECT_EQ(m_store->setPersistentStreamStatus(nullptr, 1, RC_CORRUPTED_OBJECT, 0), RC_SUCCESS);
    EXPECT_EQ(m_store->streamStatus(), RC_CORRUPTED_OBJECT);
}

TEST(JournalFilesTest, RealFolderHoldsAJournalAndItsLock)
{
    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("rl-journal-" + std::to_string(::getpid()));
    std::filesystem::create_directory(root);
    {
        FileStorage storage(root.string());
        auto store = openJournal(storage, JournalMode::Writer);
        std::vector<JournalRequest> expected;
        for (u64 i = 0; i < 40; ++i) {
            const u32 blocks = i % 5 == 4 ? 3000 : static_cast<u32>(i % 9 + 1);
            expected.push_back({i * 10, blocks, patternBlocks(i, blocks)});
            ASSERT_EQ(store->append(i * 10, expected.back().m_bytes.data(), blocks), RC_SUCCESS);
        }
        ASSERT_EQ(store->appendCheckpoint("here", nullptr), RC_SUCCESS);
        EXPECT_EQ(readBack(*store), expected);

        FileStorage other(root.string());
        JournalOptions options;
        options.mode = JournalMode::Writer;
        EXPECT_EQ(JournalStore::open(other, options).m_rc, RC_IN_USE);
        EXPECT_EQ(openJournal(other, JournalMode::ReadOnly)->itemCount(), 40u);
        store.reset();
        store = openJournal(other, JournalMode::Writer);
        EXPECT_EQ(readBack(*store), expected);
        EXPECT_EQ(store->checkpoints().at(0).m_tag, "here");
    }
    std::filesystem::remove_all(root);
}

TEST(JournalFilesTest, RenamedFolderKeepsItsJournalFromWhatTakesItsName)
{
    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("rl-renamed-" + std::to_string(::getpid()));
    const std::filesystem::path moved = root.string() + ".moved";
    std::filesystem::create_directory(root);
    {
        FileStorage first(root.string());
        auto served = openJournal(first, JournalMode::Writer);
        const std::vector<u8> data = patternBlocks(1, 30000);
        std::vector<JournalRequest> expected{{0, 30000, data}};
        ASSERT_EQ(served->append(0, data.data(), 30000), RC_SUCCESS);
        ASSERT_EQ(served->flush(), RC_SUCCESS);

        std::filesystem::rename(root, moved);
        std::filesystem::create_directory(root);
        FileStorage second(root.string());
        const auto made = openJournal(second, JournalMode::Writer);
        std::vector<JournalRequest> others;
        for (u64 i = 0; i < 2; ++i) {
            others.push_back({i, 20000, patternBlocks(5 + i, 20000)});
            ASSERT_EQ(made->append(i, others[i].m_bytes.data(), 20000), RC_SUCCESS);
        }
        ASSERT_EQ(made->flush(), RC_SUCCESS);

        // The second grain of the one, of which the other one has its own.
        expected.push_back({1, 30000, data});
        ASSERT_EQ(served->append(1, data.data(), 30000), RC_SUCCESS);
        ASSERT_EQ(served->appendCheckpoint("", nullptr), RC_SUCCESS);
        ASSERT_EQ(served->setBegin(served->begin(), 0), RC_SUCCESS);
        EXPECT_EQ(readBack(*served), expected);
        EXPECT_EQ(readBack(*made), others);
        served.reset();
        FileStorage again(moved.string());
        EXPECT_EQ(readBack(*openJournal(again, JournalMode::Writer)), expected);
        FileStorage fresh(root.string());
        EXPECT_EQ(readBack(*openJournal(fresh, JournalMode::ReadOnly)), others);
    }
    std::filesystem::remove_all(root);
    std::filesystem::remove_all(moved);
}

// Every name of the storage, without a journal in between.
TEST(JournalFilesTest, StorageOfARenamedFolderStaysInIt)
{
    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("rl-storage-" + std::to_string(::getpid()));
    const std::filesystem::path moved = root.string() + ".moved";
    std::filesystem::create_directory(root);
    {
        FileStorage storage(root.string());
        std::filesystem::rename(root, moved);
        std::filesystem::create_directory(root);
        std::unique_ptr<StorageFile> file;
        EXPECT_EQ(storage.makeDir("in"), RC_SUCCESS);
        EXPECT_EQ(storage.makeDir("in"), RC_SUCCESS);
        for (const char* name : {"in/a", "in/b", "in/c"})
            EXPECT_EQ(storage.open(name, StorageAccess::Create, &file), RC_SUCCESS);
        EXPECT_EQ(storage.rename("in/a", "in/d"), RC_SUCCESS);
        EXPECT_EQ(storage.exchange("in/d", "in/b"), RC_SUCCESS);
        EXPECT_EQ(storage.remove("in/c"), RC_SUCCESS);
        EXPECT_EQ(storage.remove("in/c"), RC_NOT_FOUND);
        EXPECT_EQ(storage.syncDir("in"), RC_SUCCESS);
        EXPECT_EQ(storage.syncDir(""), RC_SUCCESS);
        std::vector<std::string> names;
        EXPECT_EQ(storage.list("in", &names), RC_SUCCESS);
        EXPECT_EQ(names, (std::vector<std::string>{"b", "d"}));
        EXPECT_EQ(storage.list("", &names), RC_SUCCESS);
        EXPECT_EQ(names, std::vector<std::string>{"in"});
        EXPECT_TRUE(std::filesystem::exists(moved / "in" / "d"));
        EXPECT_TRUE(std::filesystem::is_empty(root));
        FileStorage nowhere(root.string() + "/none");
        EXPECT_EQ(nowhere.open("a", StorageAccess::Create, &file), RC_NOT_FOUND);
        EXPECT_EQ(nowhere.list("", &names), RC_NOT_FOUND);
        EXPECT_EQ(nowhere.makeDir("a"), RC_NOT_FOUND);
    }
    std::filesystem::remove_all(root);
    std::filesystem::remove_all(moved);
}

} // namespace
