#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/volume/AsyncFileIo.h"
#include "host/volume/VolumeDriver.h"
#include "tests/support/JournalReadback.h"

namespace {

class TargetVolumeTest : public testing::Test
{
protected:
    TargetVolumeTest()
        : m_path(
              (std::filesystem::temp_directory_path() / ("rl-volume-" + std::to_string(::getpid())))
                  .string())
    {
        std::filesystem::remove(m_path);
    }
    ~TargetVolumeTest() override { std::filesystem::remove(m_path); }

    void make(u64 blocks)
    {
        ASSERT_EQ(TargetVolume::create(m_path, blocks), RC_SUCCESS);
        ASSERT_EQ(TargetVolume::open(m_path, blocks, false, &m_volume), RC_SUCCESS);
    }

    static IODescriptor io(u64 offset, std::vector<u8>& data, bool read)
    {
        IODescriptor one;
        one.m_offsetBlocks = offset;
        one.m_lengthBlocks = static_cast<u32>(data.size() / BLOCK_BYTES);
        one.m_data = ScatteredBuf(data.data(), static_cast<u32>(data.size()));
        one.m_bRead = read;
        return one;
    }

    RcStatus write(u64 offset, std::vector<u8> data)
    {
        return m_volume->write({io(offset, data, false)}, AioPriority::Normal).get();
    }

    std::vector<u8> read(u64 offset, u32 blocks)
    {
        std::vector<u8> data(u64{blocks} * BLOCK_BYTES, u8{0xEE});
        EXPECT_EQ(m_volume->read({io(offset, data, true)}, AioPriority::Normal).get(), RC_SUCCESS);
        return data;
    }

    std::string m_path;
    std::shared_ptr<TargetVolume> m_volume;
};

TEST_F(TargetVolumeTest, NewVolumeIsSparseZeroes)
{
    make(u64{1} << 31); // 1 TiB
    EXPECT_EQ(read((u64{1} << 31) - 4, 4), std::vector<u8>(4 * BLOCK_BYTES));
    struct stat status;
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_LT(status.st_blocks, 100);
    EXPECT_EQ(TargetVolume::create(m_path, 5), RC_IN_USE);
}

TEST_F(TargetVolumeTest, WritesComeBackAndZeroesTakeThemAway)
{
    make(1000);
    const std::vector<u8> data = patternBlocks(1, 64);
    ASSERT_EQ(write(100, data), RC_SUCCESS);
    EXPECT_EQ(read(100, 64), data);
    ASSERT_EQ(m_volume->writeZeroes(110, 3), RC_SUCCESS);
    std::vector<u8> expected = data;
    std::fill_n(expected.begin() + 10 * BLOCK_BYTES, 3 * BLOCK_BYTES, u8{0});
    EXPECT_EQ(read(100, 64), expected);
    EXPECT_EQ(m_volume->sync(), RC_SUCCESS);
    EXPECT_EQ(m_volume->writeZeroes(1000, 0), RC_SUCCESS);
    EXPECT_EQ(m_volume->writeZeroes(999, 2), RC_BAD_ARGUMENT);
}

TEST_F(TargetVolumeTest, WhatWasCutOffFromTheFileIsDamagedAndNotZeroes)
{
    make(100);
    const std::vector<u8> data = patternBlocks(1, 2);
    ASSERT_EQ(write(8, data), RC_SUCCESS);
    std::filesystem::resize_file(m_path, 10 * BLOCK_BYTES);
    EXPECT_EQ(read(8, 2), data);
    std::vector<u8> beyond(2 * BLOCK_BYTES);
    EXPECT_EQ(m_volume->read({io(9, beyond, true)}, AioPriority::Normal).get(), RC_DAMAGED);
    EXPECT_EQ(m_volume->read({io(50, beyond, true)}, AioPriority::Normal).get(), RC_DAMAGED);
    FilePiece pieces[] = {{8 * BLOCK_BYTES, BLOCK_BYTES, beyond.data(), RC_SUCCESS, 0},
                          {9 * BLOCK_BYTES, 2 * BLOCK_BYTES, beyond.data(), RC_SUCCESS, 0}};
    EXPECT_EQ(m_volume->readNow(pieces), RC_DAMAGED);
    EXPECT_EQ(pieces[0].m_rc, RC_SUCCESS);
    EXPECT_EQ(pieces[1].m_rc, RC_DAMAGED);
    u64 start = 0;
    u64 end = 0;
    EXPECT_EQ(m_volume->nextData(10, &start, &end), RC_DAMAGED);
}

TEST_F(TargetVolumeTest, RefusesWhatIsBeyondItOrOfAnotherSize)
{
    make(10);
    std::vector<u8> data(2 * BLOCK_BYTES);
    EXPECT_EQ(m_volume->read({io(9, data, true)}, AioPriority::Normal).get(), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_volume->read({io(~u64{0}, data, true)}, AioPriority::Normal).get(),
              RC_BAD_ARGUMENT);
    IODescriptor wrong = io(0, data, true);
    wrong.m_lengthBlocks = 1;
    EXPECT_EQ(m_volume->read({wrong}, AioPriority::Normal).get(), RC_BAD_ARGUMENT);
    EXPECT_EQ(m_volume->read({io(0, data, false)}, AioPriority::Normal).get(), RC_BAD_ARGUMENT);
}

TEST_F(TargetVolumeTest, NextDataSkipsHoles)
{
    make(u64{1} << 20);
    u64 start = 0;
    u64 end = 0;
    ASSERT_EQ(m_volume->nextData(0, &start, &end), RC_SUCCESS);
    EXPECT_EQ(start, end) << "nothing is written yet";
    ASSERT_EQ(write(500000, patternBlocks(1, 8)), RC_SUCCESS);
    ASSERT_EQ(m_volume->nextData(0, &start, &end), RC_SUCCESS);
    EXPECT_LE(start, 500000u);
    EXPECT_GT(start, 400000u);
    EXPECT_GE(end, 500008u);
    EXPECT_LT(end, 600000u);
    ASSERT_EQ(m_volume->nextData(500003, &start, &end), RC_SUCCESS);
    EXPECT_EQ(start, 500003u);
    ASSERT_EQ(m_volume->nextData(end, &start, &end), RC_SUCCESS);
    EXPECT_EQ(start, u64{1} << 20);
    EXPECT_EQ(end, u64{1} << 20);
}

TEST_F(TargetVolumeTest, DriverFindsVolumesByTheirIds)
{
    make(100);
    const std::vector<u8> data = patternBlocks(1, 3);
    ASSERT_EQ(write(5, data), RC_SUCCESS);
    VolumeDriver driver;
    driver.add(7, m_volume);
    std::vector<u8> first(BLOCK_BYTES);
    std::vector<u8> second(2 * BLOCK_BYTES);
    const std::vector<IODescriptor> ios = {io(5, first, true), io(6, second, true)};
    EXPECT_EQ(driver.readVolume(7, ios, AioPriority::Normal, 0).get(), RC_SUCCESS);
    first.insert(first.end(), second.begin(), second.end());
    EXPECT_EQ(first, data);
    EXPECT_EQ(driver.readVolume(8, ios, AioPriority::Normal, 0).get(), RC_NOT_FOUND);
    driver.remove(7);
    EXPECT_EQ(driver.find(7), nullptr);
    EXPECT_EQ(TargetVolume::open(m_path + "x", 1, true, &m_volume), RC_NOT_FOUND);
}

} // namespace
