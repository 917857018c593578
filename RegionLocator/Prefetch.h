// Asking for memory before it is needed.
//
// A descent through a large map waits for one node after the other. What the next step, or the next
// operation, will touch is asked for early, so that the waits overlap.
//
// The request is an instruction that the compiler must keep: its own builtin has no result, so a
// function that does nothing else counts as pure, and its calls are dropped.
#pragma once

// Never faults, whatever the address; null is allowed.
inline void prefetch(const void* address)
{
#if defined(__x86_64__)
    asm volatile("prefetcht0 (%0)" : : "r"(address));
#elif defined(__aarch64__)
    asm volatile("prfm pldl1keep, [%0]" : : "r"(address));
#else
    __builtin_prefetch(address);
#endif
}
