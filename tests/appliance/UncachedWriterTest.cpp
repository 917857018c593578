// Pieces of all alignments and lengths: what is read through the page cache afterwards is what was
// written, whichever way each part of it took.
#include "appliance/UncachedWriter.h"

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <unistd.h>
#include <vector>

namespace {

constexpr u64 MEBIBYTE = u64{1} << 20;
constexpr u64 FILE_BYTES = 24 * MEBIBYTE;

class UncachedWriterTest : public testing::Test
{
protected:
    UncachedWriterTest()
    {
        std::string path = testing::TempDir() + "uncached-XXXXXX";
        m_fd = ::mkstemp(path.data());
        ::unlink(path.c_str());
        m_file = std::make_unique<PosixFile>(m_fd);
        EXPECT_EQ(m_file->truncate(FILE_BYTES), RC_SUCCESS);
        m_memory = static_cast<u8*>(::operator new(FILE_BYTES + BLOCK_BYTES, ALIGNMENT));
        std::mt19937_64 random(1);
        for (u64 i = 0; i < FILE_BYTES + BLOCK_BYTES; i += sizeof(u64)) {
            const u64 value = random();
            std::memcpy(m_memory + i, &value, sizeof(value));
        }
        m_expected.resize(FILE_BYTES);
    }

    ~UncachedWriterTest() override { ::operator delete(m_memory, ALIGNMENT); }

    // memoryOffset: within the aligned memory.
    void write(UncachedWriter& writer, u64 memoryOffset, u64 bytes, u64 offset)
    {
        ASSERT_EQ(writer.write(m_memory + memoryOffset, bytes, offset), RC_SUCCESS);
        std::memcpy(m_expected.data() + offset, m_memory + memoryOffset, bytes);
    }

    void expectWritten()
    {
        std::vector<u8> found(FILE_BYTES);
        u64 done = 0;
        ASSERT_EQ(m_file->pread(found.data(), FILE_BYTES, 0, &done), RC_SUCCESS);
        ASSERT_EQ(done, FILE_BYTES);
        EXPECT_TRUE(found == m_expected);
        ASSERT_EQ(m_file->sync(), RC_SUCCESS);
    }

    static constexpr std::align_val_t ALIGNMENT{UncachedWriter::ALIGNMENT_BYTES};
    int m_fd = -1;
    std::unique_ptr<PosixFile> m_file;
    u8* m_memory = nullptr;
    std::vector<u8> m_expected;
};

TEST_F(UncachedWriterTest, NeighboursMeetInsidePages)
{
    UncachedWriter writer(*m_file);
    std::mt19937_64 random(2);
    u64 offset = 0;
    while (offset < FILE_BYTES) {
        const u64 most = random() % 3 == 0 ? 8 : 4096;
        const u64 bytes = std::min((random() % most + 1) * BLOCK_BYTES, FILE_BYTES - offset);
        // The memory begins anywhere: the way around the cache may be refused, the data never.
        write(writer, random() % 8 * BLOCK_BYTES, bytes, offset);
        offset += bytes;
        if (random() % 4 == 0)
            offset += random() % 64 * BLOCK_BYTES;
    }
    expectWritten();
}

TEST_F(UncachedWriterTest, WholePagesAndAFileThatEndsInsideOne)
{
    UncachedWriter writer(*m_file);
    write(writer, 0, 4 * MEBIBYTE, 0);
    write(writer, 0, 4 * MEBIBYTE, 8 * MEBIBYTE);
    write(writer, 0, 2 * MEBIBYTE - BLOCK_BYTES, FILE_BYTES - 2 * MEBIBYTE);
    expectWritten();
    u64 size = 0;
    ASSERT_EQ(m_file->size(&size), RC_SUCCESS);
    EXPECT_EQ(size, FILE_BYTES) << "the file does not grow to whole pages";
}

TEST_F(UncachedWriterTest, MemoryOfAnyAlignmentIsWritten)
{
    UncachedWriter writer(*m_file);
    write(writer, 1, MEBIBYTE, 0);
    write(writer, 3, 2 * MEBIBYTE, MEBIBYTE);
    write(writer, 0, 2 * MEBIBYTE, 4 * MEBIBYTE);
    expectWritten();
}

TEST_F(UncachedWriterTest, ADescriptorThatCannotWriteFails)
{
    const std::string path = "/proc/self/fd/" + std::to_string(m_fd);
    PosixFile readOnly(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    UncachedWriter writer(readOnly);
    EXPECT_NE(writer.write(m_memory, BLOCK_BYTES, 0), RC_SUCCESS);
}

} // namespace
