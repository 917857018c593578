// Damage: every single byte of a small journal, lost grains, bad items, and what each way of
// recovery makes of it.
#include <cstring>
#include <gtest/gtest.h>

#include "common/infra/LogItem.h"
#include "host/journal/JournalStore.h"
#include "host/journal/JournalVerifier.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

constexpr char META[] = "journal/m-0000000001";
constexpr char DATA[] = "journal/d-0000000001";
constexpr char TAGS[] = "journal/tags";
constexpr u64 TABLE = u64{SFS_GRAIN_BLOCKS} * BLOCK_BYTES;

class JournalDamageTest : public testing::Test
{
protected:
    JournalDamageTest()
        : m_sink(LogItem::setSink(
              [](LogModule, LogLevel, const std::string&, int, const std::string&) {}))
    {
        JournalOptions options;
        options.compression = Compression::Zstd;
        auto store = openJournal(m_storage, JournalMode::Writer, options);
        for (u64 i = 0; i < 4; ++i) {
            m_requests.push_back({i * 5, 4, patternBlocks(i, 4, i % 2 == 0)});
            EXPECT_EQ(store->append(i * 5, m_requests.back().m_bytes.data(), 4), RC_SUCCESS);
            EXPECT_EQ(store->flush(), RC_SUCCESS);
        }
        m_requests.push_back({9, 70000, {}});
        EXPECT_EQ(store->appendZeroes(9, 70000), RC_SUCCESS);
        EXPECT_EQ(store->appendCheckpoint("named", nullptr), RC_SUCCESS);
        m_dataBlocks = (store->bytesUsed() - store->endPage() * BLOCK_BYTES) / (BLOCK_BYTES + 4);
    }
    ~JournalDamageTest() override { LogItem::setSink(m_sink); }

    JournalStore::Opened open(JournalRecovery recovery, JournalMode mode = JournalMode::ReadOnly)
    {
        JournalOptions options;
        options.recovery = recovery;
        options.mode = mode;
        return JournalStore::open(m_storage, options);
    }

    // Nothing that is served differs from what was written; returns whether the damage was told.
    bool isFoundAndNotServed()
    {
        const JournalStore::Opened opened = open(JournalRecovery::Tail);
        if (!opened.m_store) {
            EXPECT_EQ(opened.m_rc, RC_DAMAGED);
            EXPECT_NE(opened.m_message, "");
            return true;
        }
        std::string failure;
        const std::vector<JournalRequest> found = readBack(*opened.m_store, &failure);
        EXPECT_LE(found.size(), m_requests.size());
        for (size_t i = 0; i < found.size(); ++i)
            if (failure.empty() || i + 1 < found.size()) {
                EXPECT_EQ(found[i], m_requests[i]);
            }
        for (const JournalCheckpoint& one : opened.m_store->checkpoints())
            EXPECT_TRUE(one.m_tag == "named" || one.m_tag.empty());
        const VerifyResult verified = verifyJournal(*opened.m_store);
        EXPECT_TRUE(failure.empty() || !verified.ok());
        return !verified.ok() || !opened.m_report.m_text.empty();
    }

    void flip(const std::string& file, u64 offset, u8 mask)
    {
        m_storage.setByte(file, offset, m_storage.byteAt(file, offset) ^ mask);
    }

    void expectEveryByteGuarded(const std::string& file, u64 begin, u64 end)
    {
        for (u64 offset = begin; offset < end; ++offset) {
            const u8 mask = offset % 2 == 0 ? 0x01 : 0xff;
            flip(file, offset, mask);
            EXPECT_TRUE(isFoundAndNotServed()) << file << " byte " << offset;
            flip(file, offset, mask);
        }
        EXPECT_FALSE(isFoundAndNotServed()) << "repaired";
    }

    CrashStorage m_storage;
    std::vector<JournalRequest> m_requests;
    u64 m_dataBlocks = 0;

private:
    LogItem::Sink m_sink;
};

TEST_F(JournalDamageTest, EveryByteOfMetadataIsGuarded)
{
    expectEveryByteGuarded(META, 0, m_storage.sizeOf(META));
}

TEST_F(JournalDamageTest, EveryByteOfDataIsGuarded)
{
    expectEveryByteGuarded(DATA, 0, m_dataBlocks * BLOCK_BYTES);
}

TEST_F(JournalDamageTest, EveryByteOfTheBlocksChecksumsIsGuarded)
{
    expectEveryByteGuarded(DATA, TABLE, TABLE + m_dataBlocks * 4);
}

TEST_F(JournalDamageTest, EveryByteOfTheTagsIsGuarded)
{
    expectEveryByteGuarded(TAGS, 0, m_storage.sizeOf(TAGS));
}

