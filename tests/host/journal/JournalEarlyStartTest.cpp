// Data of small flush groups that is sent to the disk before its flush.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "host/journal/FileStorage.h"
#include "host/journal/JournalStore.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

constexpr u32 WRITE_BLOCKS = 8;
constexpr u32 RUN_BLOCKS = 256;
constexpr u32 SMALL_GROUP_BLOCKS = 2048;

class JournalEarlyStartTest : public testing::Test
{
protected:
    void append(u32 blocks)
    {
        const std::vector<u8> data = patternBlocks(blocks, WRITE_BLOCKS);
        for (u32 done = 0; done < blocks; done += WRITE_BLOCKS)
            ASSERT_EQ(m_store->append(done, data.data(), WRITE_BLOCKS), RC_SUCCESS);
    }

    // Blocks that were started since the last call.
    u64 started()
    {
        const u64 before = m_told;
        m_told = m_storage.startedBytes();
        return (m_told - before) / BLOCK_BYTES;
    }

    CrashStorage m_storage;
    std::unique_ptr<JournalStore> m_store = openJournal(m_storage, JournalMode::Writer);
    u64 m_told = 0;
};

TEST_F(JournalEarlyStartTest, WholeRunsBeginWhereFlushesAreSmall)
{
    append(RUN_BLOCKS + WRITE_BLOCKS);
    EXPECT_EQ(started(), 0u); // nobody knows yet how much a flush will have
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    append(RUN_BLOCKS - 2 * WRITE_BLOCKS);
    EXPECT_EQ(started(), 0u);
    append(WRITE_BLOCKS);
    EXPECT_EQ(started(), RUN_BLOCKS);
    append(RUN_BLOCKS);
    EXPECT_EQ(started(), RUN_BLOCKS);
}

TEST_F(JournalEarlyStartTest, GroupsThatAreLargeOrBecomeSoGoAlone)
{
    append(SMALL_GROUP_BLOCKS + RUN_BLOCKS);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    append(RUN_BLOCKS);
    EXPECT_EQ(started(), 0u); // the one before was too large
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    append(SMALL_GROUP_BLOCKS);
    EXPECT_EQ(started(), SMALL_GROUP_BLOCKS);
    append(4 * RUN_BLOCKS);
    EXPECT_EQ(started(), 0u);
}

// It promises nothing: the flush does.
TEST_F(JournalEarlyStartTest, WhatIsStartedIsNotDurable)
{
    append(WRITE_BLOCKS);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    append(2 * RUN_BLOCKS);
    EXPECT_GT(started(), 0u);
    const auto lose = [](size_t) { return CrashStorage::Fate{}; };
    EXPECT_EQ(openJournal(*m_storage.crash(lose), JournalMode::ReadOnly)->itemCount(), 1u);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    const auto image = m_storage.crash(lose);
    const auto reader = openJournal(*image, JournalMode::ReadOnly);
    EXPECT_EQ(reader->itemCount(), 1u + 2 * RUN_BLOCKS / WRITE_BLOCKS);
    EXPECT_EQ(readBack(*reader).size(), reader->itemCount());
}

// The same calls with the system's own.
TEST(JournalEarlyStartFileTest, FilesHoldWhatWasStarted)
{
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("rl-early-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    {
        FileStorage storage(folder.string());
        const auto store = openJournal(storage, JournalMode::Writer);
        const std::vector<u8> data = patternBlocks(5, RUN_BLOCKS);
        for (int i = 0; i < 4; ++i) {
            ASSERT_EQ(store->append(0, data.data(), RUN_BLOCKS), RC_SUCCESS);
            ASSERT_EQ(store->flush(), RC_SUCCESS);
        }
        for (const JournalRequest& request : readBack(*store))
            EXPECT_EQ(request.m_bytes, data);
    }
    std::filesystem::remove_all(folder);
}

} // namespace
