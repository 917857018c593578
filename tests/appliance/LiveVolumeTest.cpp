#include "appliance/LiveVolume.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "appliance/Apply.h"
#include "appliance/RecordState.h"
#include "appliance/Trim.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/ComesTrue.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Regions.h"

namespace {

using namespace std::chrono_literals;

class LiveVolumeTest : public MirrorFixture
{
protected:
    void TearDown() override
    {
        m_live.reset();
        MirrorFixture::TearDown();
    }

    void openLive()
    {
        m_live.reset();
        FlowControl control;
        const Result result = LiveVolume::open(*m_mirror, control, &m_live);
        ASSERT_TRUE(result.ok()) << result.message();
    }

    void makeLive(Compression compression = Compression::None)
    {
        makeMirror(compression);
        openLive();
    }

    // What another process finds after this one has closed the mirror.
    void reopen()
    {
        m_live.reset();
        openMirror();
        openLive();
    }

    Regions regions() { return m_live->pieces(0, BLOCKS); }

    Image readLive()
    {
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        EXPECT_EQ(m_live->read(0, BLOCKS, image.data()), RC_SUCCESS);
        return image;
    }

    // One random request, to the volume and to the image.
    void changeRandomly(std::mt19937& random, Image& image)
    {
        const u32 length = 1 + random() % 60;
        const u64 offset = random() % (BLOCKS - length);
        u8* data = image.data() + offset * BLOCK_BYTES;
        if (random() % 4 == 0) {
            std::memset(data, 0, size_t{length} * BLOCK_BYTES);
            ASSERT_EQ(m_live->writeZeroes(offset, length), RC_SUCCESS);
            return;
        }
        for (u32 byte = 0; byte < length * BLOCK_BYTES; ++byte)
            data[byte] = static_cast<u8>(byte % 2 == 0 ? random() : 7);
        ASSERT_EQ(m_live->write(offset, data, length), RC_SUCCESS);
    }

    // Brings the target to some point and trims to it. Returns the items that left the journal.
    u64 applyAndTrim(u64 items)
    {
        ChosenPoint to;
        to.m_items = items;
        FlowControl control;
        ApplyStatistics applied;
        TrimStatistics trimmed;
        EXPECT_EQ(m_live->flush(), RC_SUCCESS);
        Result result =
            applyMirror(*m_mirror, m_host.getEngine(), to, ApplyOptions(), control, &applied);
        EXPECT_TRUE(result.ok()) << result.message();
        result = trimMirror(*m_mirror, m_host.getEngine(), to, TrimOptions(), control, &trimmed);
        EXPECT_TRUE(result.ok()) << result.message();
        return trimmed.m_items;
    }

