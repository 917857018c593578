// Whatever long work is under way when a stop is asked for, over however slow a storage: it ends
// within so many calls to the storage, which do not depend on how much there is to do, and nothing
// that was acknowledged is lost.

#include <atomic>
#include <thread>

#include "appliance/Apply.h"
#include "appliance/DiffMaps.h"
#include "appliance/FlagControl.h"
#include "appliance/LiveVolume.h"
#include "appliance/Trim.h"
#include "appliance/ViewShelf.h"
#include "tests/appliance/MirrorOnCrashStorage.h"
#include "tests/support/Sanitized.h"
#include "tests/support/SlowStorage.h"

namespace {

constexpr u64 DELAY_US = 50;
// At how many places of a work it is stopped.
constexpr u64 PLACES = IS_WATCHED ? 8 : 24;

class StopsTest : public MirrorOnCrashStorage
{
protected:
    // Some data that the volume's second half keeps, and many zeroes in its first half.
    void prepare(u64 zeroes)
    {
        ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
        std::mt19937 random(5);
        Image& image = m_images.back();
        for (u32 i = 0; i < 300; ++i) {
            const u32 length = 1 + random() % 4;
            const u64 offset = BLOCKS / 2 + random() % (BLOCKS / 2 - length);
            u8* data = image.data() + offset * BLOCK_BYTES;
            std::fill_n(data, length * BLOCK_BYTES, static_cast<u8>(1 + random() % 255));
            ASSERT_TRUE(m_mirror->write(offset, data, length).ok());
        }
        for (u64 i = 0; i < zeroes; ++i)
            ASSERT_TRUE(m_mirror->writeZeroes(random() % (BLOCKS / 2), 1).ok());
        ASSERT_TRUE(m_mirror->flush().ok());
        m_items = 300 + zeroes;
        ASSERT_TRUE(m_mirror->close().ok());
        m_prepared = m_storage->restart();
        m_mirror.reset();
    }

    // The mirror as it was prepared, and its storage counted from here on.
    void openSlowly()
    {
        m_mirror.reset();
        std::unique_ptr<CrashStorage> storage = m_prepared->restart();
        m_storage = storage.get();
        auto slow = std::make_unique<SlowStorage>(std::move(storage), DELAY_US);
        m_slow = slow.get();
        const Result result = Mirror::openIn(std::move(slow), "mirror", MirrorAccess::Writer,
                                             JournalRecovery::Tail, &m_mirror);
        ASSERT_TRUE(result.ok()) << result.message();
    }

    // A power cut right now: all items are there, and read as they were.
    void expectNothingLost(const std::string& where)
    {
        std::unique_ptr<CrashStorage> storage = m_storage->crash(fate(0));
        m_mirror.reset();
        ASSERT_TRUE(open(std::move(storage), MirrorAccess::Writer).ok()) << where;
        ASSERT_EQ(m_mirror->window().m_items, m_items) << where;
        FlowControl control;
        std::unique_ptr<View> view;
        const Result built = View::build(*m_mirror, point(m_items), control, &view);
        ASSERT_TRUE(built.ok()) << where << ": " << built.message();
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        ViewReader reader(*view);
        ASSERT_EQ(reader.readNow(m_host.getEngine(), 0, BLOCKS, image.data()), RC_SUCCESS);
        ASSERT_EQ(image, m_images.back()) << where;
    }

    // begin() opens what the work needs; work() does it, and is told to stop by stop(), which is
    // called in the middle of a call of the storage.
    struct Work
    {
        std::function<void()> m_begin;
        std::function<Result()> m_work;
        std::function<void()> m_stop;
        std::function<void()> m_end;
    };

    // Asks for a stop at calls all over the work. Returns the calls of the whole work.
    u64 stopEverywhere(const Work& work, u64 mostCallsAfter)
    {
        u64 all = 0;
        u64 interrupted = 0;
        for (u64 at = ~u64{0}; at > 0;) {
            openSlowly();
            work.m_begin();
            if (HasFatalFailure())
                return 0;
            m_slow->start([&](u64 call) {
                if (call == at)
                    work.m_stop();
            });
            const Result result = work.m_work();
            const u64 calls = m_slow->calls();
            m_slow->start({});
            const std::string where = "stopped at call " + std::to_string(at);
            EXPECT_TRUE(result.ok() || result.code() == ResultCode::Interrupted)
                << where << ": " << result.message();
            work.m_end();
            if (at == ~u64{0}) {
                EXPECT_TRUE(result.ok()) << result.message();
                all = calls;
                at = calls;
            } else {
                EXPECT_LE(calls - std::min(calls, at), mostCallsAfter) << where;
                interrupted += !result.ok();
            }
            expectNothingLost(where);
            if (HasFatalFailure())
                return 0;
            at -= std::max<u64>(1, std::min(at, all / PLACES));
        }
        EXPECT_GT(interrupted, PLACES / 8);
        return all;
    }

