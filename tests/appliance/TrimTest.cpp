#include "appliance/Trim.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <thread>

#include "appliance/Apply.h"
#include "appliance/LiveVolume.h"
#include "host/journal/JournalVerifier.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/ComesTrue.h"

namespace {

// Items of up to 2048 blocks: a data grain is full after some dozens.
class TrimTest : public MirrorFixture
{
protected:
    static constexpr u32 LARGE = 2048;

    static ChosenPoint point(u64 items)
    {
        ChosenPoint chosen;
        chosen.m_items = items;
        return chosen;
    }

    // Journals large writes behind a block, a checkpoint after every tenth.
    void writeLarge(u32 seed, u32 count, u64 firstBlock = 0)
    {
        std::mt19937 random(seed);
        Image image = m_images.back();
        for (u32 i = 0; i < count; ++i) {
            const u32 length = LARGE - random() % 100;
            const u64 offset = firstBlock + random() % (BLOCKS - firstBlock - length);
            u8* data = image.data() + offset * BLOCK_BYTES;
            std::fill_n(data, size_t{length} * BLOCK_BYTES, static_cast<u8>(1 + random() % 255));
            ASSERT_TRUE(m_mirror->write(offset, data, length).ok());
            m_images.add(image, offset * BLOCK_BYTES, u64{length} * BLOCK_BYTES);
            if (i % 10 == 9) {
                ASSERT_TRUE(m_mirror->checkpoint("", nullptr).ok());
            }
        }
        ASSERT_TRUE(m_mirror->flush().ok());
    }

    Result apply(u64 items)
    {
        FlowControl control;
        ApplyStatistics statistics;
        return applyMirror(*m_mirror, m_host.getEngine(), point(items), ApplyOptions(), control,
                           &statistics);
    }

    Result trim(u64 items, bool dryRun = false)
    {
        FlowControl control;
        m_statistics = TrimStatistics();
        TrimOptions options;
        options.m_dryRun = dryRun;
        return trimMirror(*m_mirror, m_host.getEngine(), point(items), options, control,
                          &m_statistics);
    }

    u64 bytesOnDisk() const
    {
        u64 bytes = 0;
        for (const auto& entry : std::filesystem::directory_iterator(folder() + "/journal"))
            bytes += entry.path().filename().string()[1] == '-' ? entry.file_size() : 0;
        return bytes;
    }

    void checkPoints(u64 from, const std::string& where)
    {
        ASSERT_EQ(m_mirror->window().m_firstItems, from) << where;
        for (u64 items = from; items < m_images.size(); items += 9)
            ASSERT_EQ(readAll(*view(items)), m_images[items]) << where << ": " << items;
        ASSERT_EQ(readAll(*view(m_images.size() - 1)), m_images.back()) << where;
        const VerifyResult verified = verifyJournal(m_mirror->journal());
        ASSERT_TRUE(verified.ok()) << where << ": " << verified.message;
        ASSERT_EQ(verified.items, m_images.size() - 1) << where;
    }