    std::unique_ptr<LiveVolume> m_live;
};

TEST_F(LiveVolumeTest, ReadsWhatWasWrittenAndComesBackTheSame)
{
    for (const Compression compression : {Compression::None, Compression::Lz4, Compression::Zstd}) {
        m_live.reset();
        std::filesystem::remove_all(folder());
        makeLive(compression);
        std::mt19937 random(static_cast<u32>(compression) + 1);
        Image image(BLOCKS * BLOCK_BYTES);
        EXPECT_EQ(readLive(), image) << "nothing was written";
        for (int i = 0; i < 400; ++i) {
            changeRandomly(random, image);
            const u32 length = 1 + random() % 300;
            const u64 offset = random() % (BLOCKS - length);
            std::vector<u8> part(length * BLOCK_BYTES, 0xAA);
            ASSERT_EQ(m_live->read(offset, length, part.data()), RC_SUCCESS);
            ASSERT_EQ(std::memcmp(part.data(), image.data() + offset * BLOCK_BYTES, part.size()), 0)
                << i;
            if (i % 100 == 50) {
                ASSERT_EQ(m_live->flush(), RC_SUCCESS);
            }
        }
        EXPECT_EQ(readLive(), image);
        const Regions before = regions();
        reopen();
        EXPECT_EQ(regions(), before) << compressionName(compression);
        EXPECT_EQ(readLive(), image);
    }
}

TEST_F(LiveVolumeTest, KeepsTheJournalsOrderHoweverRequestsOverlap)
{
    makeLive();
    constexpr u32 THREADS = 8;
    constexpr u32 ROUNDS = 300;
    std::vector<std::thread> threads;
    std::atomic<u32> failures{0};
    for (u32 id = 0; id < THREADS; ++id) {
        threads.emplace_back([&, id] {
            std::mt19937 random(id);
            std::vector<u8> data(64 * BLOCK_BYTES);
            for (u32 i = 0; i < ROUNDS; ++i) {
                const u32 length = 1 + random() % 64;
                const u64 offset = random() % 256; // so that most overlap
                std::fill(data.begin(), data.end(), static_cast<u8>(1 + random() % 255));
                const RcStatus rc = random() % 5 == 0 ? m_live->writeZeroes(offset, length)
                                                      : m_live->write(offset, data.data(), length);
                failures += rc != RC_SUCCESS;
                failures += m_live->read(offset, length, data.data()) != RC_SUCCESS;
                if (i % 50 == 0)
                    failures += m_live->flush() != RC_SUCCESS;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_EQ(m_mirror->journal().itemCount(), u64{THREADS} * ROUNDS);
    EXPECT_LE(m_live->groups(), u64{THREADS} * ROUNDS);
    const Regions before = regions();
    const Image image = readLive();
    ASSERT_EQ(m_live->flush(), RC_SUCCESS);
    EXPECT_EQ(readAll(*view(u64{THREADS} * ROUNDS)), image)
        << "the index of the view is the scan's";
    reopen();
    EXPECT_EQ(regions(), before);
    EXPECT_EQ(readLive(), image);
}

TEST_F(LiveVolumeTest, TwoOverlappingWritesEndAsOneOfTheTwoOrders)
{
    makeLive();
    constexpr u32 LENGTH = 64;
    for (int round = 0; round < 100; ++round) {
        const auto write = [&](u64 offset, u8 value) {
            const std::vector<u8> data(LENGTH * BLOCK_BYTES, value);
            EXPECT_EQ(m_live->write(offset, data.data(), LENGTH), RC_SUCCESS);
        };
        std::thread other([&] { write(0, 1); });
        write(LENGTH / 2, 2);
        other.join();
        std::vector<u8> read(LENGTH * BLOCK_BYTES);
        ASSERT_EQ(m_live->read(0, LENGTH, read.data()), RC_SUCCESS);
        const u8 shared = read.back();
        for (size_t i = 0; i < read.size(); ++i)
            ASSERT_EQ(read[i], i < read.size() / 2 ? 1 : shared) << round;
    }
}

TEST_F(LiveVolumeTest, RefusesWhatIsNoRequest)
{
    makeLive();
    const std::vector<u8> data(8 * BLOCK_BYTES);
    std::vector<u8> read(data.size());
    EXPECT_EQ(m_live->write(0, data.data(), 0), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_live->write(BLOCKS - 7, data.data(), 8), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_live->write(~u64{0} - 2, data.data(), 8), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_live->writeZeroes(0, 0), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_live->writeZeroes(1, BLOCKS), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_live->read(BLOCKS - 7, 8, read.data()), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_live->read(BLOCKS + 1, 0, read.data()), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_live->read(~u64{0}, 1, read.data()), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_mirror->journal().itemCount(), 0u);
    EXPECT_EQ(m_live->writeZeroes(0, BLOCKS), RC_SUCCESS);
    EXPECT_EQ(m_live->write(BLOCKS - 8, data.data(), 8), RC_SUCCESS);
}

TEST_F(LiveVolumeTest, ZeroesTakeNoDataWhateverTheirLength)
{
    MirrorSettings settings;
    settings.m_sizeBytes = u64{1} << 40;
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    openLive();
    const std::vector<u8> data(BLOCK_BYTES, 9);
    ASSERT_EQ(m_live->write(70000, data.data(), 1), RC_SUCCESS);
    const u64 used = m_mirror->journal().bytesUsed();
    ASSERT_EQ(m_live->writeZeroes(0, settings.sizeBlocks()), RC_SUCCESS);
    EXPECT_EQ(m_live->writeZeroes(1, 66000), RC_SUCCESS);
    EXPECT_LT(m_mirror->journal().bytesUsed() - used, u64{2} << 20) << "items alone";
    std::vector<u8> read(BLOCK_BYTES, 0xAA);
    ASSERT_EQ(m_live->read(70000, 1, read.data()), RC_SUCCESS);
    EXPECT_EQ(read, std::vector<u8>(BLOCK_BYTES));
    const u64 regions = m_live->locator().getItemCount();
    reopen();
    EXPECT_EQ(m_live->locator().getItemCount(), regions);
}

TEST_F(LiveVolumeTest, WithoutMemoryWritesAreRefusedAndReadingGoesOn)
{
    makeLive();
    m_live.reset();
    m_mirror.reset();
    u32 refused = 0;
    {
        const LimitedMemory limited(16 << 10, 192 << 10);
        openMirror();
        openLive();
        std::vector<u8> data(BLOCK_BYTES);
        Image image(BLOCKS * BLOCK_BYTES);
        // Every second block alone, so that none of them becomes one region with another.
        for (u64 block = 0; block + 1 < BLOCKS * 2; ++block) {
            const u64 at = (block * 2) % BLOCKS + (block * 2) / BLOCKS;
            data.assign(BLOCK_BYTES, static_cast<u8>(block));
            const RcStatus rc = m_live->write(at, data.data(), 1);
            ASSERT_TRUE(rc == RC_SUCCESS || rc == RC_NO_MEMORY) << rcStatusText(rc);
            refused += rc == RC_NO_MEMORY;
            if (rc == RC_SUCCESS)
                std::memcpy(image.data() + at * BLOCK_BYTES, data.data(), BLOCK_BYTES);
            if (at + 1 == BLOCKS)
                break;
        }
        EXPECT_EQ(readLive(), image);
        EXPECT_EQ(m_live->locator().getItemCount(), m_mirror->journal().itemCount())
            << "what was refused is in neither";
        EXPECT_EQ(m_live->refused(), refused);
        m_live.reset();
        m_mirror.reset();
        m_images.replaceLast(image);
    }
    EXPECT_GT(refused, 0u) << "the limit was never reached";
    openMirror();
    openLive();
    EXPECT_EQ(readLive(), m_images.back());
}

TEST_F(LiveVolumeTest, AFullJournalRefusesWritesUntilItIsTrimmed)
{
    MirrorSettings settings;
    settings.m_sizeBytes = u64{1} << 30;
    settings.m_journalLimitBytes = u64{48} << 20;
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    openLive();
    constexpr u32 LENGTH = 2048;
    std::vector<u8> data(LENGTH * BLOCK_BYTES);
    const auto fill = [&](u32 number) {
        std::fill(data.begin(), data.end(), static_cast<u8>(number + 1));
    };
    u32 written = 0;
    RcStatus rc = RC_SUCCESS;
    for (; written < 100 && rc == RC_SUCCESS; ++written) {
        fill(written);
        rc = m_live->write(u64{written} * LENGTH, data.data(), LENGTH);
    }
    --written;
    ASSERT_EQ(rc, RC_NO_SPACE);
    ASSERT_GT(written, 40u);
    const auto readsBack = [&](u32 number) {
        std::vector<u8> read(data.size());
        fill(number);
        return m_live->read(u64{number} * LENGTH, LENGTH, read.data()) == RC_SUCCESS &&
               read == data;
    };
    for (u32 number = 0; number < written; ++number)
        EXPECT_TRUE(readsBack(number)) << number;
    ASSERT_EQ(m_live->flush(), RC_SUCCESS);

    ChosenPoint to;
    to.m_items = written;
    FlowControl control;
    ApplyStatistics applied;
    TrimStatistics trimmed;
    ASSERT_TRUE(
        applyMirror(*m_mirror, m_host.getEngine(), to, ApplyOptions(), control, &applied).ok());
    ASSERT_TRUE(
        trimMirror(*m_mirror, m_host.getEngine(), to, TrimOptions(), control, &trimmed).ok());
    EXPECT_GT(trimmed.m_removedIos, 0u) << "taken out of the live index";
    for (u32 number = 0; number < written; ++number)
        EXPECT_TRUE(readsBack(number)) << number << ", from the target now";
    fill(written);
    EXPECT_EQ(m_live->write(u64{written} * LENGTH, data.data(), LENGTH), RC_SUCCESS);
    EXPECT_TRUE(readsBack(written));
    const Regions before = m_live->pieces(0, static_cast<u32>(settings.sizeBlocks()));
    reopen();
    EXPECT_EQ(m_live->pieces(0, static_cast<u32>(settings.sizeBlocks())), before);
}

TEST_F(LiveVolumeTest, DamageIsConfinedToItsBlocksAndTold)
{
    makeLive();
    std::vector<u8> data(16 * BLOCK_BYTES, 5);
    ASSERT_EQ(m_live->write(100, data.data(), 16), RC_SUCCESS);
    ASSERT_EQ(m_live->write(200, data.data(), 16), RC_SUCCESS);
    {
        // The fourth block of the first write.
        std::fstream grain(folder() + "/journal/d-0000000001",
                           std::ios::in | std::ios::out | std::ios::binary);
        grain.seekp(3 * BLOCK_BYTES + 77);
        grain.put(6);
    }
    LogCapture log;
    data.resize(24 * BLOCK_BYTES);
    EXPECT_EQ(m_live->read(96, 24, data.data()), RC_BAD_CHECKSUM);
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_NE(log.texts().front().find("block 103 is not served"), std::string::npos)
        << log.texts().front();
    EXPECT_EQ(m_live->read(103, 1, data.data()), RC_BAD_CHECKSUM);
    EXPECT_EQ(m_live->read(100, 3, data.data()), RC_SUCCESS);
    EXPECT_EQ(m_live->read(104, 12, data.data()), RC_SUCCESS);
    EXPECT_EQ(m_live->read(196, 16, data.data()), RC_SUCCESS);
    EXPECT_EQ(m_live->sources().m_badBlocks, 2u);
}

// Readers and writers go on while the journal is applied and trimmed below them, again and again.
TEST_F(LiveVolumeTest, ApplyAndTrimBesideReadersAndWriters)
{
    MirrorSettings settings;
    settings.m_sizeBytes = u64{64} << 20;
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    openLive();
    constexpr u32 THREADS = 3;
    constexpr u32 LENGTH = 64;
    constexpr u32 PLACES = 512; // many, so that some are what they were when a trim comes
    std::atomic<bool> stop{false};
    std::atomic<u32> failures{0};
    std::atomic<u64> requests{0};
    std::vector<std::thread> threads;
    std::vector<std::vector<u8>> last(THREADS, std::vector<u8>(PLACES, 0));
    for (u32 id = 0; id < THREADS; ++id) {
        threads.emplace_back([&, id] {
            // Each has places of its own, so that it knows what it has to read.
            std::mt19937 random(id + 10);
            std::vector<u8> data(LENGTH * BLOCK_BYTES);
            std::vector<u8> read(LENGTH * BLOCK_BYTES);
            while (!stop) {
                const u32 place = random() % PLACES;
                const u64 offset = (u64{place} * THREADS + id) * LENGTH;
                if (random() % 2 == 0) {
                    const u8 value = static_cast<u8>(random() % 4 == 0 ? 0 : 1 + random() % 255);
                    std::fill(data.begin(), data.end(), value);
                    failures +=
                        (value == 0 ? m_live->writeZeroes(offset, LENGTH)
                                    : m_live->write(offset, data.data(), LENGTH)) != RC_SUCCESS;
                    last[id][place] = value;
                }
                failures += m_live->read(offset, LENGTH, read.data()) != RC_SUCCESS;
                std::fill(data.begin(), data.end(), last[id][place]);
                failures += read != data;
                ++requests;
            }
        });
    }
    u64 removed = 0;
    atLeastFor(
        3s, [&] { return removed > 0 && requests >= 1000; },
        [&] {
            ChosenPoint to;
            to.m_items = m_mirror->journal().itemCount();
            ASSERT_EQ(m_live->flush(), RC_SUCCESS);
            FlowControl control;
            ApplyStatistics applied;
            TrimStatistics trimmed;
            ASSERT_TRUE(
                applyMirror(*m_mirror, m_host.getEngine(), to, ApplyOptions(), control, &applied)
                    .ok());
            ASSERT_TRUE(
                trimMirror(*m_mirror, m_host.getEngine(), to, TrimOptions(), control, &trimmed)
                    .ok());
            removed += trimmed.m_removedIos;
        });
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_GT(removed, 0u);
    EXPECT_GE(requests, 1000u);
    for (u32 id = 0; id < THREADS; ++id) {
        for (u32 place = 0; place < PLACES; ++place) {
            std::vector<u8> read(LENGTH * BLOCK_BYTES, 0xAA);
            ASSERT_EQ(m_live->read((u64{place} * THREADS + id) * LENGTH, LENGTH, read.data()),
                      RC_SUCCESS);
            ASSERT_EQ(read, std::vector<u8>(read.size(), last[id][place]));
        }
    }
}

// Zeroes have no journal address, by which those that go could be told from those that stay.
TEST_F(LiveVolumeTest, AfterTrimsTheIndexIsTheOneThatARestartBuilds)
{
    for (u32 seed = 1; seed <= 4; ++seed) {
        m_live.reset();
        m_mirror.reset();
        std::filesystem::remove_all(folder());
        makeLive(seed % 2 == 0 ? Compression::Lz4 : Compression::None);
        std::mt19937 random(seed);
        Image image(BLOCKS * BLOCK_BYTES);
        u64 trimmed = 0;
        u64 applied = 0;
        for (int round = 0; round < 12; ++round) {
            for (u32 i = 0; i < 30 + random() % 60; ++i) {
                changeRandomly(random, image);
                if (random() % 8 == 0) {
                    ASSERT_EQ(m_live->flush(), RC_SUCCESS); // ends a page
                }
            }
            const u64 items = m_mirror->journal().itemCount();
            applied = std::max(applied, items - std::min<u64>(items, random() % 60));
            trimmed += applyAndTrim(applied);
            EXPECT_EQ(readLive(), image);
            const Regions before = regions();
            reopen();
            ASSERT_EQ(regions(), before) << "seed:" << seed << " round:" << round;
            EXPECT_EQ(readLive(), image);
        }
        EXPECT_GT(trimmed, 100u);
    }
}

TEST_F(LiveVolumeTest, WithNothingButTrimmedZeroesTheIndexIsEmpty)
{
    makeLive();
    for (u64 block = 0; block + 64 <= BLOCKS; block += 64)
        ASSERT_EQ(m_live->writeZeroes(block, 50), RC_SUCCESS);
    ASSERT_FALSE(regions().empty());
    EXPECT_EQ(applyAndTrim(BLOCKS / 64), BLOCKS / 64);
    EXPECT_EQ(regions(), Regions());
    EXPECT_FALSE(m_mirror->trimmedZeroes().hasNoted());
}

// Most requests are zeroes in few places, so that many come while a trim decides about the same.
TEST_F(LiveVolumeTest, TheIndexIsExactAlsoWhereWritersGoOnBesideTrims)
{
    makeLive();
    std::atomic<bool> stop{false};
    std::atomic<u32> failures{0};
    std::vector<std::thread> threads;
    for (u32 id = 0; id < 2; ++id) {
        threads.emplace_back([&, id] {
            std::mt19937 random(id + 20);
            std::vector<u8> data(32 * BLOCK_BYTES, 5);
            while (!stop) {
                const u32 length = 1 + random() % 32;
                const u64 offset = random() % (BLOCKS - length);
                failures +=
                    (random() % 4 != 0 ? m_live->writeZeroes(offset, length)
                                       : m_live->write(offset, data.data(), length)) != RC_SUCCESS;
                if (random() % 16 == 0)
                    std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
            }
        });
    }
    u64 trimmed = 0;
    atLeastFor(
        2500ms, [&] { return trimmed > 1000; },
        [&] { trimmed += applyAndTrim(m_mirror->journal().itemCount()); });
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_GT(trimmed, 1000u);
    const Image image = readLive();
    const Regions before = regions();
    reopen();
    EXPECT_EQ(regions(), before);
    EXPECT_EQ(readLive(), image);
}

// What clients write would be taken for lines of the trace.
TEST_F(LiveVolumeTest, ARecordingThatWasInterruptedCannotGoOnBehindIt)
{
    makeMirror();
    ASSERT_TRUE(storeRecordState(m_mirror->storage(), {1, 2, 0}).ok());
    FlowControl control;
    std::unique_ptr<LiveVolume> live;
    ASSERT_TRUE(LiveVolume::open(*m_mirror, control, &live).ok());
    RecordState state;
    EXPECT_EQ(loadRecordState(m_mirror->storage(), &state).code(), ResultCode::NotFound);
}

} // namespace