    std::unique_ptr<CrashStorage> m_prepared;
    SlowStorage* m_slow = nullptr; // the mirror's, when opened slowly
    u64 m_items = 0;
    std::atomic<bool> m_stop{false};
};

TEST_F(StopsTest, AnApply)
{
    prepare(300);
    ApplyOptions options;
    options.m_stepBlocks = 4;
    Work work;
    work.m_begin = [&] { m_stop = false; };
    work.m_work = [&] {
        FlagControl control(m_stop);
        ApplyStatistics statistics;
        return applyMirror(*m_mirror, m_host.getEngine(), point(m_items), options, control,
                           &statistics);
    };
    work.m_stop = [&] { m_stop = true; };
    work.m_end = [] {};
    // Two steps of four pieces each, read with their checksums and written; and the note of how far
    // it came.
    constexpr u64 MOST = 40;
    EXPECT_GT(stopEverywhere(work, MOST), 5 * MOST);
}

TEST_F(StopsTest, ATrim)
{
    prepare(120000);
    {
        openSlowly();
        FlowControl control;
        ApplyStatistics statistics;
        ASSERT_TRUE(applyMirror(*m_mirror, m_host.getEngine(), point(m_items), ApplyOptions(),
                                control, &statistics)
                        .ok());
        ASSERT_TRUE(m_mirror->close().ok());
        m_prepared = m_storage->restart();
    }
    std::unique_ptr<LiveVolume> live;
    Work work;
    work.m_begin = [&] {
        m_stop = false;
        FlowControl control;
        ASSERT_TRUE(LiveVolume::open(*m_mirror, control, &live).ok());
    };
    work.m_work = [&] {
        FlagControl control(m_stop);
        TrimStatistics statistics;
        return trimMirror(*m_mirror, m_host.getEngine(), point(m_items), TrimOptions(), control,
                          &statistics);
    };
    work.m_stop = [&] { m_stop = true; };
    work.m_end = [&] { live.reset(); };
    // What a new beginning takes, once it is decided: latch, uses, file, name.
    constexpr u64 MOST = 24;
    EXPECT_GT(stopEverywhere(work, MOST), 2 * MOST);
}

TEST_F(StopsTest, TheBuildOfAView)
{
    prepare(200000);
    std::unique_ptr<ViewShelf> shelf;
    Work work;
    work.m_begin = [&] { shelf = std::make_unique<ViewShelf>(*m_mirror, u64{1} << 30, true); };
    work.m_work = [&] {
        ViewShelf::Lease lease;
        return shelf->open(point(m_items), &lease);
    };
    work.m_stop = [&] { shelf->stop(); };
    work.m_end = [&] { shelf.reset(); };
    // The use is registered, and a megabyte of metadata read.
    stopEverywhere(work, 12);
}

TEST_F(StopsTest, TheBuildOfADiff)
{
    prepare(200000);
    std::unique_ptr<ViewShelf> shelf;
    std::unique_ptr<DiffMaps> maps;
    Work work;
    work.m_begin = [&] {
        shelf = std::make_unique<ViewShelf>(*m_mirror, u64{1} << 30, true);
        maps = std::make_unique<DiffMaps>(*m_mirror, *shelf);
    };
    work.m_work = [&] {
        std::shared_ptr<const DiffMaps::Extents> map;
        return maps->open(point(100), point(m_items), &map);
    };
    work.m_stop = [&] { maps->stop(); };
    work.m_end = [&] {
        maps.reset();
        shelf.reset();
    };
    // The use is registered, and the point searched by halves: 14 of 13000 pages.
    stopEverywhere(work, 12 + 2 * 14);
}

// A flush is not to be stopped; what waits for it is bounded by what the journal lets come
// together.
TEST_F(StopsTest, AFlushEndsByItself)
{
    prepare(0);
    for (const u64 pending : {u64{1}, u64{100}, u64{15000}}) {
        openSlowly();
        for (u64 i = 0; i < pending; ++i)
            ASSERT_TRUE(m_mirror->writeZeroes(i % (BLOCKS / 2), 1).ok());
        m_slow->start({});
        std::vector<std::thread> threads;
        std::atomic<u32> failures{0};
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] { failures += !m_mirror->flush().ok(); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(failures, 0u);
        EXPECT_LE(m_slow->calls(), 16u) << pending << " pending";
        m_items = 300 + pending;
        expectNothingLost(std::to_string(pending) + " pending");
        ASSERT_FALSE(HasFatalFailure());
    }
}

} // namespace
