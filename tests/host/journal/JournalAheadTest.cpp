// Pages that are written before there is anything for them.
#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "host/journal/FileGrainStore.h"
#include "host/journal/JournalStore.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"
#include "tests/support/LogCapture.h"

namespace {

using Fate = CrashStorage::Fate;

const std::string META_FILE = "journal/" + FileGrainStore::fileName(GrainKind::Meta, 1);
constexpr u64 PAGES = 3; // that each test has flushed, one a group

class JournalAheadTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_store = openJournal(m_storage, JournalMode::Writer);
        for (u64 i = 0; i < PAGES; ++i)
            appendAndFlush();
    }

    void appendAndFlush()
    {
        ASSERT_EQ(m_store->appendZeroes(0, 8), RC_SUCCESS);
        ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    }

    // What an opening of it as it is now says.
    static JournalStore::Opened openedAs(CrashStorage& storage, JournalMode mode,
                                         JournalRecovery recovery)
    {
        JournalOptions options;
        options.mode = mode;
        options.recovery = recovery;
        return JournalStore::open(storage, options);
    }

    static void zeroPage(CrashStorage& storage, u64 page)
    {
        for (u64 i = 0; i < BLOCK_BYTES; ++i)
            storage.setByte(META_FILE, page * BLOCK_BYTES + i, 0);
    }

    LogCapture m_log;
    CrashStorage m_storage;
    std::unique_ptr<JournalStore> m_store;
};

TEST_F(JournalAheadTest, TheGrainGrowsOnceForManyGroups)
{
    const u64 bytes = m_storage.sizeOf(META_FILE);
    EXPECT_GT(bytes, PAGES * BLOCK_BYTES);
    u64 growths = 0;
    for (u64 i = PAGES; i < 1000; ++i) {
        const u64 before = m_storage.sizeOf(META_FILE);
        appendAndFlush();
        growths += m_storage.sizeOf(META_FILE) > before ? 1 : 0;
    }
    EXPECT_GE(growths, 1000 / 128 - 1);
    EXPECT_LE(growths, 1000 / 64);
}

TEST_F(JournalAheadTest, AnOrderlyEndLeavesThePagesAlone)
{
    ASSERT_EQ(m_store->close(), RC_SUCCESS);
    EXPECT_EQ(m_storage.sizeOf(META_FILE), (PAGES + 1) * BLOCK_BYTES);
    const auto image = m_storage.crash([](size_t) { return Fate{}; });
    EXPECT_EQ(image->sizeOf(META_FILE), (PAGES + 1) * BLOCK_BYTES);
}

// Neither a reader nor the next writer has anything to tell of them, and the writer goes on where
// the pages ended.
TEST_F(JournalAheadTest, TheyMeanNothing)
{
    const auto image = m_storage.crash([](size_t) { return Fate{}; });
    EXPECT_GT(image->sizeOf(META_FILE), PAGES * BLOCK_BYTES);
    for (const JournalMode mode : {JournalMode::ReadOnly, JournalMode::Writer}) {
        auto opened = openedAs(*image, mode, JournalRecovery::Strict);
        ASSERT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
        EXPECT_EQ(opened.m_report.m_text, "");
        EXPECT_EQ(opened.m_report.m_cutPages, 0u);
        EXPECT_EQ(opened.m_store->endPage(), PAGES);
        EXPECT_EQ(opened.m_store->itemCount(), PAGES);
        if (mode == JournalMode::Writer) {
            ASSERT_EQ(opened.m_store->appendZeroes(0, 8), RC_SUCCESS);
            ASSERT_EQ(opened.m_store->flush(), RC_SUCCESS);
            EXPECT_EQ(opened.m_store->endPage(), PAGES + 1);
        }
    }
}

TEST_F(JournalAheadTest, WhatIsNotEmptyThereIsAnIncompleteEnd)
{
    const auto image = m_storage.restart();
    image->setByte(META_FILE, (PAGES + 40) * BLOCK_BYTES + 300, 1);
    EXPECT_EQ(openedAs(*image, JournalMode::ReadOnly, JournalRecovery::Strict).m_rc, RC_DAMAGED);
    const auto opened = openedAs(*image, JournalMode::Writer, JournalRecovery::Tail);
    ASSERT_EQ(opened.m_rc, RC_SUCCESS);
    EXPECT_EQ(opened.m_report.m_cutPages, 41u);
    EXPECT_EQ(opened.m_store->itemCount(), PAGES);
}

TEST_F(JournalAheadTest, AnEmptyPageBeforeAGroupIsDamage)
{
    const auto image = m_storage.restart();
    zeroPage(*image, PAGES - 2);
    const auto opened = openedAs(*image, JournalMode::Writer, JournalRecovery::Tail);
    EXPECT_EQ(opened.m_rc, RC_DAMAGED);
    const auto salvaged = openedAs(*image, JournalMode::Writer, JournalRecovery::Salvage);
    ASSERT_EQ(salvaged.m_rc, RC_SUCCESS);
    EXPECT_EQ(salvaged.m_report.m_skippedPages, 1u);
    EXPECT_EQ(salvaged.m_store->endPage(), PAGES);
}

// A group that a crash tore apart among pages that are there already.
TEST_F(JournalAheadTest, AGroupOfWhichAPageIsMissingIsCut)
{
    for (u32 i = 0; i < 3 * JOURNAL_PAGE_ITEMS; ++i)
        ASSERT_EQ(m_store->appendZeroes(8 * i, 8), RC_SUCCESS);
    ASSERT_EQ(m_store->flush(), RC_SUCCESS);
    for (u64 missing = 0; missing < 3; ++missing) {
        const auto image = m_storage.restart();
        zeroPage(*image, PAGES + missing);
        const auto opened = openedAs(*image, JournalMode::Writer, JournalRecovery::Tail);
        ASSERT_EQ(opened.m_rc, RC_SUCCESS);
        EXPECT_EQ(opened.m_store->endPage(), PAGES + missing);
        EXPECT_EQ(opened.m_report.m_cutPages, missing == 2 ? 0u : 3 - missing);
    }
}

TEST_F(JournalAheadTest, OneGrainIsWrittenAheadOnlyToItsEnd)
{
    while (m_store->endPage() < JOURNAL_PAGES_PER_GRAIN) {
        const u64 pages = std::min<u64>(JOURNAL_PAGES_PER_GRAIN - m_store->endPage(), 1000);
        for (u64 i = 0; i < pages * JOURNAL_PAGE_ITEMS; ++i)
            ASSERT_EQ(m_store->appendZeroes(0, 8), RC_SUCCESS);
        ASSERT_EQ(m_store->flush(), RC_SUCCESS);
        ASSERT_LE(m_storage.sizeOf(META_FILE), u64{JOURNAL_PAGES_PER_GRAIN} * BLOCK_BYTES);
    }
    const std::string next = "journal/" + FileGrainStore::fileName(GrainKind::Meta, 2);
    appendAndFlush();
    EXPECT_GT(m_storage.sizeOf(next), u64{BLOCK_BYTES});
    const auto image = m_storage.restart();
    const auto opened = openedAs(*image, JournalMode::ReadOnly, JournalRecovery::Strict);
    ASSERT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
    EXPECT_EQ(opened.m_store->endPage(), JOURNAL_PAGES_PER_GRAIN + 1u);
}

} // namespace
