// The live volume and the shelf of views where the heap gives nothing: what met it fails, all
// others are answered, and the index says what the journal says.

#include <atomic>
#include <thread>

#include "appliance/LiveVolume.h"
#include "appliance/TrimmedZeroes.h"
#include "appliance/ViewShelf.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/ComesTrue.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Regions.h"
#include "tests/support/ReplacedHeap.h"
#include "tests/support/VoucherGuard.h"

namespace {

class NoMemoryTest : public MirrorFixture
{
protected:
    static constexpr u32 LENGTH = 8;

    void SetUp() override
    {
        MirrorFixture::SetUp();
        if (!HEAP_CAN_FAIL)
            GTEST_SKIP() << "the sanitizer's allocator does not fail";
    }

    void openLive()
    {
        m_live.reset();
        FlowControl control;
        const Result result = LiveVolume::open(*m_mirror, control, &m_live);
        ASSERT_TRUE(result.ok()) << result.message();
    }

    void TearDown() override
    {
        m_live.reset();
        MirrorFixture::TearDown();
    }

    // Writes somewhere within the part of the volume that is this writer's own.
    RcStatus writeOwn(u32 writer, std::mt19937& random)
    {
        const u64 offset = writer * PART_BLOCKS + random() % (PART_BLOCKS - LENGTH);
        const std::vector<u8> data(LENGTH * BLOCK_BYTES, static_cast<u8>(1 + random() % 255));
        const RcStatus rc = m_live->write(offset, data.data(), LENGTH);
        if (rc == RC_SUCCESS)
            std::copy(data.begin(), data.end(), m_image.begin() + offset * BLOCK_BYTES);
        return rc;
    }

    // How many a view takes that nobody else builds meanwhile.
    u64 allocationsOfAnOpening(const ChosenPoint& point)
    {
        for (u64 nth = 1; nth < 1000; ++nth) {
            ViewShelf shelf(*m_mirror, u64{1} << 30, true);
            ViewShelf::Lease lease;
            FailingHeap heap(nth);
            try {
                const Result ignored = shelf.open(point, &lease);
            } catch (const std::bad_alloc&) {
            }
            if (!heap.failed())
                return nth - 1;
        }
        return 0;
    }

    static constexpr u32 WRITERS = 4;
    static constexpr u64 PART_BLOCKS = BLOCKS / WRITERS;

