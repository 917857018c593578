#include "appliance/Apply.h"

#include <atomic>
#include <fstream>
#include <thread>

#include "tests/appliance/MirrorFixture.h"
#include "tests/support/LimitedMemory.h"

namespace {

class ApplyTest : public MirrorFixture
{
protected:
    static ChosenPoint point(u64 items)
    {
        ChosenPoint chosen;
        chosen.m_items = items;
        return chosen;
    }

    Result apply(u64 items, FlowControl* control = nullptr, ApplyOptions options = {})
    {
        FlowControl none;
        m_statistics = ApplyStatistics();
        return applyMirror(*m_mirror, m_host.getEngine(), point(items), options,
                           control != nullptr ? *control : none, &m_statistics);
    }

    Image target() const
    {
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        std::ifstream file(folder() + "/target", std::ios::binary);
        file.read(reinterpret_cast<char*>(image.data()),
                  static_cast<std::streamsize>(image.size()));
        EXPECT_EQ(file.gcount(), static_cast<std::streamsize>(image.size()));
        return image;
    }

    std::string dataGrain() const { return folder() + "/journal/d-0000000001"; }

    // Journals `count` short requests, and returns what the volume holds then.
    Image writeShortOnes(u32 count)
    {
        std::mt19937 random(77);
        Image image(BLOCKS * BLOCK_BYTES);
        for (u32 i = 0; i < count; ++i) {
            const u32 length = 1 + random() % 3;
            const u64 offset = random() % (BLOCKS - length);
            u8* data = image.data() + offset * BLOCK_BYTES;
            std::memset(data, static_cast<int>(random()), size_t{length} * BLOCK_BYTES);
            EXPECT_TRUE(m_mirror->write(offset, data, length).ok());
        }
        EXPECT_TRUE(m_mirror->flush().ok());
        return image;
    }

    ResultCode viewCode(u64 items)
    {
        FlowControl control;
        std::unique_ptr<View> built;
        return View::build(*m_mirror, point(items), control, &built).code();
    }

    Result hold(const std::string& name, u64 items)
    {
        PinLatch latch;
        if (Result result = latch.take(m_mirror->storage()); !result.ok())
            return result;
        return addHold(m_mirror->storage(), {name, items, "item:" + std::to_string(items)});
    }

