// The fixed-width integers of the data path.
#pragma once

#include <cstdint>

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s32 = std::int32_t;
using s64 = std::int64_t;

// The size of a block, the unit of every offset and length named "...Blocks" or "...Lbs".
constexpr u32 BLOCK_BYTES = 512;
constexpr u32 BLOCK_SHIFT = 9;
