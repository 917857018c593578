// Blocks of 256 KiB from the operating system, cut from pieces of address space so large that the
// kernel can give them huge pages.
//
// An index of a million regions lies in some twenty thousand ordinary pages, more than a processor
// remembers the addresses of: each step through its nodes waits for a page's address besides the
// node itself. In huge pages they are a few dozen. The blocks of a process mostly come one by one
// and stay, so they are laid side by side:
//
//   arena   32 MiB of address space, aligned to its size: masking a block's address finds it
//   unit    2 MiB, sixteen an arena; one huge page where the kernel has one, else ordinary pages
//   block   256 KiB, eight a unit
//
//   block  untouched --take()--> used --give()--> held, or given back at once
//   held         another block of its unit is used: the next one that is taken
//   given back   its unit is wholly free, or so much is held that it would be a burden: the kernel
//                has its memory, and it is as untouched
//
// A unit of which a part was given back has ordinary pages until it is wholly free: the kernel
// looks for such ones, and fills them up to a huge page again.
//
// Huge pages are asked for, not required; the tweak t_HugePages being 0 they are not asked for. A
// block's first touch makes its whole unit resident, so a process may have 2 MiB more than its
// blocks are, and what is held.
#pragma once

#include <array>
#include <map>

#include "common/infra/Mutex.h"
#include "common/infra/Types.h"

// Thread safety: any thread.
//
// Invariants: 1. an arena has a used block;
//             2. no block of a wholly free unit is held;
//             3. at most LEAST_HELD blocks are held, or an eighth of those used if that is more.
class SystemArenas
{
public:
    static constexpr u32 BLOCK_BYTES = 256 * 1024;
    static constexpr u32 LEAST_HELD = 16;

    SystemArenas() = default;
    // REQUIRES: all blocks have been given back.
    ~SystemArenas() = default;
    SystemArenas(const SystemArenas&) = delete;
    SystemArenas& operator=(const SystemArenas&) = delete;

    // A block aligned to its size, with anything in it, its first byte touched; null when the
    // system has no room for an arena.
    u8* take();

    // Takes a block back; false, and nothing happens, when it is none of an arena's.
    bool give(u8* block);

    u64 usedBlocks() const;
    // Free blocks that take memory all the same.
    u64 heldBlocks() const;

private:
    static constexpr u32 BLOCKS_A_UNIT = 8;
    static constexpr u32 UNITS = 16;
    static constexpr u32 UNIT_BYTES = BLOCKS_A_UNIT * BLOCK_BYTES;
    static constexpr u32 ARENA_BYTES = UNITS * UNIT_BYTES;
    static constexpr u8 ALL = 0xFF;

    // A bit for each block, lowest address first.
    struct Unit
    {
        u8 m_free = ALL;
        u8 m_held = 0; // of the free ones
        bool m_isInPieces = false;
    };
    struct Arena
    {
        std::array<Unit, UNITS> m_units;
        u32 m_used = 0;
    };
    using Arenas = std::map<u8*, Arena>; // by address, lowest first

    u8* takeUntouched() RL_EXCLUDES(m_mutex);
    u8* takeOf(u8* memory, Arena& arena, u32 unit) RL_REQUIRES(m_mutex);
    void giveBack(Arenas::iterator arena, u32 unit, u32 block) RL_REQUIRES(m_mutex);
    void giveBackHeld() RL_REQUIRES(m_mutex);
    Arenas::iterator makeArena() RL_REQUIRES(m_mutex);
    static void wantHugePages(u8* memory, size_t bytes);

    mutable Mutex m_mutex;
    Arenas m_arenas RL_GUARDED_BY(m_mutex);
    u64 m_used RL_GUARDED_BY(m_mutex) = 0;
    u64 m_held RL_GUARDED_BY(m_mutex) = 0;
};
