#include "host/journal/ChecksumCache.h"

#include <gtest/gtest.h>
#include <numeric>

#include "host/journal/Crc32c.h"
#include "host/journal/FileGrainStore.h"
#include "host/volume/AsyncFileIo.h"
#include "tests/support/CrashStorage.h"

namespace {

constexpr u32 CHUNK = ChecksumCache::CHUNK_BLOCKS;

std::vector<u32> numbersFrom(u32 first, u32 count = CHUNK)
{
    std::vector<u32> numbers(count);
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

TEST(ChecksumCacheTest, FindsWhatIsKeptWhole)
{
    ChecksumCache cache;
    cache.keep(7, CHUNK, numbersFrom(100).data());
    std::vector<u32> found(2 * CHUNK);
    EXPECT_TRUE(cache.find(7, CHUNK, CHUNK, found.data()));
    EXPECT_EQ(found[0], 100u);
    EXPECT_EQ(found[CHUNK - 1], 100 + CHUNK - 1);
    EXPECT_TRUE(cache.find(7, 2 * CHUNK - 1, 1, found.data()));
    EXPECT_EQ(found[0], 100 + CHUNK - 1);
    EXPECT_FALSE(cache.find(7, CHUNK - 1, 2, found.data()));
    EXPECT_FALSE(cache.find(7, 2 * CHUNK - 1, 2, found.data()));
    EXPECT_FALSE(cache.find(8, CHUNK, 1, found.data()));

    cache.keep(7, 2 * CHUNK, numbersFrom(100 + CHUNK).data());
    EXPECT_TRUE(cache.find(7, CHUNK + 1, 2 * CHUNK - 1, found.data()));
    found.resize(2 * CHUNK - 1);
    EXPECT_EQ(found, numbersFrom(101, 2 * CHUNK - 1));
}

TEST(ChecksumCacheTest, ForgetsEveryChunkThatABlockIsIn)
{
    ChecksumCache cache;
    u32 found = 0;
    for (u32 chunk = 0; chunk < 4; ++chunk)
        cache.keep(1, chunk * CHUNK, numbersFrom(0).data());
    cache.forget(1, 2 * CHUNK - 1, 2);
    EXPECT_TRUE(cache.find(1, CHUNK - 1, 1, &found));
    EXPECT_FALSE(cache.find(1, CHUNK, 1, &found));
    EXPECT_FALSE(cache.find(1, 2 * CHUNK, 1, &found));
    EXPECT_TRUE(cache.find(1, 3 * CHUNK, 1, &found));
    cache.forget(1, 3 * CHUNK, 0);
    cache.forget(2, 3 * CHUNK, 1);
    EXPECT_TRUE(cache.find(1, 3 * CHUNK, 1, &found));
}

TEST(ChecksumCacheTest, WhatMeetsInASlotTakesTurns)
{
    ChecksumCache cache;
    const u64 far = u64{1} + ChecksumCache::SLOTS;
    u32 found = 0;
    cache.keep(1, 0, numbersFrom(10).data());
    cache.keep(far, 0, numbersFrom(20).data());
    EXPECT_FALSE(cache.find(1, 0, 1, &found));
    EXPECT_TRUE(cache.find(far, 0, 1, &found));
    EXPECT_EQ(found, 20u);
}

class CheckedReadTest : public testing::Test
{
protected:
    static constexpr u32 BLOCKS = 2 * CHUNK;

    void SetUp() override
    {
        ASSERT_EQ(m_storage.makeDir("j"), RC_SUCCESS);
        ASSERT_EQ(m_writer.create(GrainKind::Data, 1), RC_SUCCESS);
        write(m_writer, 1);
    }

    void write(FileGrainStore& store, u8 value)
    {
        const std::vector<u8> data(BLOCKS * BLOCK_BYTES, value);
        std::vector<u32> checksums(BLOCKS);
        crc32cOfBlocks(data.data(), BLOCKS, checksums.data());
        ASSERT_EQ(store.append(GrainKind::Data, 1, 0, data.data(), BLOCKS, checksums.data()),
                  RC_SUCCESS);
        ASSERT_EQ(store.complete(1), RC_SUCCESS);
    }

    // The value that all blocks read have, or -1 with m_rc and m_bad.
    int read(FileGrainStore& store, u32 firstBlock, u32 blocks)
    {
        std::vector<u8> data(blocks * BLOCK_BYTES, 0xAA);
        const StoredPiece piece{u64{SFS_GRAIN_BLOCKS} + firstBlock, blocks, data.data()};
        m_rc = store.readDataNow({&piece, 1}, &m_bad);
        if (m_rc != RC_SUCCESS)
            return -1;
        EXPECT_EQ(data, std::vector<u8>(data.size(), data[0]));
        return data[0];
    }

    void flipByteOfBlock(u32 block)
    {
        std::unique_ptr<StorageFile> file;
        ASSERT_EQ(m_storage.open("j/" + FileGrainStore::fileName(GrainKind::Data, 1),
                                 StorageAccess::ReadWrite, &file),
                  RC_SUCCESS);
        const u8 other = 0x55;
        ASSERT_EQ(file->pwrite(&other, 1, u64{block} * BLOCK_BYTES + 17), RC_SUCCESS);
    }

    CrashStorage m_storage;
    AsyncFileIo m_io{AsyncFileIoMode::Threads};
    FileGrainStore m_writer{m_storage, "j", false, m_io};
    FileGrainStore m_reader{m_storage, "j", true, m_io};
    RcStatus m_rc = RC_SUCCESS;
    u64 m_bad = 0; // an address
};

TEST_F(CheckedReadTest, ReadsAnewWhatWasWrittenAnewByWhomeverAfterItWasRead)
{
    EXPECT_EQ(read(m_reader, 0, BLOCKS), 1);
    EXPECT_EQ(read(m_writer, 0, BLOCKS), 1);
    write(m_writer, 2);
    EXPECT_EQ(read(m_writer, 0, BLOCKS), 2);
    EXPECT_EQ(read(m_reader, 0, BLOCKS), 2);
    write(m_writer, 3);
    EXPECT_EQ(read(m_reader, CHUNK - 3, 6), 3) << "across two chunks";
}

TEST_F(CheckedReadTest, NamesTheBlockThatIsDamagedAlsoWhenItWasGoodBefore)
{
    flipByteOfBlock(CHUNK + 5);
    EXPECT_EQ(read(m_writer, 0, BLOCKS), -1);
    EXPECT_EQ(m_rc, RC_BAD_CHECKSUM);
    EXPECT_EQ(m_bad, SFS_GRAIN_BLOCKS + CHUNK + 5);
    EXPECT_EQ(read(m_writer, CHUNK - 8, 8), 1);
    flipByteOfBlock(CHUNK - 8);
    EXPECT_EQ(read(m_writer, CHUNK - 16, 16), -1);
    EXPECT_EQ(m_rc, RC_BAD_CHECKSUM);
    EXPECT_EQ(m_bad, SFS_GRAIN_BLOCKS + CHUNK - 8);
    EXPECT_EQ(read(m_writer, CHUNK + 6, CHUNK - 6), 1);
}

TEST_F(CheckedReadTest, WhatTheTableEndsBeforeIsDamaged)
{
    EXPECT_EQ(read(m_writer, BLOCKS - 1, 2), -1);
    EXPECT_EQ(m_rc, RC_DAMAGED);
    EXPECT_EQ(read(m_writer, BLOCKS, 1), -1);
    EXPECT_EQ(m_rc, RC_DAMAGED);
}

} // namespace
