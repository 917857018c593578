#include "Sfs/JournalIoReader.h"

#include <gtest/gtest.h>
#include <random>

#include "common/infra/MemoryPoolImpl.h"
#include "host/journal/JournalScanner.h"
#include "host/journal/JournalStore.h"
#include "host/tasks/BlockingTask.h"
#include "host/tasks/ThreadScheduler.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

using Pool = Singleton<MemoryPoolImpl, MemoryPoolImpl>;

// Counts the IOs that are read, and fails the n-th call.
class CountingSfs : public SfsInterface
{
public:
    explicit CountingSfs(JournalStore& store) : m_store(store) {}
    RcStatus setPersistentStreamStatus(AsyncTask*, u64, RcStatus, u64) override
    {
        return RC_SUCCESS;
    }
    FutureStatus readStored(const std::vector<IODescriptorEx>& ios, AioPriority priority) override
    {
        ++m_calls;
        m_ios += ios.size();
        for (const IODescriptorEx& io : ios)
            m_blocks += io.m_lengthBlocks;
        if (m_calls == m_failAt)
            return makeSetFuture(m_failRc);
        return m_store.readStored(ios, priority);
    }

    JournalStore& m_store;
    std::atomic<u64> m_calls{0};
    std::atomic<u64> m_ios{0};
    std::atomic<u64> m_blocks{0};
    u64 m_failAt = 0;
    RcStatus m_failRc = RC_SUCCESS;
};

class TestReader : public JournalIoReader
{
public:
    using JournalIoReader::JournalIoReader;
    void setRoundBytes(u32 bytes) { t_maxBufBytesForUncompress = bytes; }
};

class ItemCollector : public SfsMetaDataContainer
{
public:
    FutureStatus prepareToAdd(int, u64) override { return makeSetFuture(RC_SUCCESS); }
    void unPrepareToAdd() override {}
    RcStatus metaGrainStarted(SfsDevAddr) override { return RC_SUCCESS; }
    bool isAddMetaDataDesireOffload() override { return false; }
    RcStatus addMetaData(const SfsDiskMetaItem& item, const JournalPtr&) override
    {
        m_items.push_back(SfsItemDescriptor::genFromSfsDiskMetaItem(item));
        return RC_SUCCESS;
    }
    std::vector<SfsItemDescriptor> m_items;
};

