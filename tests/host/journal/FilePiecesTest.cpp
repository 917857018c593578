#include "host/journal/FilePieces.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <unistd.h>

#include "host/journal/FileStorage.h"

namespace {

constexpr u8 GUARD = 0xEE;

u8 byteAt(u64 offset)
{
    return static_cast<u8>(offset * 131 ^ offset >> 8 ^ offset >> 16);
}

// A file of byteAt(), of which a range may be unreadable, and whose longer calls may end anywhere.
class OddFile : public StorageFile
{
public:
    explicit OddFile(u64 size) : m_size(size) {}

    RcStatus pread(void* data, u64 bytes, u64 offsetBytes, u64* doneBytes) override
    {
        ++m_calls;
        *doneBytes = 0;
        if (hits(offsetBytes, bytes))
            return RC_IO_ERROR;
        *doneBytes = offsetBytes < m_size ? std::min(bytes, m_size - offsetBytes) : 0;
        copy(static_cast<u8*>(data), *doneBytes, offsetBytes);
        return RC_SUCCESS;
    }
    RcStatus preadv(const iovec* places, int count, u64 offsetBytes, u64* doneBytes) override
    {
        ++m_calls;
        *doneBytes = 0;
        u64 wanted = 0;
        for (int i = 0; i < count; ++i)
            wanted += places[i].iov_len;
        m_readBytes += wanted;
        if (hits(offsetBytes, wanted))
            return RC_IO_ERROR;
        u64 left = offsetBytes < m_size ? std::min(wanted, m_size - offsetBytes) : 0;
        left = m_endsEarly && left > 0 ? m_random() % left : left;
        for (int i = 0; i < count && left > 0; ++i) {
            const u64 step = std::min<u64>(left, places[i].iov_len);
            copy(static_cast<u8*>(places[i].iov_base), step, offsetBytes + *doneBytes);
            *doneBytes += step;
            left -= step;
        }
        return RC_SUCCESS;
    }
    RcStatus pwrite(const void*, u64, u64) override { return RC_IO_ERROR; }
    RcStatus sync() override { return RC_IO_ERROR; }
    RcStatus size(u64*) override { return RC_IO_ERROR; }
    RcStatus truncate(u64) override { return RC_IO_ERROR; }
    RcStatus reserve(u64, u64) override { return RC_IO_ERROR; }
    RcStatus zeroRange(u64, u64) override { return RC_IO_ERROR; }
    RcStatus nextData(u64, u64*, u64*) override { return RC_IO_ERROR; }
    RcStatus lock() override { return RC_IO_ERROR; }

    u64 m_size;
    u64 m_badBegin = 0;
    u64 m_badEnd = 0;
    bool m_endsEarly = false;
    u32 m_calls = 0;
    u64 m_readBytes = 0; // by calls for several places

private:
    bool hits(u64 offset, u64 bytes) const
    {
        return offset < m_badEnd && offset + bytes > m_badBegin;
    }
    static void copy(u8* to, u64 bytes, u64 offset)
    {
        for (u64 i = 0; i < bytes; ++i)
            to[i] = byteAt(offset + i);
    }

    std::mt19937_64 m_random{5};
};

// Pieces and memory for them, with a byte between any two that nothing may touch.
struct Pieces
{
    void add(u64 offset, u64 bytes)
    {
        m_pieces.push_back({offset, bytes, nullptr, RC_SUCCESS, 0});
        m_memory.resize(m_memory.size() + bytes + 1);
    }

    RcStatus read(StorageFile& file)
    {
        std::fill(m_memory.begin(), m_memory.end(), GUARD);
        u8* next = m_memory.data();
        for (FilePiece& piece : m_pieces) {
            piece.m_data = next;
            next += piece.m_bytes + 1;
        }
        return readPieces(file, m_pieces);
    }

    // The first `count` hold what the file does, up to its end, and nothing is where it should not.
    void check(u64 fileBytes, size_t count) const
    {
        for (size_t i = 0; i < m_pieces.size(); ++i) {
            const FilePiece& piece = m_pieces[i];
            ASSERT_EQ(piece.m_data[piece.m_bytes], GUARD) << i;
            if (i >= count)
                continue;
            const u64 there =
                piece.m_offsetBytes < fileBytes ? fileBytes - piece.m_offsetBytes : u64{0};
            ASSERT_EQ(piece.m_rc, RC_SUCCESS) << i;
            ASSERT_EQ(piece.m_doneBytes, std::min(piece.m_bytes, there)) << i;
            for (u64 at = 0; at < piece.m_doneBytes; ++at)
                ASSERT_EQ(piece.m_data[at], byteAt(piece.m_offsetBytes + at)) << i;
        }
    }

