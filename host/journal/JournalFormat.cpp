#include "host/journal/JournalFormat.h"

#include <cstddef>
#include <cstring>

#include "host/journal/Crc32c.h"

namespace {

// What the page's checksum covers.
constexpr size_t CHECKED_FROM = offsetof(JournalPage, m_number);

u32 pageChecksum(const JournalPage& page)
{
    return crc32c(&page.m_number, sizeof(JournalPage) - CHECKED_FROM);
}

} // namespace

u32 JournalPage::logicalItems() const
{
    u32 count = 0;
    for (u32 slot = 0; slot < m_count; ++slot)
        count += m_items[slot].is_io_type() && !continues(slot) ? 1 : 0;
    return count;
}

u32 storedBlocks(const SfsDiskMetaItem& item)
{
    switch (item.getType()) {
    case SfsMetaType::UNCOMPRESSED_IO: return item.getUncompressedLengthBlocks();
    case SfsMetaType::COMPRESSED_IO:
        return (item.getCompressedLengthBytes() >> BLOCK_SHIFT) +
               (item.getCompressedLengthBytes() % BLOCK_BYTES != 0 ? 1 : 0);
    default: return 0;
    }
}

void sealPage(JournalPage& page)
{
    for (u32 slot = page.m_count; slot < JOURNAL_PAGE_ITEMS; ++slot)
        page.m_items[slot] = SfsDiskMetaItem();
    page.m_magic = JOURNAL_PAGE_MAGIC;
    page.m_crc = pageChecksum(page);
}

bool isPageEmpty(const JournalPage& page)
{
    static constexpr u8 EMPTY[sizeof(JournalPage)] = {};
    return std::memcmp(&page, EMPTY, sizeof(page)) == 0;
}

bool isPageIntact(const JournalPage& page, u64 pageNumber)
{
    return page.m_magic == JOURNAL_PAGE_MAGIC && page.m_number == pageNumber &&
           page.m_count <= JOURNAL_PAGE_ITEMS && page.m_crc == pageChecksum(page);
}

const char* itemFault(const SfsDiskMetaItem& item, u64 volumeBlocks)
{
    const SfsMetaType type = item.getType();
    if (type == SfsMetaType::CHECKPOINT)
        return item.m_cpData.checkpoint == 0 || item.m_cpData.checkpoint == ~CpId_t{0}
                   ? "a checkpoint without an id"
                   : nullptr;
    if (type >= SfsMetaType::NUM_TYPES)
        return "an item of an unknown type";
    if (!item.is_io_type())
        return nullptr;

    const u64 length = item.getUncompressedLengthBlocks();
    const u64 offset = item.m_ioData.offsetBlocks;
    if (length == 0)
        return "an IO of length 0";
    if (length > (item.is_io_type_with_ud() ? JOURNAL_MAX_IO_BLOCKS : JOURNAL_MAX_ZEROES_BLOCKS))
        return "an IO longer than any may be";
    if (offset + length < offset || (volumeBlocks != 0 && offset + length > volumeBlocks))
        return "an IO beyond the volume's end";
    if (!item.is_io_type_with_ud())
        return nullptr;

    const u64 stored = storedBlocks(item);
    const u64 address = item.m_ioData.dataAddr;
    if (address < SFS_GRAIN_BLOCKS || address >> 48 != 0)
        return "an IO outside the journal";
    if (stored == 0 || (type == SfsMetaType::COMPRESSED_IO && stored >= length))
        return "an IO of an impossible stored length";
    if (address % SFS_GRAIN_BLOCKS + stored > SFS_GRAIN_BLOCKS)
        return "an IO across grains";
    return nullptr;
}

u32 tagMark(const std::string& tag)
{
    if (tag.empty())
        return 0;
    const u32 crc = crc32c(tag.data(), tag.size());
    return crc != 0 ? crc : 1;
}
