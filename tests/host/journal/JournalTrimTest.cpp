// Trims that leave nothing: the last data grain goes as well, where nobody writes to it meanwhile.
#include "host/journal/JournalTrim.h"

#include <gtest/gtest.h>
#include <random>

#include "host/journal/JournalStore.h"
#include "host/journal/JournalVerifier.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

using Fate = CrashStorage::Fate;

JournalTrimPlan wholePlan(JournalStore& store)
{
    return planJournalTrim(store, store.itemCount(), store.endPage());
}

RcStatus trim(JournalStore& store, const JournalTrimPlan& plan)
{
    const RcStatus rc = store.setBegin(plan.m_begin, plan.m_freedBlocks, plan.m_noDataBefore);
    u64 removed = 0;
    return rc == RC_SUCCESS ? store.removeTrimmed(&removed) : rc;
}

std::vector<u64> dataGrains(JournalStore& store)
{
    std::vector<u64> grains;
    EXPECT_EQ(store.grains().list(GrainKind::Data, &grains), RC_SUCCESS);
    return grains;
}

class JournalTrimTest : public testing::Test
{
protected:
    void append(JournalStore& store, u64 seed, u32 blocks = 20)
    {
        m_left.push_back({seed, blocks, patternBlocks(seed, blocks)});
        ASSERT_EQ(store.append(seed, m_left.back().m_bytes.data(), blocks), RC_SUCCESS);
    }

    CrashStorage m_storage;
    std::vector<JournalRequest> m_left; // in the journal
};

TEST_F(JournalTrimTest, OfEverythingLetsTheLastGrainGo)
{
    {
        const auto store = openJournal(m_storage, JournalMode::Writer);
        append(*store, 1);
        append(*store, 2);
        ASSERT_EQ(store->flush(), RC_SUCCESS);
        ASSERT_EQ(trim(*store, wholePlan(*store)), RC_SUCCESS);
        EXPECT_EQ(dataGrains(*store), std::vector<u64>{});
        EXPECT_EQ(store->bytesUsed(), 0u);
        m_left.clear();
        append(*store, 3);
        ASSERT_EQ(store->flush(), RC_SUCCESS);
        EXPECT_EQ(dataGrains(*store), std::vector<u64>{2});
        EXPECT_EQ(readBack(*store), m_left);
        ASSERT_EQ(trim(*store, wholePlan(*store)), RC_SUCCESS);
        m_left.clear();
    }
    // Opened with nothing in it, it goes on behind the grains that went.
    const auto store = openJournal(m_storage, JournalMode::Writer);
    EXPECT_LE(store->bytesUsed(), u64{BLOCK_BYTES}) << "the mark of its end";
    append(*store, 4);
    ASSERT_EQ(store->flush(), RC_SUCCESS);
    EXPECT_EQ(dataGrains(*store), std::vector<u64>{3});
    EXPECT_EQ(readBack(*store), m_left);
    EXPECT_EQ(store->itemCount(), 4u);
    EXPECT_TRUE(verifyJournal(*store).ok());
}

TEST_F(JournalTrimTest, KeepsTheGrainOfWhatWasAppendedMeanwhile)
{
    for (const bool flushes : {false, true}) {
        CrashStorage storage;
        m_left.clear();
        {
            const auto store = openJournal(storage, JournalMode::Writer);
            append(*store, 1);
            ASSERT_EQ(store->flush(), RC_SUCCESS);
            const JournalTrimPlan plan = wholePlan(*store);
            m_left.clear();
            append(*store, 2);
            if (flushes) {
                ASSERT_EQ(store->flush(), RC_SUCCESS);
            }
            ASSERT_EQ(trim(*store, plan), RC_SUCCESS);
            EXPECT_EQ(dataGrains(*store), std::vector<u64>{1});
            ASSERT_EQ(store->flush(), RC_SUCCESS);
            EXPECT_EQ(readBack(*store), m_left);
        }
        EXPECT_EQ(readBack(*openJournal(storage, JournalMode::Writer)), m_left);
    }
}

