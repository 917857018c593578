// A disk with room for so many sectors and not one more: what does not fit is refused when it is
// appended, and all that was accepted can be flushed, closed and found again.
#include <gtest/gtest.h>
#include <random>

#include "host/journal/CheckedFile.h"
#include "host/journal/JournalStore.h"
#include "host/journal/JournalVerifier.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

constexpr u64 ROOMY = u64{1} << 40;

// Requests of all kinds, until `most` were accepted or `refusals` were refused.
struct Player
{
    JournalStore& m_store;
    std::mt19937_64 m_random;
    std::vector<JournalRequest> m_accepted{};
    u64 m_refused = 0;
    u64 m_checkpoints = 0;

    void play(u64 most, u64 refusals)
    {
        while (m_accepted.size() < most && m_refused < refusals)
            step();
    }

    void step()
    {
        const u64 offset = m_random() % 1000;
        const u64 kind = m_random() % 10;
        if (kind == 0) {
            note(m_store.appendCheckpoint(m_random() % 2 == 0 ? "tag" : "", nullptr),
                 [&] { ++m_checkpoints; });
        } else if (kind < 4) {
            // Of up to 15 items, so that pages end where the next one does not fit.
            const u64 blocks = 1 + m_random() % (15 * 65535);
            note(m_store.appendZeroes(offset, blocks), [&] {
                m_accepted.push_back({offset, blocks, {}});
            });
        } else {
            const u32 blocks = 1 + static_cast<u32>(m_random() % 5);
            const std::vector<u8> data = patternBlocks(m_random(), blocks);
            note(m_store.append(offset, data.data(), blocks), [&] {
                m_accepted.push_back({offset, blocks, data});
            });
        }
        if (m_random() % 8 == 0) {
            EXPECT_EQ(m_store.flush(), RC_SUCCESS) << "what was accepted has room";
        }
    }

    template <class Function> void note(RcStatus rc, Function accepted)
    {
        if (rc == RC_SUCCESS) {
            accepted();
            return;
        }
        ++m_refused;
        EXPECT_EQ(rc, RC_NO_SPACE);
    }
};

TEST(JournalFullDiskTest, WhateverRoomThereIsAllThatIsAcceptedIsFlushedAndFoundAgain)
{
    u64 fullest = 0;
    for (u64 room = 0; room < 300; ++room) {
        SCOPED_TRACE(testing::Message() << "room for " << room << " sectors");
        CrashStorage storage;
        storage.setCapacity(ROOMY);
        std::vector<JournalRequest> accepted;
        u64 checkpoints = 0;
        {
            auto store = openJournal(storage, JournalMode::Writer);
            storage.setCapacity(storage.usedSectors() + room);
            Player player{*store, std::mt19937_64(room)};
            player.play(~u64{0}, 5);
            ASSERT_EQ(store->flush(), RC_SUCCESS);
            EXPECT_EQ(store->durableItemCount(), player.m_accepted.size());
            EXPECT_EQ(readBack(*store), player.m_accepted) << "reading goes on";
            ASSERT_EQ(store->close(), RC_SUCCESS);
            accepted = player.m_accepted;
            checkpoints = player.m_checkpoints;
        }
        fullest = std::max<u64>(fullest, accepted.size());
        const auto crashed = storage.crash([](size_t) { return CrashStorage::Fate(); });
        EXPECT_EQ(readBack(*openJournal(*crashed, JournalMode::ReadOnly)), accepted);
        // Full as it is, it opens, reads, and closes; and goes on when there is room.
        auto store = openJournal(storage, JournalMode::Writer);
        EXPECT_EQ(store->report().m_text, "");
        EXPECT_EQ(readBack(*store), accepted);
        EXPECT_EQ(store->checkpoints().size(), checkpoints);
        ASSERT_EQ(store->close(), RC_SUCCESS);
        store.reset();
        storage.setCapacity(ROOMY);
        store = openJournal(storage, JournalMode::Writer);
        Player player{*store, std::mt19937_64(room + 1)};
        player.play(20, 1);
        EXPECT_EQ(player.m_refused, 0u);
        accepted.insert(accepted.end(), player.m_accepted.begin(), player.m_accepted.end());
        store.reset();
        store = openJournal(storage, JournalMode::ReadOnly);
        EXPECT_EQ(readBack(*store), accepted);
        EXPECT_TRUE(verifyJournal(*store).ok());
        ASSERT_FALSE(testing::Test::HasFailure());
    }
    EXPECT_GT(fullest, 20u) << "nothing was ever filled";
}

