#include "host/journal/Crc32c.h"

#include <algorithm>
#include <array>
#include <isa-l/crc.h>

namespace {

// What a checksum contributes to that of the same bytes with a block behind them. A checksum's
// state is linear in its bits, so the effect of a block's length on each byte of it can be looked
// up.
class BlockShift
{
public:
    BlockShift()
    {
        std::array<unsigned char, BLOCK_BYTES> zeroes{};
        std::array<u32, 32> ofBit;
        for (u32 bit = 0; bit < 32; ++bit)
            ofBit[bit] = crc32_iscsi(zeroes.data(), int{BLOCK_BYTES}, 1U << bit);
        for (u32 byte = 0; byte < 4; ++byte) {
            for (u32 value = 0; value < 256; ++value) {
                u32 sum = 0;
                for (u32 bit = 0; bit < 8; ++bit)
                    sum ^= (value >> bit & 1) != 0 ? ofBit[8 * byte + bit] : 0;
                m_ofByte[byte][value] = sum;
            }
        }
    }

    u32 moved(u32 checksum) const
    {
        return m_ofByte[0][checksum & 0xff] ^ m_ofByte[1][checksum >> 8 & 0xff] ^
               m_ofByte[2][checksum >> 16 & 0xff] ^ m_ofByte[3][checksum >> 24];
    }

private:
    std::array<std::array<u32, 256>, 4> m_ofByte;
};

} // namespace

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

u32 crc32cOfBlocks(const void* data, u32 blocks, u32* checksums)
{
    static const BlockShift SHIFT;
    const u8* block = static_cast<const u8*>(data);
    u32 whole = 0;
    for (u32 i = 0; i < blocks; ++i, block += BLOCK_BYTES) {
        checksums[i] = crc32c(block, BLOCK_BYTES);
        whole = SHIFT.moved(whole) ^ checksums[i];
    }
    return whole;
}
