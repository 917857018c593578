// A mirror on a disk that is full to the last sector: writes are refused, reading goes on, and
// apply and trim make room again.
#include "appliance/Apply.h"
#include "appliance/Trim.h"
#include "host/journal/JournalVerifier.h"
#include "tests/appliance/MirrorOnCrashStorage.h"

namespace {

constexpr u64 ROOMY = u64{1} << 40;

class FullDiskTest : public MirrorOnCrashStorage
{
protected:
    // Writes of the whole volume, so that grains fill.
    void fillGrains(u32 count)
    {
        for (u32 i = 0; i < count; ++i) {
            Image image(BLOCKS * BLOCK_BYTES, static_cast<u8>(1 + m_images.size() % 255));
            ASSERT_TRUE(m_mirror->write(0, image.data(), BLOCKS).ok());
            m_images.push_back(image);
        }
    }

    // A mirror with data in three grains, and a target that has all of its blocks.
    std::unique_ptr<CrashStorage> start()
    {
        auto storage = emptyMirror();
        storage->setCapacity(ROOMY);
        EXPECT_TRUE(open(std::move(storage), MirrorAccess::Writer).ok());
        fillGrains(2);
        EXPECT_TRUE(apply(2).ok());
        fillGrains(270);
        EXPECT_TRUE(m_mirror->close().ok());
        return m_storage->restart();
    }

    Result apply(u64 items)
    {
        FlowControl control;
        ApplyStatistics statistics;
        return applyMirror(*m_mirror, m_host.getEngine(), point(items), ApplyOptions(), control,
                           &statistics);
    }

    Result trim(u64 items)
    {
        FlowControl control;
        TrimStatistics statistics;
        return trimMirror(*m_mirror, m_host.getEngine(), point(items), TrimOptions(), control,
                          &statistics);
    }

    // Random writes until some are refused. Whatever is accepted is in m_images.
    void writeUntilRefused(u32 seed, u32 refusals)
    {
        std::mt19937 random(seed);
        Image image = m_images.back();
        while (refusals > 0) {
            const u32 length = 1 + random() % 20;
            const u64 offset = random() % (BLOCKS - length);
            Image data(length * BLOCK_BYTES, static_cast<u8>(random()));
            const Result result = m_mirror->write(offset, data.data(), length);
            if (result.ok()) {
                std::copy(data.begin(), data.end(), image.begin() + offset * BLOCK_BYTES);
                m_images.push_back(image);
                continue;
            }
            ASSERT_EQ(result.code(), ResultCode::NoSpace) << result.message();
            EXPECT_NE(result.message().find("the disk is full; apply and trim make room"),
                      std::string::npos)
                << result.message();
            --refusals;
        }
    }
};

TEST_F(FullDiskTest, ApplyAndTrimMakeRoomWhateverIsLeftOfIt)
{
    const std::unique_ptr<CrashStorage> image = start();
    const size_t images = m_images.size();
    for (const u32 room : {0, 1, 2, 5, 17, 60, 301}) {
        for (const bool reopened : {false, true}) {
            const std::string where =
                "room for " + std::to_string(room) + (reopened ? ", opened anew" : "");
            SCOPED_TRACE(where);
            m_images.resize(images);
            auto storage = image->restart();
            storage->setCapacity(ROOMY);
            ASSERT_TRUE(open(std::move(storage), MirrorAccess::Writer).ok());
            m_storage->setCapacity(m_storage->usedSectors() + room);
            writeUntilRefused(room, 3);
            ASSERT_TRUE(m_mirror->flush().ok());
            checkPoint(m_images.size() - 1, where);
            checkPoint(200, where);
            if (reopened) {
                ASSERT_TRUE(m_mirror->close().ok());
                storage = m_storage->restart(); // what was only reserved is lost
                storage->setCapacity(storage->usedSectors());
                const Result opened = open(std::move(storage), MirrorAccess::Writer);
                ASSERT_TRUE(opened.ok()) << opened.message();
            }
            const u64 items = m_images.size() - 1;
            const Result applied = apply(items);
            ASSERT_TRUE(applied.ok()) << applied.message();
            ASSERT_EQ(targetImage(), m_images.back());
            const Result trimmed = trim(items);
            ASSERT_TRUE(trimmed.ok()) << trimmed.message();
            ASSERT_GT(m_mirror->journal().begin().m_items, 250u);
            writeRandomly(1, 30); // as if nothing had been
            ASSERT_TRUE(m_mirror->close().ok());
            ASSERT_TRUE(open(m_storage->restart(), MirrorAccess::Reader).ok());
            checkPoints(where, 10);
            EXPECT_TRUE(verifyJournal(m_mirror->journal()).ok());
            ASSERT_FALSE(HasFailure());
        }
    }
}

// A use that could not be stored protects what it reads all the same.
TEST_F(FullDiskTest, WhatIsReadIsInUse)
{
    ASSERT_TRUE(open(start(), MirrorAccess::Writer).ok());
    m_storage->setCapacity(m_storage->usedSectors());
    FlowControl control;
    std::unique_ptr<View> view;
    ASSERT_TRUE(View::build(*m_mirror, point(100), control, &view).ok());
    std::vector<UseInfo> uses;
    ASSERT_TRUE(listUses(*m_storage, {}, &uses).ok());
    ASSERT_EQ(uses.size(), 1u);
    EXPECT_EQ(uses[0].m_items, 100u);
    EXPECT_EQ(uses[0].m_firstPage, 0u);
    EXPECT_EQ(uses[0].m_process, static_cast<u64>(getpid()));
    EXPECT_EQ(apply(101).code(), ResultCode::InUse);
    view.reset();
    ASSERT_TRUE(listUses(*m_storage, {}, &uses).ok());
    EXPECT_TRUE(uses.empty());
    EXPECT_TRUE(apply(101).ok());
}

TEST_F(FullDiskTest, TheLimitIsToldFromTheDisk)
{
    ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
    ASSERT_TRUE(m_mirror->changeSettings({}, {}, 20000).ok());
    const Image data(100 * BLOCK_BYTES);
    const Result refused = m_mirror->write(0, data.data(), 100);
    EXPECT_EQ(refused.code(), ResultCode::NoSpace);
    EXPECT_EQ(
        refused.message(),
        "cannot journal the write at block 0: the journal's limit of 19.5 KiB is reached (0 B "
        "used); apply and trim make room, as does a higher limit");
}

} // namespace