// A journal that its limit leaves no room takes as much as at first again.
TEST_F(JournalTrimTest, OfEverythingMakesAllRoomUnderALimit)
{
    JournalOptions options;
    options.limitBytes = u64{1} << 20;
    const auto store = openJournal(m_storage, JournalMode::Writer, options);
    const std::vector<u8> data = patternBlocks(1, 100);
    const auto fill = [&] {
        u64 count = 0;
        while (store->append(0, data.data(), 100) == RC_SUCCESS)
            ++count;
        return count;
    };
    const u64 first = fill();
    EXPECT_GT(first, 10u);
    ASSERT_EQ(store->flush(), RC_SUCCESS); // or its page would be that of the last writes too
    CpId_t id = 0;
    ASSERT_EQ(store->appendCheckpoint("full", &id), RC_SUCCESS);
    // The checkpoint stays, and its page with it.
    const JournalPtr place = store->checkpoints().back().m_ptr;
    ASSERT_EQ(trim(*store, planJournalTrim(*store, store->itemCount(), pageOfJournalPtr(place))),
              RC_SUCCESS);
    EXPECT_LE(store->bytesUsed(), u64{options.limitBytes} / 100);
    EXPECT_GE(fill() + 1, first);
}

// Beyond the limit there is one checkpoint behind the last item, and no more.
TEST_F(JournalTrimTest, FullJournalTakesOneCheckpoint)
{
    JournalOptions options;
    options.limitBytes = u64{1} << 20;
    {
        const auto store = openJournal(m_storage, JournalMode::Writer, options);
        while (store->appendZeroes(0, 1) == RC_SUCCESS) {
        }
        ASSERT_EQ(store->flush(), RC_SUCCESS);
        EXPECT_EQ(store->appendCheckpoint("first", nullptr), RC_SUCCESS);
        for (u32 i = 0; i < 3; ++i)
            EXPECT_EQ(store->appendCheckpoint("more", nullptr), RC_NO_SPACE);
        EXPECT_EQ(store->room(), JournalRoom::LimitReached);
        EXPECT_EQ(store->appendZeroes(0, 1), RC_NO_SPACE);
        EXPECT_LE(store->bytesUsed(), options.limitBytes + BLOCK_BYTES);
    }
    // Nor one more each time that it is opened.
    const auto store = openJournal(m_storage, JournalMode::Writer, options);
    EXPECT_EQ(store->appendCheckpoint("again", nullptr), RC_NO_SPACE);
    EXPECT_EQ(store->checkpoints().size(), 1u);
}

TEST_F(JournalTrimTest, PowerCutsAroundANewGrainLoseNothing)
{
    {
        const auto store = openJournal(m_storage, JournalMode::Writer);
        append(*store, 1);
        append(*store, 2);
    }
    const std::vector<JournalRequest> before = m_left;
    const JournalRequest after{9, 30, patternBlocks(9, 30)};
    bool whole = false;
    for (u64 change = 1; !whole; ++change) {
        for (u32 kind = 0; kind < 8; ++kind) {
            SCOPED_TRACE(testing::Message() << "change " << change << ", kind " << kind);
            const auto storage = m_storage.restart();
            bool durable = false;
            {
                const auto store = openJournal(*storage, JournalMode::Writer);
                const JournalTrimPlan plan = wholePlan(*store);
                storage->dieAfter(storage->changes() + change);
                durable = trim(*store, plan) == RC_SUCCESS &&
                          store->append(9, after.m_bytes.data(), 30) == RC_SUCCESS &&
                          store->flush() == RC_SUCCESS;
            }
            whole = !storage->isDead();
            std::mt19937 random(kind);
            const auto image = storage->crash([&](size_t) {
                const bool kept = kind < 2 ? kind == 0 : random() % 2 == 0;
                return Fate{kept ? Fate::Kept : Fate::Lost, 0};
            });
            {
                const auto store = openJournal(*image, JournalMode::Writer);
                ASSERT_TRUE(store);
                std::vector<JournalRequest> found = readBack(*store);
                if (store->begin().m_page == 0) {
                    ASSERT_GE(found.size(), 2u);
                    EXPECT_TRUE(std::equal(before.begin(), before.end(), found.begin()));
                    found.erase(found.begin(), found.begin() + 2);
                }
                if (durable || !found.empty()) {
                    EXPECT_EQ(found, std::vector<JournalRequest>{after});
                }
                EXPECT_TRUE(verifyJournal(*store).ok());
                const std::vector<u8> more = patternBlocks(5, 10);
                ASSERT_EQ(store->append(5, more.data(), 10), RC_SUCCESS);
                ASSERT_EQ(store->flush(), RC_SUCCESS);
                EXPECT_EQ(readBack(*store).back(), (JournalRequest{5, 10, more}));
            }
            ASSERT_FALSE(HasFailure());
        }
    }
}

} // namespace