    ApplyStatistics m_statistics;
};

// Asks to stop after so many looks.
class StopAfter : public FlowControl
{
public:
    explicit StopAfter(int looks) : m_looks(looks) {}
    bool stopRequested() override { return m_looks-- <= 0; }

private:
    int m_looks;
};

TEST_F(ApplyTest, TargetIsThePointAndEveryLaterPointReadsAsBefore)
{
    for (const Compression compression : {Compression::None, Compression::Lz4}) {
        m_images.resize(1);
        m_mirror.reset();
        std::filesystem::remove_all(folder());
        makeMirror(compression);
        writeRandomly(1, 90);
        for (const u64 to : {1, 30, 31, 90}) {
            const Result result = apply(to);
            ASSERT_TRUE(result.ok()) << result.message();
            ASSERT_EQ(target(), m_images[to]) << to;
            EXPECT_EQ(m_mirror->window().m_firstItems, to);
            for (u64 items = to; items <= 90; items += 13)
                ASSERT_EQ(readAll(*view(items)), m_images[items]) << items << " after " << to;
            EXPECT_EQ(viewCode(to - 1), ResultCode::NotFound);
        }
    }
}

TEST_F(ApplyTest, DataIsMovedTwiceAndZeroesAreNot)
{
    class Movements : public FlowControl
    {
    public:
        void moved(u64 bytes) override { m_bytes += bytes; }
        u64 m_bytes = 0;
    };
    makeMirror();
    const std::vector<u8> data(100 * BLOCK_BYTES, 7);
    ASSERT_TRUE(m_mirror->write(50, data.data(), 100).ok());
    ASSERT_TRUE(m_mirror->write(100, data.data(), 100).ok());
    ASSERT_TRUE(m_mirror->writeZeroes(1000, 2000).ok());
    Movements movements;
    ASSERT_TRUE(apply(3, &movements).ok());
    EXPECT_EQ(m_statistics.m_zeroBytes, 2000u * BLOCK_BYTES);
    EXPECT_EQ(movements.m_bytes, 2u * 150 * BLOCK_BYTES);
}

TEST_F(ApplyTest, ADryRunSeesWhatItsOwnProcessHasNotFlushed)
{
    makeMirror();
    const std::vector<u8> data(8 * BLOCK_BYTES, 7);
    for (u64 i = 0; i < 3; ++i)
        ASSERT_TRUE(m_mirror->write(100 * i, data.data(), 8).ok());
    ApplyOptions options;
    options.m_dryRun = true;
    const Result result = apply(3, nullptr, options);
    ASSERT_TRUE(result.ok()) << result.message();
    EXPECT_EQ(m_statistics.m_items, 3u);
    EXPECT_EQ(m_statistics.m_dataBytes, 24u * BLOCK_BYTES);
    EXPECT_EQ(m_mirror->applyState().m_items, 0u);
}

TEST_F(ApplyTest, GoesByNearerPointsWhereMemoryIsShort)
{
    makeMirror();
    const Image image = writeShortOnes(6000);
    const LimitedMemory limited(16 << 10, 128 << 10);
    ApplyOptions options;
    options.m_dryRun = true;
    Result result = apply(6000, nullptr, options);
    ASSERT_TRUE(result.ok()) << result.message();
    EXPECT_EQ(m_mirror->window().m_firstItems, 0u);
    const u64 told = m_statistics.m_dataBytes;
    result = apply(6000);
    ASSERT_TRUE(result.ok()) << result.message();
    EXPECT_EQ(m_statistics.m_items, 6000u);
    EXPECT_EQ(m_statistics.m_dataBytes, told);
    EXPECT_EQ(target(), image);
    EXPECT_EQ(m_mirror->window().m_firstItems, 6000u);
}

TEST_F(ApplyTest, OneThatWasCutOffFindsItsWayWithLessMemory)
{
    makeMirror();
    const Image image = writeShortOnes(6000);
    ApplyOptions options;
    options.m_stepBlocks = 64;
    options.m_noteEveryBlocks = 1;
    StopAfter stop(100);
    EXPECT_EQ(apply(6000, &stop, options).code(), ResultCode::Interrupted);
    ASSERT_TRUE(m_mirror->applyState().underWay());
    ASSERT_GT(m_mirror->applyState().m_doneBlocks, 0u);
    const LimitedMemory limited(16 << 10, 128 << 10);
    // Once more, on the way.
    StopAfter stopAgain(8);
    EXPECT_EQ(apply(6000, &stopAgain).code(), ResultCode::Interrupted);
    EXPECT_GT(m_mirror->applyState().m_items, 0u);
    EXPECT_EQ(m_mirror->window().m_firstItems, 6000u) << "points on the way are gone";
    openMirror();
    const Result result = apply(6000);
    ASSERT_TRUE(result.ok()) << result.message();
    EXPECT_EQ(target(), image);
    EXPECT_FALSE(m_mirror->applyState().underWay());
}

TEST_F(ApplyTest, GoesOnWithWhatCameAfterIt)
{
    makeMirror();
    writeRandomly(2, 20);
    ASSERT_TRUE(apply(20).ok());
    writeRandomly(3, 20);
    openMirror();
    EXPECT_EQ(m_mirror->applyState().m_items, 20u);
    ASSERT_TRUE(apply(40).ok());
    EXPECT_EQ(m_statistics.m_items, 20u);
    EXPECT_EQ(target(), m_images[40]);
}

TEST_F(ApplyTest, DamagedDataIsFoundBeforeAnythingIsChanged)
{
    makeMirror();
    const std::vector<u8> data(8 * BLOCK_BYTES, 7);
    for (u64 i = 0; i < 3; ++i)
        ASSERT_TRUE(m_mirror->write(100 * i, data.data(), 8).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    {
        std::fstream grain(dataGrain(), std::ios::binary | std::ios::in | std::ios::out);
        grain.seekp(9 * BLOCK_BYTES); // of the second write
        grain.put(8);
        ASSERT_TRUE(grain.good());
    }
    const Result result = apply(3);
    EXPECT_EQ(result.code(), ResultCode::Damaged);
    EXPECT_EQ(result.message(),
              "cannot read the journal's data of blocks 100 to 107 (data grain 1, "
              "IO at block 8): checksum mismatch");
    EXPECT_EQ(m_mirror->window().m_firstItems, 0u);
    EXPECT_EQ(target(), m_images[0]);
    // What lies before it, and what overrides it, can be had.
    ASSERT_TRUE(apply(1).ok());
    EXPECT_EQ(apply(2).code(), ResultCode::Damaged);
    EXPECT_EQ(m_mirror->window().m_firstItems, 1u);
    ASSERT_TRUE(m_mirror->writeZeroes(100, 8).ok());
    EXPECT_TRUE(apply(4).ok());
}

TEST_F(ApplyTest, ZeroesBecomeHoles)
{
    makeMirror();
    const std::vector<u8> data(1024 * BLOCK_BYTES, 7);
    ASSERT_TRUE(m_mirror->write(0, data.data(), 1024).ok());
    ASSERT_TRUE(apply(1).ok());
    ASSERT_TRUE(m_mirror->writeZeroes(0, 1024).ok());
    ASSERT_TRUE(apply(2).ok());
    EXPECT_EQ(m_statistics.m_zeroBytes, 1024u * BLOCK_BYTES);
    EXPECT_EQ(target(), m_images[0]);
    u64 start = 0;
    u64 end = 0;
    ASSERT_EQ(m_mirror->target().nextData(0, &start, &end), RC_SUCCESS);
    EXPECT_EQ(start, end) << "no data is left";
}

TEST_F(ApplyTest, PointBehindTheJournalsEndOrBeforeTheTargetIsRefused)
{
    makeMirror();
    writeRandomly(4, 10);
    ASSERT_TRUE(apply(5).ok());
    const Result before = apply(4);
    EXPECT_EQ(before.code(), ResultCode::NotFound);
    EXPECT_NE(before.message().find("can serve item:5 to item:10"), std::string::npos);
    EXPECT_FALSE(apply(11).ok());
    EXPECT_EQ(target(), m_images[5]);
    EXPECT_TRUE(apply(5).ok()) << "there already";
    EXPECT_EQ(m_mirror->window().m_firstItems, 5u);
}

TEST_F(ApplyTest, NeverPassesAHoldAndSaysWhich)
{
    makeMirror();
    writeRandomly(5, 20);
    ASSERT_TRUE(hold("audit", 10).ok());
    const Result refused = apply(11);
    EXPECT_EQ(refused.code(), ResultCode::InUse);
    EXPECT_NE(refused.message().find("'audit'"), std::string::npos) << refused.message();
    EXPECT_EQ(target(), m_images[0]) << "nothing was written";
    EXPECT_EQ(m_mirror->window().m_firstItems, 0u);
    ASSERT_TRUE(apply(10).ok()) << "up to it is no passing";
    {
        PinLatch latch;
        ASSERT_TRUE(latch.take(m_mirror->storage()).ok());
        ASSERT_TRUE(removeHold(m_mirror->storage(), "audit").ok());
        EXPECT_EQ(removeHold(m_mirror->storage(), "audit").code(), ResultCode::NotFound);
    }
    EXPECT_TRUE(apply(20).ok());
}

TEST_F(ApplyTest, NeverPassesAnOpenViewAndSaysWhich)
{
    makeMirror();
    writeRandomly(6, 20);
    auto open = view(7);
    const Result refused = apply(8);
    EXPECT_EQ(refused.code(), ResultCode::InUse);
    EXPECT_NE(refused.message().find("a view of item:7"), std::string::npos) << refused.message();
    EXPECT_EQ(readAll(*open), m_images[7]);
    ASSERT_TRUE(apply(7).ok());
    EXPECT_EQ(readAll(*open), m_images[7]);
    open.reset();
    EXPECT_TRUE(apply(20).ok());
}

TEST_F(ApplyTest, UseOfADeadProcessIsForgotten)
{
    makeMirror();
    writeRandomly(7, 4);
    Storage& storage = m_mirror->storage();
    std::unique_ptr<StorageFile> file;
    ASSERT_EQ(storage.makeDir("uses"), RC_SUCCESS);
    ASSERT_EQ(storage.open("uses/1-0", StorageAccess::Create, &file), RC_SUCCESS);
    file.reset(); // as a process leaves it that is killed: there, and not locked
    ASSERT_TRUE(apply(4).ok());
    std::vector<std::string> names;
    ASSERT_EQ(storage.list("uses", &names), RC_SUCCESS);
    EXPECT_EQ(names, std::vector<std::string>{"latch"});
}

TEST_F(ApplyTest, DamagedHoldHoldsStill)
{
    makeMirror();
    writeRandomly(8, 4);
    ASSERT_TRUE(hold("x", 2).ok());
    std::ofstream(folder() + "/holds/x.hold") << "nonsense";
    EXPECT_EQ(apply(4).code(), ResultCode::Damaged);
    EXPECT_EQ(hold("x", 2).code(), ResultCode::Damaged);
    EXPECT_EQ(target(), m_images[0]);
}

TEST_F(ApplyTest, HoldNamesAreChecked)
{
    makeMirror();
    for (const char* name : {"", ".x", "-x", "a/b", "a b", "../x"})
        EXPECT_EQ(hold(name, 0).code(), ResultCode::WrongUsage) << name;
    EXPECT_EQ(hold(std::string(65, 'a'), 0).code(), ResultCode::WrongUsage);
    EXPECT_TRUE(hold("a.b-c_9", 0).ok());
    EXPECT_EQ(hold("a.b-c_9", 0).code(), ResultCode::WrongUsage) << "taken";
}

TEST_F(ApplyTest, DryRunTellsAndChangesNothing)
{
    makeMirror();
    writeRandomly(9, 30);
    ApplyOptions options;
    options.m_dryRun = true;
    ASSERT_TRUE(apply(30, nullptr, options).ok());
    const u64 data = m_statistics.m_dataBytes;
    EXPECT_GT(data, 0u);
    EXPECT_EQ(target(), m_images[0]);
    EXPECT_EQ(m_mirror->window().m_firstItems, 0u);
    ASSERT_TRUE(apply(30).ok());
    EXPECT_EQ(m_statistics.m_dataBytes, data);
}

TEST_F(ApplyTest, InterruptedAnywhereGoesOnWhereItWas)
{
    ApplyOptions options;
    options.m_stepBlocks = 40; // the longest item: as many steps as can be
    for (const u64 then : {60, 80}) {
        m_images.resize(1);
        m_mirror.reset();
        std::filesystem::remove_all(folder());
        makeMirror(Compression::Lz4);
        writeRandomly(10, 80);
        int interruptions = 0;
        u64 doneBlocks = 0;
        for (int looks = 1;; ++looks) {
            StopAfter control(looks);
            const Result result = apply(60, &control, options);
            if (result.ok())
                break;
            ASSERT_EQ(result.code(), ResultCode::Interrupted) << result.message();
            ++interruptions;
            openMirror();
            const ApplyState state = m_mirror->applyState();
            if (state.underWay()) {
                EXPECT_GE(state.m_doneBlocks, doneBlocks);
                doneBlocks = state.m_doneBlocks;
                EXPECT_EQ(m_mirror->window().m_firstItems, 60u);
                EXPECT_EQ(apply(59).code(), ResultCode::NotFound);
            }
            ASSERT_EQ(readAll(*view(60)), m_images[60]);
            ASSERT_EQ(readAll(*view(71)), m_images[71]);
            if (then == 80 && interruptions == 3) {
                ASSERT_TRUE(apply(80).ok()) << "another point than the one that was interrupted";
                break;
            }
        }
        EXPECT_GE(interruptions, 3);
        if (then == 60) {
            ASSERT_EQ(target(), m_images[60]);
            ASSERT_TRUE(apply(80).ok());
        }
        ASSERT_EQ(target(), m_images[80]);
    }
}

TEST_F(ApplyTest, RecoveryNeverCutsBelowWhatTheTargetHolds)
{
    makeMirror();
    writeRandomly(13, 60);
    CpId_t id = 0;
    ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
    ASSERT_TRUE(apply(50).ok());
    ASSERT_TRUE(m_mirror->close().ok());
    m_mirror.reset();
    const std::string metadata = folder() + "/journal/m-0000000001";
    const auto size = std::filesystem::file_size(metadata);
    {
        std::fstream file(metadata, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(2 * BLOCK_BYTES + 40); // some item in the middle
        file.put('\x55');
        ASSERT_TRUE(file.good());
    }
    const Result result =
        Mirror::open(folder(), MirrorAccess::Writer, JournalRecovery::PointInTime, &m_mirror);
    EXPECT_EQ(result.code(), ResultCode::Damaged);
    EXPECT_NE(result.message().find("the target volume holds more of it, up to item:50"),
              std::string::npos)
        << result.message();
    EXPECT_EQ(std::filesystem::file_size(metadata), size) << "something was cut";
}

TEST_F(ApplyTest, DamagedNoteRefusesTheMirror)
{
    makeMirror();
    writeRandomly(11, 5);
    ASSERT_TRUE(apply(5).ok());
    std::fstream(folder() + "/applied", std::ios::in | std::ios::out).seekp(20).put('\x55');
    m_mirror.reset();
    EXPECT_EQ(Mirror::open(folder(), MirrorAccess::Reader, JournalRecovery::Tail, &m_mirror).code(),
              ResultCode::Damaged);
}

// Readers of three later points, a writer of new items, and apply, all at once.
TEST_F(ApplyTest, ViewsAndWritesGoOnBesideIt)
{
    makeMirror(Compression::Lz4);
    writeRandomly(12, 120);
    const u64 points[] = {60, 80, 120};
    std::vector<std::unique_ptr<View>> views;
    for (const u64 items : points)
        views.push_back(view(items));
    const Image images[] = {m_images[60], m_images[80], m_images[120]};
    std::atomic<bool> stop{false};
    std::atomic<u64> reads{0};
    std::atomic<u64> wrong{0};
    std::vector<std::thread> threads;
    for (u32 i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            std::mt19937 random(i);
            Image buffer(64 * BLOCK_BYTES);
            while (!stop) {
                const u32 which = random() % 3;
                const u32 length = 1 + random() % 64;
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
    threads.emplace_back([&] {
        const std::vector<u8> data(8 * BLOCK_BYTES, 0xEE);
        for (u64 i = 0; !stop; ++i)
            if (!m_mirror->write(i * 8 % BLOCKS, data.data(), 8).ok())
                ++wrong;
    });
    ApplyOptions options;
    options.m_stepBlocks = 40;
    options.m_noteEveryBlocks = 100;
    EXPECT_EQ(apply(61, nullptr, options).code(), ResultCode::InUse);
    const Result result = apply(60, nullptr, options);
    EXPECT_TRUE(result.ok()) << result.message();
    const u64 before = reads;
    while (reads < before + 50)
        std::this_thread::yield();
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(target(), m_images[60]);
}

} // namespace
