#include "appliance/DiffMaps.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "host/infra/Clock.h"
#include "tests/appliance/ServedFixture.h"
#include "tests/support/ComesTrue.h"

namespace {

using Map = std::shared_ptr<const DiffMaps::Extents>;

ChosenPoint point(u64 items)
{
    ChosenPoint chosen;
    chosen.m_items = items;
    return chosen;
}

class DiffMapsTest : public MirrorFixture
{
protected:
    static constexpr u64 PLENTY = u64{1} << 30;
    static constexpr u32 ITEMS = 400;

    struct Opened
    {
        Result m_result;
        Map m_map;
    };

    void SetUp() override
    {
        MirrorFixture::SetUp();
        makeMirror();
        // Every other block, so that each item is an extent.
        const std::vector<u8> data(BLOCK_BYTES, 5);
        for (u64 i = 0; i < ITEMS; ++i)
            ASSERT_TRUE(m_mirror->write(i * 2, data.data(), 1).ok());
    }

    void TearDown() override
    {
        m_maps.reset();
        m_shelf.reset();
        MirrorFixture::TearDown();
    }

    void makeMaps(u64 budgetBytes = PLENTY, bool keepsUnused = true)
    {
        m_maps.reset();
        m_shelf = std::make_unique<ViewShelf>(*m_mirror, budgetBytes, keepsUnused);
        m_maps = std::make_unique<DiffMaps>(*m_mirror, *m_shelf);
    }

    void makeMapsBy(DiffMaps::Maker maker)
    {
        m_shelf = std::make_unique<ViewShelf>(*m_mirror, PLENTY, true);
        m_maps = std::make_unique<DiffMaps>(*m_shelf, std::move(maker));
    }

    Opened open(u64 from, u64 to)
    {
        Opened opened;
        opened.m_result = m_maps->open(point(from), point(to), &opened.m_map);
        return opened;
    }

    std::future<Opened> openAside(u64 from, u64 to)
    {
        return std::async(std::launch::async, [=, this] { return open(from, to); });
    }

    // The most that a build of the map asks for.
    u64 peakBytes(u64 from, u64 to)
    {
        u64 peak = 0;
        FlowControl control;
        std::vector<DiffExtent> extents;
        EXPECT_TRUE(m_mirror->flush().ok());
        EXPECT_TRUE(
            diffPoints(*m_mirror, point(from), point(to), control, &extents, [&](u64 bytes) {
                peak = std::max(peak, bytes);
                return true;
            }).ok());
        return peak;
    }

    std::unique_ptr<ViewShelf> m_shelf;
    std::unique_ptr<DiffMaps> m_maps;
};

// Makes maps of one extent that tells which one it is; those from point 7 wait to be let go, and
// end with an exception where they are told to.
class SlowMaker
{
public:
    Result operator()(const ChosenPoint& from, const ChosenPoint& to, FlowControl& control,
                      DiffMaps::Extents* extents)
    {
        ++m_made;
        if (from.m_items == 7) {
            while (!m_mayEnd && !control.stopRequested())
                std::this_thread::yield();
            if (control.stopRequested())
                return Result(ResultCode::Interrupted, "interrupted");
            if (m_throws.exchange(false))
                throw std::runtime_error("no map");
        }
        extents->push_back({from.m_items, to.m_items, false});
        return Result();
    }
    DiffMaps::Maker maker()
    {
        return [this](const ChosenPoint& from, const ChosenPoint& to, FlowControl& control,
                      const DiffAdmits&,
                      DiffMaps::Extents* extents) { return (*this)(from, to, control, extents); };
    }
    void awaitMade(u32 count) const
    {
        while (m_made < count)
            std::this_thread::yield();
    }