TEST_F(JournalDamageTest, DamagedPageIsToldWithItsGrainAndEntries)
{
    flip(META, 2 * BLOCK_BYTES + 100, 1);
    for (const JournalRecovery recovery : {JournalRecovery::Strict, JournalRecovery::Tail}) {
        const JournalStore::Opened opened = open(recovery);
        EXPECT_EQ(opened.m_rc, RC_DAMAGED);
        EXPECT_EQ(opened.m_message,
                  "the journal is damaged: metadata grain 1 page 2 (entries 30 to 44): not intact, "
                  "while later pages prove that it was");
    }
}

TEST_F(JournalDamageTest, PointInTimeEndsAtTheDamage)
{
    flip(META, 2 * BLOCK_BYTES + 100, 1);
    {
        const JournalStore::Opened opened = open(JournalRecovery::PointInTime);
        ASSERT_EQ(opened.m_rc, RC_SUCCESS);
        EXPECT_EQ(opened.m_store->itemCount(), 2u);
        EXPECT_EQ(opened.m_report.m_cutPages, 4u);
        EXPECT_TRUE(opened.m_store->checkpoints().empty());
        m_requests.resize(2);
        EXPECT_EQ(readBack(*opened.m_store), m_requests);
        EXPECT_EQ(opened.m_report.m_text,
                  "the journal is damaged: 4 metadata pages from metadata grain 1 page 2 (entries "
                  "30 to 44) on left out; it ends after 2 items");
    }
    // A reader changed nothing; a writer cuts for good.
    EXPECT_EQ(open(JournalRecovery::Tail).m_rc, RC_DAMAGED);
    EXPECT_EQ(open(JournalRecovery::PointInTime, JournalMode::Writer).m_rc, RC_SUCCESS);
    const JournalStore::Opened after = open(JournalRecovery::Strict);
    ASSERT_EQ(after.m_rc, RC_SUCCESS) << after.m_message;
    EXPECT_EQ(readBack(*after.m_store), m_requests);
}

TEST_F(JournalDamageTest, SalvageLeavesOutTheDamageAndGoesOn)
{
    flip(META, 1 * BLOCK_BYTES + 100, 1);
    flip(META, 2 * BLOCK_BYTES + 100, 1);
    const JournalStore::Opened opened = open(JournalRecovery::Salvage);
    ASSERT_EQ(opened.m_rc, RC_SUCCESS);
    EXPECT_EQ(opened.m_report.m_skippedPages, 2u);
    ASSERT_EQ(opened.m_report.m_damage.size(), 1u);
    EXPECT_EQ(opened.m_report.m_damage[0].m_where,
              "metadata grain 1 pages 1 to 2 (entries 15 to 44)");
    EXPECT_EQ(opened.m_store->itemCount(), 5u) << "numbers of items stay as they were";
    ASSERT_EQ(opened.m_store->checkpoints().size(), 1u);
    EXPECT_EQ(opened.m_store->checkpoints()[0].m_itemsBefore, 5u);
    m_requests.erase(m_requests.begin() + 1, m_requests.begin() + 3);
    EXPECT_EQ(readBack(*opened.m_store), m_requests);
    EXPECT_FALSE(verifyJournal(*opened.m_store).ok());
}

TEST_F(JournalDamageTest, IncompleteEndIsCutAndTold)
{
    // The last two pages: the one of the checkpoint and the one of the orderly end.
    const u64 pages = m_storage.sizeOf(META) / BLOCK_BYTES;
    m_storage.cutFile(META, (pages - 2) * BLOCK_BYTES + 200);
    EXPECT_EQ(open(JournalRecovery::Strict).m_rc, RC_DAMAGED);
    const JournalStore::Opened opened = open(JournalRecovery::Tail);
    ASSERT_EQ(opened.m_rc, RC_SUCCESS);
    EXPECT_EQ(opened.m_report.m_cutPages, 1u);
    EXPECT_EQ(opened.m_report.m_text,
              "the journal's end was incomplete: 1 metadata page from metadata grain 1 page 4 "
              "(entries 60 to 74) on left out; it ends after 4 items");
    m_requests.resize(4);
    EXPECT_EQ(readBack(*opened.m_store), m_requests);
}

TEST_F(JournalDamageTest, VerifyListsEveryDamagedIo)
{
    const JournalStore::Opened opened = open(JournalRecovery::Tail);
    EXPECT_TRUE(verifyJournal(*opened.m_store).ok());
    EXPECT_EQ(verifyJournal(*opened.m_store).items, 5u);
    flip(DATA, 0, 1);
    flip(DATA, (m_dataBlocks - 1) * BLOCK_BYTES, 1);
    const VerifyResult result = verifyJournal(*opened.m_store);
    EXPECT_EQ(result.rc, RC_SUCCESS);
    ASSERT_EQ(result.damage.size(), 2u);
    EXPECT_EQ(result.damage[0].m_where, "data grain 1 block 0");
    EXPECT_EQ(result.damage[0].m_offsetBlocks, 0u);
    EXPECT_EQ(result.damage[0].m_lengthBlocks, 4u);
    EXPECT_EQ(result.damage[0].m_journalAddress, SFS_GRAIN_BLOCKS);
    EXPECT_EQ(result.damage[0].m_reason, "a block's checksum does not match");
    EXPECT_EQ(result.damage[1].m_offsetBlocks, 15u);
}

