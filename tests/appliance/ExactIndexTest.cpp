// Whatever was written, applied and trimmed beside one another, cut off or not: the live volume's
// index is, region by region, the one that a scan of the journal builds.

#include <atomic>
#include <thread>

#include "appliance/Apply.h"
#include "appliance/LiveVolume.h"
#include "appliance/Trim.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/ComesTrue.h"
#include "tests/support/Regions.h"

namespace {

// Stops at the n-th time that it is asked.
class StopsAfter : public FlowControl
{
public:
    explicit StopsAfter(u64 looks) : m_left(looks) {}
    bool stopRequested() override { return m_left == 0 || --m_left == 0; }

private:
    u64 m_left;
};

class ExactIndexTest : public MirrorFixture
{
protected:
    static constexpr u32 THREADS = 3;
    static constexpr u32 PLACE_BLOCKS = 8;    // that one thread has to itself, between the others'
    static constexpr u64 SHARED_BLOCKS = 512; // at the end, for all
    static constexpr u64 OWN_BLOCKS = BLOCKS - SHARED_BLOCKS;

    void TearDown() override
    {
        m_live.reset();
        MirrorFixture::TearDown();
    }

    void makeLive(Compression compression)
    {
        m_live.reset();
        m_mirror.reset();
        std::filesystem::remove_all(folder());
        makeMirror(compression);
        openLive();
        m_image.assign(BLOCKS * BLOCK_BYTES, 0);
    }

    void openLive()
    {
        m_live.reset();
        FlowControl control;
        const Result result = LiveVolume::open(*m_mirror, control, &m_live);
        ASSERT_TRUE(result.ok()) << result.message();
    }

    // One request of a thread: half of them zeroes, a quarter where others write as well.
    void request(u32 thread, std::mt19937& random)
    {
        const bool isShared = random() % 4 == 0;
        const u32 most = isShared ? 40 : PLACE_BLOCKS;
        const u32 length = 1 + random() % most;
        const u64 place = random() % (OWN_BLOCKS / PLACE_BLOCKS / THREADS) * THREADS + thread;
        const u64 offset = isShared ? OWN_BLOCKS + random() % (SHARED_BLOCKS - length)
                                    : place * PLACE_BLOCKS + random() % (PLACE_BLOCKS - length + 1);
        const u8 value = static_cast<u8>(random() % 2 == 0 ? 0 : 1 + random() % 255);
        const std::vector<u8> data(length * BLOCK_BYTES, value);
        m_failures += (value == 0 ? m_live->writeZeroes(offset, length)
                                  : m_live->write(offset, data.data(), length)) != RC_SUCCESS;
        if (!isShared)
            std::copy(data.begin(), data.end(),
                      m_image.begin() + static_cast<long>(offset * BLOCK_BYTES));
        if (random() % 20 == 0)
            m_failures += m_live->flush() != RC_SUCCESS;
        CpId_t id = 0;
        if (random() % 60 == 0)
            m_failures += !m_mirror->checkpoint("", &id).ok();
    }

    std::vector<std::thread> startWriters(u32 seed, u32 requests)
    {
        std::vector<std::thread> threads;
        for (u32 thread = 0; thread < THREADS; ++thread) {
            threads.emplace_back([this, thread, seed, requests] {
                std::mt19937 random(seed * THREADS + thread);
                for (u32 i = 0; i < requests; ++i)
                    request(thread, random);
            });
        }
        return threads;
    }

    static ChosenPoint point(u64 items)
    {
        ChosenPoint chosen;
        chosen.m_items = items;
        return chosen;
    }

    void apply(u64 items)
    {
        FlowControl control;
        ApplyStatistics statistics;
        const Result result = applyMirror(*m_mirror, m_host.getEngine(), point(items),
                                          ApplyOptions(), control, &statistics);
        ASSERT_TRUE(result.ok()) << result.message();
    }

    void trim(u64 items, FlowControl& control)
    {
        TrimStatistics statistics;
        const Result result = trimMirror(*m_mirror, m_host.getEngine(), point(items), TrimOptions(),
                                         control, &statistics);
        ASSERT_TRUE(result.ok() || result.code() == ResultCode::Interrupted) << result.message();
        m_trimmed += statistics.m_items;
        m_cutOff += !result.ok();
    }

    Image readLive()
    {
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        EXPECT_EQ(m_live->read(0, BLOCKS, image.data()), RC_SUCCESS);
        return image;
    }