    TrimStatistics m_statistics;
};

TEST_F(TrimTest, GivesSpaceBackAndEverythingElseGoesOn)
{
    makeMirror();
    writeLarge(1, 60);
    openMirror(); // closes it orderly in between
    const u64 bytesBefore = bytesOnDisk();
    const u64 usedBefore = m_mirror->journal().bytesUsed();
    ASSERT_TRUE(apply(50).ok());
    ASSERT_TRUE(trim(50).ok());
    EXPECT_GE(m_statistics.m_items, 35u);
    EXPECT_LE(m_statistics.m_items, 50u);
    EXPECT_GE(m_statistics.m_dataGrains, 2u);
    EXPECT_LT(bytesOnDisk(), bytesBefore * 2 / 3);
    EXPECT_EQ(usedBefore - m_mirror->journal().bytesUsed(), m_statistics.m_bytes);
    const u64 used = m_mirror->journal().bytesUsed();
    checkPoints(50, "trimmed");
    // What recovery finds is what the trim left.
    openMirror();
    EXPECT_EQ(m_mirror->journal().bytesUsed(), used);
    checkPoints(50, "opened anew");
    EXPECT_EQ(m_mirror->window().m_checkpoints.front().m_id, 5u) << "at the target's very point";
    EXPECT_EQ(m_mirror->window().m_checkpoints.front().m_items, 50u);
    // Items and checkpoints go on in their numbers.
    writeLarge(2, 10);
    EXPECT_EQ(m_mirror->window().m_checkpoints.back().m_id, 7u);
    EXPECT_EQ(m_mirror->window().m_checkpoints.back().m_items, 70u);
    checkPoints(50, "written on");
    ASSERT_TRUE(apply(70).ok());
    ASSERT_TRUE(trim(70).ok());
    checkPoints(70, "all");
    openMirror();
    checkPoints(70, "all, opened anew");
    writeLarge(3, 30);
    openMirror();
    EXPECT_EQ(m_mirror->window().m_checkpoints.back().m_id, 10u);
    checkPoints(70, "written on behind all");
}

TEST_F(TrimTest, AllGrainsCanGo)
{
    makeMirror();
    writeLarge(4, 55); // no checkpoint at the end, which would keep its page
    ASSERT_TRUE(apply(55).ok());
    openMirror();
    ASSERT_TRUE(trim(55).ok());
    std::vector<u64> grains;
    ASSERT_EQ(m_mirror->journal().grains().list(GrainKind::Data, &grains), RC_SUCCESS);
    EXPECT_EQ(grains, std::vector<u64>{});
    ASSERT_TRUE(trim(55).ok()) << "nothing more";
    EXPECT_EQ(m_statistics.m_items, 0u);
    for (int i = 0; i < 3; ++i) {
        openMirror();
        checkPoints(55, "empty");
    }
}

TEST_F(TrimTest, NeverBeyondTheTarget)
{
    makeMirror();
    writeLarge(5, 40);
    ASSERT_TRUE(apply(20).ok());
    const Result refused = trim(21);
    EXPECT_EQ(refused.code(), ResultCode::InUse);
    EXPECT_NE(refused.message().find("up to item:20 only"), std::string::npos);
    checkPoints(20, "refused");
    ASSERT_TRUE(trim(20).ok());
    checkPoints(20, "trimmed");
}

TEST_F(TrimTest, DryRunTellsAndChangesNothing)
{
    makeMirror();
    writeLarge(6, 40);
    ASSERT_TRUE(apply(40).ok());
    const u64 bytes = bytesOnDisk();
    ASSERT_TRUE(trim(40, true).ok());
    const TrimStatistics told = m_statistics;
    EXPECT_GT(told.m_dataGrains, 0u);
    EXPECT_EQ(bytesOnDisk(), bytes);
    EXPECT_EQ(m_mirror->journal().begin().m_page, 0u);
    ASSERT_TRUE(trim(40).ok());
    EXPECT_EQ(m_statistics.m_items, told.m_items);
    EXPECT_EQ(m_statistics.m_bytes, told.m_bytes);
    EXPECT_EQ(m_statistics.m_dataGrains, told.m_dataGrains);
}

TEST_F(TrimTest, ViewOfAnotherOwnerHoldsItUntilItIsClosed)
{
    makeMirror();
    writeLarge(7, 40);
    ASSERT_TRUE(apply(30).ok());
    // A mirror object of its own, as another process has: its locators cannot be reached.
    std::unique_ptr<Mirror> other;
    ASSERT_TRUE(Mirror::open(folder(), MirrorAccess::Reader, JournalRecovery::Tail, &other).ok());
    FlowControl control;
    std::unique_ptr<View> open;
    ASSERT_TRUE(View::build(*other, point(35), control, &open).ok());
    const Result refused = trim(30);
    EXPECT_EQ(refused.code(), ResultCode::InUse);
    EXPECT_NE(refused.message().find("a view of item:35"), std::string::npos);
    EXPECT_EQ(trim(30, true).code(), ResultCode::InUse);
    EXPECT_EQ(readAll(*open), m_images[35]);
    open.reset();
    ASSERT_TRUE(trim(30).ok());
    // It had the journal as it was, and takes the new beginning over.
    ASSERT_TRUE(View::build(*other, point(35), control, &open).ok());
    EXPECT_EQ(readAll(*open), m_images[35]);
    open.reset();
}

TEST_F(TrimTest, ReaderOpenedBeforeReadsWhatIsLeft)
{
    makeMirror();
    writeLarge(1, 60);
    std::unique_ptr<Mirror> reader;
    ASSERT_TRUE(Mirror::open(folder(), MirrorAccess::Reader, JournalRecovery::Tail, &reader).ok());
    ASSERT_TRUE(apply(40).ok());
    ASSERT_TRUE(trim(40).ok());
    ASSERT_GT(m_statistics.m_dataGrains, 0u);
    for (const u64 items : {40, 45, 60}) {
        std::unique_ptr<View> opened;
        FlowControl control;
        const Result result = View::build(*reader, point(items), control, &opened);
        ASSERT_TRUE(result.ok()) << result.message();
        EXPECT_EQ(readAll(*opened), m_images[items]);
    }
    EXPECT_EQ(reader->window().m_firstItems, 40u);
    EXPECT_EQ(reader->window().m_checkpoints.front().m_items, 40u);
    // What is before the target is gone for it too, and what came after it was opened is not known.
    std::unique_ptr<View> opened;
    FlowControl control;
    EXPECT_EQ(View::build(*reader, point(39), control, &opened).code(), ResultCode::NotFound);
    writeLarge(2, 60);
    ASSERT_TRUE(apply(120).ok());
    ASSERT_TRUE(trim(120).ok());
    EXPECT_FALSE(View::build(*reader, point(60), control, &opened).ok());
}

TEST_F(TrimTest, OwnViewsLoseWhatGoesAndReadTheSame)
{
    makeMirror();
    writeLarge(8, 40);
    ASSERT_TRUE(apply(30).ok());
    const auto first = view(30);
    const auto second = view(40);
    const u64 covered = first->locator().getTotalRegionBlocks();
    ASSERT_TRUE(trim(30).ok());
    EXPECT_GT(m_statistics.m_removedIos, 0u);
    EXPECT_LT(first->locator().getTotalRegionBlocks(), covered);
    EXPECT_EQ(readAll(*first), m_images[30]);
    EXPECT_EQ(readAll(*second), m_images[40]);
    checkPoints(30, "beside them");
}

TEST_F(TrimTest, ReadersOfOwnViewsGoOnMeanwhile)
{
    makeMirror(Compression::Lz4);
    writeLarge(9, 60);
    writeRandomly(9, 300); // small IOs, so that much is taken out piece by piece
    const u64 points[] = {330, 345, 360};
    std::vector<std::unique_ptr<View>> views;
    for (const u64 items : points)
        views.push_back(view(items));
    const Image images[] = {m_images[330], m_images[345], m_images[360]};
    std::atomic<bool> stop{false};
    std::atomic<u64> reads{0};
    std::atomic<u64> wrong{0};
    std::vector<std::thread> threads;
    for (u32 i = 0; i < 6; ++i) {
        threads.emplace_back([&, i] {
            std::mt19937 random(i);
            Image buffer(256 * BLOCK_BYTES);
            while (!stop) {
                const u32 which = random() % 3;
                const u32 length = 1 + random() % 256;
                const u64 offset = random() % (BLOCKS - length);
                ViewReader reader(*views[which]);
                const RcStatus rc =
                    reader.readNow(m_host.getEngine(), offset, length, buffer.data());
                const u8* expected = images[which].data() + offset * BLOCK_BYTES;
                wrong += rc != RC_SUCCESS ||
                         std::memcmp(buffer.data(), expected, size_t{length} * BLOCK_BYTES) != 0;
                ++reads;
            }
        });
    }
    u64 removed = 0;
    for (const u64 items : {100, 200, 300, 330}) {
        const Result applied = apply(items);
        EXPECT_TRUE(applied.ok()) << applied.message();
        const Result trimmed = trim(items);
        EXPECT_TRUE(trimmed.ok()) << trimmed.message();
        removed += m_statistics.m_removedIos;
    }
    EXPECT_TRUE(comesTrue([&] { return reads >= 50; }));
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_GT(removed, 10u);
    for (size_t i = 0; i < views.size(); ++i)
        EXPECT_EQ(readAll(*views[i]), images[i]);
}

// Does something once in the middle of a scan.
class Meanwhile : public FlowControl
{
public:
    explicit Meanwhile(std::function<Result()> use) : m_use(std::move(use)) {}
    void progress(u64, u64) override
    {
        if (m_calls++ == 0)
            m_result = m_use();
    }
    std::function<Result()> m_use;
    Result m_result;
    u64 m_calls = 0;
};

// The next trim does not find, in the list, the index that is being built while it runs.
TEST_F(TrimTest, NobodyGoesOnFromAViewThatACutOffTrimHasNotDone)
{
    constexpr u32 ALONE = 100; // blocks that one write alone is to
    makeMirror();
    writeRandomly(10, 300); // more than one step takes
    const std::vector<u8> data(ALONE * BLOCK_BYTES, 0x5A);
    ASSERT_TRUE(m_mirror->write(0, data.data(), ALONE).ok());
    Image image = m_images.back();
    std::copy(data.begin(), data.end(), image.begin());
    m_images.add(image, 0, data.size());
    writeLarge(10, 60, ALONE);
    const u64 last = m_images.size() - 1;
    const auto earlier = view(last - 5);
    ASSERT_TRUE(apply(last - 5).ok());
    class CutOff : public FlowControl
    {
    public:
        explicit CutOff(JournalStore& journal) : m_journal(journal) {}
        bool stopRequested() override { return m_journal.begin().m_page > 0; }
        JournalStore& m_journal;
    } cutOff(m_mirror->journal());
    EXPECT_EQ(trimMirror(*m_mirror, m_host.getEngine(), point(last - 5), TrimOptions(), cutOff,
                         &m_statistics)
                  .code(),
              ResultCode::Interrupted);
    ASSERT_NE(m_mirror->untakenPage(), ~u64{0});
    ASSERT_FALSE(earlier->pieces(0, ALONE).empty()) << "what the next trim is to take";

    Meanwhile meanwhile([&] { return trim(last - 5); });
    ViewBuildOptions options;
    options.m_from = earlier.get();
    std::unique_ptr<View> later;
    const Result built = View::build(*m_mirror, point(last), meanwhile, &later, options);
    ASSERT_TRUE(built.ok()) << built.message();
    ASSERT_GT(meanwhile.m_calls, 0u);
    EXPECT_TRUE(meanwhile.m_result.ok()) << meanwhile.m_result.message();
    EXPECT_EQ(m_mirror->untakenPage(), ~u64{0});
    EXPECT_FALSE(later->statistics().m_isContinued);
    EXPECT_TRUE(later->pieces(0, ALONE).empty());
    EXPECT_EQ(readAll(*later), m_images[last]);
    EXPECT_EQ(readAll(*earlier), m_images[last - 5]);
    FlowControl control;
    ASSERT_TRUE(View::build(*m_mirror, point(last), control, &later, options).ok());
    EXPECT_TRUE(later->statistics().m_isContinued) << "nothing is left to take out of it";
    EXPECT_EQ(readAll(*later), m_images[last]);
}

// It is told by its use, as it is not in the list yet.
TEST_F(TrimTest, WaitsForWhoHasCopiedAViewAndScansOn)
{
    makeMirror();
    writeLarge(11, 60);
    const auto earlier = view(50);
    ASSERT_TRUE(apply(50).ok());
    Meanwhile meanwhile([&] { return trim(50); });
    ViewBuildOptions options;
    options.m_from = earlier.get();
    std::unique_ptr<View> later;
    ASSERT_TRUE(View::build(*m_mirror, point(60), meanwhile, &later, options).ok());
    EXPECT_TRUE(later->statistics().m_isContinued);
    ASSERT_GT(meanwhile.m_calls, 0u);
    EXPECT_EQ(meanwhile.m_result.code(), ResultCode::InUse);
    EXPECT_EQ(m_mirror->untakenPage(), ~u64{0}) << "nothing was begun";
    ASSERT_TRUE(trim(50).ok());
    EXPECT_GT(m_statistics.m_dataGrains, 0u);
    EXPECT_EQ(readAll(*later), m_images[60]);
    EXPECT_EQ(readAll(*earlier), m_images[50]);
}

// The process-wide pool with a limit; no memory is in use when it comes and goes.
class LimitedPool
{
public:
    LimitedPool() { setLimit(16 << 20); }
    ~LimitedPool() { setLimit(std::numeric_limits<u64>::max()); }
    LimitedPool(const LimitedPool&) = delete;
    LimitedPool& operator=(const LimitedPool&) = delete;

private:
    static void setLimit(u64 bytes)
    {
        MemoryPoolImpl* pool = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
        pool->init(pool->getChunkSize(), 0, bytes);
    }
};

// Takes all memory that a locator could get.
class Hog
{
public:
    explicit Hog(RegionLocator& locator) : m_pool(*locator.getMemPool())
    {
        for (int count = 1 << 18; count > 0;) {
            RegionLocatorVoucher* voucher = m_pool.createVoucher();
            m_vouchers.push_back(voucher);
            if (m_pool.fillVoucher(voucher, count, 0, this).get() != RC_SUCCESS)
                count /= 2;
        }
    }
    ~Hog()
    {
        for (RegionLocatorVoucher* voucher : m_vouchers)
            m_pool.destroyVoucher(voucher);
    }
    Hog(const Hog&) = delete;
    Hog& operator=(const Hog&) = delete;

private:
    RegionLocatorMemPool& m_pool;
    std::vector<RegionLocatorVoucher*> m_vouchers;
};

class TrimMemoryTest : public TrimTest
{
private:
    LimitedPool m_pool;
};

// It waits for memory without the list that a view has to leave to give its own back.
TEST_F(TrimMemoryTest, ViewsCloseWhileItWaitsForMemory)
{
    makeMirror();
    writeLarge(8, 40);
    ASSERT_TRUE(apply(30).ok());
    const auto kept = view(30);
    auto closing = view(30);
    auto hog = std::make_unique<Hog>(kept->locator());
    Result trimmed;
    std::thread trimmer([&] { trimmed = trim(30); });
    EXPECT_TRUE(comesTrue([&] { return m_mirror->untakenPage() != ~u64{0}; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_NE(m_mirror->untakenPage(), ~u64{0}) << "it waits";
    closing.reset(); // the trim fails if this has to wait for it
    trimmer.join();
    EXPECT_TRUE(trimmed.ok()) << trimmed.message();
    EXPECT_GT(m_statistics.m_removedIos, 0u);
    hog.reset();
    EXPECT_EQ(readAll(*kept), m_images[30]);
    checkPoints(30, "after it");
}

TEST_F(TrimMemoryTest, ViewsCloseWhileItWaitsForMemoryToRemoveZeroes)
{
    constexpr u32 ZEROES = 50;
    makeMirror();
    FlowControl control;
    std::unique_ptr<LiveVolume> live;
    ASSERT_TRUE(LiveVolume::open(*m_mirror, control, &live).ok());
    ASSERT_EQ(live->writeZeroes(0, ZEROES), RC_SUCCESS);
    // Each overrides the one before, so that of these the live index has the last one alone, which
    // stays.
    const std::vector<u8> data(LARGE * BLOCK_BYTES, 0x33);
    for (int i = 0; i < 60; ++i)
        ASSERT_EQ(live->write(ZEROES, data.data(), LARGE), RC_SUCCESS);
    ASSERT_EQ(live->flush(), RC_SUCCESS);
    ASSERT_TRUE(apply(61).ok());
    auto closing = view(61);
    ASSERT_FALSE(live->pieces(0, ZEROES).empty());
    auto hog = std::make_unique<Hog>(live->locator());
    Result trimmed;
    std::atomic<bool> done{false};
    std::thread trimmer([&] {
        trimmed = trim(60);
        done = true;
    });
    EXPECT_TRUE(comesTrue([&] { return m_mirror->journal().begin().m_page != 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(done) << "it waits";
    closing.reset(); // the trim fails if this has to wait for it
    trimmer.join();
    EXPECT_TRUE(trimmed.ok()) << trimmed.message();
    EXPECT_FALSE(m_mirror->trimmedZeroes().hasNoted());
    EXPECT_TRUE(live->pieces(0, ZEROES).empty());
    hog.reset();
}

TEST_F(TrimTest, MakesRoomUnderTheLimit)
{
    MirrorSettings settings;
    settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
    settings.m_journalLimitBytes = u64{40} << 20;
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    const std::vector<u8> data(LARGE * BLOCK_BYTES, 9);
    u64 items = 0;
    while (m_mirror->write(0, data.data(), LARGE).ok())
        ++items;
    EXPECT_EQ(m_mirror->write(0, data.data(), LARGE).code(), ResultCode::NoSpace);
    ASSERT_TRUE(apply(items).ok());
    ASSERT_TRUE(trim(items).ok());
    EXPECT_TRUE(m_mirror->write(0, data.data(), LARGE).ok());
}

// Says to stop when it was asked often enough, so that a wait has begun by then.
class LateStop : public FlowControl
{
public:
    bool stopRequested() override { return ++m_asked > 500; }
    void progress(u64, u64) override
    {
        if (m_onProgress)
            m_onProgress();
    }
    std::function<void()> m_onProgress;

private:
    u64 m_asked = 0;
};

TEST_F(TrimTest, AReaderThatStaysDoesNotKeepItFromStopping)
{
    makeMirror();
    writeLarge(1, 40, 8);
    constexpr u64 ZEROES = 600; // so many that there is a step which tells of its progress
    for (u64 i = 0; i < ZEROES; ++i)
        ASSERT_TRUE(m_mirror->writeZeroes(i % 8, 1).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    const u64 items = 40 + ZEROES;
    ASSERT_TRUE(apply(items).ok());
    FlowControl open;
    std::unique_ptr<LiveVolume> live;
    ASSERT_TRUE(LiveVolume::open(*m_mirror, open, &live).ok());
    const u64 bytesBefore = bytesOnDisk();
    std::unique_ptr<GracePeriod::Reader> reader;
    const auto trimUntilStopped = [&](LateStop& control) {
        m_statistics = TrimStatistics();
        const Result result = trimMirror(*m_mirror, m_host.getEngine(), point(items), TrimOptions(),
                                         control, &m_statistics);
        reader.reset();
        EXPECT_EQ(result.code(), ResultCode::Interrupted) << result.message();
    };

    LateStop before;
    reader = std::make_unique<GracePeriod::Reader>(m_mirror->gracePeriod());
    trimUntilStopped(before);
    EXPECT_EQ(m_mirror->journal().begin().m_page, 0u);

    LateStop behind;
    behind.m_onProgress = [&] {
        if (!reader)
            reader = std::make_unique<GracePeriod::Reader>(m_mirror->gracePeriod());
    };
    trimUntilStopped(behind);
    EXPECT_GT(m_mirror->journal().begin().m_page, 0u);
    EXPECT_EQ(bytesOnDisk(), bytesBefore) << "what the reader found is there";

    ASSERT_TRUE(trim(items).ok()) << "there is nothing more to trim, but what was left";
    EXPECT_LT(bytesOnDisk(), bytesBefore);
    Image image(BLOCKS * BLOCK_BYTES, 0xAA);
    ASSERT_EQ(live->read(0, BLOCKS, image.data()), RC_SUCCESS);
    EXPECT_EQ(image, m_images.back());
}

// Nothing but the target holds what was trimmed, so a target that holds less is of no point.
TEST_F(TrimTest, MirrorWhoseNoteOfTheTargetIsLostOrOldIsDamaged)
{
    makeMirror();
    writeLarge(5, 60);
    ASSERT_TRUE(apply(20).ok());
    const std::string note = folder() + "/applied";
    const std::string old = folder() + "/old";
    std::filesystem::copy_file(note, old);
    ASSERT_TRUE(apply(50).ok());
    openMirror();
    ASSERT_TRUE(trim(50).ok());
    ASSERT_GT(m_mirror->journal().begin().m_items, 20u);
    m_mirror.reset();
    const std::string kept = folder() + "/kept";
    std::filesystem::rename(note, kept);
    for (const bool hasOld : {false, true}) {
        if (hasOld)
            std::filesystem::rename(old, note);
        for (const MirrorAccess access : {MirrorAccess::Reader, MirrorAccess::Writer})
            EXPECT_EQ(Mirror::open(folder(), access, JournalRecovery::Tail, &m_mirror).code(),
                      ResultCode::Damaged)
                << hasOld;
    }
    std::filesystem::rename(kept, note);
    openMirror();
    checkPoints(50, "with its note again");
}

} // namespace