TEST_F(JournalDamageTest, LostAndTruncatedDataGrainsAreTold)
{
    const JournalStore::Opened opened = open(JournalRecovery::Tail);
    m_storage.cutFile(DATA, 2 * BLOCK_BYTES);
    VerifyResult result = verifyJournal(*opened.m_store);
    EXPECT_EQ(result.damage.size(), 4u) << "with the table all checksums are gone";
    m_storage.dropFile(DATA);
    const JournalStore::Opened again = open(JournalRecovery::Tail);
    ASSERT_EQ(again.m_rc, RC_SUCCESS);
    result = verifyJournal(*again.m_store);
    ASSERT_EQ(result.damage.size(), 4u);
    EXPECT_EQ(result.damage[0].m_reason, "the data grain is missing or ends before the data");
}

// A page that is whole but says what no store writes.
TEST_F(JournalDamageTest, ImpossibleItemsAreRefused)
{
    struct Case
    {
        const char* m_reason;
        std::function<void(SfsDiskMetaItem&)> m_change;
    };
    const std::vector<Case> cases = {
        {"an IO of length 0", [](auto& i) { i.setUncompressedLengthBlocks(0); }},
        {"an IO longer than any may be", [](auto& i) { i.setUncompressedLengthBlocks(32769); }},
        {"an IO beyond the volume's end", [](auto& i) { i.m_ioData.offsetBlocks = ~u64{0}; }},
        {"an IO beyond the volume's end", [](auto& i) { i.m_ioData.offsetBlocks = 99998; }},
        {"an IO outside the journal", [](auto& i) { i.m_ioData.dataAddr = 5; }},
        {"an IO outside the journal", [](auto& i) { i.m_ioData.dataAddr = ~u64{0}; }},
        {"an IO across grains",
         [](auto& i) { i.m_ioData.dataAddr = 2 * u64{SFS_GRAIN_BLOCKS} - 3; }},
        {"an item of an unknown type", [](auto& i) { i.setType(SfsMetaType::NUM_TYPES); }},
        {"a checkpoint without an id",
         [](auto& i) {
             i.setType(SfsMetaType::CHECKPOINT);
             i.m_cpData.checkpoint = 0;
         }},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.m_reason);
        const auto storage = m_storage.restart();
        JournalPage page;
        u8* bytes = reinterpret_cast<u8*>(&page);
        for (u64 i = 0; i < BLOCK_BYTES; ++i)
            bytes[i] = storage->byteAt(META, BLOCK_BYTES + i);
        one.m_change(page.m_items[0]);
        sealPage(page);
        for (u64 i = 0; i < BLOCK_BYTES; ++i)
            storage->setByte(META, BLOCK_BYTES + i, bytes[i]);
        JournalOptions options;
        options.volumeBlocks = 100000;
        const JournalStore::Opened opened = JournalStore::open(*storage, options);
        EXPECT_EQ(opened.m_rc, RC_DAMAGED);
        EXPECT_EQ(opened.m_message, std::string("the journal is damaged: metadata grain 1 page 1 "
                                                "(entries 15 to 29): entry 15: ") +
                                        one.m_reason);
    }
}

// What decompresses wrongly although its bytes are as they were written.
TEST_F(JournalDamageTest, IoThatDoesNotDecompressIsTold)
{
    const JournalStore::Opened opened = open(JournalRecovery::Tail);
    JournalPage page;
    u32 done = 0;
    ASSERT_EQ(opened.m_store->grains().readMeta(1, 0, 1, &page, &done), RC_SUCCESS);
    ASSERT_EQ(page.m_items[0].getType(), SfsMetaType::COMPRESSED_IO);
    page.m_items[0].setUncompressedLengthBlocks(3);
    sealPage(page);
    const u8* bytes = reinterpret_cast<const u8*>(&page);
    for (u64 i = 0; i < BLOCK_BYTES; ++i)
        m_storage.setByte(META, i, bytes[i]);
    const VerifyResult result = verifyJournal(*open(JournalRecovery::Tail).m_store);
    ASSERT_EQ(result.damage.size(), 1u);
    EXPECT_EQ(result.damage[0].m_reason, "the IO does not decompress to its length");
}

} // namespace
