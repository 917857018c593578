#include "host/increments/GranuleMap.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr u64 MAX_GRANULES = u64{1} << 32;

// The bitmap is cut into containers of 65536 bits: an array, a list of runs, or plain bits,
// whichever is smallest.
constexpr u64 CONTAINER_BITS = u64{1} << 16;
constexpr u64 CONTAINER_BITMAP_BYTES = CONTAINER_BITS / 8;
constexpr u64 CONTAINER_HEAD_BYTES = 48; // its record, allocation and place in the list of all
constexpr u64 ARRAY_ENTRY_BYTES = 2;
constexpr u64 RUN_BYTES = 4;

// At most, for marking the bits [first, end).
u64 growthBytes(u64 first, u64 end)
{
    const u64 containers = (end - 1) / CONTAINER_BITS - first / CONTAINER_BITS + 1;
    // Only the two at the ends can be anything but one full run.
    const u64 partial = std::min<u64>(containers, 2);
    const u64 each = std::min((end - first) * ARRAY_ENTRY_BYTES, CONTAINER_BITMAP_BYTES);
    return containers * (CONTAINER_HEAD_BYTES + RUN_BYTES) + partial * each;
}

} // namespace

// ---- geometry ----

bool GranuleGeometry::isValid() const
{
    return m_volumeBlocks > 0 && m_granuleBlocks > 0 &&
           (m_volumeBlocks - 1) / m_granuleBlocks < MAX_GRANULES;
}

u64 GranuleGeometry::granules() const
{
    return (m_volumeBlocks - 1) / m_granuleBlocks + 1;
}

bool GranuleGeometry::contains(u64 offsetBlocks, u64 lengthBlocks) const
{
    return lengthBlocks > 0 && offsetBlocks < m_volumeBlocks &&
           lengthBlocks <= m_volumeBlocks - offsetBlocks;
}

// ---- the map ----

RcStatus GranuleMap::add(u64 offsetBlocks, u64 lengthBlocks, u64 maxBytes)
{
    const u64 first = offsetBlocks / m_geometry.m_granuleBlocks;
    const u64 end = (offsetBlocks + lengthBlocks - 1) / m_geometry.m_granuleBlocks + 1;
    // So that writing the same granules again costs nothing, however close the limit is.
    if (m_bits.containsRange(first, end))
        return RC_SUCCESS;
    const u64 growth = growthBytes(first, end);
    // Looking at every container takes its time; the bound is enough until it meets the limit.
    if (memoryBytes() + growth > maxBytes)
        measure();
    if (memoryBytes() + growth > maxBytes)
        return RC_NO_MEMORY;
    m_bits.addRange(first, end);
    m_grownBytes += growth;
    return RC_SUCCESS;
}

std::vector<LtrChangedRange> GranuleMap::ranges() const
{
    std::vector<LtrChangedRange> found;
    // A run of marked granules ends where the next one that is not marked begins.
    // (In place, the library would take time by the square of the containers.)
    const Roaring unmarked(roaring_bitmap_flip(&m_bits.roaring, 0, m_geometry.granules()));
    roaring_uint32_iterator_t marked;
    roaring_uint32_iterator_t gap;
    roaring_init_iterator(&m_bits.roaring, &marked);
    roaring_init_iterator(&unmarked.roaring, &gap);
    while (marked.has_value) {
        const u64 first = marked.current_value;
        const bool ends = roaring_move_uint32_iterator_equalorlarger(&gap, marked.current_value);
        const u64 end = ends ? u64{gap.current_value} : m_geometry.granules();
        const u64 offset = first * m_geometry.m_granuleBlocks;
        const u64 endBlocks = std::min(end * m_geometry.m_granuleBlocks, m_geometry.m_volumeBlocks);
        found.push_back({offset, endBlocks - offset});
        if (!ends)
            break;
        roaring_move_uint32_iterator_equalorlarger(&marked, gap.current_value);
    }
    return found;
}

std::string GranuleMap::serialize()
{
    m_bits.runOptimize();
    measure();
    std::string bytes(m_bits.getSizeInBytes(), '\0');
    m_bits.write(bytes.data());
    return bytes;
}

bool GranuleMap::deserialize(const std::string& bytes)
{
    m_bits = Roaring();
    try {
        Roaring bits = Roaring::readSafe(bytes.data(), bytes.size());
        if (bits.getSizeInBytes() == bytes.size() &&
            (bits.isEmpty() || bits.maximum() < m_geometry.granules()))
            m_bits = std::move(bits);
        else
            return false;
    } catch (const std::runtime_error&) {
        return false; // how the library says that the bytes are none of its own
    }
    measure();
    return true;
}

void GranuleMap::measure()
{
    roaring_statistics_t all;
    roaring_bitmap_statistics(&m_bits.roaring, &all);
    m_measuredBytes = u64{all.n_containers} * CONTAINER_HEAD_BYTES +
                      u64{all.n_bytes_array_containers} + u64{all.n_bytes_run_containers} +
                      u64{all.n_bytes_bitset_containers};
    m_grownBytes = 0;
}
