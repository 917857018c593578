// What the process has in use of the heap, the allocator's own bytes included. An index whose nodes
// come from the heap is charged with the difference since it was made.
#pragma once

#include <malloc.h>

#include "common/infra/Types.h"

inline u64 heapBytesInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
