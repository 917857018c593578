#include "host/infra/SystemMemory.h"

#include <algorithm>
#include <bit>
#include <sys/mman.h>

#include "host/infra/SystemArenas.h"

namespace {

// Never destroyed: pools that outlive everything else give their blocks back to it.
SystemArenas& arenas()
{
    static auto* const ARENAS = new SystemArenas;
    return *ARENAS;
}

} // namespace

u8* allocateSystemMemory(u32 sizeBytes)
{
    u8* memory = nullptr;
    if (std::bit_ceil(sizeBytes) == SystemArenas::BLOCK_BYTES)
        memory = arenas().take();
    // Where there is no room for an arena there may be some for a block.
    return memory != nullptr ? memory : allocateSystemMapping(sizeBytes);
}

void freeSystemMemory(u8* memory, u32 sizeBytes)
{
    if (std::bit_ceil(sizeBytes) != SystemArenas::BLOCK_BYTES || !arenas().give(memory))
        freeSystemMapping(memory, sizeBytes);
}

u8* allocateSystemMapping(u32 sizeBytes)
{
    // Map enough to find an aligned piece inside, and give the ends back.
    const size_t alignment = std::max<size_t>(std::bit_ceil<size_t>(sizeBytes), 4096);
    const size_t mapped = sizeBytes + alignment;
    void* address =
        mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (address == MAP_FAILED)
        return nullptr;
    const size_t pageMask = 4095;
    const size_t size = (sizeBytes + pageMask) & ~pageMask;
    u8* start = static_cast<u8*>(address);
    const size_t before = (alignment - reinterpret_cast<uintptr_t>(start) % alignment) % alignment;
    const size_t mappedSize = (mapped + pageMask) & ~pageMask;
    const size_t behind = mappedSize - before - size;
    if (before > 0)
        munmap(start, before);
    if (behind > 0)
        munmap(start + before + size, behind);
    return start + before;
}

void freeSystemMapping(u8* memory, u32 sizeBytes)
{
    munmap(memory, (size_t{sizeBytes} + 4095) & ~size_t{4095});
}
