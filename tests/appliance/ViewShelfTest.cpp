#include "appliance/ViewShelf.h"

#include <atomic>
#include <thread>

#include "appliance/Apply.h"
#include "appliance/DiffMaps.h"
#include "appliance/Trim.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/ComesTrue.h"
#include "tests/support/Regions.h"

namespace {

class ViewShelfTest : public MirrorFixture
{
protected:
    static constexpr u64 PLENTY = u64{1} << 30;

    void TearDown() override
    {
        m_shelf.reset();
        MirrorFixture::TearDown();
    }

    void makeShelf(u64 budgetBytes = PLENTY, bool keepsUnused = true)
    {
        m_shelf = std::make_unique<ViewShelf>(*m_mirror, budgetBytes, keepsUnused);
    }

    static ChosenPoint point(u64 items)
    {
        ChosenPoint chosen;
        chosen.m_items = items;
        return chosen;
    }

    ViewShelf::Lease open(u64 items)
    {
        ViewShelf::Lease lease;
        const Result result = m_shelf->open(point(items), &lease);
        EXPECT_TRUE(result.ok()) << result.message();
        return lease;
    }

    static Image read(const ViewShelf::Lease& lease)
    {
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        EXPECT_EQ(lease->reader().read(0, BLOCKS, image.data()), RC_SUCCESS);
        return image;
    }

