#include "appliance/ChangeFilter.h"

#include <algorithm>
#include <cstring>

namespace {

bool isZero(const u8* block)
{
    // All bytes equal their neighbour, and the first is zero.
    return block[0] == 0 && std::memcmp(block, block + 1, BLOCK_BYTES - 1) == 0;
}

} // namespace

ChangeFilter::ChangeFilter(View& then, TaskEngine& engine)
    : m_engine(engine), m_reader(then), m_extents(then), m_then(u64{PART_BLOCKS} << BLOCK_SHIFT)
{}

Result ChangeFilter::compare(u64 offsetBlocks, u32 lengthBlocks, const u8* now, const Use& use)
{
    const RcStatus rc = m_reader.readNow(m_engine, offsetBlocks, lengthBlocks, m_then.data());
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot read the earlier view's blocks " +
                                          std::to_string(offsetBlocks) + " to " +
                                          std::to_string(offsetBlocks + lengthBlocks - 1));
    const auto differs = [&](u32 block) {
        const u8* then = m_then.data() + (u64{block} << BLOCK_SHIFT);
        return now == nullptr
                   ? !isZero(then)
                   : std::memcmp(then, now + (u64{block} << BLOCK_SHIFT), BLOCK_BYTES) != 0;
    };
    for (u32 block = 0; block < lengthBlocks;) {
        const u32 first = block;
        while (block < lengthBlocks && differs(block))
            ++block;
        if (block > first)
            if (Result result = use(offsetBlocks + first, block - first); !result.ok())
                return result;
        if (block < lengthBlocks && block == first)
            ++block;
    }
    return Result();
}

Result ChangeFilter::differing(u64 offsetBlocks, u64 lengthBlocks, const u8* now, const Use& use)
{
    const u64 end = offsetBlocks + lengthBlocks;
    for (u64 block = offsetBlocks; block < end;) {
        u64 start = block;
        u64 stop = std::min(end, block + PART_BLOCKS);
        if (now == nullptr) {
            if (Result result = m_extents.next(block, PART_BLOCKS, &start, &stop); !result.ok())
                return result;
            start = std::min(start, end);
            stop = std::min(stop, end);
        }
        if (start < stop) {
            const u8* part = now != nullptr ? now + ((start - offsetBlocks) << BLOCK_SHIFT) : now;
            if (Result result = compare(start, static_cast<u32>(stop - start), part, use);
                !result.ok())
                return result;
        }
        block = stop;
    }
    return Result();
}
