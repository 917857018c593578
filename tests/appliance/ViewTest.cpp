#include "appliance/View.h"

#include <atomic>
#include <thread>

#include "appliance/Capture.h"
#include "appliance/Export.h"
#include "appliance/LiveVolume.h"
#include "appliance/ViewExtents.h"
#include "appliance/ViewPieces.h"
#include "host/tasks/BlockingTask.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/Accelerators.h"

namespace {

using ViewTest = MirrorFixture;

TEST_F(ViewTest, EmptyMirrorReadsAsTheTarget)
{
    makeMirror();
    const auto empty = view(0);
    EXPECT_EQ(empty->statistics().m_regions, 0u);
    EXPECT_EQ(readAll(*empty), m_images[0]);
}

TEST_F(ViewTest, EveryPointReadsAsTheVolumeWas)
{
    for (const Compression compression : {Compression::None, Compression::Lz4}) {
        m_images.resize(1);
        std::filesystem::remove_all(folder());
        makeMirror(compression);
        writeRandomly(1, 60);
        for (u64 items = 0; items <= 60; items += 7)
            ASSERT_EQ(readAll(*view(items)), m_images[items]) << items << " items";
        m_mirror.reset();
    }
}

TEST_F(ViewTest, HoldsWhatItsOwnProcessHasNotFlushed)
{
    makeMirror();
    writeRandomly(1, 5);
    const std::vector<u8> data(8 * BLOCK_BYTES, 7);
    Image image = m_images.back();
    for (u64 i = 0; i < 3; ++i) {
        ASSERT_TRUE(m_mirror->write(100 * i, data.data(), 8).ok());
        std::copy(data.begin(), data.end(),
                  image.begin() + static_cast<std::ptrdiff_t>(100 * i * BLOCK_BYTES));
    }
    const auto latest = view(8);
    ASSERT_NE(latest, nullptr);
    EXPECT_EQ(latest->statistics().m_itemsScanned, 8u);
    EXPECT_EQ(readAll(*latest), image);
}

TEST_F(ViewTest, IsRefusedWhereTheJournalEndsBeforeItsPoint)
{
    makeMirror();
    writeRandomly(1, 10);
    ChosenPoint point;
    point.m_items = 11;
    FlowControl control;
    std::unique_ptr<View> built;
    const Result result = View::build(*m_mirror, point, control, &built);
    EXPECT_EQ(result.code(), ResultCode::Damaged);
    EXPECT_EQ(result.message(), "the journal ends before item:11");
    EXPECT_EQ(built, nullptr);
}

TEST_F(ViewTest, MemoryIsCountedWithWhatSpeedsTheIndexUp)
{
    const Accelerators on(Accelerators::DIRECTORY, 100);
    makeMirror();
    const std::vector<u8> data(BLOCK_BYTES, 7);
    for (u64 i = 0; i < 500; ++i)
        ASSERT_TRUE(m_mirror->write(2 * i, data.data(), 1).ok());
    const auto latest = view(500);
    const u64 beside = latest->locator().getAcceleratorBytes();
    EXPECT_GT(beside, 0u);
    EXPECT_EQ(latest->memoryBytes(),
              latest->locator().getMemPool()->getMemoryStats().totalBytes + beside);
    FlowControl control;
    std::unique_ptr<LiveVolume> live;
    ASSERT_TRUE(LiveVolume::open(*m_mirror, control, &live).ok());
    EXPECT_GT(live->locator().getAcceleratorBytes(), 0u);
    EXPECT_EQ(live->memoryBytes(), live->locator().getMemPool()->getMemoryStats().totalBytes +
                                       live->locator().getAcceleratorBytes());
}

TEST_F(ViewTest, CheckpointHoldsWhatWasBeforeIt)
{
    makeMirror();
    writeRandomly(2, 10);
    CpId_t id = 0;
    ASSERT_TRUE(m_mirror->checkpoint("ten", &id).ok());
    EXPECT_EQ(id, 1u);
    writeRandomly(3, 10);
    openMirror(MirrorAccess::Reader);
    PointName name;
    ASSERT_TRUE(parsePoint("tag:ten", &name).ok());
    ChosenPoint point;
    ASSERT_TRUE(choosePoint(name, m_mirror->window(), &point).ok());
    FlowControl control;
    std::unique_ptr<View> atTen;
    ASSERT_TRUE(View::build(*m_mirror, point, control, &atTen).ok());
    EXPECT_EQ(atTen->statistics().m_itemsScanned, 10u);
    EXPECT_EQ(readAll(*atTen), m_images[10]);
}

TEST_F(ViewTest, ReadsInterleaveFromManyThreadsAndGiveAllLocksBack)
{
    makeMirror(Compression::Lz4);
    writeRandomly(4, 200);
    const auto latest = view(200);
    const u64 blocksBefore = latest->locator().getTotalRegionBlocks();
    ViewReader reader(*latest);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    const Image expected = m_images[200];
    for (u32 seed = 0; seed < 4; ++seed)
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            std::vector<u8> data(300 * BLOCK_BYTES);
            for (int i = 0; i < 100; ++i) {
                const u32 length = 1 + random() % 300;
                // Crowded, so that the ranges overlap and readers wait for each other.
                const u64 offset = random() % 600;
                const RcStatus rc = runAndWait(m_host.getEngine(), [&](AsyncTask* task) {
                    return reader.read(task, offset, length, data.data());
                });
                wrong += rc != RC_SUCCESS ||
                         std::memcmp(data.data(), expected.data() + offset * BLOCK_BYTES,
                                     length * BLOCK_BYTES) != 0;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(latest->gate().holding(), 0u);
    EXPECT_EQ(latest->gate().queued(), 0u);
    EXPECT_EQ(latest->locator().getTotalRegionBlocks(), blocksBefore);
    EXPECT_EQ(readAll(*latest), m_images[200]);
}

TEST_F(ViewTest, ReadBeyondTheEndOrPastTheDeadlineFailsAndLeavesNothingBehind)
{
    makeMirror();
    writeRandomly(5, 20);
    const auto latest = view(20);
    ViewReader reader(*latest);
    std::vector<u8> data(2 * BLOCK_BYTES);
    const auto read = [&](u64 offset, u32 length, u64 deadline) {
        return runAndWait(m_host.getEngine(), [&](AsyncTask* task) {
            return reader.read(task, offset, length, data.data(), deadline);
        });
    };
    EXPECT_EQ(read(BLOCKS - 1, 2, Clock::NEVER), RC_BAD_ARGUMENT);
    EXPECT_EQ(read(0, 0, Clock::NEVER), RC_BAD_ARGUMENT);
    EXPECT_EQ(read(~u64{0}, 1, Clock::NEVER), RC_BAD_ARGUMENT);

    LocatorGate::Ticket inTheWay;
    latest->gate().enter(&inTheWay, LocatorGate::Kind::Alone);
    EXPECT_EQ(read(0, 2, Clock::instance()->nowMs() + 20), RC_TIMED_OUT);
    EXPECT_EQ(latest->gate().queued(), 0u);
    latest->gate().leave(&inTheWay);
    EXPECT_EQ(read(0, 2, Clock::NEVER), RC_SUCCESS);
}

TEST_F(ViewTest, PiecesAndExtentsAgreeWithTheContent)
{
    makeMirror();
    writeRandomly(6, 80);
    const auto latest = view(80);
    const Image image = m_images[80];
    u64 position = 0;
    u64 dataBlocks = 0;
    for (const ViewPiece& piece : viewPieces(*latest, 0, BLOCKS)) {
        ASSERT_EQ(piece.m_offsetBytes, position);
        position += piece.m_lengthBytes;
        if (piece.m_type == ViewPiece::Type::Data) {
            dataBlocks += piece.m_lengthBytes / BLOCK_BYTES;
            continue;
        }
        for (u64 byte = piece.m_offsetBytes; byte < position; ++byte)
            ASSERT_EQ(image[byte], 0) << piece.typeName() << " at byte " << byte;
    }
    EXPECT_EQ(position, BLOCKS * BLOCK_BYTES);

    ViewExtents extents(*latest);
    u64 found = 0;
    for (u64 block = 0; block < BLOCKS;) {
        u64 start = 0;
        u64 end = 0;
        ASSERT_TRUE(extents.next(block, 50, &start, &end).ok());
        ASSERT_LE(end - start, 50u);
        found += end - start;
        block = end;
    }
    EXPECT_EQ(found, dataBlocks);
}

TEST_F(ViewTest, ExportedImageCapturedIntoAnotherMirrorIsTheSame)
{
    makeMirror();
    writeRandomly(7, 60);
    const auto then = view(40);
    FlowControl control;
    ExportStatistics exported;
    const std::string path = m_root + "/image";
    ASSERT_TRUE(exportView(*then, m_host.getEngine(), path, control, &exported).ok());

    MirrorSettings settings;
    settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
    ASSERT_TRUE(Mirror::create(m_root + "/other", settings).ok());
    std::unique_ptr<Mirror> other;
    ASSERT_TRUE(
        Mirror::open(m_root + "/other", MirrorAccess::Writer, JournalRecovery::Tail, &other).ok());
    CaptureStatistics captured;
    ASSERT_TRUE(captureImage(*other, m_host.getEngine(), path, "copy", control, &captured).ok());
    ChosenPoint point;
    point.m_items = other->window().m_items;
    std::unique_ptr<View> copy;
    ASSERT_TRUE(View::build(*other, point, control, &copy).ok());
    EXPECT_EQ(readAll(*copy), m_images[40]);
}

TEST_F(ViewTest, InterruptedExportLeavesTheOldFile)
{
    class Stop : public FlowControl
    {
        bool stopRequested() override { return true; }
    } stop;
    makeMirror();
    writeRandomly(8, 20);
    const auto latest = view(20);
    const std::string path = m_root + "/image";
    std::FILE* old = std::fopen(path.c_str(), "w");
    ASSERT_NE(old, nullptr);
    std::fclose(old);
    ExportStatistics statistics;
    EXPECT_EQ(exportView(*latest, m_host.getEngine(), path, stop, &statistics).code(),
              ResultCode::Interrupted);
    EXPECT_EQ(std::filesystem::file_size(path), 0u);
    size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(m_root))
        ++files;
    EXPECT_EQ(files, 2u); // the mirror and the old file
}

TEST_F(ViewTest, MirrorHasOneWriterAndManyReaders)
{
    makeMirror();
    std::unique_ptr<Mirror> second;
    EXPECT_EQ(Mirror::open(folder(), MirrorAccess::Writer, JournalRecovery::Tail, &second).code(),
              ResultCode::InUse);
    EXPECT_TRUE(Mirror::open(folder(), MirrorAccess::Reader, JournalRecovery::Tail, &second).ok());
    MirrorSettings settings;
    settings.m_sizeBytes = 512;
    EXPECT_EQ(Mirror::create(folder(), settings).code(), ResultCode::Failed);
    EXPECT_EQ(Mirror::open(m_root, MirrorAccess::Reader, JournalRecovery::Tail, &second).code(),
              ResultCode::NotFound);
}

} // namespace
