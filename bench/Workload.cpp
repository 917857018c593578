#include "bench/Workload.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "Sfs/SfsItemDescriptor.h"
#include "bench/Random.h"

namespace {

constexpr u64 UNIFORM_SEED = 1;
constexpr u64 SKEWED_SEED = 2;
constexpr u64 UNALIGNED_SEED = 4;

constexpr u32 BLOCKS_4K = 8;
constexpr u32 SEQUENTIAL_BLOCKS = 64;
constexpr u64 MAX_ITEM_BLOCKS = 0xFFFF;

// The skewed volume, in blocks a region that is aimed at, and the writes that fill it: chosen so
// that about `size` regions are what is left after them.
constexpr u64 SKEWED_VOLUME_BLOCKS = 33;
constexpr double SKEWED_WRITES = 1.55;
constexpr u64 EXTENT_BLOCKS = 2048;

u32 mixedLength(Random& random)
{
    struct Share
    {
        u32 percent;
        u32 lengthBlocks;
    };
    constexpr Share SHARES[] = {{5, 1}, {50, 8}, {15, 16}, {10, 32}, {10, 64}, {7, 128}};
    u64 drawn = random.below(100);
    for (const Share& share : SHARES) {
        if (drawn < share.percent)
            return share.lengthBlocks;
        drawn -= share.percent;
    }
    return 256;
}

SfsMetaType mixedType(Random& random)
{
    const u64 drawn = random.below(100);
    if (drawn < 5)
        return SfsMetaType::ZEROS;
    return drawn < 25 ? SfsMetaType::COMPRESSED_IO : SfsMetaType::UNCOMPRESSED_IO;
}

// The unaligned volume, in blocks a region that is aimed at, and the writes that fill it: of nine
// writes that touch one of two neighbouring blocks two end between them, so regions are 4.5 blocks
// long on average once nearly everything is written.
constexpr double UNALIGNED_VOLUME_BLOCKS = 4.5;
constexpr double UNALIGNED_WRITES = 2.25;

std::vector<u64> shuffled(u64 count, Random& random)
{
    std::vector<u64> places(count);
    std::iota(places.begin(), places.end(), u64{0});
    for (u64 i = count - 1; i > 0; --i)
        std::swap(places[i], places[random.below(i + 1)]);
    return places;
}

} // namespace

void ItemWriter::write(u64 offsetBlocks, u64 lengthBlocks, SfsMetaType type)
{
    while (lengthBlocks > 0) {
        u64 length = std::min(lengthBlocks, MAX_ITEM_BLOCKS);
        u64 stored = 0;
        SfsDiskMetaItem item;
        if (type != SfsMetaType::ZEROS) {
            length = std::min(length, SFS_GRAIN_BLOCKS - m_nextAddress % SFS_GRAIN_BLOCKS);
            stored = type == SfsMetaType::COMPRESSED_IO ? (length + 1) / 2 : length;
        }
        item.m_ioData = {type == SfsMetaType::ZEROS ? SFS_DEV_ADDR_INVALID : m_nextAddress,
                         offsetBlocks};
        item.setUncompressedLengthBlocks(static_cast<u32>(length));
        item.setType(type);
        if (type == SfsMetaType::COMPRESSED_IO)
            item.setCompressedLengthBytes(static_cast<u32>(stored * BLOCK_BYTES));
        m_items->push_back(item);
        m_nextAddress += stored;
        offsetBlocks += length;
        lengthBlocks -= length;
    }
}

Workload makeUniform(u32 size)
{
    Random random(UNIFORM_SEED);
    Workload workload;
    ItemWriter writer(&workload.m_items);
    for (const u64 place : shuffled(size, random))
        writer.write(place * BLOCKS_4K, BLOCKS_4K, SfsMetaType::UNCOMPRESSED_IO);
    workload.m_fillItems = workload.m_items.size();
    for (u32 i = 0; i < size; ++i)
        writer.write(random.below(size) * BLOCKS_4K, BLOCKS_4K, SfsMetaType::UNCOMPRESSED_IO);
    return workload;
}

Workload makeUnaligned(u32 size)
{
    Random random(UNALIGNED_SEED);
    Workload workload;
    ItemWriter writer(&workload.m_items);
    const u64 places = static_cast<u64>(size * UNALIGNED_VOLUME_BLOCKS) + 1;
    const u64 fillWrites = static_cast<u64>(size * UNALIGNED_WRITES) + 1;
    for (u64 i = 0; i < fillWrites; ++i)
        writer.write(random.below(places), BLOCKS_4K, SfsMetaType::UNCOMPRESSED_IO);
    workload.m_fillItems = workload.m_items.size();
    for (u32 i = 0; i < size; ++i)
        writer.write(random.below(places), BLOCKS_4K, SfsMetaType::UNCOMPRESSED_IO);
    return workload;
}

Workload makeSkewed(u32 size)
{
    Random random(SKEWED_SEED);
    Workload workload;
    ItemWriter writer(&workload.m_items);
    const u64 extents = size * SKEWED_VOLUME_BLOCKS / EXTENT_BLOCKS + 1;
    // Where the busy extents lie must not depend on how busy they are.
    const std::vector<u64> places = shuffled(extents, random);
    const u64 writes = static_cast<u64>(size * SKEWED_WRITES) + 1;
    for (u64 i = 0; i < writes; ++i) {
        // The square of an even fraction: a tenth of the extents gets a third of the writes.
        const double fraction = random.fraction();
        const u64 extent =
            places[static_cast<u64>(fraction * fraction * static_cast<double>(extents))];
        u64 within = random.below(EXTENT_BLOCKS);
        if (!random.percent(20))
            within -= within % BLOCKS_4K;
        writer.write(extent * EXTENT_BLOCKS + within, mixedLength(random), mixedType(random));
    }
    workload.m_fillItems = workload.m_items.size();
    return workload;
}

Workload makeSequential(u32 size)
{
    Workload workload;
    ItemWriter writer(&workload.m_items);
    for (u64 i = 0; i < size; ++i)
        writer.write(i * SEQUENTIAL_BLOCKS, SEQUENTIAL_BLOCKS, SfsMetaType::UNCOMPRESSED_IO);
    workload.m_fillItems = workload.m_items.size();
    return workload;
}
