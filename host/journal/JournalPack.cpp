#include "host/journal/JournalPack.h"

#include <algorithm>

#include "host/journal/Crc32c.h"

namespace {

JournalPiece encodePiece(u64 offsetBlocks, const u8* data, u32 blocks, Compression compression,
                         CompressionContext* context)
{
    JournalPiece piece;
    piece.m_plain = piece.m_stored = data;
    piece.m_storedBlocks = blocks;
    piece.m_item.m_ioData.offsetBlocks = offsetBlocks;
    piece.m_item.setUncompressedLengthBlocks(blocks);
    piece.m_item.setType(SfsMetaType::UNCOMPRESSED_IO);
    const u8* stored = nullptr;
    const u32 bytes = context ? context->compress(compression, data, blocks, &stored) : 0;
    if (bytes != 0) {
        piece.m_item.setType(SfsMetaType::COMPRESSED_IO);
        piece.m_item.setCompressedLengthBytes(bytes);
        piece.m_storedBlocks = storedBlocks(piece.m_item);
        piece.m_compressed.assign(stored, stored + u64{piece.m_storedBlocks} * BLOCK_BYTES);
        piece.m_stored = piece.m_compressed.data();
    }
    piece.m_checksums.resize(piece.m_storedBlocks);
    piece.m_item.setUserData(
        crc32cOfBlocks(piece.m_stored, piece.m_storedBlocks, piece.m_checksums.data()));
    return piece;
}

// The length of the request that begins at that item.
size_t requestItems(const std::vector<PendingItem>& items, size_t first)
{
    size_t end = first + 1;
    while (end < items.size() && items[end].m_continues)
        ++end;
    return end - first;
}

} // namespace

void encodeWrite(u64 offsetBlocks, const u8* data, u32 lengthBlocks, Compression compression,
                 std::vector<JournalPiece>* pieces)
{
    const u32 longest =
        compression == Compression::None ? JOURNAL_MAX_IO_BLOCKS : MAX_COMPRESSED_IO_BLOCKS;
    std::unique_ptr<PooledCompressionContext> context;
    if (compression != Compression::None)
        context = std::make_unique<PooledCompressionContext>();
    while (lengthBlocks > 0) {
        const u32 blocks = std::min(lengthBlocks, longest);
        pieces->push_back(encodePiece(offsetBlocks, data, blocks, compression,
                                      context ? context->get() : nullptr));
        offsetBlocks += blocks;
        data += u64{blocks} * BLOCK_BYTES;
        lengthBlocks -= blocks;
    }
}

void encodeZeroes(u64 offsetBlocks, u64 lengthBlocks, std::vector<JournalPiece>* pieces)
{
    while (lengthBlocks > 0) {
        const u32 blocks = static_cast<u32>(std::min<u64>(lengthBlocks, JOURNAL_MAX_ZEROES_BLOCKS));
        JournalPiece piece;
        piece.m_item.setType(SfsMetaType::ZEROS);
        piece.m_item.m_ioData.dataAddr = SFS_DEV_ADDR_INVALID;
        piece.m_item.m_ioData.offsetBlocks = offsetBlocks;
        piece.m_item.setUncompressedLengthBlocks(blocks);
        pieces->push_back(std::move(piece));
        offsetBlocks += blocks;
        lengthBlocks -= blocks;
    }
}

JournalGroup packGroup(const std::vector<PendingItem>& items, u64 firstPage, u64 itemsBefore)
{
    JournalGroup group;
    group.m_firstPage = firstPage;
    group.m_items = itemsBefore;
    JournalPage* page = nullptr;
    const auto beginPage = [&] {
        group.m_pages.emplace_back();
        page = &group.m_pages.back();
        page->m_groupDistance = static_cast<u32>(group.m_pages.size() - 1);
        page->m_number = firstPage + page->m_groupDistance;
        page->m_itemsBefore = group.m_items;
        page->m_count = 0;
        page->m_continuation = 0;
    };
    for (size_t i = 0; i < items.size(); ++i) {
        const bool full = page != nullptr && page->m_count == JOURNAL_PAGE_ITEMS;
        if (page == nullptr || full ||
            (!items[i].m_continues &&
             page->m_count + requestItems(items, i) > JOURNAL_PAGE_ITEMS)) {
            if (full && items[i].m_continues)
                page->m_continuation |= JournalPage::GOES_ON;
            beginPage();
        }
        const u32 slot = page->m_count++;
        page->m_items[slot] = items[i].m_item;
        if (items[i].m_continues)
            page->m_continuation = static_cast<u16>(page->m_continuation | 1U << slot);
        else if (items[i].m_item.is_io_type())
            ++group.m_items;
        if (items[i].m_item.getType() == SfsMetaType::CHECKPOINT)
            group.m_checkpoints.push_back(journalPtr(page->m_number, slot));
    }
    for (JournalPage& one : group.m_pages)
        sealPage(one);
    return group;
}
