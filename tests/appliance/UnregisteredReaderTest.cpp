// Readers that may not write, and so cannot register what they read: apply goes past them.
#include "appliance/Apply.h"
#include "appliance/Backup.h"
#include "appliance/DirectReader.h"
#include "appliance/Export.h"
#include "appliance/ViewExtents.h"
#include "host/journal/FileStorage.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/support/UnwritableStorage.h"

namespace {

constexpr u64 BEFORE = 40;
constexpr u64 AFTER = 80;

ChosenPoint point(u64 items)
{
    ChosenPoint chosen;
    chosen.m_items = items;
    return chosen;
}

// A writer, and a reader of the same folder that may not write there.
class UnregisteredReaderTest : public MirrorFixture
{
protected:
    void SetUp() override
    {
        MirrorFixture::SetUp();
        makeMirror();
        writeRandomly(1, BEFORE);
        writeRandomly(2, AFTER - BEFORE);
        auto storage = std::make_unique<UnwritableStorage>(std::make_unique<FileStorage>(folder()));
        m_storage = storage.get();
        const Result result = Mirror::openIn(std::move(storage), folder(), MirrorAccess::Reader,
                                             JournalRecovery::Tail, &m_reader);
        ASSERT_TRUE(result.ok()) << result.message();
    }
    void TearDown() override
    {
        m_reader.reset();
        MirrorFixture::TearDown();
    }

    Result build(u64 items, std::unique_ptr<View>* view)
    {
        FlowControl control;
        return View::build(*m_reader, point(items), control, view);
    }

    std::unique_ptr<View> readersView(u64 items)
    {
        std::unique_ptr<View> view;
        const Result result = build(items, &view);
        EXPECT_TRUE(result.ok()) << result.message();
        return view;
    }

    // By the writer.
    void apply(u64 items)
    {
        FlowControl control;
        ApplyStatistics statistics;
        const Result result = applyMirror(*m_mirror, m_host.getEngine(), point(items),
                                          ApplyOptions(), control, &statistics);
        EXPECT_TRUE(result.ok()) << result.message();
    }

    RcStatus readBy(ViewReader& reader)
    {
        return reader.readNow(m_host.getEngine(), 0, BLOCKS, m_image.data());
    }

