#include "host/volume/AsyncFileIo.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <unistd.h>

#include "common/infra/Semaphore.h"
#include "host/journal/FileStorage.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

struct Way
{
    const char* m_name;
    AsyncFileIoMode m_mode;
    bool m_triesCache;
};

class AsyncFileIoTest : public testing::TestWithParam<Way>
{
protected:
    AsyncFileIoTest()
        : m_root(std::filesystem::temp_directory_path() /
                 ("rl-async-" + std::to_string(::getpid()) + GetParam().m_name)),
          m_io(GetParam().m_mode, GetParam().m_triesCache)
    {
        std::filesystem::create_directory(m_root);
        std::unique_ptr<StorageFile> file;
        EXPECT_EQ(PosixFile::open((m_root / "f").string(), StorageAccess::Create, &file),
                  RC_SUCCESS);
        m_file = std::move(file);
    }
    ~AsyncFileIoTest() override { std::filesystem::remove_all(m_root); }

    FileOp op(u64 offset, ScatteredBuf data, bool write = false)
    {
        FileOp one;
        one.m_file = m_file;
        one.m_offsetBytes = offset;
        one.m_data = data;
        one.m_write = write;
        return one;
    }

    std::vector<FileOp> run(std::vector<FileOp> ops)
    {
        Semaphore done;
        std::vector<FileOp> outcome;
        m_io.submit(std::move(ops), [&](std::vector<FileOp>& all) {
            outcome = all;
            done.post();
        });
        done.wait();
        return outcome;
    }

    std::filesystem::path m_root;
    AsyncFileIo m_io;
    std::shared_ptr<StorageFile> m_file;
};

TEST_P(AsyncFileIoTest, NothingIsDoneAtOnce)
{
    EXPECT_TRUE(run({}).empty());
    EXPECT_EQ(run({op(0, ScatteredBuf())})[0].m_rc, RC_SUCCESS);
}

TEST_P(AsyncFileIoTest, ScatteredWritesComeBackScattered)
{
    std::vector<u8> data = patternBlocks(1, 100);
    ScatteredBuf from;
    for (u32 at = 0; at < data.size(); at += 512)
        from.addSegment(MemorySegment(512, data.data() + at, nullptr));
    EXPECT_EQ(run({op(7, from, true)})[0].m_rc, RC_SUCCESS);
    std::vector<u8> back(data.size());
    ScatteredBuf to;
    for (u32 at = 0; at < back.size(); at += 1024)
        to.addSegment(MemorySegment(1024, back.data() + at, nullptr));
    const std::vector<FileOp> done = run({op(7, to)});
    EXPECT_EQ(done[0].m_rc, RC_SUCCESS);
    EXPECT_EQ(done[0].m_doneBytes, data.size());
    EXPECT_EQ(back, data);
}

TEST_P(AsyncFileIoTest, MoreSegmentsThanOneCallTakes)
{
    std::vector<u8> data = patternBlocks(2, 3000);
    ScatteredBuf from;
    for (u32 at = 0; at < data.size(); at += 256)
        from.addSegment(MemorySegment(256, data.data() + at, nullptr));
    ASSERT_EQ(run({op(0, from, true)})[0].m_rc, RC_SUCCESS);
    std::vector<u8> back(data.size());
    ScatteredBuf to;
    for (u32 at = 0; at < back.size(); at += 256)
        to.addSegment(MemorySegment(256, back.data() + at, nullptr));
    EXPECT_EQ(run({op(0, to)})[0].m_doneBytes, back.size());
    EXPECT_EQ(back, data);
}

TEST_P(AsyncFileIoTest, ReadsEndWhereTheFileEnds)
{
    std::vector<u8> data = patternBlocks(3, 2);
    ASSERT_EQ(m_file->pwrite(data.data(), 700, 0), RC_SUCCESS);
    std::vector<u8> back(1024);
    std::vector<FileOp> done =
        run({op(0, ScatteredBuf(back.data(), 1024)), op(700, ScatteredBuf(back.data(), 1)),
             op(5000, ScatteredBuf(back.data(), 1024))});
    EXPECT_EQ(done[0].m_rc, RC_SUCCESS);
    EXPECT_EQ(done[0].m_doneBytes, 700u);
    EXPECT_EQ(done[1].m_doneBytes, 0u);
    EXPECT_EQ(done[2].m_rc, RC_SUCCESS);
    EXPECT_EQ(done[2].m_doneBytes, 0u);
}

