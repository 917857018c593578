// Reads on the caller's own thread of a volume whose content is in many places: on the target, in
// plain and compressed journal IOs of which pieces are left, and nowhere.
#include "appliance/DirectReader.h"

#include <thread>

#include "host/journal/FileGrainStore.h"
#include "host/journal/FileStorage.h"
#include "tests/appliance/MirrorFixture.h"
#include "tests/support/LogCapture.h"

namespace {

class DirectReaderTest : public MirrorFixture, public testing::WithParamInterface<Compression>
{
protected:
    // A target that is full of data, and small writes all over it.
    void fragment(u32 count)
    {
        makeMirror(GetParam());
        std::mt19937 random(1);
        Image base = m_images.back();
        for (u8& byte : base)
            byte = static_cast<u8>(random());
        m_images.replaceLast(base);
        std::unique_ptr<StorageFile> target;
        ASSERT_EQ(PosixFile::open(folder() + "/target", StorageAccess::ReadWrite, &target),
                  RC_SUCCESS);
        ASSERT_EQ(target->pwrite(base.data(), base.size(), 0), RC_SUCCESS);
        writeRandomly(2, count);
    }

    // Any blocks, at the ends of the volume too.
    void readRandomly(DirectReader& reader, const Image& expected, u32 seed)
    {
        std::mt19937 random(seed);
        std::vector<u8> buffer;
        for (u32 run = 0; run < 50; ++run) {
            const u32 length = 1 + random() % (run % 2 == 0 ? 30 : 700);
            const u64 offset = random() % (BLOCKS - length + 1);
            buffer.assign(u64{length} * BLOCK_BYTES + 1, 0xAA);
            ASSERT_EQ(reader.read(offset, length, buffer.data()), RC_SUCCESS);
            ASSERT_EQ(buffer.back(), 0xAA) << "behind the buffer's end";
            ASSERT_EQ(std::memcmp(buffer.data(), expected.data() + offset * BLOCK_BYTES,
                                  u64{length} * BLOCK_BYTES),
                      0)
                << offset << " " << length;
        }
    }

    ReadSources m_sources;
};

TEST_P(DirectReaderTest, EveryBlockComesFromWhereItIs)
{
    fragment(90);
    for (const u64 items : {0, 1, 30, 90}) {
        const auto at = view(items);
        DirectReader reader(*m_mirror, at->locator(), "view", m_sources);
        readRandomly(reader, m_images[items], static_cast<u32>(items));
        Image all(BLOCKS * BLOCK_BYTES, 0xAA);
        ASSERT_EQ(reader.read(0, BLOCKS, all.data()), RC_SUCCESS);
        EXPECT_EQ(all, m_images[items]);
    }
    EXPECT_GT(m_sources.m_targetBytes, 0u);
    EXPECT_GT(m_sources.m_plainBytes + m_sources.m_compressedBytes, 0u);
    EXPECT_GT(m_sources.m_zeroBytes, 0u);
    EXPECT_EQ(m_sources.m_badBlocks, 0u);
}

TEST_P(DirectReaderTest, CountsEachByteByItsSource)
{
    fragment(60);
    const auto at = view(60);
    DirectReader reader(*m_mirror, at->locator(), "view", m_sources);
    Image all(BLOCKS * BLOCK_BYTES, 0xAA);
    ASSERT_EQ(reader.read(0, BLOCKS, all.data()), RC_SUCCESS);
    EXPECT_EQ(m_sources.m_targetBytes + m_sources.m_plainBytes + m_sources.m_compressedBytes +
                  m_sources.m_zeroBytes,
              BLOCKS * BLOCK_BYTES);
}

TEST_P(DirectReaderTest, ThreadsReadAtTheSameTime)
{
    fragment(60);
    const auto at = view(60);
    DirectReader reader(*m_mirror, at->locator(), "view", m_sources);
    std::vector<std::thread> threads;
    for (u32 thread = 0; thread < 3; ++thread)
        threads.emplace_back([&, thread] { readRandomly(reader, m_images[60], thread); });
    for (std::thread& thread : threads)
        thread.join();
}

// A block that somebody else's write has made obsolete is read over, or not at all; only who wants
// a damaged block is refused.
TEST_P(DirectReaderTest, RefusesWhatIsDamagedAndSaysWhere)
{
    fragment(60);
    const auto at = view(60);
    DirectReader reader(*m_mirror, at->locator(), "view", m_sources);
    std::unique_ptr<StorageFile> grain;
    ASSERT_EQ(PosixFile::open(folder() + "/journal/" + FileGrainStore::fileName(GrainKind::Data, 1),
                              StorageAccess::ReadWrite, &grain),
              RC_SUCCESS);
    u32 refused = 0;
    for (u64 address = 0; address < 300; address += 9) {
        u8 byte = 0;
        u64 done = 0;
        const u64 place = address * BLOCK_BYTES + 3;
        ASSERT_EQ(grain->pread(&byte, 1, place, &done), RC_SUCCESS);
        ASSERT_EQ(done, 1u);
        const u8 damaged = static_cast<u8>(~byte);
        ASSERT_EQ(grain->pwrite(&damaged, 1, place), RC_SUCCESS);
        Image all(BLOCKS * BLOCK_BYTES, 0xAA);
        LogCapture log;
        const RcStatus rc = reader.read(0, BLOCKS, all.data());
        if (rc == RC_SUCCESS) {
            ASSERT_EQ(all, m_images[60]);
            for (const LogRecord& record : log.records())
                ADD_FAILURE() << record.m_text;
        } else {
            ++refused;
            ASSERT_EQ(rc, RC_BAD_CHECKSUM);
            ASSERT_EQ(log.records().size(), 1u);
            const std::string text = log.texts()[0];
            EXPECT_NE(text.find("data grain 1 block " + std::to_string(address) + ": "),
                      std::string::npos)
                << text;
            if (GetParam() == Compression::None) {
                // The block that it names holds what was stored there.
                const u64 block = std::stoull(text.substr(text.find(": block ") + 8));
                ASSERT_LT(block, BLOCKS);
                std::vector<u8> stored(BLOCK_BYTES);
                ASSERT_EQ(grain->pwrite(&byte, 1, place), RC_SUCCESS);
                ASSERT_EQ(grain->pread(stored.data(), BLOCK_BYTES, address * BLOCK_BYTES, &done),
                          RC_SUCCESS);
                EXPECT_EQ(std::memcmp(stored.data(), m_images[60].data() + block * BLOCK_BYTES,
                                      BLOCK_BYTES),
                          0);
            }
        }
        ASSERT_EQ(grain->pwrite(&byte, 1, place), RC_SUCCESS);
    }
    EXPECT_GT(refused, 10u);
    EXPECT_EQ(m_sources.m_badBlocks, refused);
}

INSTANTIATE_TEST_SUITE_P(Kinds, DirectReaderTest,
                         testing::Values(Compression::None, Compression::Lz4),
                         [](const auto& kind) { return compressionName(kind.param); });

} // namespace
