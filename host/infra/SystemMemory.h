// Large pieces of memory straight from the operating system.
#pragma once

#include "common/infra/Types.h"

// `sizeBytes` zeroed bytes, aligned to the next power of two; null when there are none.
u8* allocateSystemMemory(u32 sizeBytes);

// Gives back what allocateSystemMemory() returned for that size.
void freeSystemMemory(u8* memory, u32 sizeBytes);
