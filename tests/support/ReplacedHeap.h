// Replaces operator new of the whole program, so that FailingHeap works: exactly one file of it
// includes this.
#pragma once

#include "tests/support/FailingHeap.h"

#if HEAP_CAN_FAIL

void* operator new(size_t bytes)
{
    return FailingHeap::take(bytes);
}

void* operator new(size_t bytes, const std::nothrow_t&) noexcept
{
    return std::malloc(bytes != 0 ? bytes : 1);
}

// Not inline, or the compiler takes free() for one that does not match operator new.
[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

#endif