// A journal of plain, compressed and zero IOs, a reader over it, and an engine.
class JournalIoReaderTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(m_engine.open(), RC_SUCCESS);
        JournalOptions options;
        options.compression = Compression::Lz4;
        m_store = openJournal(m_storage, JournalMode::Writer, options);
        write(8, false);
        write(16, true);
        ASSERT_EQ(m_store->appendZeroes(0, 5), RC_SUCCESS);
        m_data.emplace_back(5 * BLOCK_BYTES);
        write(64, true);
        write(200, false);
        ASSERT_EQ(m_store->flush(), RC_SUCCESS);
        ItemCollector collector;
        JournalScanner(*m_store).scan(collector);
        m_items = collector.m_items;
        ASSERT_EQ(m_items.size(), 5u);
        ASSERT_TRUE(m_items[1].isCompressed() && m_items[3].isCompressed());
        m_sfs = std::make_unique<CountingSfs>(*m_store);
        m_reader = std::make_unique<TestReader>(m_sfs.get(), nullptr, "test", 1);
    }
    void TearDown() override { ASSERT_EQ(m_engine.stop(), RC_SUCCESS); }

    void write(u32 blocks, bool repetitive)
    {
        m_data.push_back(patternBlocks(blocks, blocks, repetitive));
        ASSERT_EQ(m_store->append(0, m_data.back().data(), blocks), RC_SUCCESS);
    }

    // Asks for blocks [offset, offset + length) of an IO; the destination is in small segments.
    void want(size_t io, u16 offset, u16 length)
    {
        SfsItemDescriptor piece = m_items[io];
        if (!piece.isCompressed() && !piece.isAllZeroes())
            piece.m_fifoOffsetOfIoStartBlocks += offset;
        piece.m_regionOffsetLBsWithinIo = offset;
        piece.m_lengthBlocks = length;
        m_wanted.push_back({io, offset, length});
        m_memory.emplace_back(u64{length} * BLOCK_BYTES, u8{0xEE});
        ScatteredBuf buf;
        u8* next = m_memory.back().data();
        for (u32 left = length * BLOCK_BYTES; left > 0;) {
            const u32 step = std::min(left, 700u);
            buf.addSegment(MemorySegment(step, next, nullptr));
            next += step;
            left -= step;
        }
        m_bufs.push_back(std::make_unique<ScatteredBuf>(buf));
        m_ios.emplace_back(piece, m_bufs.back().get());
    }

    RcStatus read(u64 endTimeMs = ~u64{0})
    {
        std::vector<IODescriptorEx> plain;
        std::vector<IODescriptorExCompressed> compressed;
        m_reader->fillIoDescriptorVectors(m_ios, &plain, &compressed);
        m_bufs.clear(); // the descriptors have copies
        return runAndWait(m_engine, [&](AsyncTask* task) {
            return m_reader->performReadFromJournalIoDescriptors(
                task, plain, compressed, AioPriority::Normal, m_mmi, endTimeMs, nullptr, nullptr,
                nullptr);
        });
    }

    void expectRead()
    {
        ASSERT_EQ(read(), RC_SUCCESS);
        for (size_t i = 0; i < m_wanted.size(); ++i) {
            const auto& [io, offset, length] = m_wanted[i];
            const u8* from = m_data[io].data() + u64{offset} * BLOCK_BYTES;
            EXPECT_TRUE(std::equal(m_memory[i].begin(), m_memory[i].end(), from)) << i;
        }
        EXPECT_EQ(Pool::instance()->getMmiPendingRequests(m_mmi), 0u);
    }

    struct Wanted
    {
        size_t m_io;
        u16 m_offset;
        u16 m_length;
    };

    TaskEngine m_engine{std::make_unique<ThreadScheduler>(2)};
    CrashStorage m_storage;
    std::unique_ptr<JournalStore> m_store;
    std::vector<std::vector<u8>> m_data;
    std::vector<SfsItemDescriptor> m_items;
    std::unique_ptr<CountingSfs> m_sfs;
    std::unique_ptr<TestReader> m_reader;
    std::vector<Wanted> m_wanted;
    std::vector<std::vector<u8>> m_memory;
    std::vector<std::unique_ptr<ScatteredBuf>> m_bufs;
    std::vector<ActiveApplyIO> m_ios;
    ModuleMemoryInformation* m_mmi = Pool::instance()->getMmi("JournalIoReaderTest");
};

TEST_F(JournalIoReaderTest, NothingAskedForIsASuccess)
{
    EXPECT_EQ(read(), RC_SUCCESS);
    EXPECT_EQ(m_sfs->m_calls, 0u);
}

TEST_F(JournalIoReaderTest, EachKindAlone)
{
    for (size_t io = 0; io < 5; ++io) {
        m_ios.clear();
        m_wanted.clear();
        m_memory.clear();
        want(io, 0, m_items[io].m_lengthBlocks);
        expectRead();
    }
    EXPECT_EQ(m_reader->metrics().m_plainBytes, 208 * BLOCK_BYTES);
    EXPECT_EQ(m_reader->metrics().m_zeroBytes, 5 * BLOCK_BYTES);
    EXPECT_EQ(m_reader->metrics().m_uncompressedBytes, 80 * BLOCK_BYTES);
}

TEST_F(JournalIoReaderTest, PiecesOfAllKindsTogether)
{
    want(3, 10, 20);
    want(0, 2, 3);
    want(1, 15, 1);
    want(2, 1, 2);
    want(3, 0, 1);
    want(4, 100, 100);
    want(3, 63, 1);
    expectRead();
    // The plain pieces in one call; each compressed IO once, both in one round.
    EXPECT_EQ(m_sfs->m_calls, 2u);
    EXPECT_EQ(m_sfs->m_ios, 4u);
}

TEST_F(JournalIoReaderTest, RoundsKeepWithinTheirBytes)
{
    m_reader->setRoundBytes(1); // one IO a round
    want(1, 0, 16);
    want(3, 0, 64);
    want(1, 3, 3);
    expectRead();
    EXPECT_EQ(m_sfs->m_calls, 2u);
    EXPECT_EQ(m_sfs->m_ios, 2u);
}