    std::unique_ptr<LiveVolume> m_live;
    Image m_image = Image(BLOCKS * BLOCK_BYTES);
};

TEST_F(NoMemoryTest, EveryWriterIsAnsweredAndTheIndexIsTheJournals)
{
    makeMirror();
    u32 failures = 0;
    std::atomic<u32> others{0}; // refused for what another thread's heap did
    bool failed = true;
    for (u64 nth = 1; failed; ++nth) {
        ASSERT_LT(nth, 1000u);
        openLive();
        std::mt19937 own(static_cast<u32>(nth));
        // The index's memory for all of a round comes with the first write.
        ASSERT_EQ(writeOwn(0, own), RC_SUCCESS);
        std::vector<std::thread> threads;
        std::atomic<u32> wrong{0};
        for (u32 writer = 1; writer < WRITERS; ++writer) {
            threads.emplace_back([&, writer] {
                std::mt19937 random(static_cast<u32>(nth * WRITERS) + writer);
                for (int i = 0; i < 20; ++i) {
                    const RcStatus rc = writeOwn(writer, random);
                    others += rc == RC_NO_MEMORY;
                    wrong += rc != RC_SUCCESS && rc != RC_NO_MEMORY;
                }
            });
        }
        {
            std::vector<u8> data(LENGTH * BLOCK_BYTES, static_cast<u8>(nth));
            FailingHeap heap(nth);
            for (int i = 0; i < 8; ++i) {
                const RcStatus rc = m_live->write(0, data.data(), LENGTH);
                wrong += rc != RC_SUCCESS && (rc != RC_NO_MEMORY || !heap.failed());
                if (rc == RC_SUCCESS)
                    std::copy(data.begin(), data.end(), m_image.begin());
            }
            failed = heap.failed();
            failures += failed;
        }
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_EQ(wrong, 0u) << nth;
        ASSERT_EQ(writeOwn(0, own), RC_SUCCESS) << "later ones work";
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        ASSERT_EQ(m_live->read(0, BLOCKS, image.data()), RC_SUCCESS);
        ASSERT_EQ(image, m_image) << nth;
        const Regions regions = m_live->pieces(0, BLOCKS);
        openLive();
        ASSERT_EQ(m_live->pieces(0, BLOCKS), regions) << nth;
    }
    EXPECT_GT(failures, 10u);
    RecordProperty("failures", static_cast<int>(failures));
    RecordProperty("others", static_cast<int>(others.load()));
}

TEST_F(NoMemoryTest, OpenersOfAViewDoNotWaitForOneThatCouldNotBeBuilt)
{
    makeMirror();
    writeRandomly(1, 60);
    ChosenPoint point;
    point.m_items = 50;
    const LogCapture log;
    const u64 allocations = allocationsOfAnOpening(point);
    ASSERT_GT(allocations, 10u);
    const Image expected = m_images[50];
    u32 failures = 0;
    for (u64 nth = 1; nth <= allocations; ++nth) {
        ViewShelf shelf(*m_mirror, u64{1} << 30, true);
        std::atomic<u32> wrong{0};
        std::atomic<bool> begun{false};
        std::thread other([&] {
            begun = true;
            ViewShelf::Lease lease;
            Image image(BLOCKS * BLOCK_BYTES, 0xAA);
            wrong += !shelf.open(point, &lease).ok();
            wrong += !lease || lease->reader().read(0, BLOCKS, image.data()) != RC_SUCCESS ||
                     image != expected;
        });
        // Now and then the other one is to build, or to come when all is over.
        while (nth % 2 == 0 && !begun)
            std::this_thread::yield();
        {
            ViewShelf::Lease lease;
            FailingHeap heap(nth);
            try {
                const Result result = shelf.open(point, &lease);
                wrong += result.ok() != static_cast<bool>(lease);
            } catch (const std::bad_alloc&) {
                wrong += static_cast<bool>(lease);
            }
            failures += heap.failed(); // unless the other one was faster
        }
        other.join();
        ASSERT_EQ(wrong, 0u) << nth;
        ViewShelf::Lease lease;
        ASSERT_TRUE(shelf.open(point, &lease).ok());
        ASSERT_EQ(shelf.report().m_views, 1u);
    }
    EXPECT_GT(failures, 0u);
    EXPECT_TRUE(log.softChecks().empty()) << testing::PrintToString(log.texts());
    RecordProperty("failures", static_cast<int>(failures));
}

// The target is not what a view holds where the journal has something newer.
TEST_F(NoMemoryTest, AReaderThatIsWokenWithoutItsPiecesReadsNothing)
{
    makeMirror();
    writeRandomly(3, 60);
    const std::unique_ptr<View> held = view(60);
    RegionLocator& locator = held->locator();
    Regions regions = lockRange(locator, 0, BLOCKS);
    const VoucherGuard unlocking(locator.getMemPool(), 1000);
    ViewReader reader(*held);
    Image image(BLOCKS * BLOCK_BYTES, 0xAA);
    RcStatus rc = RC_WAIT;
    std::thread parked([&] { rc = reader.readNow(m_host.getEngine(), 0, BLOCKS, image.data()); });
    ASSERT_TRUE(comesTrue([&] { return RegionLocatorTestAccess::lockWaiter(locator) != nullptr; }));
    {
        const FailingHeap heap(1);
        locator.unlockAndRestore(regions, unlocking);
        EXPECT_TRUE(heap.failed());
    }
    parked.join();
    EXPECT_EQ(rc, RC_NO_MEMORY);
    EXPECT_EQ(readAll(*held), m_images.back()) << "nothing has stayed locked";
}

// Who says that it writes has journaled already, and could not take that back.
TEST_F(NoMemoryTest, TrimmedZeroesAreFewerAndNoneIsWrong)
{
    for (u64 nth = 1; nth <= 3; ++nth) {
        TrimmedZeroes zeroes;
        zeroes.note(0, 300);
        zeroes.start();
        ASSERT_TRUE(zeroes.add(0, 100));
        ASSERT_TRUE(zeroes.add(200, 50));
        {
            const FailingHeap heap(nth);
            zeroes.written(10, 10);
            zeroes.written(30, 10);
            zeroes.written(50, 10);
            ASSERT_TRUE(heap.failed());
        }
        EXPECT_EQ(zeroes.passEnd(), 200u) << "the last one has given way";
        u64 offset = 0;
        u64 end = 0;
        u64 blocks = 0;
        for (u64 at = 0; zeroes.next(at, &offset, &end); at = end)
            blocks += end - offset;
        EXPECT_EQ(blocks, 70u);
        {
            const FailingHeap heap(1);
            EXPECT_FALSE(zeroes.add(260, 10));
        }
        EXPECT_EQ(zeroes.passEnd(), 200u);
        zeroes.clear();

        zeroes.start();
        {
            const FailingHeap heap(1);
            EXPECT_FALSE(zeroes.add(20, 10));
        }
        EXPECT_EQ(zeroes.passEnd(), 20u);
    }
}

} // namespace
