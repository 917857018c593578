// The journal as it lies in its grains; docs/format.md tells it for other programs.
//
// Metadata is a run of pages of one block each: a header and up to 15 items. Pages are numbered
// over the whole journal, and a page's number says its grain and place. A flush writes whole pages,
// its group, and no later flush touches them; so a write that a crash tears cannot harm what an
// earlier flush acknowledged.
#pragma once

#include <string>

#include "Sfs/SfsDiskMetaItem.h"
#include "Sfs/SfsItemDescriptor.h"
#include "Sfs/SfsMetaDataContainer.h"

constexpr u32 JOURNAL_PAGE_ITEMS = 15;
constexpr u32 JOURNAL_PAGES_PER_GRAIN = SFS_GRAIN_BLOCKS;
constexpr u32 JOURNAL_MAX_IO_BLOCKS = SFS_GRAIN_BLOCKS;
constexpr u32 JOURNAL_MAX_ZEROES_BLOCKS = 65535;
constexpr u32 JOURNAL_PAGE_MAGIC = 0x314A4C52; // "RLJ1"; the digit is the format's version

struct JournalPage
{
    u32 m_magic;
    u32 m_crc;           // crc32c of the bytes from m_number to the end of the page
    u64 m_number;        // over the whole journal, from 0
    u64 m_itemsBefore;   // logical items (requests) in all pages before
    u16 m_count;         // items in this page
    u16 m_continuation;  // bit i: item i goes on with the request of the item before;
                         // bit 15: the request of the last item goes on in the next page
    u32 m_groupDistance; // pages from the first page of its flush group to this one
    SfsDiskMetaItem m_items[JOURNAL_PAGE_ITEMS];

    static constexpr u16 GOES_ON = 0x8000;

    bool continues(u32 slot) const { return (m_continuation >> slot & 1) != 0; }

    // Logical items that begin in this page: IO items that are no continuation. Checkpoints are
    // not counted.
    u32 logicalItems() const;
};
static_assert(sizeof(JournalPage) == BLOCK_BYTES);

// Where a page lies.
inline u64 pageGrain(u64 pageNumber)
{
    return pageNumber / JOURNAL_PAGES_PER_GRAIN + 1;
}
inline u32 pageInGrain(u64 pageNumber)
{
    return static_cast<u32>(pageNumber % JOURNAL_PAGES_PER_GRAIN);
}
inline JournalPtr journalPtr(u64 pageNumber, u32 slot)
{
    return {pageGrain(pageNumber) * SFS_GRAIN_BLOCKS,
            pageInGrain(pageNumber) * JOURNAL_PAGE_ITEMS + slot};
}
inline u64 pageOfJournalPtr(const JournalPtr& ptr)
{
    return (ptr.grain / SFS_GRAIN_BLOCKS - 1) * JOURNAL_PAGES_PER_GRAIN +
           ptr.entryNum / JOURNAL_PAGE_ITEMS;
}

// Blocks that an IO item's data takes in the journal; 0 for what has none.
u32 storedBlocks(const SfsDiskMetaItem& item);

// Sets magic and checksum; unused slots are zeroed.
void sealPage(JournalPage& page);

// Whether the page is all zeroes: there, but never written as part of the journal.
bool isPageEmpty(const JournalPage& page);

// Whether the page is whole and belongs at that place.
bool isPageIntact(const JournalPage& page, u64 pageNumber);

// Why the item cannot be one that the store wrote, or null. volumeBlocks: the protected volume's
// length, 0 for unknown.
const char* itemFault(const SfsDiskMetaItem& item, u64 volumeBlocks);

// What a checkpoint's item says of its tag, so that a lost tag is noticed: 0 for none.
u32 tagMark(const std::string& tag);