    std::unique_ptr<ViewShelf> m_shelf;
};

TEST_F(ViewShelfTest, EveryPointReadsAsItWasInWhateverOrderTheyAreOpened)
{
    for (const Compression compression : {Compression::None, Compression::Zstd}) {
        m_shelf.reset();
        m_mirror.reset();
        m_images.resize(1);
        std::filesystem::remove_all(folder());
        makeMirror(compression);
        writeRandomly(1, 200);
        makeShelf();
        std::mt19937 random(5);
        for (int i = 0; i < 60; ++i) {
            const u64 items = random() % m_images.size();
            ASSERT_EQ(read(open(items)), m_images[items]) << items;
        }
        EXPECT_GT(m_shelf->report().m_continued, 0u);
        EXPECT_LT(m_shelf->report().m_continued, m_shelf->report().m_built);
    }
}

TEST_F(ViewShelfTest, ConnectionsToOnePointShareItsView)
{
    makeMirror();
    writeRandomly(2, 100);
    makeShelf();
    constexpr u32 THREADS = 6;
    const Image images[] = {m_images[50], m_images[90]};
    std::atomic<u32> failures{0};
    std::vector<std::thread> threads;
    for (u32 id = 0; id < THREADS; ++id) {
        threads.emplace_back([&, id] {
            for (u64 i = 0; i < 20; ++i) {
                ViewShelf::Lease lease;
                failures += !m_shelf->open(point(id % 2 == 0 ? 50 : 90), &lease).ok();
                failures += read(lease) != images[id % 2];
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0u);
    const ViewShelfReport report = m_shelf->report();
    EXPECT_EQ(report.m_built, 2u);
    EXPECT_EQ(report.m_views, 2u);
    EXPECT_EQ(report.m_open, 0u);
    EXPECT_GT(report.m_bytes, 0u);
}

TEST_F(ViewShelfTest, TheBudgetDropsWhatWasUsedLeastRecentlyAndNeverWhatIsOpen)
{
    makeMirror();
    writeRandomly(3, 120);
    makeShelf();
    open(40);
    const u64 oneBytes = m_shelf->report().m_bytes;
    ASSERT_GT(oneBytes, 0u);
    makeShelf(oneBytes * 2 + oneBytes / 2);
    open(42);
    open(40);
    open(41); // drops 42
    ViewShelfReport report = m_shelf->report();
    EXPECT_EQ(report.m_dropped, 1u);
    EXPECT_EQ(report.m_views, 2u);
    EXPECT_LE(report.m_bytes, report.m_budgetBytes);
    open(40);
    EXPECT_EQ(m_shelf->report().m_built, 3u) << "40 was still there";

    ViewShelf::Lease first = open(40);
    ViewShelf::Lease second = open(41);
    ViewShelf::Lease third;
    const Result refused = m_shelf->open(point(43), &third);
    EXPECT_EQ(refused.code(), ResultCode::NoSpace);
    EXPECT_NE(refused.message().find("budget"), std::string::npos) << refused.message();
    EXPECT_FALSE(third);
    EXPECT_EQ(read(first), m_images[40]) << "what is open is not touched";
    first = ViewShelf::Lease();
    EXPECT_EQ(read(open(43)), m_images[43]);
    EXPECT_EQ(read(second), m_images[41]);
}

// It stays in memory until it is copied, so it is neither dropped nor not counted.
TEST_F(ViewShelfTest, AViewThatAnotherGoesOnFromTakesPartInTheBudget)
{
    makeMirror();
    // Overwritten time and again, so that going on is cheaper by far.
    const std::vector<u8> data(BLOCK_BYTES);
    constexpr u64 SPREAD = 300;
    for (u64 i = 0; i < 4 * SPREAD; ++i) {
        ASSERT_TRUE(m_mirror->write(i % SPREAD * 2, data.data(), 1).ok());
        m_images.addSame();
    }
    ASSERT_TRUE(m_mirror->flush().ok());
    const u64 last = m_images.size() - 1;
    makeShelf();
    open(last - 1);
    const u64 oneBytes = m_shelf->report().m_bytes;
    ASSERT_GT(oneBytes, 0u);
    ViewShelf::Lease kept = open(last);
    ASSERT_EQ(m_shelf->report().m_continued, 1u);
    ASSERT_EQ(m_shelf->report().m_dropped, 0u);
    kept = ViewShelf::Lease();

    makeShelf(oneBytes + oneBytes / 2); // no room for both
    open(last - 1);
    EXPECT_EQ(read(open(last)), m_images[last]);
    ViewShelfReport report = m_shelf->report();
    EXPECT_EQ(report.m_continued, 0u) << "beside it there was no room";
    EXPECT_EQ(report.m_dropped, 1u);
    EXPECT_EQ(report.m_views, 1u);
    EXPECT_EQ(report.m_open, 0u);
    EXPECT_LE(report.m_bytes, report.m_budgetBytes);

    makeShelf(oneBytes + oneBytes / 2);
    kept = open(last - 1);
    ViewShelf::Lease refused;
    EXPECT_EQ(m_shelf->open(point(last), &refused).code(), ResultCode::NoSpace);
    EXPECT_EQ(read(kept), m_images[last - 1]);
    EXPECT_EQ(m_shelf->report().m_views, 1u);
}

// The memory that a writer asks for is not there before the copy is done.
TEST_F(ViewShelfTest, AViewThatAnotherGoesOnFromIsNotDropped)
{
    makeMirror();
    const std::vector<u8> data(BLOCK_BYTES);
    for (u64 i = 0; i < 100; ++i) {
        ASSERT_TRUE(m_mirror->write(0, data.data(), 1).ok());
        m_images.addSame();
    }
    ASSERT_TRUE(m_mirror->flush().ok());
    makeShelf();
    open(99);
    u64 dropped = 0;
    std::thread opener;
    {
        // The build stands until it has copied, and with it whoever goes on from the view.
        FlowControl control;
        IndexTurns::Turn turn(m_mirror->indexTurns(), IndexTurns::Kind::Removal);
        ASSERT_TRUE(turn.take(control));
        opener = std::thread([&] { open(100); });
        EXPECT_TRUE(comesTrue([&] { return m_shelf->report().m_open != 0; }));
        EXPECT_EQ(m_shelf->report().m_open, 1u);
        dropped = m_shelf->dropUnused(~u64{0});
    }
    opener.join();
    EXPECT_EQ(dropped, 0u);
    EXPECT_EQ(m_shelf->report().m_continued, 1u);
    EXPECT_EQ(m_shelf->dropUnused(~u64{0}), 2u);
}

TEST_F(ViewShelfTest, FewStayThatNobodyHasOpenHoweverSmall)
{
    makeMirror();
    writeRandomly(3, 60);
    makeShelf();
    for (u64 items = 1; items <= 60; ++items)
        EXPECT_EQ(read(open(items)), m_images[items]);
    EXPECT_EQ(m_shelf->report().m_views, 32u);
    std::vector<ViewShelf::Lease> leases;
    for (u64 items = 1; items <= 60; ++items)
        leases.push_back(open(items));
    EXPECT_EQ(m_shelf->report().m_views, 60u) << "what is open stays";
    leases.clear();
    EXPECT_EQ(m_shelf->report().m_views, 32u);
}

TEST_F(ViewShelfTest, FilesAreABudgetTooThatConnectionsShare)
{
    makeMirror();
    writeRandomly(3, 12);
    FileBudget files(8);
    m_shelf = std::make_unique<ViewShelf>(*m_mirror, PLENTY, true, &files);
    FileBudget::Share connections;
    ASSERT_TRUE(connections.take(&files, 3));
    std::vector<ViewShelf::Lease> leases;
    for (u64 items = 1; items <= 3; ++items)
        leases.push_back(open(items));
    EXPECT_EQ(files.taken(), 6u) << "a view keeps one when it is built";
    ViewShelf::Lease refused;
    const Result result = m_shelf->open(point(4), &refused);
    EXPECT_EQ(result.code(), ResultCode::NoSpace);
    EXPECT_NE(result.message().find("the files that may be open"), std::string::npos)
        << result.message();
    EXPECT_EQ(files.taken(), 6u);
    EXPECT_EQ(read(open(2)), m_images[2]) << "what is open takes none";

    // One that nobody has open any more gives its own for another.
    leases.pop_back();
    EXPECT_EQ(read(open(4)), m_images[4]);
    EXPECT_EQ(m_shelf->report().m_dropped, 1u);
    FlowControl control;
    EXPECT_TRUE(m_shelf->useAlone(point(5), control, [](View&) { return Result(); }).ok());
    EXPECT_EQ(m_shelf->report().m_dropped, 2u);
    EXPECT_EQ(files.taken(), 5u);

    FileBudget::Share late;
    EXPECT_TRUE(late.take(&files, 3));
    EXPECT_FALSE(FileBudget::Share().take(&files, 1)) << "a connection has none left either";
    leases.clear();
    m_shelf.reset();
    connections.keep(1);
    EXPECT_EQ(files.taken(), 4u);
}

TEST_F(ViewShelfTest, UnusedViewsStepOutOfApplysWay)
{
    makeMirror();
    writeRandomly(4, 80);
    makeShelf();
    open(20);
    ViewShelf::Lease used = open(60);
    FlowControl control;
    ApplyStatistics statistics;
    EXPECT_EQ(
        applyMirror(*m_mirror, m_host.getEngine(), point(50), ApplyOptions(), control, &statistics)
            .code(),
        ResultCode::InUse);
    EXPECT_EQ(m_shelf->dropUnused(50), 1u);
    EXPECT_TRUE(
        applyMirror(*m_mirror, m_host.getEngine(), point(50), ApplyOptions(), control, &statistics)
            .ok());
    EXPECT_EQ(m_shelf->dropUnused(80), 0u) << "it is open";
    EXPECT_EQ(read(used), m_images[60]);
    ViewShelf::Lease passed;
    EXPECT_EQ(m_shelf->open(point(20), &passed).code(), ResultCode::NotFound);
    EXPECT_EQ(m_shelf->report().m_views, 1u) << "a view that cannot be built leaves nothing";
}

TEST_F(ViewShelfTest, OfAReaderNothingStaysThatNobodyHasOpen)
{
    makeMirror();
    writeRandomly(5, 40);
    openMirror(MirrorAccess::Reader);
    makeShelf(PLENTY, false);
    {
        ViewShelf::Lease one = open(30);
        ViewShelf::Lease two = open(30);
        EXPECT_EQ(read(one), m_images[30]);
        EXPECT_EQ(m_shelf->report().m_open, 1u);
    }
    EXPECT_EQ(m_shelf->report().m_views, 0u);
    EXPECT_EQ(m_shelf->report().m_bytes, 0u);
}

TEST_F(ViewShelfTest, StoppingEndsWhatIsBuilt)
{
    makeMirror();
    writeRandomly(6, 40);
    makeShelf();
    m_shelf->stop();
    ViewShelf::Lease lease;
    EXPECT_EQ(m_shelf->open(point(30), &lease).code(), ResultCode::Interrupted);
}

TEST_F(ViewShelfTest, ViewsStayTrueWhileTheJournalIsTrimmedAndOthersGoOnFromThem)
{
    MirrorSettings settings;
    settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    // Large enough that grains fill up, and go.
    std::mt19937 random(7);
    Image image(BLOCKS * BLOCK_BYTES);
    for (u32 i = 0; i < 120; ++i) {
        const u32 length = 1800 + random() % 200;
        const u64 offset = random() % (BLOCKS - length);
        std::fill_n(image.data() + offset * BLOCK_BYTES, size_t{length} * BLOCK_BYTES,
                    static_cast<u8>(1 + random() % 255));
        ASSERT_TRUE(m_mirror->write(offset, image.data() + offset * BLOCK_BYTES, length).ok());
        m_images.add(image, offset * BLOCK_BYTES, u64{length} * BLOCK_BYTES);
    }
    ASSERT_TRUE(m_mirror->flush().ok());
    makeShelf();
    ViewShelf::Lease kept = open(100);
    std::atomic<bool> stop{false};
    std::atomic<u32> failures{0};
    std::thread reader([&] {
        while (!stop)
            failures += read(kept) != m_images[100];
    });
    std::thread opener([&] {
        for (u64 i = 0; !stop; ++i) {
            ViewShelf::Lease lease;
            const u64 items = 101 + i % 20;
            const Result result = m_shelf->open(point(items), &lease);
            failures += result.ok() && read(lease) != m_images[items];
            // A trim that has begun, or not yet ended, keeps builds and itself apart.
            failures += !result.ok() && result.code() != ResultCode::InUse;
            lease = ViewShelf::Lease();
            m_shelf->dropUnused(121);
        }
    });
    u64 removed = 0;
    for (u64 to = 10; to <= 100; to += 10) {
        FlowControl control;
        ApplyStatistics applied;
        ASSERT_TRUE(
            applyMirror(*m_mirror, m_host.getEngine(), point(to), ApplyOptions(), control, &applied)
                .ok());
        // While a view is built the trim is refused.
        Result result;
        const bool came = comesTrue([&] {
            TrimStatistics trimmed;
            result = trimMirror(*m_mirror, m_host.getEngine(), point(to), TrimOptions(), control,
                                &trimmed);
            removed += trimmed.m_removedIos;
            return result.code() != ResultCode::InUse;
        });
        EXPECT_TRUE(came && result.ok()) << result.message();
    }
    stop = true;
    reader.join();
    opener.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_GT(removed, 0u);
    EXPECT_GT(m_mirror->journal().begin().m_items, 0u);
    EXPECT_EQ(read(kept), m_images[100]);
    EXPECT_EQ(read(open(120)), m_images[120]);
}

TEST_F(ViewShelfTest, DiffMapsAreSharedAndBounded)
{
    makeMirror();
    writeRandomly(8, 60);
    makeShelf();
    DiffMaps maps(*m_mirror, *m_shelf);
    std::shared_ptr<const DiffMaps::Extents> first;
    std::shared_ptr<const DiffMaps::Extents> second;
    ASSERT_TRUE(maps.open(point(10), point(50), &first).ok());
    ASSERT_TRUE(maps.open(point(10), point(50), &second).ok());
    EXPECT_EQ(first, second);
    const Image before = m_images[10];
    const Image after = m_images[50];
    for (u64 block = 0; block < BLOCKS; ++block) {
        bool changed = false;
        for (const DiffExtent& extent : *first)
            changed = changed || (extent.m_offsetBlocks <= block &&
                                  block < extent.m_offsetBlocks + extent.m_lengthBlocks);
        if (!changed) {
            ASSERT_EQ(std::memcmp(before.data() + block * BLOCK_BYTES,
                                  after.data() + block * BLOCK_BYTES, BLOCK_BYTES),
                      0);
        }
    }
    EXPECT_EQ(maps.open(point(50), point(10), &second).code(), ResultCode::WrongUsage);
    ViewShelf tiny(*m_mirror, 64, true);
    DiffMaps bounded(*m_mirror, tiny);
    EXPECT_EQ(bounded.open(point(10), point(50), &second).code(), ResultCode::NoSpace);
}

TEST_F(ViewShelfTest, ViewsOfTheirOwnAreOneAtATimeAndWithinTheBudget)
{
    makeMirror();
    writeRandomly(21, 200);
    makeShelf();
    FlowControl control;
    std::atomic<u32> inside{0};
    std::atomic<u32> wrong{0};
    std::vector<std::thread> threads;
    for (u64 id = 0; id < 4; ++id) {
        threads.emplace_back([&, id] {
            const u64 items = 50 + 50 * id;
            const Result result = m_shelf->useAlone(point(items), control, [&](View& view) {
                wrong += ++inside != 1;
                wrong += m_shelf->report().m_bytes != view.memoryBytes();
                wrong += readAll(view) != m_images[items];
                --inside;
                return Result(ResultCode::Damaged, "what it says");
            });
            wrong += result.message() != "what it says";
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(m_shelf->report().m_bytes, 0u);
    EXPECT_EQ(m_shelf->report().m_views, 0u);

    // Views that nobody has open make room; those that are open do not.
    open(200);
    const u64 oneBytes = m_shelf->report().m_bytes;
    makeShelf(oneBytes + oneBytes / 2);
    open(199);
    const auto nothing = [](View&) { return Result(); };
    EXPECT_TRUE(m_shelf->useAlone(point(200), control, nothing).ok());
    EXPECT_EQ(m_shelf->report().m_dropped, 1u);
    {
        const ViewShelf::Lease lease = open(199);
        EXPECT_EQ(m_shelf->useAlone(point(200), control, nothing).code(), ResultCode::NoSpace);
    }
    m_shelf->stop();
    EXPECT_EQ(m_shelf->useAlone(point(200), control, nothing).code(), ResultCode::Interrupted);
}

TEST_F(ViewShelfTest, WhoWaitsForAViewOfItsOwnCanBeStopped)
{
    class Stops : public FlowControl
    {
    public:
        bool stopRequested() override { return true; }
    };
    makeMirror();
    writeRandomly(22, 10);
    makeShelf();
    FlowControl control;
    Stops stops;
    const Result result = m_shelf->useAlone(point(10), control, [&](View&) {
        return m_shelf->useAlone(point(5), stops, [](View&) { return Result(); });
    });
    EXPECT_EQ(result.code(), ResultCode::Interrupted);
    EXPECT_TRUE(m_shelf->useAlone(point(5), control, [](View&) { return Result(); }).ok());
}

TEST_F(ViewShelfTest, AViewIsRefusedWhereMapsLeaveItNoRoom)
{
    makeMirror();
    writeRandomly(9, 60);
    makeShelf();
    const u64 viewBytes = open(60)->view().memoryBytes();
    m_shelf.reset();
    // A map that takes half of what there is, and a view that takes just a little more than half.
    makeShelf(2 * viewBytes - 64);
    DiffMaps maps(*m_shelf, [&](const ChosenPoint&, const ChosenPoint&, FlowControl&,
                                const DiffAdmits&, DiffMaps::Extents* extents) {
        extents->reserve(viewBytes / sizeof(DiffExtent));
        return Result();
    });
    std::shared_ptr<const DiffMaps::Extents> map;
    ASSERT_TRUE(maps.open(point(10), point(50), &map).ok());
    ViewShelf::Lease lease;
    const Result result = m_shelf->open(point(60), &lease);
    EXPECT_EQ(result.code(), ResultCode::NoSpace) << result.message();
    map.reset();
    EXPECT_TRUE(m_shelf->open(point(60), &lease).ok());
}

// What a trim takes out of a view gives others room.
TEST_F(ViewShelfTest, AViewCountsWithWhatItTakesNow)
{
    MirrorSettings settings;
    settings.m_sizeBytes = u64{64} << 20;
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    const std::vector<u8> data(BLOCK_BYTES, 5);
    constexpr u64 ITEMS = 20000;
    for (u64 i = 0; i < ITEMS; ++i)
        ASSERT_TRUE(m_mirror->write(i * 2, data.data(), 1).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    makeShelf();
    const ViewShelf::Lease lease = open(ITEMS);
    const u64 before = m_shelf->report().m_bytes;
    EXPECT_GE(before, ITEMS * 64);
    FlowControl control;
    ApplyStatistics applied;
    TrimStatistics trimmed;
    ASSERT_TRUE(
        applyMirror(*m_mirror, m_host.getEngine(), point(ITEMS), ApplyOptions(), control, &applied)
            .ok());
    ASSERT_TRUE(
        trimMirror(*m_mirror, m_host.getEngine(), point(ITEMS), TrimOptions(), control, &trimmed)
            .ok());
    ASSERT_EQ(lease->view().locator().getItemCount(), 0u);
    EXPECT_EQ(m_shelf->report().m_bytes, lease->view().memoryBytes());
    EXPECT_LT(m_shelf->report().m_bytes, before / 2);
}

// Asked at the n-th time to stop, or refused the memory then.
TEST_F(ViewShelfTest, GoingOnFromAnEarlierViewEndsWhenItIsToldTo)
{
    MirrorSettings settings;
    settings.m_sizeBytes = u64{1} << 30; // several steps
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    const std::vector<u8> data(40000 * BLOCK_BYTES, 5);
    // Without gaps, so that every step ends inside a region.
    for (u64 block = 0; block + 40000 <= settings.sizeBlocks(); block += 40000)
        ASSERT_TRUE(m_mirror->writeZeroes(block, 40000).ok());
    ASSERT_TRUE(m_mirror->write(77, data.data(), 1).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    const u64 items = m_mirror->journal().itemCount();
    const std::unique_ptr<View> from = view(items - 1);
    class Stops : public FlowControl
    {
    public:
        explicit Stops(u64 looks) : m_left(looks) {}
        bool stopRequested() override { return m_left == 0 || --m_left == 0; }
        u64 m_left;
    };
    ViewBuildOptions options;
    options.m_from = from.get();
    u32 interrupted = 0;
    Result result(ResultCode::Interrupted, "");
    std::unique_ptr<View> built;
    for (u64 looks = 1; !result.ok(); ++looks) {
        ASSERT_LT(looks, 100u);
        Stops stops(looks);
        result = View::build(*m_mirror, point(items), stops, &built, options);
        interrupted += result.code() == ResultCode::Interrupted;
        ASSERT_TRUE(result.ok() || result.code() == ResultCode::Interrupted) << result.message();
    }
    EXPECT_GT(interrupted, 15u) << "asked in each step";
    const std::unique_ptr<View> scanned = view(items);
    const auto all = [&](View& one) {
        return one.pieces(0, static_cast<u32>(settings.sizeBlocks()));
    };
    EXPECT_EQ(all(*built), all(*scanned)) << "cut nowhere";
    EXPECT_EQ(built->locator().getItemCount(), scanned->locator().getItemCount());
    FlowControl control;
    u64 asked = 0;
    options.m_admits = [&](u64) { return ++asked < 3; };
    EXPECT_EQ(View::build(*m_mirror, point(items), control, &built, options).code(),
              ResultCode::Interrupted);
    EXPECT_EQ(asked, 3u);
}

// Views come and go in the middle of a removal, which is not done for those that have come.
TEST_F(ViewShelfTest, ATrimKeepsNobodyFromOpeningAndClosingViews)
{
    makeMirror();
    writeRandomly(10, 1500);
    const u64 items = m_mirror->journal().itemCount();
    std::unique_ptr<View> open = view(items);
    FlowControl control;
    ApplyStatistics applied;
    ASSERT_TRUE(
        applyMirror(*m_mirror, m_host.getEngine(), point(items), ApplyOptions(), control, &applied)
            .ok());
    class Opener : public FlowControl
    {
    public:
        explicit Opener(std::function<void()> use) : m_use(std::move(use)) {}
        void progress(u64, u64) override { m_use(); }
        std::function<void()> m_use;
    };
    std::vector<std::unique_ptr<View>> opened;
    Opener opener([&] {
        opened.push_back(view(items));
        if (opened.size() == 2)
            open.reset();
    });
    TrimStatistics trimmed;
    const Result result =
        trimMirror(*m_mirror, m_host.getEngine(), point(items), TrimOptions(), opener, &trimmed);
    ASSERT_TRUE(result.ok()) << result.message();
    EXPECT_GT(opened.size(), 2u);
    for (const std::unique_ptr<View>& one : opened)
        EXPECT_EQ(readAll(*one), m_images.back());
}

} // namespace
