#include "host/journal/UnwrittenChecksums.h"

#include <gtest/gtest.h>
#include <numeric>
#include <vector>

#include "host/journal/Crc32c.h"
#include "host/journal/FileGrainStore.h"
#include "host/volume/AsyncFileIo.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

using Call = CrashStorage::Call;
constexpr u64 TABLE_BYTES = 4096;
constexpr u32 MOST = UnwrittenChecksums::MOST_BLOCKS;

class UnwrittenChecksumsTest : public testing::Test
{
protected:
    UnwrittenChecksumsTest() : m_one(open("one")), m_other(open("other")) {}

    std::shared_ptr<StorageFile> open(const std::string& name)
    {
        std::unique_ptr<StorageFile> file;
        EXPECT_EQ(m_storage.open(name, StorageAccess::Create, &file), RC_SUCCESS);
        return file;
    }

    RcStatus add(u64 grain, u32 firstBlock, const std::vector<u32>& checksums)
    {
        return m_checksums.add(grain, grain == 1 ? m_one : m_other, firstBlock, checksums.data(),
                               static_cast<u32>(checksums.size()));
    }

    // What the table has from a block on, up to where the file ends.
    std::vector<u32> table(u64 grain, u32 firstBlock = 0) const
    {
        std::vector<u32> found(2 * MOST);
        u64 bytes = 0;
        EXPECT_EQ((grain == 1 ? m_one : m_other)
                      ->pread(found.data(), found.size() * sizeof(u32),
                              TABLE_BYTES + firstBlock * sizeof(u32), &bytes),
                  RC_SUCCESS);
        found.resize(bytes / sizeof(u32));
        return found;
    }

    CrashStorage m_storage;
    std::shared_ptr<StorageFile> m_one;
    std::shared_ptr<StorageFile> m_other;
    UnwrittenChecksums m_checksums{TABLE_BYTES};
};

TEST_F(UnwrittenChecksumsTest, ThoseThatFollowEachOtherAreOneWrite)
{
    const u64 before = m_storage.changes();
    ASSERT_EQ(add(1, 0, {10, 11}), RC_SUCCESS);
    ASSERT_EQ(add(1, 2, {12}), RC_SUCCESS);
    ASSERT_EQ(add(1, 3, {13, 14}), RC_SUCCESS);
    EXPECT_EQ(m_storage.changes(), before);
    ASSERT_EQ(m_checksums.write(1, 0, SFS_GRAIN_BLOCKS), RC_SUCCESS);
    EXPECT_EQ(m_storage.changes(), before + 1);
    EXPECT_EQ(table(1), (std::vector<u32>{10, 11, 12, 13, 14}));
    ASSERT_EQ(m_checksums.write(1, 0, SFS_GRAIN_BLOCKS), RC_SUCCESS);
    EXPECT_EQ(m_storage.changes(), before + 1);
}

TEST_F(UnwrittenChecksumsTest, OnlyWhoConcernsThemHasThemWritten)
{
    ASSERT_EQ(add(1, 2, {12, 13}), RC_SUCCESS);
    ASSERT_EQ(m_checksums.write(1, 0, 2), RC_SUCCESS);
    ASSERT_EQ(m_checksums.write(1, 4, 8), RC_SUCCESS);
    ASSERT_EQ(m_checksums.write(2, 0, 8), RC_SUCCESS);
    EXPECT_TRUE(table(1).empty());
    ASSERT_EQ(m_checksums.write(1, 3, 1), RC_SUCCESS);
    EXPECT_EQ(table(1, 2), (std::vector<u32>{12, 13}));
}

TEST_F(UnwrittenChecksumsTest, WhatIsUndoneIsReplaced)
{
    ASSERT_EQ(add(1, 0, {10, 11}), RC_SUCCESS);
    ASSERT_EQ(add(1, 2, {92, 93, 94}), RC_SUCCESS);
    ASSERT_EQ(add(1, 2, {12}), RC_SUCCESS);
    ASSERT_EQ(m_checksums.write(1, 2, 1), RC_SUCCESS);
    EXPECT_EQ(table(1), (std::vector<u32>{10, 11, 12}));
}

TEST_F(UnwrittenChecksumsTest, OthersThanTheNextOnesHaveThemWrittenFirst)
{
    ASSERT_EQ(add(1, 0, {10, 11}), RC_SUCCESS);
    ASSERT_EQ(add(1, 5, {15}), RC_SUCCESS);
    EXPECT_EQ(table(1), (std::vector<u32>{10, 11}));
    ASSERT_EQ(add(2, 6, {26}), RC_SUCCESS);
    EXPECT_EQ(table(1, 5), (std::vector<u32>{15}));
    ASSERT_EQ(add(2, 0, {20}), RC_SUCCESS);
    EXPECT_EQ(table(2, 6), (std::vector<u32>{26}));
}

