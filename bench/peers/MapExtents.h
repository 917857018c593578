// Extents in a map from their first block to the rest: std::map, or what has its interface and
// promises less (absl::btree_map moves its elements about when it changes).
//
// Written as one would for speed: one search for each operation, hints everywhere else, and lengths
// changed in place. Only a first block cannot be, since it is the key.
#pragma once

#include <algorithm>
#include <iterator>

#include "bench/Contender.h"

// What a region is beside its first block: 24 bytes.
struct Extent
{
    explicit Extent(const SubRegionDescriptor& region)
        : m_address(region.m_fifoOffsetOfIoStartBlocks), m_ioBytes(region.m_ioTotalLengthBytes),
          m_lengthBlocks(region.m_lengthBlocks), m_offsetInIo(region.m_regionOffsetLBsWithinIo),
          m_flags(region.m_flags)
    {}

    SubRegionDescriptor region(u64 start) const
    {
        SubRegionDescriptor region(start);
        region.m_fifoOffsetOfIoStartBlocks = m_address;
        region.m_ioTotalLengthBytes = m_ioBytes;
        region.m_lengthBlocks = m_lengthBlocks;
        region.m_regionOffsetLBsWithinIo = m_offsetInIo;
        region.m_flags = m_flags;
        return region;
    }

    void shorten(u64 lengthBlocks)
    {
        m_lengthBlocks = static_cast<u16>(lengthBlocks);
        if (!isCompressed())
            m_ioBytes = static_cast<u32>(lengthBlocks << BLOCK_SHIFT);
    }

    void dropFirst(u64 blocks)
    {
        shorten(m_lengthBlocks - blocks);
        if (isAllZeroes())
            return;
        m_offsetInIo = static_cast<u16>(m_offsetInIo + blocks);
        if (!isCompressed())
            m_address += blocks;
    }

    bool isCompressed() const { return (m_flags & FLAG_COMPRESSED) != 0; }
    bool isAllZeroes() const { return (m_flags & FLAG_ALL_ZEROES) != 0; }
    u64 ioAddress() const { return isCompressed() ? m_address : m_address - m_offsetInIo; }
    // REQUIRES: it touches this one from the right.
    bool continues(const Extent& left) const
    {
        return m_flags == left.m_flags && !isAllZeroes() && ioAddress() == left.ioAddress();
    }

    u64 m_address;
    u32 m_ioBytes;
    u16 m_lengthBlocks;
    u16 m_offsetInIo;
    u8 m_flags;

    static constexpr u8 FLAG_COMPRESSED = 1;
    static constexpr u8 FLAG_ALL_ZEROES = 2;
};

