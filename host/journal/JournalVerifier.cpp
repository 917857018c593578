#include "host/journal/JournalVerifier.h"

#include <algorithm>

#include "host/journal/Crc32c.h"
#include "host/journal/JournalRecovery.h"
#include "host/journal/JournalScanner.h"

namespace {

constexpr u64 BATCH_BLOCKS = 8192; // 4 MiB of stored data in flight

// Takes every item of a scan and reads what it refers to, some megabytes at a time.
class Verifier : public SfsMetaDataContainer
{
public:
    Verifier(JournalStore& store, const VerifyOptions& options, VerifyResult& result)
        : m_store(store), m_options(options), m_result(result)
    {}

    FutureStatus prepareToAdd(int, u64) override
    {
        const bool cancelled = m_options.cancelled && m_options.cancelled();
        return makeSetFuture(cancelled ? RC_ABORTED : RC_SUCCESS);
    }
    void unPrepareToAdd() override {}
    RcStatus metaGrainStarted(SfsDevAddr) override { return RC_SUCCESS; }
    bool isAddMetaDataDesireOffload() override { return true; }
    void done() override { checkBatch(); }

    RcStatus addMetaData(const SfsDiskMetaItem& item, const JournalPtr&) override
    {
        const u32 blocks = storedBlocks(item);
        if (blocks == 0)
            return RC_SUCCESS;
        if (m_blocks + blocks > BATCH_BLOCKS)
            checkBatch();
        m_items.push_back(item);
        m_blocks += blocks;
        return m_unread;
    }

    // What kept it from reading, which says nothing of what the journal holds.
    RcStatus unread() const { return m_unread; }
    const std::string& unreadWhere() const { return m_unreadWhere; }

private:
    void checkBatch()
    {
        // Grown, never shrunk: one IO may be larger than a batch.
        if (m_data.size() < m_blocks * BLOCK_BYTES)
            m_data.resize(m_blocks * BLOCK_BYTES);
        std::vector<FutureStatus> reads;
        reads.reserve(m_items.size());
        u8* at = m_data.data();
        for (const SfsDiskMetaItem& item : m_items) {
            IODescriptorEx read;
            read.m_offsetBlocks = item.m_ioData.dataAddr;
            read.m_lengthBlocks = storedBlocks(item);
            read.m_data = ScatteredBuf(at, read.m_lengthBlocks * BLOCK_BYTES);
            at += read.m_data.getSize();
            reads.push_back(m_store.readStored({read}, AioPriority::Low));
        }
        at = m_data.data();
        for (size_t i = 0; i < m_items.size(); ++i) {
            const u64 bytes = u64{storedBlocks(m_items[i])} * BLOCK_BYTES;
            checkItem(m_items[i], at, reads[i].get());
            at += bytes;
            m_result.bytes += bytes;
        }
        m_items.clear();
        m_blocks = 0;
    }

    void checkItem(const SfsDiskMetaItem& item, const u8* stored, RcStatus rc)
    {
        if (rc == RC_NO_MEMORY)
            noteUnread(item, rc);
        else if (rc == RC_BAD_CHECKSUM)
            report(item, "a block's checksum does not match");
        else if (rc == RC_DAMAGED)
            report(item, "the data grain is missing or ends before the data");
        else if (rc != RC_SUCCESS)
            report(item, std::string("cannot be read: ") + rcStatusText(rc));
        else if (crc32c(stored, u64{storedBlocks(item)} * BLOCK_BYTES) != item.getUserData())
            report(item, "the IO's checksum does not match");
        else if (item.getType() == SfsMetaType::COMPRESSED_IO && !decompresses(item, stored))
            report(item, "the IO does not decompress to its length");
    }

    static bool decompresses(const SfsDiskMetaItem& item, const u8* stored)
    {
        const u32 bytes = item.getCompressedLengthBytes();
        const u32 blocks = item.getUncompressedLengthBlocks();
        PooledCompressionContext context;
        const u8* plain = nullptr;
        return CompressionContext::lengthBlocks(stored, bytes) == blocks &&
               context->decompress(stored, bytes, blocks, &plain) == RC_SUCCESS;
    }

    static std::string whereOf(u64 address)
    {
        return "data grain " + std::to_string(address / SFS_GRAIN_BLOCKS) + " block " +
               std::to_string(address % SFS_GRAIN_BLOCKS);
    }

    void noteUnread(const SfsDiskMetaItem& item, RcStatus rc)
    {
        if (m_unread != RC_SUCCESS)
            return;
        m_unread = rc;
        m_unreadWhere = whereOf(item.m_ioData.dataAddr);
    }

    void report(const SfsDiskMetaItem& item, const std::string& reason)
    {
        const u64 address = item.m_ioData.dataAddr;
        VerifyDamage damage;
        damage.m_grain = address / SFS_GRAIN_BLOCKS;
        damage.m_where = whereOf(address);
        damage.m_journalAddress = address;
        damage.m_offsetBlocks = item.m_ioData.offsetBlocks;
        damage.m_lengthBlocks = item.getUncompressedLengthBlocks();
        damage.m_reason = reason;
        m_result.damage.push_back(damage);
    }

    JournalStore& m_store;
    const VerifyOptions& m_options;
    VerifyResult& m_result;
    std::vector<SfsDiskMetaItem> m_items;
    u64 m_blocks = 0;
    std::vector<u8> m_data;
    RcStatus m_unread = RC_SUCCESS;
    std::string m_unreadWhere;
};

} // namespace

VerifyResult verifyJournal(JournalStore& store, const VerifyOptions& options)
{
    VerifyResult result;
    for (const JournalDamage& one : store.report().m_damage) {
        VerifyDamage damage;
        damage.m_where = one.m_where;
        damage.m_reason = one.m_reason;
        result.damage.push_back(damage);
    }
    Verifier verifier(store, options, result);
    ScanOptions scanOptions;
    scanOptions.progress = options.progress;
    JournalScanner scanner(store);
    const ScanResult scan = scanner.scan(verifier, scanOptions);
    result.rc = scan.rc;
    result.message = scan.message;
    if (verifier.unread() != RC_SUCCESS) {
        result.rc = verifier.unread();
        result.message =
            "cannot read " + verifier.unreadWhere() + ": " + readFailureText(result.rc);
    }
    result.items = scan.itemsBefore;
    result.bytes += (store.endPage() - store.begin().m_page) * BLOCK_BYTES;
    if (scan.rc == RC_DAMAGED) {
        VerifyDamage damage;
        damage.m_where = "metadata";
        damage.m_reason = scan.message;
        result.damage.push_back(damage);
        result.rc = RC_SUCCESS;
    }
    return result;
}