TEST_F(UnwrittenChecksumsTest, KeepsNoMoreThanItHasRoomFor)
{
    std::vector<u32> most(MOST);
    std::iota(most.begin(), most.end(), 1);
    ASSERT_EQ(add(1, 0, {7}), RC_SUCCESS);
    ASSERT_EQ(add(1, 1, most), RC_SUCCESS);
    EXPECT_EQ(table(1), (std::vector<u32>{7}));
    most.push_back(MOST + 1);
    ASSERT_EQ(add(2, 3, most), RC_SUCCESS);
    EXPECT_EQ(table(1, 1), std::vector<u32>(most.begin(), most.end() - 1));
    EXPECT_EQ(table(2, 3), most);
    ASSERT_EQ(add(2, 3 + MOST + 1, {5}), RC_SUCCESS);
    ASSERT_EQ(m_checksums.write(2, 3 + MOST + 1, 1), RC_SUCCESS);
    EXPECT_EQ(table(2, 3 + MOST + 1), (std::vector<u32>{5}));
}

TEST_F(UnwrittenChecksumsTest, KeepsWhatCouldNotBeWritten)
{
    ASSERT_EQ(add(1, 0, {10, 11}), RC_SUCCESS);
    m_storage.failCall(Call::Write, 1, RC_NO_SPACE);
    EXPECT_EQ(m_checksums.write(1, 0, 1), RC_NO_SPACE);
    m_storage.failCall(Call::Write, 1, RC_NO_SPACE);
    EXPECT_EQ(add(2, 0, {20}), RC_NO_SPACE);
    ASSERT_EQ(m_checksums.write(1, 0, 1), RC_SUCCESS);
    EXPECT_EQ(table(1), (std::vector<u32>{10, 11}));
    ASSERT_EQ(m_checksums.write(2, 0, 1), RC_SUCCESS);
    EXPECT_TRUE(table(2).empty());
}

TEST_F(UnwrittenChecksumsTest, ForgetsThoseOfAGrainThatGoes)
{
    ASSERT_EQ(add(1, 0, {10}), RC_SUCCESS);
    m_checksums.forget(2);
    m_checksums.forget(1);
    ASSERT_EQ(m_checksums.write(1, 0, 1), RC_SUCCESS);
    EXPECT_TRUE(table(1).empty());
}

// A flush that finds no room for them has lost nothing.
TEST(UnwrittenChecksumsFlushTest, AFlushWithoutRoomForThemIsRepeated)
{
    CrashStorage storage;
    const auto store = openJournal(storage, JournalMode::Writer);
    const std::vector<u8> data = patternBlocks(1, 3);
    ASSERT_EQ(store->append(0, data.data(), 3), RC_SUCCESS);
    storage.failCall(Call::Write, 1, RC_NO_SPACE);
    EXPECT_EQ(store->flush(), RC_NO_SPACE);
    EXPECT_EQ(store->durableItemCount(), 0u);
    EXPECT_EQ(store->flush(), RC_SUCCESS);
    EXPECT_EQ(store->durableItemCount(), 1u);
    const auto image = storage.crash([](size_t) { return CrashStorage::Fate{}; });
    const auto reader = openJournal(*image, JournalMode::ReadOnly);
    ASSERT_NE(reader, nullptr);
    std::vector<u8> found(data.size());
    const StoredPiece piece{SFS_GRAIN_BLOCKS, 3, found.data()};
    u64 bad = 0;
    EXPECT_EQ(reader->readStoredNow({&piece, 1}, &bad), RC_SUCCESS);
    EXPECT_EQ(found, data);
}

// What is appended can be read back at once, on either way.
TEST(UnwrittenChecksumsFlushTest, ReadsFindThem)
{
    CrashStorage storage;
    ASSERT_EQ(storage.makeDir("j"), RC_SUCCESS);
    AsyncFileIo io{AsyncFileIoMode::Threads};
    FileGrainStore grains(storage, "j", false, io);
    ASSERT_EQ(grains.create(GrainKind::Data, 1), RC_SUCCESS);
    const std::vector<u8> data = patternBlocks(7, 2);
    std::vector<u32> checksums(2);
    crc32cOfBlocks(data.data(), 2, checksums.data());
    for (const bool inBackground : {false, true}) {
        const u32 first = inBackground ? 2 : 0;
        ASSERT_EQ(grains.append(GrainKind::Data, 1, first, data.data(), 2, checksums.data()),
                  RC_SUCCESS);
        std::vector<u8> found(data.size());
        if (inBackground) {
            GrainRead read{1, first, 2, ScatteredBuf(found.data(), 2 * BLOCK_BYTES)};
            EXPECT_EQ(grains.readData({read}, AioPriority{}).get(), RC_SUCCESS);
        } else {
            const StoredPiece piece{SFS_GRAIN_BLOCKS + first, 2, found.data()};
            u64 bad = 0;
            EXPECT_EQ(grains.readDataNow({&piece, 1}, &bad), RC_SUCCESS);
        }
        EXPECT_EQ(found, data);
    }
}

} // namespace
