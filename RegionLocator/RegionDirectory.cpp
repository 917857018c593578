#include "RegionLocator/RegionDirectory.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "RegionLocator/RegionDescent.h"

namespace {

// Below, a table would be too small to be of use, whatever the tweak says.
constexpr u64 LEAST_REGIONS = 4;
constexpr u64 MOST_SLOTS = u64{1} << 28;

} // namespace

// ---- memory ----

bool RegionDirectoryMemory::obtain(RegionLocatorMemPool& pool, u64 slots)
{
    if (slots == 0)
        return true;
    // A piece is as much of a chunk of the pool as is a power of two.
    const u64 chunkBytes = pool.getAcceleratorChunkSize();
    const u64 bytes = slots * sizeof(RegionNode*);
    const u64 pieceBytes = std::min(std::bit_floor(chunkBytes), bytes);
    const u64 pieces = pieceBytes < sizeof(RegionNode*) ? 0 : bytes / pieceBytes;
    const u64 fillBytes = pieces == 1 ? bytes : pieces * chunkBytes;
    if (pieces == 0)
        return false;
    m_pieces.reserve(pieces);
    if (bytes < std::bit_floor(chunkBytes)) {
        m_ofHeap.resize(slots);
        m_pieces.push_back(m_ofHeap.data());
    } else if (!pool.obtainAcceleratorMemory(&m_buf, fillBytes)) {
        return false;
    }
    for (u32 i = 0; i < m_buf.getSegmentsCount(); ++i) {
        const MemorySegment& segment = m_buf.getSegment(i);
        std::memset(segment.getPtr(), 0, segment.getSize());
        m_pieces.push_back(reinterpret_cast<RegionNode**>(segment.getPtr()));
    }
    m_pieceShift = static_cast<u32>(std::countr_zero(pieceBytes / sizeof(RegionNode*)));
    m_pieceMask = (u64{1} << m_pieceShift) - 1;
    m_slots = slots;
    return true;
}

void RegionDirectoryMemory::swap(RegionDirectoryMemory& other)
{
    std::swap(m_buf, other.m_buf);
    std::swap(m_ofHeap, other.m_ofHeap);
    std::swap(m_pieces, other.m_pieces);
    std::swap(m_pieceShift, other.m_pieceShift);
    std::swap(m_pieceMask, other.m_pieceMask);
    std::swap(m_slots, other.m_slots);
}

// ---- the directory ----

u64 RegionDirectory::wantedSlots(u64 regions, u64 slots, u64 noted)
{
    if (regions < LEAST_REGIONS)
        return 0;
    if (slots >= regions && slots < MOST_SLOTS_A_REGION * regions) {
        const bool isCrowded = regions > regionsToLookAgain(slots) && noted < regions - regions / 4;
        return isCrowded && slots < MOST_SLOTS ? 2 * slots : slots;
    }
    return std::min(std::bit_ceil(regions), MOST_SLOTS);
}

void RegionDirectory::warmRange(u64 firstBlocks, u64 endBlocks) const
{
    u64 granule = firstBlocks >> m_shift;
    u64 left = endBlocks <= firstBlocks ? 0 : ((endBlocks - 1) >> m_shift) - granule + 1;
    while (left > 0) {
        // Slots lie side by side as far as a lap and a piece of memory go.
        const u64 slot = slotOf(granule);
        const u64 count = std::min({left, m_memory.run(slot), slots() - (granule & m_slotMask)});
        RegionNode* const* const first = &m_memory.at(slot);
        for (u64 i = 0; i < count; ++i)
            prefetch(first[i]);
        granule += count;
        left -= count;
    }
}

void RegionDirectory::forgetAll()
{
    for (u64 slot = 0; slot < slots(); ++slot)
        m_memory.at(slot) = nullptr;
    m_noted = 0;
}

// About as long as a region is on average; up to four times that where the table then is long
// enough for the whole view, so that no two places share a slot.
u32 RegionDirectory::shiftFor(const RegionMap& map, u64 blocks, u64 slots)
{
    const u64 average = std::max<u64>(blocks / map.size(), 1);
    const u32 least = static_cast<u32>(std::bit_width(average)) - 1;
    const u64 span = map.rbegin()->m_viewOffsetBlocks - map.begin()->m_viewOffsetBlocks + 1;
    u32 shift = least;
    while (shift < least + 2 && span >> shift > slots)
        ++shift;
    return span >> shift > slots ? least : shift;
}

void RegionDirectory::install(RegionDirectoryMemory& memory, const RegionMap& map, u64 blocks)
{
    m_memory.swap(memory);
    m_noted = 0;
    if (!isOn() || map.empty())
        return;
    m_slotMask = slots() - 1;
    m_lapShift = static_cast<u32>(std::countr_zero(slots()));
    m_shift = shiftFor(map, blocks, slots());
    RegionDescent::visitAll(map.end()._M_node->_M_parent, map.size(),
                            [this](RegionNode* node) { note(node, startOf(node)); });
}