TEST_F(JournalIoReaderTest, OnlyAsMuchAsIsWantedIsDecompressed)
{
    want(3, 4, 2);
    expectRead();
    EXPECT_EQ(m_reader->metrics().m_uncompressedBytes, 6 * BLOCK_BYTES);
}

TEST_F(JournalIoReaderTest, EveryFailedReadIsTheOutcome)
{
    m_reader->setRoundBytes(1);
    for (u64 n = 1; n <= 4; ++n) {
        m_sfs->m_failAt = m_sfs->m_calls + n;
        m_sfs->m_failRc = RC_IO_ERROR;
        m_ios.clear();
        m_wanted.clear();
        m_memory.clear();
        want(0, 0, 8);
        want(1, 0, 16);
        want(3, 0, 64);
        if (n <= 3)
            EXPECT_EQ(read(), RC_IO_ERROR) << n;
        else
            expectRead();
    }
    EXPECT_EQ(m_reader->metrics().m_failures, 3u);
}

TEST_F(JournalIoReaderTest, ChecksumAndDecompressionFailuresAreToldApart)
{
    // Another byte in a block: the checksum notices.
    const u64 at = (m_items[3].m_fifoOffsetOfIoStartBlocks - SFS_GRAIN_BLOCKS) * BLOCK_BYTES;
    const u8 before = m_storage.byteAt("journal/d-0000000001", at + 100);
    m_storage.setByte("journal/d-0000000001", at + 100, static_cast<u8>(~before));
    want(3, 0, 64);
    EXPECT_EQ(read(), RC_BAD_CHECKSUM);
    m_storage.setByte("journal/d-0000000001", at + 100, before);

    // Bytes as they were written that are no compressed IO: a plain one said to be compressed.
    m_ios.clear();
    m_memory.clear();
    m_items[0].m_flags = m_items[3].m_flags;
    want(0, 0, 8);
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    // And one that is shorter than the piece wanted of it.
    m_ios.clear();
    m_memory.clear();
    want(1, 10, 10);
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
}

TEST_F(JournalIoReaderTest, PlainDamageIsNotServed)
{
    m_storage.setByte("journal/d-0000000001", 3, 0xA5);
    want(0, 1, 7); // without the damaged block
    want(3, 0, 1);
    expectRead();
    want(0, 0, 1);
    m_ios.erase(m_ios.begin(), m_ios.end() - 1);
    EXPECT_EQ(read(), RC_BAD_CHECKSUM);
}

TEST_F(JournalIoReaderTest, BufferOfAnotherSizeIsRefused)
{
    want(0, 0, 8);
    m_ios.back().m_lengthBlocks = 7;
    EXPECT_EQ(read(), RC_BAD_ARGUMENT);
}

TEST_F(JournalIoReaderTest, ManyReadsAtOnce)
{
    std::vector<IODescriptorEx> none;
    std::vector<std::unique_ptr<BlockingTask>> tasks;
    std::vector<std::vector<u8>> memory(40, std::vector<u8>(64 * BLOCK_BYTES));
    std::vector<std::vector<IODescriptorExCompressed>> reads(memory.size());
    for (size_t i = 0; i < memory.size(); ++i) {
        ScatteredBuf buf(memory[i].data(), static_cast<u32>(memory[i].size()));
        m_reader->fillIoDescriptorVectors({ActiveApplyIO(m_items[3], &buf)}, &none, &reads[i]);
        tasks.push_back(std::make_unique<BlockingTask>([this, &none, &reads, i](AsyncTask* task) {
            return m_reader->performReadFromJournalIoDescriptors(
                task, none, reads[i], AioPriority::Normal, nullptr, ~u64{0}, nullptr, nullptr,
                nullptr);
        }));
        ASSERT_EQ(tasks.back()->start(m_engine), RC_SUCCESS);
    }
    for (size_t i = 0; i < memory.size(); ++i) {
        EXPECT_EQ(tasks[i]->wait(), RC_SUCCESS);
        EXPECT_EQ(memory[i], m_data[3]);
    }
}

} // namespace
