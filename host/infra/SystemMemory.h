// Large pieces of memory straight from the operating system.
#pragma once

#include "common/infra/Types.h"

// `sizeBytes`, aligned to the next power of two, with anything in them; null when there are none.
// What is as long as the process-wide pool's blocks lies side by side in arenas (SystemArenas.h).
u8* allocateSystemMemory(u32 sizeBytes);

// Gives back what allocateSystemMemory() returned for that size.
void freeSystemMemory(u8* memory, u32 sizeBytes);

// The same by a mapping of its own, of zeroes.
u8* allocateSystemMapping(u32 sizeBytes);
void freeSystemMapping(u8* memory, u32 sizeBytes);