// Room that comes and goes, as others write to the disk too.
TEST(JournalFullDiskTest, GoesOnWheneverThereIsRoomAgain)
{
    CrashStorage storage;
    storage.setCapacity(ROOMY);
    auto store = openJournal(storage, JournalMode::Writer);
    Player player{*store, std::mt19937_64(7)};
    for (u64 i = 0; i < 100; ++i) {
        storage.setCapacity(storage.usedSectors() + i % 40);
        player.play(~u64{0}, player.m_refused + 1 + i % 3);
        if (i % 4 == 0) {
            EXPECT_EQ(store->flush(), RC_SUCCESS);
        }
    }
    EXPECT_GT(player.m_accepted.size(), 200u);
    EXPECT_EQ(store->flush(), RC_SUCCESS);
    EXPECT_EQ(readBack(*store), player.m_accepted);
    store.reset();
    EXPECT_EQ(readBack(*openJournal(storage, JournalMode::ReadOnly)), player.m_accepted);
}

// The room for the pages of one metadata grain ends before that of the next one begins.
TEST(JournalFullDiskTest, TheNextMetadataGrainHasRoomBeforeItIsNeeded)
{
    constexpr u64 ITEMS_OF_A_GRAIN = u64{JOURNAL_PAGES_PER_GRAIN} * JOURNAL_PAGE_ITEMS;
    CrashStorage storage;
    storage.setCapacity(ROOMY);
    auto store = openJournal(storage, JournalMode::Writer);
    u64 items = 0;
    const auto append = [&] {
        const RcStatus rc = store->appendZeroes(items % 1000, 1);
        items += rc == RC_SUCCESS;
        return rc;
    };
    while (items < ITEMS_OF_A_GRAIN - 5000)
        ASSERT_EQ(append(), RC_SUCCESS);
    ASSERT_EQ(store->flush(), RC_SUCCESS);
    u64 room = 0;
    while (store->endPage() < JOURNAL_PAGES_PER_GRAIN + 20) {
        storage.setCapacity(storage.usedSectors() + room++ % 7);
        for (RcStatus rc = RC_SUCCESS; rc == RC_SUCCESS;)
            rc = append();
        ASSERT_EQ(store->flush(), RC_SUCCESS);
    }
    ASSERT_EQ(store->close(), RC_SUCCESS);
    store = openJournal(storage, JournalMode::ReadOnly);
    EXPECT_EQ(store->report().m_text, "");
    EXPECT_EQ(store->itemCount(), items);
}

// The empty grain that is made ahead is no end that was cut off.
TEST(JournalFullDiskTest, ACrashBesideAnEmptyMetadataGrainIsOfNoConsequence)
{
    CrashStorage storage;
    {
        auto store = openJournal(storage, JournalMode::Writer);
        ASSERT_EQ(store->appendZeroes(0, 1), RC_SUCCESS);
    }
    std::unique_ptr<StorageFile> empty;
    ASSERT_EQ(storage.open("journal/m-0000000002", StorageAccess::Create, &empty), RC_SUCCESS);
    empty.reset();
    for (const JournalMode mode :
         {JournalMode::ReadOnly, JournalMode::Writer, JournalMode::ReadOnly}) {
        const auto store = openJournal(storage, mode);
        EXPECT_EQ(store->report().m_text, "");
        EXPECT_EQ(store->itemCount(), 1u);
    }
}

