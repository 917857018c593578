#include "tests/support/JournalReadback.h"

#include <cstring>
#include <gtest/gtest.h>

#include "host/journal/JournalScanner.h"

namespace {

class Collector : public SfsMetaDataContainer
{
public:
    FutureStatus prepareToAdd(int, u64) override { return makeSetFuture(RC_SUCCESS); }
    void unPrepareToAdd() override {}
    RcStatus metaGrainStarted(SfsDevAddr) override { return RC_SUCCESS; }
    bool isAddMetaDataDesireOffload() override { return false; }
    RcStatus addMetaData(const SfsDiskMetaItem& item, const JournalPtr& ptr) override
    {
        m_items.emplace_back(item, ptr);
        return RC_SUCCESS;
    }

    std::vector<std::pair<SfsDiskMetaItem, JournalPtr>> m_items;
};

std::string appendPiece(JournalStore& store, const SfsDiskMetaItem& item, JournalRequest* request)
{
    request->m_lengthBlocks += item.getUncompressedLengthBlocks();
    if (!item.is_io_type_with_ud())
        return "";
    std::vector<u8> stored(u64{storedBlocks(item)} * BLOCK_BYTES);
    IODescriptorEx read;
    read.m_offsetBlocks = item.m_ioData.dataAddr;
    read.m_lengthBlocks = storedBlocks(item);
    read.m_data = ScatteredBuf(stored.data(), static_cast<u32>(stored.size()));
    const RcStatus rc = store.readStored({read}, AioPriority::Normal).get();
    if (rc != RC_SUCCESS)
        return std::string("read: ") + rcStatusText(rc);
    const u64 bytes = u64{item.getUncompressedLengthBlocks()} * BLOCK_BYTES;
    const u8* plain = stored.data();
    PooledCompressionContext context;
    if (item.getType() == SfsMetaType::COMPRESSED_IO) {
        const RcStatus unpacked =
            context->decompress(stored.data(), item.getCompressedLengthBytes(),
                                item.getUncompressedLengthBlocks(), &plain);
        if (unpacked != RC_SUCCESS)
            return std::string("decompress: ") + rcStatusText(unpacked);
    }
    request->m_bytes.insert(request->m_bytes.end(), plain, plain + bytes);
    return "";
}

} // namespace

std::vector<JournalRequest> readBack(JournalStore& store, std::string* failure)
{
    std::vector<JournalRequest> requests;
    Collector collector;
    const ScanResult scan = JournalScanner(store).scan(collector);
    std::string error = scan.rc == RC_SUCCESS ? "" : "scan: " + scan.message;
    for (size_t i = 0; i < collector.m_items.size() && error.empty(); ++i) {
        const auto& [item, ptr] = collector.m_items[i];
        if (!item.is_io_type())
            continue;
        JournalPage page;
        u32 done = 0;
        const u64 number = pageOfJournalPtr(ptr);
        store.grains().readMeta(pageGrain(number), pageInGrain(number), 1, &page, &done);
        if (!page.continues(ptr.entryNum % JOURNAL_PAGE_ITEMS))
            requests.push_back({item.m_ioData.offsetBlocks, 0, {}});
        else if (requests.empty())
            error = "a piece without its request";
        if (error.empty())
            error = appendPiece(store, item, &requests.back());
    }
    if (failure != nullptr)
        *failure = error;
    else if (!error.empty())
        ADD_FAILURE() << error;
    return requests;
}

std::vector<u8> patternBlocks(u64 seed, u32 blocks, bool repetitive)
{
    std::vector<u8> data(u64{blocks} * BLOCK_BYTES);
    u64 state = seed * 0x9E3779B97F4A7C15 + 1;
    for (size_t i = 0; i < data.size(); i += sizeof(state)) {
        if (!repetitive || i % 128 == 0) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
        }
        std::memcpy(data.data() + i, &state, sizeof(state));
    }
    return data;
}

std::unique_ptr<JournalStore> openJournal(Storage& storage, JournalMode mode,
                                          JournalOptions options)
{
    options.mode = mode;
    JournalStore::Opened opened = JournalStore::open(storage, options);
    EXPECT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
    return std::move(opened.m_store);
}
