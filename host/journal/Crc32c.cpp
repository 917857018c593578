#include "host/journal/Crc32c.h"

#include <algorithm>
#include <isa-l/crc.h>

u32 crc32c(const void* data, size_t bytes, u32 previous)
{
    // The library takes a mutable pointer and an int, and leaves the inversions to its caller.
    auto* next = const_cast<unsigned char*>(static_cast<const unsigned char*>(data));
    u32 state = ~previous;
    while (bytes > 0) {
        const size_t step = std::min(bytes, size_t{1} << 30);
        state = crc32_iscsi(next, static_cast<int>(step), state);
        next += step;
        bytes -= step;
    }
    return ~state;
}

void crc32cOfBlocks(const void* data, u32 blocks, u32* checksums)
{
    const u8* block = static_cast<const u8*>(data);
    for (u32 i = 0; i < blocks; ++i, block += BLOCK_BYTES)
        checksums[i] = crc32c(block, BLOCK_BYTES);
}
