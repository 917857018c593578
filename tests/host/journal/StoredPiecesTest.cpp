// Lists of stored pieces, read at once from grains in files, beside the bytes that were stored.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <unistd.h>

#include "host/journal/Crc32c.h"
#include "host/journal/FileGrainStore.h"
#include "host/journal/FileStorage.h"
#include "host/volume/AsyncFileIo.h"

namespace {

constexpr u32 GRAIN_BLOCKS = 4000;
constexpr u64 GRAINS = 3;

class StoredPiecesTest : public testing::Test
{
protected:
    StoredPiecesTest()
        : m_root(std::filesystem::temp_directory_path() /
                 ("rl-stored-" + std::to_string(::getpid())))
    {
        std::filesystem::create_directories(m_root / "j");
        m_storage = std::make_unique<FileStorage>(m_root.string());
        m_store = std::make_unique<FileGrainStore>(*m_storage, "j", false, m_io);
        std::mt19937_64 random(1);
        for (u64 grain = 1; grain <= GRAINS; ++grain) {
            std::vector<u8>& data = m_content.emplace_back(GRAIN_BLOCKS * BLOCK_BYTES);
            for (u8& byte : data)
                byte = static_cast<u8>(random());
            std::vector<u32> checksums(GRAIN_BLOCKS);
            crc32cOfBlocks(data.data(), GRAIN_BLOCKS, checksums.data());
            EXPECT_EQ(m_store->create(GrainKind::Data, grain), RC_SUCCESS);
            EXPECT_EQ(m_store->append(GrainKind::Data, grain, 0, data.data(), GRAIN_BLOCKS,
                                      checksums.data()),
                      RC_SUCCESS);
        }
    }
    ~StoredPiecesTest() override { std::filesystem::remove_all(m_root); }

    const u8* stored(u64 address) const
    {
        return m_content[address / SFS_GRAIN_BLOCKS - 1].data() +
               address % SFS_GRAIN_BLOCKS * BLOCK_BYTES;
    }

    // Pieces of all grains, ascending, with gaps short and long.
    void choose(std::mt19937& random)
    {
        m_pieces.clear();
        u64 blocks = 0;
        for (u64 grain = 1; grain <= GRAINS; ++grain) {
            for (u32 block = random() % 9; block < GRAIN_BLOCKS; block += random() % 5 * 8) {
                const u32 length = std::min(random() % 20 == 0 ? 1 + random() % 1500 : 8u,
                                            static_cast<unsigned long>(GRAIN_BLOCKS - block));
                m_pieces.push_back({grain * SFS_GRAIN_BLOCKS + block, length, nullptr});
                block += length;
                blocks += length;
            }
        }
        if (random() % 4 == 0)
            std::shuffle(m_pieces.begin(), m_pieces.end(), random);
        m_buffer.assign(blocks * BLOCK_BYTES, 0xAA);
        u8* next = m_buffer.data();
        for (StoredPiece& piece : m_pieces) {
            piece.m_data = next;
            next += u64{piece.m_blocks} * BLOCK_BYTES;
        }
    }

    RcStatus read()
    {
        m_bad = 0;
        return m_store->readDataNow(m_pieces, &m_bad);
    }

    void checkContent() const
    {
        for (const StoredPiece& piece : m_pieces)
            ASSERT_EQ(std::memcmp(piece.m_data, stored(piece.m_address),
                                  u64{piece.m_blocks} * BLOCK_BYTES),
                      0)
                << piece.m_address << " " << piece.m_blocks;
    }

    void flip(u64 address)
    {
        std::unique_ptr<StorageFile> file;
        ASSERT_EQ(m_storage->open(
                      "j/" + FileGrainStore::fileName(GrainKind::Data, address / SFS_GRAIN_BLOCKS),
                      StorageAccess::ReadWrite, &file),
                  RC_SUCCESS);
        const u64 offset = address % SFS_GRAIN_BLOCKS * BLOCK_BYTES + 77;
        u8 byte = 0;
        u64 done = 0;
        ASSERT_EQ(file->pread(&byte, 1, offset, &done), RC_SUCCESS);
        byte = static_cast<u8>(~byte);
        ASSERT_EQ(file->pwrite(&byte, 1, offset), RC_SUCCESS);
    }

    // Whether some piece covers it.
    bool isWanted(u64 address) const
    {
        return std::any_of(m_pieces.begin(), m_pieces.end(), [&](const StoredPiece& piece) {
            return address >= piece.m_address && address < piece.m_address + piece.m_blocks;
        });
    }

    std::filesystem::path m_root;
    AsyncFileIo m_io{AsyncFileIoMode::Threads};
    std::unique_ptr<FileStorage> m_storage;
    std::unique_ptr<FileGrainStore> m_store;
    std::vector<std::vector<u8>> m_content; // of each grain
    std::vector<StoredPiece> m_pieces;
    std::vector<u8> m_buffer;
    u64 m_bad = 0;
};

TEST_F(StoredPiecesTest, EachGetsItsOwnBytes)
{
    std::mt19937 random(7);
    for (u32 run = 0; run < 50; ++run) {
        choose(random);
        ASSERT_EQ(read(), RC_SUCCESS);
        checkContent();
    }
}

TEST_F(StoredPiecesTest, DamageFailsThePieceThatItIsInAndNoOther)
{
    std::mt19937 random(8);
    u32 wanted = 0;
    for (u32 run = 0; run < 100; ++run) {
        choose(random);
        const u64 address = (1 + random() % GRAINS) * SFS_GRAIN_BLOCKS + random() % GRAIN_BLOCKS;
        flip(address);
        if (isWanted(address)) {
            ++wanted;
            ASSERT_EQ(read(), RC_BAD_CHECKSUM);
            ASSERT_EQ(m_bad, address);
        } else {
            ASSERT_EQ(read(), RC_SUCCESS);
            checkContent();
        }
        flip(address);
    }
    EXPECT_GT(wanted, 10u);
    EXPECT_LT(wanted, 90u);
}

TEST_F(StoredPiecesTest, GrainsThatEndBeforeOrAreMissingAreDamaged)
{
    std::vector<u8> data(20 * BLOCK_BYTES);
    u8* const second = data.data() + 10 * BLOCK_BYTES;
    m_pieces = {{SFS_GRAIN_BLOCKS, 1, data.data()},
                {u64{SFS_GRAIN_BLOCKS} + 2, 1, data.data() + BLOCK_BYTES},
                {(GRAINS + 1) * SFS_GRAIN_BLOCKS + 5, 1, second}};
    EXPECT_EQ(read(), RC_DAMAGED);
    EXPECT_EQ(m_bad, (GRAINS + 1) * SFS_GRAIN_BLOCKS + 5);
    std::filesystem::resize_file(m_root / "j" / FileGrainStore::fileName(GrainKind::Data, 2),
                                 1000 * BLOCK_BYTES);
    m_pieces = {{2 * SFS_GRAIN_BLOCKS + 980, 8, data.data()},
                {2 * SFS_GRAIN_BLOCKS + 999, 2, second}};
    EXPECT_EQ(read(), RC_DAMAGED);
}

} // namespace
