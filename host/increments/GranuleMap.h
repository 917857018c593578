// Which parts of a volume were written, as a compressed bitmap with one bit a granule.
//
// A granule is a fixed number of blocks; granule g covers the blocks [g * size, (g + 1) * size),
// the last one as far as the volume goes. Noting one block marks its whole granule: the map covers
// all that was noted, and may cover more.
//
// Not for volumes of more than 2^32 granules (16 TiB at 4 KiB): isValidGeometry() refuses them.
//
// Thread safety: none of its own.
#pragma once

#include <roaring/roaring.hh>
#include <string>
#include <vector>

#include "XelControl/ILtrIncrementManager.h"

struct GranuleGeometry
{
    u64 m_volumeBlocks = 0;
    u32 m_granuleBlocks = 8; // 4 KiB

    // Neither is 0, and the volume has no more than 2^32 granules.
    bool isValid() const;
    u64 granules() const; // REQUIRES: isValid()
    // Whether the range is not empty and lies within the volume.
    bool contains(u64 offsetBlocks, u64 lengthBlocks) const;

    bool operator==(const GranuleGeometry&) const = default;
};

class GranuleMap
{
public:
    // REQUIRES: the geometry is valid. The map is empty.
    explicit GranuleMap(const GranuleGeometry& geometry) : m_geometry(geometry) {}

    const GranuleGeometry& geometry() const { return m_geometry; }
    bool isEmpty() const { return m_bits.isEmpty(); }
    u64 granules() const { return m_bits.cardinality(); }

    // Marks the granules of a range. REQUIRES: the geometry contains the range.
    // maxBytes: RC_NO_MEMORY, and nothing is marked, when the map might then take more memory than
    // that. What is marked already always is RC_SUCCESS.
    RcStatus add(u64 offsetBlocks, u64 lengthBlocks, u64 maxBytes);

    // The marked ranges in blocks: ascending, apart from each other, within the volume. Takes time
    // by their number, not by the number of granules.
    std::vector<LtrChangedRange> ranges() const;

    // Upper bound of what add() has let the map take, spare room of its arrays left out.
    u64 memoryBytes() const { return m_measuredBytes + m_grownBytes; }

    // The bits in the portable serialized form of Roaring bitmaps, most compact first made so.
    std::string serialize();
    // False when the bytes are not exactly one serialized bitmap, or it has bits beyond the volume;
    // the map is then empty.
    bool deserialize(const std::string& bytes);

private:
    void measure();

    GranuleGeometry m_geometry;
    Roaring m_bits;
    u64 m_measuredBytes = 0; // at the last look
    u64 m_grownBytes = 0;    // at most, since then
};