    UnwritableStorage* m_storage = nullptr; // the reader's
    std::unique_ptr<Mirror> m_reader;
    ReadSources m_sources;
    Image m_image = Image(BLOCKS * BLOCK_BYTES, 0xAA);
};

TEST_F(UnregisteredReaderTest, ReadsUntilItsPointIsPassedAndThenIsRefused)
{
    const auto passed = readersView(BEFORE);
    const auto kept = readersView(AFTER);
    ViewReader reader(*passed);
    DirectReader direct(*m_reader, passed->locator(), "view", m_sources, passed.get());
    ViewReader keptReader(*kept);
    DirectReader keptDirect(*m_reader, kept->locator(), "view", m_sources, kept.get());
    ASSERT_EQ(readBy(reader), RC_SUCCESS);
    EXPECT_EQ(m_image, m_images[BEFORE]);
    ASSERT_EQ(direct.read(0, BLOCKS, m_image.data()), RC_SUCCESS);
    EXPECT_EQ(m_image, m_images[BEFORE]);

    // As far as the point it is no harm.
    apply(BEFORE);
    ASSERT_EQ(readBy(reader), RC_SUCCESS);
    EXPECT_EQ(m_image, m_images[BEFORE]);

    apply(BEFORE + 1);
    LogCapture log;
    EXPECT_EQ(readBy(reader), RC_NOT_FOUND);
    EXPECT_EQ(direct.read(0, BLOCKS, m_image.data()), RC_NOT_FOUND);
    u64 start = 0;
    u64 end = 0;
    EXPECT_FALSE(ViewExtents(*passed).next(0, BLOCKS, &start, &end).ok());
    EXPECT_EQ(log.beginningWith("a view of item:40 cannot be read any more").size(), 1u);

    apply(AFTER);
    ASSERT_EQ(readBy(keptReader), RC_SUCCESS);
    EXPECT_EQ(m_image, m_images[AFTER]);
    ASSERT_EQ(keptDirect.read(0, BLOCKS, m_image.data()), RC_SUCCESS);
    EXPECT_EQ(m_image, m_images[AFTER]);
    std::unique_ptr<View> view;
    EXPECT_EQ(build(BEFORE, &view).code(), ResultCode::NotFound);
}

// What was found in the index alone is the journal's, and that does not change.
TEST_F(UnregisteredReaderTest, WhatTheJournalHasIsServedAllTheSame)
{
    const auto view = readersView(BEFORE);
    const std::vector<SubRegionDescriptor> pieces = view->pieces(0, BLOCKS);
    ASSERT_FALSE(pieces.empty());
    apply(AFTER);
    const u64 offset = pieces.front().m_viewOffsetBlocks;
    const u32 length = pieces.front().m_lengthBlocks;
    DirectReader direct(*m_reader, view->locator(), "view", m_sources, view.get());
    ASSERT_EQ(direct.read(offset, length, m_image.data()), RC_SUCCESS);
    EXPECT_EQ(std::memcmp(m_image.data(), m_images[BEFORE].data() + offset * BLOCK_BYTES,
                          u64{length} * BLOCK_BYTES),
              0);
}

// Whoever looked first and read then would be given what was applied between the two.
TEST_F(UnregisteredReaderTest, LooksAfterItHasRead)
{
    const auto view = readersView(BEFORE);
    DirectReader direct(*m_reader, view->locator(), "view", m_sources, view.get());
    u32 applied = 0;
    m_storage->m_beforeRead = [&](const std::string& name) {
        if (name == "target" && applied++ == 0)
            apply(AFTER);
    };
    EXPECT_EQ(direct.read(0, BLOCKS, m_image.data()), RC_NOT_FOUND);
    EXPECT_GT(applied, 0u);
    m_storage->m_beforeRead = nullptr;
}

// Applies in the middle of what somebody else does.
class ApplyMeanwhile : public FlowControl
{
public:
    explicit ApplyMeanwhile(std::function<void()> apply) : m_apply(std::move(apply)) {}
    void progress(u64 done, u64 total) override
    {
        if (done > 0 && done <= total && m_apply)
            std::exchange(m_apply, nullptr)();
    }

private:
    std::function<void()> m_apply;
};

TEST_F(UnregisteredReaderTest, NoExportAndNoBackupOfAPassedPointIsMade)
{
    {
        const auto view = readersView(BEFORE);
        apply(BEFORE + 1);
        FlowControl control;
        ExportStatistics statistics;
        EXPECT_FALSE(
            exportView(*view, m_host.getEngine(), m_root + "/image", control, &statistics).ok());
    }
    BackupOptions options;
    options.m_at = point(BEFORE + 2);
    BackupStatistics statistics;
    ApplyMeanwhile meanwhile([&] { apply(AFTER); });
    const Result result = backupMirror(*m_reader, m_host.getEngine(), m_root + "/backup", options,
                                       meanwhile, &statistics);
    EXPECT_EQ(result.code(), ResultCode::NotFound) << result.message();
}

TEST_F(UnregisteredReaderTest, HoldsAreListedAndNoneCanBeMade)
{
    Hold held{"kept", BEFORE, "item:40"};
    ASSERT_TRUE(m_mirror->hold(&held, nullptr).ok());
    std::vector<Hold> holds;
    std::vector<UseInfo> uses;
    const Result result = m_reader->pins(&holds, &uses);
    EXPECT_TRUE(result.ok()) << result.message();
    EXPECT_EQ(holds.size(), 1u);
    Hold other{"other", BEFORE, "item:40"};
    EXPECT_FALSE(m_reader->hold(&other, nullptr).ok());
}

} // namespace