// See PeerIndex.h for what the operations do.
template <class Map> class MapExtents
{
public:
    using Pieces = Contender::Pieces;

    void put(const SubRegionDescriptor& region)
    {
        const u64 start = region.m_viewOffsetBlocks;
        const u64 end = start + region.m_lengthBlocks;
        auto at = m_map.upper_bound(start);
        if (at == m_map.begin()) {
            fill(at, start, end, region);
            return;
        }
        const auto left = std::prev(at);
        const Extent old = left->second;
        const u64 oldEnd = left->first + old.m_lengthBlocks;
        if (left->first == start) {
            left->second = Extent(region);
            if (oldEnd > end)
                emplaceRest(at, left->first, old, end);
            else if (oldEnd < end)
                clear(at, end);
            return;
        }
        if (oldEnd > start)
            left->second.shorten(start - left->first);
        if (oldEnd > end)
            at = emplaceRest(at, left->first, old, end);
        fill(at, start, end, region);
    }

    void putBack(const SubRegionDescriptor& region)
    {
        const u64 start = region.m_viewOffsetBlocks;
        Extent extent(region);
        auto next = m_map.upper_bound(start);
        if (next != m_map.end() && next->first == start + extent.m_lengthBlocks &&
            next->second.continues(extent)) {
            extent.shorten(u64{extent.m_lengthBlocks} + next->second.m_lengthBlocks);
            next = m_map.erase(next);
        }
        if (next != m_map.begin()) {
            const auto left = std::prev(next);
            if (left->first + left->second.m_lengthBlocks == start &&
                extent.continues(left->second)) {
                left->second.shorten(u64{left->second.m_lengthBlocks} + extent.m_lengthBlocks);
                return;
            }
        }
        m_map.emplace_hint(next, start, extent);
    }

    void append(u64 offset, u64 end, Pieces* pieces) const
    {
        for (auto at = first(m_map, offset); at != m_map.end() && at->first < end; ++at) {
            Extent piece = at->second;
            u64 start = at->first;
            if (start + piece.m_lengthBlocks > end)
                piece.shorten(end - start);
            if (start < offset) {
                piece.dropFirst(offset - start);
                start = offset;
            }
            pieces->push_back(piece.region(start));
        }
    }

    bool intersects(u64 offset, u64 end) const
    {
        if (m_map.empty())
            return false;
        const auto at = first(m_map, offset);
        return at != m_map.end() && at->first < end;
    }

    void cut(u64 offset, u64 end)
    {
        auto at = m_map.upper_bound(offset);
        if (at != m_map.begin()) {
            const auto left = std::prev(at);
            const Extent old = left->second;
            const u64 oldEnd = left->first + old.m_lengthBlocks;
            if (oldEnd > offset && left->first < offset) {
                left->second.shorten(offset - left->first);
                if (oldEnd > end)
                    at = emplaceRest(at, left->first, old, end);
            } else if (left->first == offset) {
                at = left;
            }
        }
        clear(at, end);
    }

    void erase(const SubRegionDescriptor& region)
    {
        m_map.erase(m_map.find(region.m_viewOffsetBlocks));
    }

    void removeIo(const SubRegionDescriptor& io)
    {
        const Extent whole(io);
        const u64 end = io.m_viewOffsetBlocks + io.m_lengthBlocks;
        auto at = m_map.lower_bound(io.m_viewOffsetBlocks);
        while (at != m_map.end() && at->first < end) {
            if (!at->second.isAllZeroes() && at->second.ioAddress() == whole.ioAddress())
                at = m_map.erase(at);
            else
                ++at;
        }
    }

    void takeFirst(u32 maxBlocks, Pieces* pieces)
    {
        u32 blocks = 0;
        auto at = m_map.begin();
        for (; at != m_map.end() && blocks + at->second.m_lengthBlocks <= maxBlocks; ++at) {
            blocks += at->second.m_lengthBlocks;
            pieces->push_back(at->second.region(at->first));
        }
        m_map.erase(m_map.begin(), at);
    }

    u64 size() const { return m_map.size(); }
    u64 coveredBlocks() const
    {
        u64 blocks = 0;
        for (const auto& [start, extent] : m_map)
            blocks += extent.m_lengthBlocks;
        return blocks;
    }

private:
    using Iterator = typename Map::iterator;

    // The first extent that ends after the offset.
    static typename Map::const_iterator first(const Map& map, u64 offset)
    {
        auto at = map.upper_bound(offset);
        if (at != map.begin()) {
            const auto left = std::prev(at);
            if (left->first + left->second.m_lengthBlocks > offset)
                return left;
        }
        return at;
    }

    // Stores what `old`, which begins at `start`, has from `end` on, before `next`.
    Iterator emplaceRest(Iterator next, u64 start, Extent old, u64 end)
    {
        old.dropFirst(end - start);
        return m_map.emplace_hint(next, end, old);
    }

    // Erases from `at`, the first extent within a range, to the range's end. Returns what follows.
    Iterator clear(Iterator at, u64 end)
    {
        Iterator last = at;
        while (last != m_map.end() && last->first + last->second.m_lengthBlocks <= end)
            ++last;
        if (last == m_map.end() || last->first >= end)
            return last == at ? at : m_map.erase(at, last);
        const u64 start = last->first;
        const Extent old = last->second;
        return emplaceRest(m_map.erase(at, std::next(last)), start, old, end);
    }

    void fill(Iterator at, u64 start, u64 end, const SubRegionDescriptor& region)
    {
        m_map.emplace_hint(clear(at, end), start, region);
    }

    Map m_map;
};
