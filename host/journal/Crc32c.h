// The checksum of all that the journal stores.
#pragma once

#include <cstddef>

#include "common/infra/Types.h"

// crc32c (Castagnoli); crc32c("123456789") is 0xe3069283. previous: the checksum of the bytes
// before, to go on from; 0 at the start.
u32 crc32c(const void* data, size_t bytes, u32 previous = 0);

// The checksum of each block, into checksums[0, blocks). Returns that of all of them together,
// which is put together from theirs: the data are gone through once.
u32 crc32cOfBlocks(const void* data, u32 blocks, u32* checksums);