// Data that a failed sync dropped is lost, whatever it was for; pages are written again.
TEST(JournalFullDiskTest, ASyncWithoutRoomIsRepeatedForPagesAndFinalForData)
{
    CrashStorage storage;
    auto store = openJournal(storage, JournalMode::Writer);
    ASSERT_EQ(store->appendZeroes(0, 1), RC_SUCCESS);
    storage.failCall(CrashStorage::Call::Sync, 1, RC_NO_SPACE); // no data: the pages' one
    EXPECT_EQ(store->flush(), RC_NO_SPACE);
    EXPECT_EQ(store->durableItemCount(), 0u);
    const u64 changes = storage.changes();
    EXPECT_EQ(store->flush(), RC_SUCCESS);
    EXPECT_GE(storage.changes(), changes + 2) << "written and synced once more";
    const std::vector<u8> data = patternBlocks(1, 1);
    ASSERT_EQ(store->append(0, data.data(), 1), RC_SUCCESS);
    storage.failCall(CrashStorage::Call::Sync, 1, RC_NO_SPACE);
    EXPECT_EQ(store->flush(), RC_IO_ERROR);
    EXPECT_EQ(store->append(0, data.data(), 1), RC_IO_ERROR);
}

class CheckedFileOnFullDiskTest : public testing::Test
{
protected:
    CheckedFileOnFullDiskTest() { m_storage.setCapacity(ROOMY); }

    RcStatus store(const std::string& content)
    {
        return storeCheckedFile(m_storage, "", "name", content.data(), content.size());
    }
    std::string load(Storage& storage)
    {
        std::vector<u8> content;
        const RcStatus rc = loadCheckedFile(storage, "", "name", &content);
        return rc == RC_SUCCESS ? std::string(content.begin(), content.end()) : rcStatusText(rc);
    }
    void fill() { m_storage.setCapacity(m_storage.usedSectors()); }

    CrashStorage m_storage;
};

TEST_F(CheckedFileOnFullDiskTest, WithoutRoomTakenBeforeTheOldOneStays)
{
    ASSERT_EQ(store("old"), RC_SUCCESS);
    fill();
    EXPECT_EQ(store("new"), RC_NO_SPACE);
    EXPECT_EQ(load(m_storage), "old");
    EXPECT_EQ(reserveCheckedFile(m_storage, "", "name", 3), RC_SUCCESS) << "later, perhaps";
    EXPECT_EQ(store("new"), RC_NO_SPACE);
}

TEST_F(CheckedFileOnFullDiskTest, WithRoomTakenBeforeItIsReplacedAgainAndAgain)
{
    ASSERT_EQ(store(std::string(2000, 'o')), RC_SUCCESS);
    ASSERT_EQ(reserveCheckedFile(m_storage, "", "name", 2000), RC_SUCCESS);
    fill();
    for (u32 i = 0; i < 5; ++i) {
        const std::string content(2000 - 400 * i, static_cast<char>('a' + i));
        ASSERT_EQ(store(content), RC_SUCCESS) << i;
        EXPECT_EQ(load(m_storage), content);
        fill();
    }
}

TEST_F(CheckedFileOnFullDiskTest, ACrashLeavesTheOldOrTheNewOne)
{
    ASSERT_EQ(store("old"), RC_SUCCESS);
    ASSERT_EQ(reserveCheckedFile(m_storage, "", "name", 100), RC_SUCCESS);
    const u64 before = m_storage.changes();
    const auto start = m_storage.takeOver();
    ASSERT_EQ(store("new"), RC_SUCCESS);
    const u64 after = m_storage.changes();
    for (u64 changes = 0; changes <= after - before; ++changes) {
        for (u32 seed = 0; seed < 20; ++seed) {
            const auto storage = start->takeOver();
            storage->dieAfter(changes);
            const RcStatus rc = storeCheckedFile(*storage, "", "name", "new", 3);
            EXPECT_EQ(rc == RC_SUCCESS, changes == after - before);
            std::mt19937 random(seed);
            // All of the two names of a renaming, or none: a file system's journal sees to that.
            const bool renamed = random() % 2 == 0;
            const size_t names = storage->unsyncedNames();
            const auto image = storage->crash([&](size_t unit) {
                using Fate = CrashStorage::Fate;
                if (unit < names)
                    return Fate{renamed ? Fate::Kept : Fate::Lost, 0};
                return Fate{static_cast<Fate::Kind>(random() % 3),
                            static_cast<u32>(random() % 512)};
            });
            const std::string found = load(*image);
            EXPECT_TRUE(found == "new" || (found == "old" && rc != RC_SUCCESS))
                << found << " after " << changes;
        }
    }
}

} // namespace
