// What the benchmarks do to an index: a list of journal items, made the same on every run.
//
// The first items fill the index; after that the rest of the list, and then the whole list over
// and over, is written, so that what is measured is an index in its steady state. Lookups and locks
// go where the list's items lie, in the list's order, so that reading has the locality of writing.
//
//   uniform     4 KiB writes at 4 KiB boundaries, every place equally often; the fill writes each
//               place once, so that the index holds exactly `size` regions
//   unaligned   4 KiB writes at any block, every place equally often; about `size` regions
//   skewed      mixed sizes, some off the grid, some compressed, some zeroes; few places are
//               written often and many seldom
//   sequential  32 KiB writes, each where the one before ended; at the end of the volume again
//               from its beginning
//   trace       the writes of a block trace, in its order (TraceWorkload.h)
//   trace40     the same trace on 40 volumes side by side, each at another hour of it
//
// Thread safety: values; made once, read by any thread.
#pragma once

#include <vector>

#include "Sfs/SfsDiskMetaItem.h"

struct Workload
{
    std::vector<SfsDiskMetaItem> m_items;
    size_t m_fillItems = 0; // so many of them fill the index
};

// size: the number of regions aimed at, above 0.
Workload makeUniform(u32 size);
Workload makeUnaligned(u32 size);
Workload makeSkewed(u32 size);
Workload makeSequential(u32 size);

// Appends requests as journal items, one data address after the other as in a real journal.
class ItemWriter
{
public:
    explicit ItemWriter(std::vector<SfsDiskMetaItem>* items) : m_items(items) {}

    // A request becomes several items where its data would lie in two grains, and where an item's
    // length has too few bits for it, as when a journal records it. REQUIRES: a length above 0.
    // type: UNCOMPRESSED_IO, COMPRESSED_IO (stored in half its length) or ZEROS.
    void write(u64 offsetBlocks, u64 lengthBlocks, SfsMetaType type);

private:
    std::vector<SfsDiskMetaItem>* m_items;
    u64 m_nextAddress = 0;
};
