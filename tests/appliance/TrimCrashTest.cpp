// Power cuts at every change that a trim makes.
#include "appliance/Apply.h"
#include "appliance/Trim.h"
#include "host/journal/JournalVerifier.h"
#include "tests/appliance/MirrorOnCrashStorage.h"

namespace {

class TrimCrashTest : public MirrorOnCrashStorage
{
protected:
    // Writes of the whole volume, so that grains fill.
    void fillGrains(u32 count)
    {
        std::mt19937 random(count);
        for (u32 i = 0; i < count; ++i) {
            Image image(BLOCKS * BLOCK_BYTES, static_cast<u8>(1 + random() % 255));
            ASSERT_TRUE(m_mirror->write(0, image.data(), BLOCKS).ok());
            m_images.push_back(image);
        }
        ASSERT_TRUE(m_mirror->checkpoint("named", nullptr).ok());
    }

    Result trim(u64 items)
    {
        FlowControl control;
        TrimStatistics statistics;
        Result result = trimMirror(*m_mirror, m_host.getEngine(), point(items), TrimOptions(),
                                   control, &statistics);
        m_trimmedGrains = statistics.m_dataGrains;
        return result;
    }

    u64 m_trimmedGrains = 0;
};

TEST_F(TrimCrashTest, AfterEveryChangeOneOfTheTwoBeginningsHolds)
{
    ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
    fillGrains(280); // more than two grains of 128
    writeRandomly(1, 20);
    const u64 items = 270;
    FlowControl control;
    ApplyStatistics statistics;
    ASSERT_TRUE(applyMirror(*m_mirror, m_host.getEngine(), point(items), ApplyOptions(), control,
                            &statistics)
                    .ok());
    ASSERT_TRUE(m_mirror->close().ok());
    const std::unique_ptr<CrashStorage> start = m_storage->restart();

    ASSERT_TRUE(open(start->restart(), MirrorAccess::Writer).ok());
    const u64 firstChange = m_storage->changes();
    ASSERT_TRUE(trim(items).ok());
    ASSERT_EQ(m_trimmedGrains, 2u);
    const u64 newPage = m_mirror->journal().begin().m_page;
    ASSERT_GT(newPage, 0u);
    const u64 lastChange = m_storage->changes();

    bool sawOld = false;
    bool sawNew = false;
    for (u64 changes = firstChange; changes <= lastChange; ++changes) {
        for (u32 kind = 0; kind < 6; ++kind) {
            const std::string where =
                "cut after change " + std::to_string(changes) + ", kind " + std::to_string(kind);
            ASSERT_TRUE(open(start->restart(), MirrorAccess::Writer).ok());
            m_storage->dieAfter(changes);
            const Result cut = trim(items);
            EXPECT_EQ(cut.ok(), changes == lastChange) << where;
            std::unique_ptr<CrashStorage> left = m_storage->crash(fate(kind));
            const Result opened = open(std::move(left), MirrorAccess::Writer);
            ASSERT_TRUE(opened.ok()) << where << ": " << opened.message();
            const u64 page = m_mirror->journal().begin().m_page;
            ASSERT_TRUE(page == 0 || page == newPage) << where;
            sawOld = sawOld || page == 0;
            sawNew = sawNew || page == newPage;
            ASSERT_EQ(m_mirror->window().m_firstItems, items) << where;
            ASSERT_EQ(m_mirror->window().m_checkpoints.size(), 1u) << where;
            ASSERT_EQ(m_mirror->window().m_checkpoints.front().m_tag, "named") << where;
            checkPoints(where, 15);
            if (HasFatalFailure())
                return;
            ASSERT_TRUE(verifyJournal(m_mirror->journal()).ok()) << where;
            // Leftovers are gone, at the latest when it is trimmed again.
            ASSERT_TRUE(trim(items).ok()) << where;
            std::vector<u64> grains;
            ASSERT_EQ(m_mirror->journal().grains().list(GrainKind::Data, &grains), RC_SUCCESS);
            ASSERT_EQ(grains.front(), 3u) << where;
        }
    }
    EXPECT_TRUE(sawOld);
    EXPECT_TRUE(sawNew);
}

} // namespace