TEST_P(AsyncFileIoTest, ManyMoreThanARingTakesAtOnce)
{
    const std::vector<u8> data = patternBlocks(4, 4096);
    ASSERT_EQ(m_file->pwrite(data.data(), data.size(), 0), RC_SUCCESS);
    std::mt19937 random(1);
    std::vector<u8> back(2000 * 512);
    std::vector<u64> offsets;
    std::vector<FileOp> ops;
    for (u32 i = 0; i < 2000; ++i) {
        offsets.push_back(random() % 4096 * 512);
        ops.push_back(op(offsets.back(), ScatteredBuf(back.data() + i * 512, 512)));
    }
    for (const FileOp& one : run(std::move(ops)))
        EXPECT_EQ(one.m_doneBytes, 512u);
    for (u32 i = 0; i < 2000; ++i)
        EXPECT_TRUE(std::equal(back.begin() + i * 512, back.begin() + (i + 1) * 512,
                               data.begin() + static_cast<std::ptrdiff_t>(offsets[i])));
}

TEST_P(AsyncFileIoTest, FailuresAreTheOperationsOwn)
{
    std::unique_ptr<StorageFile> readOnly;
    ASSERT_EQ(PosixFile::open((m_root / "f").string(), StorageAccess::ReadOnly, &readOnly),
              RC_SUCCESS);
    const std::shared_ptr<StorageFile> mayWrite = m_file;
    m_file = std::move(readOnly);
    std::vector<u8> data(512, u8{1});
    std::vector<FileOp> ops = {op(0, ScatteredBuf(data.data(), 512), true)};
    m_file = mayWrite;
    ops.push_back(op(0, ScatteredBuf(data.data(), 512), true));
    const std::vector<FileOp> done = run(std::move(ops));
    EXPECT_EQ(done[0].m_rc, RC_IO_ERROR);
    EXPECT_EQ(done[1].m_rc, RC_SUCCESS);
}

TEST_P(AsyncFileIoTest, GoesOnAfterItsThreadsWereStopped)
{
    std::vector<u8> data(512, u8{9});
    EXPECT_EQ(run({op(0, ScatteredBuf(data.data(), 512), true)})[0].m_rc, RC_SUCCESS);
    m_io.stopThreads();
    m_io.stopThreads();
    EXPECT_EQ(run({op(512, ScatteredBuf(data.data(), 512), true)})[0].m_rc, RC_SUCCESS);
}

TEST_P(AsyncFileIoTest, FilesWithoutADescriptorAreUsedInline)
{
    CrashStorage storage;
    std::unique_ptr<StorageFile> file;
    ASSERT_EQ(storage.open("x", StorageAccess::Create, &file), RC_SUCCESS);
    m_file = std::move(file);
    std::vector<u8> data = patternBlocks(1, 2);
    EXPECT_EQ(run({op(0, ScatteredBuf(data.data(), 1024), true)})[0].m_rc, RC_SUCCESS);
    std::vector<u8> back(2000);
    EXPECT_EQ(run({op(0, ScatteredBuf(back.data(), 2000))})[0].m_doneBytes, 1024u);
    back.resize(1024);
    EXPECT_EQ(back, data);
    storage.failCall(CrashStorage::Call::Read, 1, RC_IO_ERROR);
    EXPECT_EQ(run({op(0, ScatteredBuf(back.data(), 1024))})[0].m_rc, RC_IO_ERROR);
    m_file.reset(); // before its storage
}

INSTANTIATE_TEST_SUITE_P(, AsyncFileIoTest,
                         testing::Values(Way{"Cache", AsyncFileIoMode::Uring, true},
                                         Way{"Uring", AsyncFileIoMode::Uring, false},
                                         Way{"Threads", AsyncFileIoMode::Threads, false}),
                         [](const auto& one) { return one.param.m_name; });

TEST(AsyncFileIoChoiceTest, TheEnvironmentCanForceThreads)
{
    ::setenv("RL_IO", "threads", 1);
    EXPECT_FALSE(AsyncFileIo().usesUring());
    ::unsetenv("RL_IO");
    EXPECT_FALSE(AsyncFileIo(AsyncFileIoMode::Threads).usesUring());
    if (!AsyncFileIo(AsyncFileIoMode::Uring).usesUring())
        GTEST_SKIP() << "this kernel refuses io_uring";
}

} // namespace
