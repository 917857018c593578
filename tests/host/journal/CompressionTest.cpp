#include "host/journal/Compression.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

#include "host/journal/Crc32c.h"
#include "tests/support/JournalReadback.h"

namespace {

class CompressionTest : public testing::TestWithParam<Compression>
{};

TEST(Crc32cTest, HasThePublishedCheckValueAndGoesOn)
{
    EXPECT_EQ(crc32c("123456789", 9), 0xe3069283u);
    EXPECT_EQ(crc32c("56789", 5, crc32c("1234", 4)), 0xe3069283u);
    EXPECT_EQ(crc32c("", 0), 0u);
}

TEST(Crc32cTest, PutsTheWholeTogetherFromItsBlocks)
{
    const u32 mostBlocks = 300;
    std::vector<u8> data(mostBlocks * BLOCK_BYTES);
    u32 random = 1;
    for (u8& byte : data)
        byte = static_cast<u8>((random = random * 1664525 + 1013904223) >> 24);
    std::vector<u32> checksums(mostBlocks);
    for (const u32 blocks : {0U, 1U, 2U, 3U, 8U, 299U, mostBlocks}) {
        EXPECT_EQ(crc32cOfBlocks(data.data(), blocks, checksums.data()),
                  crc32c(data.data(), blocks * BLOCK_BYTES))
            << blocks;
        for (u32 i = 0; i < blocks; ++i)
            ASSERT_EQ(checksums[i], crc32c(&data[i * BLOCK_BYTES], BLOCK_BYTES)) << i;
    }
}

TEST_P(CompressionTest, ComesBackWholeAndInPart)
{
    CompressionContext context;
    for (const u32 blocks : {2u, 3u, 64u, 2048u}) {
        const std::vector<u8> data = patternBlocks(blocks, blocks, true);
        const u8* out = nullptr;
        const u32 bytes = context.compress(GetParam(), data.data(), blocks, &out);
        ASSERT_GT(bytes, 0u);
        ASSERT_LE((bytes + BLOCK_BYTES - 1) / BLOCK_BYTES, blocks - 1);
        const std::vector<u8> stored(out, out + bytes);
        EXPECT_EQ(CompressionContext::lengthBlocks(stored.data(), bytes), blocks);
        for (const u32 wanted : {1u, blocks / 2, blocks}) {
            const u8* plain = nullptr;
            ASSERT_EQ(context.decompress(stored.data(), bytes, wanted, &plain), RC_SUCCESS);
            EXPECT_EQ(std::memcmp(plain, data.data(), u64{wanted} * BLOCK_BYTES), 0);
        }
    }
}

TEST_P(CompressionTest, IsNotKeptWhereItSavesNoBlock)
{
    CompressionContext context;
    const u8* out = nullptr;
    const std::vector<u8> data = patternBlocks(1, 8);
    EXPECT_EQ(context.compress(GetParam(), data.data(), 8, &out), 0u);
    const std::vector<u8> zeroes(BLOCK_BYTES);
    EXPECT_EQ(context.compress(GetParam(), zeroes.data(), 1, &out), 0u);
}

TEST_P(CompressionTest, EveryTruncationAndWrongHeaderIsCorrupted)
{
    CompressionContext context;
    const std::vector<u8> data = patternBlocks(1, 4, true);
    const u8* out = nullptr;
    const u32 bytes = context.compress(GetParam(), data.data(), 4, &out);
    const std::vector<u8> stored(out, out + bytes);
    const u8* plain = nullptr;
    for (u32 shorter = 0; shorter < bytes; ++shorter) {
        const std::vector<u8> part(stored.begin(), stored.begin() + shorter);
        const RcStatus rc = context.decompress(part.data(), shorter, 4, &plain);
        // The very end of a stream may hold nothing of the data.
        if (rc == RC_SUCCESS) {
            EXPECT_EQ(std::memcmp(plain, data.data(), data.size()), 0) << shorter;
            EXPECT_GT(shorter + 8, bytes);
        } else {
            EXPECT_EQ(rc, RC_CORRUPTED_OBJECT);
        }
    }
    EXPECT_EQ(context.decompress(stored.data(), bytes, 5, &plain), RC_CORRUPTED_OBJECT);
    EXPECT_EQ(context.decompress(stored.data(), bytes, 0, &plain), RC_CORRUPTED_OBJECT);
    std::vector<u8> wrong = stored;
    wrong[0] = 7;
    EXPECT_EQ(context.decompress(wrong.data(), bytes, 4, &plain), RC_CORRUPTED_OBJECT);
    ASSERT_EQ(context.decompress(stored.data(), bytes, 4, &plain), RC_SUCCESS)
        << "a context is good for more after a failure";
}

INSTANTIATE_TEST_SUITE_P(, CompressionTest, testing::Values(Compression::Lz4, Compression::Zstd),
                         [](const auto& one) { return compressionName(one.param); });

TEST(CompressionNameTest, RoundTrips)
{
    Compression found = Compression::None;
    EXPECT_TRUE(compressionFromName("zstd", &found));
    EXPECT_EQ(found, Compression::Zstd);
    EXPECT_TRUE(compressionFromName("none", &found));
    EXPECT_EQ(found, Compression::None);
    EXPECT_FALSE(compressionFromName("gzip", &found));
}

} // namespace
