// Items on their way into the journal: a request cut into items, and items packed into pages.
#pragma once

#include <vector>

#include "host/journal/Compression.h"
#include "host/journal/JournalFormat.h"

// One item of a request, and the bytes to be stored for it.
struct JournalPiece
{
    SfsDiskMetaItem m_item;       // without its address
    const u8* m_stored = nullptr; // m_storedBlocks blocks: the caller's bytes, or m_compressed
    std::vector<u8> m_compressed;
    std::vector<u32> m_checksums; // of the stored blocks
    const u8* m_plain = nullptr;  // the caller's bytes
    u32 m_storedBlocks = 0;
};

// Compressed IOs are kept this short, as reading one block takes all before it.
constexpr u32 MAX_COMPRESSED_IO_BLOCKS = 2048;

// Cuts a write into pieces of at most the length that one IO may have, and compresses and checksums
// each. The pieces refer to `data`.
void encodeWrite(u64 offsetBlocks, const u8* data, u32 lengthBlocks, Compression compression,
                 std::vector<JournalPiece>* pieces);

// Cuts a run of zeroes into as many items as its length asks for.
void encodeZeroes(u64 offsetBlocks, u64 lengthBlocks, std::vector<JournalPiece>* pieces);

// An item that waits for its flush.
struct PendingItem
{
    SfsDiskMetaItem m_item;
    bool m_continues = false; // goes on with the request of the item before
};

// A flush group, ready to be written.
struct JournalGroup
{
    u64 m_firstPage = 0;
    u64 m_items = 0; // logical items up to its end
    std::vector<JournalPage> m_pages;
    std::vector<JournalPtr> m_checkpoints; // where its checkpoint items are, in their order
};

// Packs all items. A request whose items do not fit into the rest of a page begins a new one, so
// that a journal that ends at a page never ends within a request that fits one.
JournalGroup packGroup(const std::vector<PendingItem>& items, u64 firstPage, u64 itemsBefore);
