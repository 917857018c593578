#include "host/infra/SystemArenas.h"

#include <algorithm>
#include <bit>
#include <new>
#include <sys/mman.h>

#include "common/infra/Tweaks.h"
#include "host/infra/SystemMemory.h"

u8* SystemArenas::take()
{
    u8* const block = takeUntouched();
    // Here, where nobody waits for a lock, since the kernel clears all of a huge page.
    if (block != nullptr)
        *static_cast<volatile u8*>(block) = 0;
    return block;
}

u8* SystemArenas::takeUntouched()
{
    MutexGuard lock(m_mutex);
    // Where a unit is in use already, so that others can stay or become wholly free.
    const Arenas::iterator none = m_arenas.end();
    Arenas::iterator withFreeUnit = none;
    u32 freeUnit = 0;
    for (auto arena = m_arenas.begin(); arena != none; ++arena) {
        if (arena->second.m_used == UNITS * BLOCKS_A_UNIT)
            continue;
        for (u32 unit = 0; unit < UNITS; ++unit) {
            const u8 free = arena->second.m_units[unit].m_free;
            if (free != 0 && free != ALL)
                return takeOf(arena->first, arena->second, unit);
            if (free == ALL && withFreeUnit == none) {
                withFreeUnit = arena;
                freeUnit = unit;
            }
        }
    }
    if (withFreeUnit == none)
        withFreeUnit = makeArena();
    return withFreeUnit == none ? nullptr
                                : takeOf(withFreeUnit->first, withFreeUnit->second, freeUnit);
}

u8* SystemArenas::takeOf(u8* memory, Arena& arena, u32 unit)
{
    Unit& from = arena.m_units[unit];
    // One that takes memory already, if there is one.
    const u32 block =
        static_cast<u32>(std::countr_zero(from.m_held != 0 ? from.m_held : from.m_free));
    const u8 bit = static_cast<u8>(1U << block);
    m_held -= (from.m_held & bit) != 0 ? 1 : 0;
    from.m_held &= static_cast<u8>(~bit);
    from.m_free &= static_cast<u8>(~bit);
    ++arena.m_used;
    ++m_used;
    return memory + size_t{unit} * UNIT_BYTES + size_t{block} * BLOCK_BYTES;
}

bool SystemArenas::give(u8* block)
{
    MutexGuard lock(m_mutex);
    const size_t offset = reinterpret_cast<uintptr_t>(block) % ARENA_BYTES;
    const auto arena = m_arenas.find(block - offset);
    if (arena == m_arenas.end())
        return false;
    const u32 unit = static_cast<u32>(offset / UNIT_BYTES);
    giveBack(arena, unit, static_cast<u32>(offset % UNIT_BYTES / BLOCK_BYTES));
    return true;
}

void SystemArenas::giveBack(Arenas::iterator arena, u32 unit, u32 block)
{
    Unit& to = arena->second.m_units[unit];
    const u8 bit = static_cast<u8>(1U << block);
    to.m_free |= bit;
    --m_used;
    u8* const start = arena->first + size_t{unit} * UNIT_BYTES;
    if (to.m_free == ALL) {
        m_held -= static_cast<u64>(std::popcount(to.m_held));
        to.m_held = 0;
    }
    if (--arena->second.m_used == 0) {
        freeSystemMapping(arena->first, ARENA_BYTES);
        m_arenas.erase(arena);
    } else if (to.m_free == ALL) {
        madvise(start, UNIT_BYTES, MADV_DONTNEED);
        if (to.m_isInPieces)
            wantHugePages(start, UNIT_BYTES);
        to.m_isInPieces = false;
    } else {
        to.m_held |= bit;
        ++m_held;
    }
    if (m_held > std::max<u64>(LEAST_HELD, m_used / 8))
        giveBackHeld();
}

void SystemArenas::giveBackHeld()
{
    for (auto& [memory, arena] : m_arenas) {
        u8* start = memory;
        for (Unit& unit : arena.m_units) {
            if (unit.m_held != 0 && !unit.m_isInPieces) {
                madvise(start, UNIT_BYTES, MADV_NOHUGEPAGE);
                unit.m_isInPieces = true;
            }
            for (u8* block = start; unit.m_held != 0; unit.m_held >>= 1, block += BLOCK_BYTES)
                if ((unit.m_held & 1) != 0)
                    madvise(block, BLOCK_BYTES, MADV_DONTNEED);
            start += UNIT_BYTES;
        }
    }
    m_held = 0;
}

SystemArenas::Arenas::iterator SystemArenas::makeArena()
{
    u8* const memory = allocateSystemMapping(ARENA_BYTES);
    if (memory == nullptr)
        return m_arenas.end();
    wantHugePages(memory, ARENA_BYTES);
    try {
        return m_arenas.emplace(memory, Arena()).first;
    } catch (const std::bad_alloc&) {
        freeSystemMapping(memory, ARENA_BYTES);
        return m_arenas.end();
    }
}

void SystemArenas::wantHugePages(u8* memory, size_t bytes)
{
    if (Tweaks::uintVal("t_HugePages", 1) != 0)
        madvise(memory, bytes, MADV_HUGEPAGE); // a kernel that has none refuses
}

u64 SystemArenas::usedBlocks() const
{
    MutexGuard lock(m_mutex);
    return m_used;
}

u64 SystemArenas::heldBlocks() const
{
    MutexGuard lock(m_mutex);
    return m_held;
}
