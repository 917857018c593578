// Retention that looks at the journal while a trim takes its beginning away.
#include "appliance/Retention.h"
#include "host/journal/JournalTrim.h"
#include "tests/appliance/MirrorOnCrashStorage.h"
#include "tests/support/SlowStorage.h"

namespace {

class RetentionTrimTest : public MirrorOnCrashStorage
{};

TEST_F(RetentionTrimTest, PagesThatATrimTakesMeanwhileAreNoDamage)
{
    auto slow = std::make_unique<SlowStorage>(emptyMirror(), 0);
    SlowStorage& storage = *slow;
    ASSERT_TRUE(Mirror::openIn(std::move(slow), "mirror", MirrorAccess::Writer,
                               JournalRecovery::Tail, &m_mirror)
                    .ok());
    JournalStore& journal = m_mirror->journal();
    // Two metadata grains, and checkpoints in the second one.
    constexpr u64 PAGE_ITEMS = 15;
    while (journal.endPage() <= JOURNAL_PAGES_PER_GRAIN) {
        for (u64 i = 0; i < 1000 * PAGE_ITEMS; ++i)
            ASSERT_EQ(journal.appendZeroes(i % BLOCKS, 1), RC_SUCCESS);
        ASSERT_EQ(journal.flush(), RC_SUCCESS);
    }
    const u64 trimmed = journal.itemCount();
    for (u32 i = 0; i < 2; ++i) {
        ASSERT_TRUE(m_mirror->checkpoint("", nullptr).ok());
        ASSERT_EQ(journal.appendZeroes(0, 1), RC_SUCCESS);
    }
    ASSERT_TRUE(m_mirror->changeSettings(std::nullopt, std::nullopt, journal.bytesUsed()).ok());
    ASSERT_EQ(journal.flush(), RC_SUCCESS);

    bool isTrimmed = false;
    storage.start([&](u64 call) {
        if (call != 3 || isTrimmed) // some pages have been read
            return;
        isTrimmed = true;
        const JournalTrimPlan plan = planJournalTrim(journal, trimmed, journal.endPage());
        EXPECT_EQ(plan.m_metaGrains, 1u);
        EXPECT_EQ(journal.setBegin(plan.m_begin, plan.m_freedBlocks), RC_SUCCESS);
        u64 removed = 0;
        EXPECT_EQ(journal.removeTrimmed(&removed), RC_SUCCESS);
    });
    RetentionPoint point;
    const Result result = findRetentionPoint(*m_mirror, 0, &point);
    storage.start({});
    EXPECT_TRUE(isTrimmed);
    EXPECT_TRUE(result.ok()) << result.message();
}

} // namespace
