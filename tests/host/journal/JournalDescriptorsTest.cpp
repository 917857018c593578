// A process that has no file descriptor left, with real files.
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "host/journal/Crc32c.h"
#include "host/journal/FileGrainStore.h"
#include "host/journal/FileStorage.h"
#include "host/journal/JournalVerifier.h"
#include "host/volume/AsyncFileIo.h"
#include "tests/support/JournalReadback.h"

namespace {

// While it lives, nothing can be opened.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        // All below the lowest free number are taken, and the limit keeps the others away.
        const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        EXPECT_GE(lowest, 0);
        ::close(lowest);
        rlimit none = m_before;
        none.rlim_cur = static_cast<rlim_t>(lowest);
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        EXPECT_LT(::open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    }
    ~NoDescriptors() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &m_before), 0); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit m_before{};
};

class JournalDescriptorsTest : public testing::Test
{
protected:
    JournalDescriptorsTest()
        : m_root(std::filesystem::temp_directory_path() /
                 ("rl-descriptors-" + std::to_string(::getpid())))
    {
        std::filesystem::create_directory(m_root);
        m_storage = std::make_unique<FileStorage>(m_root.string());
    }
    ~JournalDescriptorsTest() override { std::filesystem::remove_all(m_root); }

    void SetUp() override
    {
#if defined(__SANITIZE_ADDRESS__)
        GTEST_SKIP() << "the undefined behaviour sanitizer, built in together with the address "
                        "sanitizer, opens a pipe to look at an object, and takes the object for "
                        "no object when it cannot";
#endif
    }

    RcStatus append(JournalStore& store, u64 seed, u32 blocks)
    {
        const std::vector<u8> data = patternBlocks(seed, blocks);
        const RcStatus rc = store.append(seed, data.data(), blocks);
        if (rc == RC_SUCCESS)
            m_accepted.push_back({seed, blocks, data});
        return rc;
    }

    void expectAllAfterReopening(std::unique_ptr<JournalStore> store)
    {
        EXPECT_EQ(readBack(*store), m_accepted);
        store.reset();
        store = openJournal(*m_storage, JournalMode::Writer);
        EXPECT_EQ(store->report().m_text, "");
        EXPECT_EQ(readBack(*store), m_accepted);
    }

    const std::filesystem::path m_root;
    std::unique_ptr<FileStorage> m_storage;
    std::vector<JournalRequest> m_accepted;
};

TEST_F(JournalDescriptorsTest, WriteThatNeedsANewGrainIsRefusedAndLaterTaken)
{
    auto store = openJournal(*m_storage, JournalMode::Writer);
    {
        const NoDescriptors none;
        EXPECT_EQ(append(*store, 1, 4), RC_NO_MEMORY);
        EXPECT_EQ(store->itemCount(), 0u);
    }
    ASSERT_EQ(append(*store, 2, 4), RC_SUCCESS);
    ASSERT_EQ(store->flush(), RC_SUCCESS);
    {
        const NoDescriptors none;
        EXPECT_EQ(append(*store, 3, 40000), RC_NO_MEMORY);
        // What the grain at hand has room for needs no descriptor.
        EXPECT_EQ(append(*store, 4, 4), RC_SUCCESS);
        EXPECT_EQ(store->flush(), RC_SUCCESS);
        EXPECT_EQ(readBack(*store), m_accepted);
    }
    ASSERT_EQ(append(*store, 5, 40000), RC_SUCCESS);
    ASSERT_EQ(store->flush(), RC_SUCCESS);
    expectAllAfterReopening(std::move(store));
}

TEST_F(JournalDescriptorsTest, FlushThatCannotOpenKeepsWhatItWasToWrite)
{
    auto store = openJournal(*m_storage, JournalMode::Writer);
    ASSERT_EQ(append(*store, 1, 4), RC_SUCCESS);
    {
        const NoDescriptors none;
        EXPECT_EQ(store->flush(), RC_NO_MEMORY);
        EXPECT_EQ(store->flush(), RC_NO_MEMORY);
        EXPECT_EQ(append(*store, 2, 4), RC_SUCCESS);
        EXPECT_EQ(store->durableItemCount(), 0u);
    }
    ASSERT_EQ(store->flush(), RC_SUCCESS);
    EXPECT_EQ(store->durableItemCount(), 2u);
    expectAllAfterReopening(std::move(store));
}

TEST_F(JournalDescriptorsTest, AJournalThatCannotBeReadIsNotVerifiedAsDamaged)
{
    auto store = openJournal(*m_storage, JournalMode::Writer);
    ASSERT_EQ(append(*store, 1, 40000), RC_SUCCESS);
    store.reset();
    store = openJournal(*m_storage, JournalMode::ReadOnly);
    {
        const NoDescriptors none;
        const VerifyResult result = verifyJournal(*store);
        EXPECT_EQ(result.rc, RC_NO_MEMORY);
        EXPECT_TRUE(result.damage.empty());
        EXPECT_NE(result.message.find("cannot read data grain 1 block 0: no file descriptor"),
                  std::string::npos)
            << result.message;
    }
    EXPECT_TRUE(verifyJournal(*store).ok());
}

// What is only kept open for later is no reason to refuse what comes.
TEST_F(JournalDescriptorsTest, GrainsThatAreKeptOpenGiveWay)
{
    constexpr u64 GRAINS = 12;
    AsyncFileIo io(AsyncFileIoMode::Threads);
    FileGrainStore store(*m_storage, ".", false, io);
    const auto appendTo = [&](u64 grain) {
        const std::vector<u8> data(BLOCK_BYTES, static_cast<u8>(grain));
        u32 checksum = 0;
        crc32cOfBlocks(data.data(), 1, &checksum);
        return store.append(GrainKind::Data, grain, 0, data.data(), 1, &checksum);
    };
    for (u64 grain = 1; grain <= GRAINS; ++grain)
        ASSERT_EQ(store.create(GrainKind::Data, grain), RC_SUCCESS);
    {
        const NoDescriptors none;
        ASSERT_EQ(store.create(GrainKind::Data, GRAINS + 1), RC_SUCCESS);
        for (u64 grain = GRAINS + 1; grain > 0; --grain)
            ASSERT_EQ(appendTo(grain), RC_SUCCESS) << grain;
    }
    for (u64 grain = 1; grain <= GRAINS + 1; ++grain) {
        std::vector<u8> data(BLOCK_BYTES);
        const StoredPiece piece{grain * SFS_GRAIN_BLOCKS, 1, data.data()};
        u64 bad = 0;
        ASSERT_EQ(store.readDataNow({&piece, 1}, &bad), RC_SUCCESS);
        EXPECT_EQ(data[17], grain);
    }
}

TEST_F(JournalDescriptorsTest, JournalThatCannotBeOpenedIsNotDamagedByThat)
{
    auto store = openJournal(*m_storage, JournalMode::Writer);
    ASSERT_EQ(append(*store, 1, 4), RC_SUCCESS);
    store.reset();
    for (const JournalMode mode : {JournalMode::Writer, JournalMode::ReadOnly}) {
        const NoDescriptors none;
        JournalOptions options;
        options.mode = mode;
        EXPECT_EQ(JournalStore::open(*m_storage, options).m_rc, RC_NO_MEMORY);
    }
    expectAllAfterReopening(openJournal(*m_storage, JournalMode::Writer));
}

} // namespace