    std::atomic<u32> m_made{0}; // begun
    std::atomic<bool> m_mayEnd{false};
    std::atomic<bool> m_throws{false};
};

// Long enough for threads that have been started to come to where they wait; one that comes later
// makes a test see less, not fail.
void giveOthersTime()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

TEST_F(DiffMapsTest, OpenersOfOneMapShareOneBuild)
{
    SlowMaker slow;
    makeMapsBy(slow.maker());
    std::vector<std::future<Opened>> opening;
    for (int i = 0; i < 4; ++i)
        opening.push_back(openAside(7, 9));
    slow.awaitMade(1);
    giveOthersTime();
    EXPECT_EQ(slow.m_made, 1u);
    slow.m_mayEnd = true;
    const Opened first = opening[0].get();
    ASSERT_TRUE(first.m_result.ok());
    for (size_t i = 1; i < opening.size(); ++i)
        EXPECT_EQ(opening[i].get().m_map, first.m_map);
    EXPECT_EQ(open(7, 9).m_map, first.m_map);
    EXPECT_EQ(slow.m_made, 1u);
    EXPECT_EQ(m_maps->memoryBytes(), first.m_map->capacity() * sizeof(DiffExtent));
}

TEST_F(DiffMapsTest, AMapIsFreedWithItsLastUser)
{
    SlowMaker slow;
    makeMapsBy(slow.maker());
    Opened opened = open(1, 9);
    EXPECT_GT(m_maps->memoryBytes(), 0u);
    opened.m_map.reset();
    EXPECT_EQ(m_maps->memoryBytes(), 0u);
    EXPECT_TRUE(open(1, 9).m_result.ok());
    EXPECT_EQ(slow.m_made, 2u);
}

TEST_F(DiffMapsTest, OtherMapsGoOnWhileOneIsBuilt)
{
    SlowMaker slow;
    makeMapsBy(slow.maker());
    const Opened ready = open(1, 2);
    std::future<Opened> slowOne = openAside(7, 9);
    slow.awaitMade(2);
    std::future<Opened> sameOne = openAside(1, 2);
    std::future<Opened> otherOne = openAside(3, 4);
    EXPECT_EQ(sameOne.wait_for(FAR_END), std::future_status::ready);
    EXPECT_EQ(otherOne.wait_for(FAR_END), std::future_status::ready);
    EXPECT_EQ(slowOne.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    slow.m_mayEnd = true;
    EXPECT_EQ(sameOne.get().m_map, ready.m_map);
    EXPECT_EQ(otherOne.get().m_map->front().m_offsetBlocks, 3u);
    EXPECT_EQ(slowOne.get().m_map->front().m_offsetBlocks, 7u);
}

TEST_F(DiffMapsTest, ABuildThatEndsWithAnExceptionWakesWhoWaits)
{
    SlowMaker slow;
    slow.m_throws = true;
    makeMapsBy(slow.maker());
    std::vector<std::future<Opened>> opening;
    for (int i = 0; i < 3; ++i)
        opening.push_back(openAside(7, 9));
    slow.awaitMade(1);
    giveOthersTime();
    slow.m_mayEnd = true;
    u32 thrown = 0;
    for (std::future<Opened>& one : opening) {
        try {
            EXPECT_TRUE(one.get().m_result.ok()) << "who waited builds it itself";
        } catch (const std::runtime_error&) {
            ++thrown;
        }
    }
    EXPECT_EQ(thrown, 1u);
    EXPECT_EQ(m_maps->memoryBytes(), 0u);

    slow.m_throws = true;
    EXPECT_THROW(open(7, 8), std::runtime_error);
    EXPECT_EQ(m_maps->memoryBytes(), 0u);
    EXPECT_TRUE(open(7, 8).m_result.ok());
}

TEST_F(DiffMapsTest, AStopEndsABuildAndThoseThatWaitForIt)
{
    SlowMaker slow;
    makeMapsBy(slow.maker());
    std::future<Opened> builder = openAside(7, 9);
    slow.awaitMade(1);
    std::future<Opened> waiter = openAside(7, 9);
    giveOthersTime();
    m_maps->stop();
    EXPECT_EQ(builder.get().m_result.code(), ResultCode::Interrupted);
    EXPECT_EQ(waiter.get().m_result.code(), ResultCode::Interrupted);
    EXPECT_EQ(open(1, 2).m_result.code(), ResultCode::Interrupted);
    EXPECT_EQ(slow.m_made, 1u) << "none begins any more";
    EXPECT_EQ(m_maps->memoryBytes(), 0u);
}

// Of a real map: whenever the stop comes, in the scan or after it, it is not finished.
TEST_F(DiffMapsTest, AStopEndsTheScanAndTheListing)
{
    ASSERT_TRUE(m_mirror->flush().ok());
    for (u32 lookOfStop = 1; lookOfStop <= 2; ++lookOfStop) {
        class StopAt : public FlowControl
        {
        public:
            explicit StopAt(u32 look) : m_look(look) {}
            bool stopRequested() override { return ++m_looks >= m_look; }

        private:
            const u32 m_look;
            u32 m_looks = 0;
        } control(lookOfStop);
        std::vector<DiffExtent> extents;
        EXPECT_EQ(diffPoints(*m_mirror, point(0), point(ITEMS), control, &extents).code(),
                  ResultCode::Interrupted)
            << lookOfStop;
    }
    makeMapsBy([&](const ChosenPoint& from, const ChosenPoint& to, FlowControl& control,
                   const DiffAdmits& admits, DiffMaps::Extents* extents) {
        return diffPoints(*m_mirror, from, to, control, extents, [&](u64 bytes) {
            m_maps->stop();
            return admits(bytes);
        });
    });
    EXPECT_EQ(open(0, ITEMS).m_result.code(), ResultCode::Interrupted);
}

TEST_F(DiffMapsTest, ADiffEndsWhereItsMemoryIsRefused)
{
    ASSERT_TRUE(m_mirror->flush().ok());
    u32 asked = 0;
    u32 refusedAt = ~u32{0};
    const auto diff = [&] {
        asked = 0;
        FlowControl control;
        std::vector<DiffExtent> extents;
        const Result result = diffPoints(*m_mirror, point(0), point(ITEMS), control, &extents,
                                         [&](u64) { return ++asked < refusedAt; });
        EXPECT_EQ(extents.capacity(), result.ok() ? ITEMS : 0u) << "as much as was asked for";
        return result.code();
    };
    EXPECT_EQ(diff(), ResultCode::Done);
    const u32 all = asked;
    ASSERT_GE(all, 2u) << "in the scan, and before the extents are allocated";
    for (refusedAt = 1; refusedAt <= all; ++refusedAt)
        EXPECT_EQ(diff(), ResultCode::Interrupted) << refusedAt << " of " << all;
}

TEST_F(DiffMapsTest, AMapThatDoesNotFitIsRefusedUntilOthersHaveGone)
{
    const u64 peak = peakBytes(0, ITEMS);
    constexpr u64 MAP_BYTES = ITEMS * sizeof(DiffExtent);
    ASSERT_GT(peak, MAP_BYTES) << "the index counts too";
    makeMaps(peak + MAP_BYTES / 2);
    Opened first = open(0, ITEMS);
    ASSERT_TRUE(first.m_result.ok()) << first.m_result.message();
    EXPECT_EQ(m_maps->memoryBytes(), MAP_BYTES);

    const Opened refused = open(1, ITEMS);
    EXPECT_EQ(refused.m_result.code(), ResultCode::NoSpace);
    EXPECT_NE(refused.m_result.message().find("budget"), std::string::npos)
        << refused.m_result.message();
    EXPECT_EQ(refused.m_map, nullptr);
    EXPECT_EQ(m_maps->memoryBytes(), MAP_BYTES) << "nothing of it is left";
    EXPECT_EQ(open(0, ITEMS).m_map, first.m_map) << "what is open is not touched";

    first.m_map.reset();
    const Opened second = open(1, ITEMS);
    ASSERT_TRUE(second.m_result.ok()) << second.m_result.message();
    EXPECT_EQ(second.m_map->size(), ITEMS - 1);
}

TEST_F(DiffMapsTest, ViewsThatNobodyHasOpenStepAsideForAMap)
{
    const u64 peak = peakBytes(0, ITEMS);
    makeMaps();
    ViewShelf::Lease lease;
    ASSERT_TRUE(m_shelf->open(point(ITEMS), &lease).ok());
    const u64 viewBytes = m_shelf->report().m_bytes;
    lease = ViewShelf::Lease();
    makeMaps(peak + viewBytes - 1);
    ASSERT_TRUE(m_shelf->open(point(ITEMS), &lease).ok());
    EXPECT_EQ(open(0, ITEMS).m_result.code(), ResultCode::NoSpace) << "the view is open";
    lease = ViewShelf::Lease();
    EXPECT_EQ(m_shelf->report().m_views, 1u);
    const Opened opened = open(0, ITEMS);
    EXPECT_TRUE(opened.m_result.ok()) << opened.m_result.message();
    EXPECT_EQ(m_shelf->report().m_views, 0u);
}

TEST_F(DiffMapsTest, ManyOpenersAtATimeGetTrueMapsOrARefusal)
{
    makeMaps(peakBytes(0, ITEMS) * 2);
    constexpr u32 THREADS = 6;
    std::atomic<u32> failures{0};
    std::atomic<u32> successes{0};
    std::vector<std::thread> threads;
    for (u32 id = 0; id < THREADS; ++id) {
        threads.emplace_back([&, id] {
            for (u64 i = 0; i < 40; ++i) {
                const u64 from = (i * 7 + id / 2) % 5;
                const u64 to = from + 100 * (1 + i % 3);
                const Opened opened = open(from, to);
                if (opened.m_result.ok()) {
                    ++successes;
                    failures += opened.m_map->size() != to - from ||
                                opened.m_map->front().m_offsetBlocks != from * 2;
                } else {
                    failures += opened.m_result.code() != ResultCode::NoSpace;
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_GT(successes, 0u);
    EXPECT_EQ(m_maps->memoryBytes(), 0u);
}

TEST_F(DiffMapsTest, AStopAmidManyOpenersLeavesNothing)
{
    makeMaps();
    std::atomic<u32> failures{0};
    std::atomic<u32> interrupted{0};
    std::atomic<u32> opens{0};
    std::vector<std::thread> threads;
    for (u32 id = 0; id < 4; ++id) {
        threads.emplace_back([&, id] {
            for (u64 i = 0;; ++i) {
                const Opened opened = open((i + id) % 3, ITEMS);
                ++opens;
                if (opened.m_result.code() == ResultCode::Interrupted) {
                    ++interrupted;
                    return;
                }
                failures += !opened.m_result.ok();
            }
        });
    }
    while (opens < 20)
        std::this_thread::yield();
    m_maps->stop();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_EQ(interrupted, 4u);
    EXPECT_EQ(m_maps->memoryBytes(), 0u);
}

class DiffMapsOfAServerTest : public ServedFixture
{};

TEST_F(DiffMapsOfAServerTest, EndWithTheServer)
{
    makeMirror();
    writeRandomly(1, 20);
    serve();
    Map map;
    ASSERT_TRUE(m_served->diffs().open(point(3), point(20), &map).ok());
    map.reset();
    ASSERT_TRUE(m_served->seal(Clock::NEVER).ok());
    EXPECT_EQ(m_served->diffs().open(point(3), point(20), &map).code(), ResultCode::Interrupted);
}

} // namespace