    std::vector<FilePiece> m_pieces;
    std::vector<u8> m_memory;
};

// Ascending pieces with gaps of every kind: none, as long as is skipped and one more, longer.
Pieces randomPieces(std::mt19937& random, u32 count)
{
    Pieces pieces;
    u64 offset = random() % 3 * 512;
    for (u32 i = 0; i < count; ++i) {
        const u64 gaps[] = {0, 1, 512, MOST_SKIPPED_BYTES, MOST_SKIPPED_BYTES + 1, 100000};
        offset += gaps[random() % (i == 0 ? 1 : std::size(gaps))];
        const u64 bytes = random() % 4 == 0 ? 1 + random() % 3000 : 512;
        pieces.add(offset, bytes);
        offset += bytes;
    }
    return pieces;
}

u64 endOf(const Pieces& pieces)
{
    return pieces.m_pieces.back().m_offsetBytes + pieces.m_pieces.back().m_bytes;
}

TEST(FilePiecesTest, ReadsWhatIsAskedForAndNothingElse)
{
    std::mt19937 random(1);
    for (u32 run = 0; run < 300; ++run) {
        Pieces pieces = randomPieces(random, 1 + random() % 40);
        OddFile file(endOf(pieces));
        ASSERT_EQ(pieces.read(file), RC_SUCCESS);
        pieces.check(file.m_size, pieces.m_pieces.size());
        EXPECT_LE(file.m_readBytes, endOf(pieces) - pieces.m_pieces[0].m_offsetBytes);
    }
}

TEST(FilePiecesTest, PiecesNearToEachOtherTakeOneCall)
{
    Pieces near;
    Pieces far;
    for (u64 i = 0; i < 60; ++i) {
        near.add(i * (512 + MOST_SKIPPED_BYTES), 512);
        far.add(i * (512 + MOST_SKIPPED_BYTES + 1), 512);
    }
    OddFile file(u64{1} << 24);
    ASSERT_EQ(near.read(file), RC_SUCCESS);
    EXPECT_EQ(file.m_calls, 1u);
    file.m_calls = 0;
    ASSERT_EQ(far.read(file), RC_SUCCESS);
    EXPECT_EQ(file.m_calls, 60u);
    EXPECT_EQ(readPieces(file, {}), RC_SUCCESS);
}

TEST(FilePiecesTest, MorePiecesThanACallTakesTakeMoreCalls)
{
    Pieces pieces;
    for (u64 i = 0; i < 1000; ++i)
        pieces.add(i * 1024, 512);
    OddFile file(1000 * 1024);
    ASSERT_EQ(pieces.read(file), RC_SUCCESS);
    pieces.check(file.m_size, 1000);
    EXPECT_LE(file.m_calls, 20u);
}

TEST(FilePiecesTest, PiecesThatGoBackOrOverlapAreReadAlone)
{
    Pieces pieces;
    pieces.add(4096, 1024);
    pieces.add(4096, 512);
    pieces.add(0, 512);
    pieces.add(100, 1000);
    OddFile file(1 << 20);
    ASSERT_EQ(pieces.read(file), RC_SUCCESS);
    pieces.check(file.m_size, 4);
    EXPECT_EQ(file.m_calls, 4u);
}

TEST(FilePiecesTest, WhatCannotBeReadBetweenPiecesHarmsNone)
{
    std::mt19937 random(2);
    for (u32 run = 0; run < 300; ++run) {
        Pieces pieces = randomPieces(random, 2 + random() % 40);
        const size_t before = random() % (pieces.m_pieces.size() - 1);
        const FilePiece& piece = pieces.m_pieces[before];
        OddFile file(endOf(pieces));
        file.m_badBegin = piece.m_offsetBytes + piece.m_bytes;
        file.m_badEnd = pieces.m_pieces[before + 1].m_offsetBytes;
        ASSERT_EQ(pieces.read(file), RC_SUCCESS);
        pieces.check(file.m_size, pieces.m_pieces.size());
    }
}

TEST(FilePiecesTest, APieceThatCannotBeReadFailsAndThoseBeforeItDoNot)
{
    std::mt19937 random(3);
    for (u32 run = 0; run < 300; ++run) {
        Pieces pieces = randomPieces(random, 1 + random() % 40);
        const size_t bad = random() % pieces.m_pieces.size();
        const FilePiece& piece = pieces.m_pieces[bad];
        OddFile file(endOf(pieces));
        file.m_badBegin = piece.m_offsetBytes + random() % piece.m_bytes;
        file.m_badEnd = file.m_badBegin + 1;
        ASSERT_EQ(pieces.read(file), RC_IO_ERROR);
        pieces.check(file.m_size, bad);
        EXPECT_EQ(pieces.m_pieces[bad].m_rc, RC_IO_ERROR);
    }
}

TEST(FilePiecesTest, CallsThatEndEarlyAndFilesThatEndBeforeAreNoFailure)
{
    std::mt19937 random(4);
    for (u32 run = 0; run < 300; ++run) {
        Pieces pieces = randomPieces(random, 1 + random() % 40);
        OddFile file(random() % (endOf(pieces) + 1000));
        file.m_endsEarly = run % 2 == 0;
        ASSERT_EQ(pieces.read(file), RC_SUCCESS);
        pieces.check(file.m_size, pieces.m_pieces.size());
    }
}

TEST(FilePiecesTest, SeveralThreadsReadOneFile)
{
    const auto path =
        std::filesystem::temp_directory_path() / ("rl-pieces-" + std::to_string(::getpid()));
    std::unique_ptr<StorageFile> file;
    ASSERT_EQ(PosixFile::open(path.string(), StorageAccess::Create, &file), RC_SUCCESS);
    std::filesystem::remove(path);
    std::vector<u8> content(1 << 20);
    for (u64 i = 0; i < content.size(); ++i)
        content[i] = byteAt(i);
    ASSERT_EQ(file->pwrite(content.data(), content.size(), 0), RC_SUCCESS);
    std::vector<std::thread> threads;
    for (u32 thread = 0; thread < 3; ++thread)
        threads.emplace_back([&, thread] {
            std::mt19937 random(thread);
            for (u32 run = 0; run < 100; ++run) {
                Pieces pieces = randomPieces(random, 1 + random() % 40);
                ASSERT_EQ(pieces.read(*file), RC_SUCCESS);
                pieces.check(content.size(), pieces.m_pieces.size());
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