    // REQUIRES: nobody writes, and the last trim was not cut off.
    void expectExact(const std::string& where)
    {
        ASSERT_EQ(m_live->flush(), RC_SUCCESS);
        const std::unique_ptr<View> scanned = view(m_mirror->journal().itemCount());
        ASSERT_NE(scanned, nullptr);
        ASSERT_EQ(m_live->pieces(0, BLOCKS), scanned->pieces(0, BLOCKS)) << where;
        const Image image = readLive();
        ASSERT_EQ(readAll(*scanned), image) << where;
        const long own = static_cast<long>(OWN_BLOCKS * BLOCK_BYTES);
        ASSERT_TRUE(std::equal(m_image.begin(), m_image.begin() + own, image.begin())) << where;
    }

    std::unique_ptr<LiveVolume> m_live;
    Image m_image; // each thread has its own places in it
    std::atomic<u32> m_failures{0};
    u64 m_trimmed = 0; // items
    u64 m_cutOff = 0;  // trims
};

TEST_F(ExactIndexTest, BesideWritersAppliesAndTrims)
{
    for (u32 seed = 1; seed <= 3; ++seed) {
        makeLive(seed == 2 ? Compression::Lz4 : Compression::None);
        std::mt19937 random(seed);
        for (u32 round = 0; round < 15; ++round) {
            const std::string where =
                "seed:" + std::to_string(seed) + " round:" + std::to_string(round);
            // Few candidates at a time, so that passes follow one another.
            m_mirror->trimmedZeroes().setMaxRanges(seed == 3 ? 1 + random() % 30
                                                             : TrimmedZeroes::MAX_RANGES);
            // What a view shows stays, whatever goes on below it.
            ASSERT_EQ(m_live->flush(), RC_SUCCESS);
            const u64 viewItems = m_mirror->journal().itemCount();
            const std::unique_ptr<View> older = round % 3 == 2 ? view(viewItems) : nullptr;
            const Image olderImage = readLive();

            std::vector<std::thread> writers = startWriters(seed * 100 + round, 120);
            for (int job = 0; job < 4; ++job) {
                // In the middle of what the writers do, however slow they are.
                ASSERT_TRUE(comesTrue(
                    [&] { return m_mirror->journal().itemCount() >= viewItems + 60 * (job + 1); }));
                ASSERT_EQ(m_live->flush(), RC_SUCCESS);
                const u64 applied = m_mirror->applyState().m_items;
                const u64 last =
                    older != nullptr ? viewItems : m_mirror->journal().durableItemCount();
                const u64 to = std::max(applied, last - std::min<u64>(last, random() % 100));
                ASSERT_NO_FATAL_FAILURE(apply(to));
                StopsAfter control(random() % 2 == 0 ? 1 + random() % 12 : ~u64{0});
                ASSERT_NO_FATAL_FAILURE(trim(to - std::min<u64>(to, random() % 30), control));
            }
            for (std::thread& writer : writers)
                writer.join();
            FlowControl control;
            ASSERT_NO_FATAL_FAILURE(trim(m_mirror->applyState().m_items, control));
            ASSERT_NO_FATAL_FAILURE(expectExact(where));
            if (older != nullptr) {
                ASSERT_EQ(readAll(*older), olderImage) << where;
            }
        }
        const Regions before = m_live->pieces(0, BLOCKS);
        m_live.reset();
        openMirror();
        openLive();
        EXPECT_EQ(m_live->pieces(0, BLOCKS), before);
        ASSERT_NO_FATAL_FAILURE(expectExact("opened anew"));
    }
    EXPECT_EQ(m_failures, 0u);
    EXPECT_GT(m_trimmed, 5000u);
    EXPECT_GT(m_cutOff, 10u);
}

// Zeroes that nobody has written over, in more places than one pass takes.
TEST_F(ExactIndexTest, InAsManyPassesAsItTakes)
{
    makeLive(Compression::None);
    m_mirror->trimmedZeroes().setMaxRanges(5);
    for (u64 block = 0; block < BLOCKS; block += 8)
        ASSERT_EQ(m_live->writeZeroes(block, 4), RC_SUCCESS);
    ASSERT_EQ(m_live->flush(), RC_SUCCESS);
    const u64 items = m_mirror->journal().itemCount();
    // Every third of them goes on as another item, in its middle.
    for (u64 block = 1; block < BLOCKS; block += 24)
        ASSERT_EQ(m_live->writeZeroes(block, 1), RC_SUCCESS);
    ASSERT_EQ(m_live->flush(), RC_SUCCESS);
    ASSERT_NO_FATAL_FAILURE(apply(items));
    FlowControl control;
    ASSERT_NO_FATAL_FAILURE(trim(items, control));
    EXPECT_EQ(m_trimmed, items);
    EXPECT_FALSE(m_mirror->trimmedZeroes().hasNoted());
    EXPECT_EQ(m_live->locator().getItemCount(), (BLOCKS + 22) / 24);
    ASSERT_NO_FATAL_FAILURE(expectExact("after one trim"));
}

} // namespace
