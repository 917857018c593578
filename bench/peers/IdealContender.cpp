#include <algorithm>
#include <array>
#include <map>

#include "bench/peers/HeapUse.h"
#include "bench/peers/MapExtents.h"
#include "bench/peers/Peers.h"
#include "common/infra/Assert.h"

namespace {

// Keys of a node: one cache line of short keys, two of long ones.
constexpr u32 NODE_KEYS = 16;

// The regions' first blocks as a static tree: level 0 is all of them, ascending, in nodes; each
// level above has the last key of every node below. A search reads one node a level and follows no
// pointer. Keys of 32 bits, where they are enough, halve what is read and are compared four at a
// time.
template <class Key> class StaticTree
{
public:
    void build(std::vector<Key> keys)
    {
        m_levels.clear();
        do {
            std::vector<Node> level((keys.size() + NODE_KEYS - 1) / NODE_KEYS);
            std::vector<Key> above;
            for (size_t i = 0; i < level.size(); ++i) {
                level[i].m_keys.fill(~Key{0});
                for (size_t k = 0; k < NODE_KEYS && i * NODE_KEYS + k < keys.size(); ++k)
                    level[i].m_keys[k] = keys[i * NODE_KEYS + k];
                above.push_back(level[i].m_keys.back());
            }
            m_levels.insert(m_levels.begin(), std::move(level));
            keys = std::move(above);
        } while (keys.size() > 1);
    }

    // How many keys are not above the given one.
    size_t upperBound(Key key) const
    {
        size_t at = 0;
        for (const std::vector<Node>& level : m_levels) {
            if (at >= level.size())
                return m_levels.back().size() * NODE_KEYS;
            u32 below = 0;
            for (const Key other : level[at].m_keys)
                below += other <= key ? 1 : 0;
            at = at * NODE_KEYS + below;
        }
        return at;
    }

    u64 bytes() const
    {
        u64 bytes = 0;
        for (const std::vector<Node>& level : m_levels)
            bytes += level.size() * sizeof(Node);
        return bytes;
    }

private:
    struct alignas(64) Node
    {
        std::array<Key, NODE_KEYS> m_keys;
    };

    std::vector<std::vector<Node>> m_levels; // the root first
};

// Filled as a map, and then read as an array below a tree. Everything else that a contender does
// is not asked of it.
class IdealContender : public Contender
{
public:
    void feed(const SfsDiskMetaItem* items, u32 count) override
    {
        for (u32 i = 0; i < count; ++i)
            m_filling.put(SfsItemDescriptor::genFromSfsDiskMetaItem(items[i]));
    }

    void settle() override
    {
        m_filling.append(0, ~u64{0}, &m_regions);
        m_filling = {};
        m_isShort = m_regions.empty() || m_regions.back().m_viewOffsetBlocks < MOST_SHORT;
        if (m_isShort)
            m_shortTree.build(starts<u32>());
        else
            m_longTree.build(starts<u64>());
    }

    void lookup(u64 offsetBlocks, u32 lengthBlocks, Pieces* pieces) override
    {
        pieces->clear();
        const u64 end = offsetBlocks + lengthBlocks;
        size_t at =
            m_isShort ? m_shortTree.upperBound(static_cast<u32>(std::min(offsetBlocks, MOST_SHORT)))
                      : m_longTree.upperBound(offsetBlocks);
        at = at > 0 ? std::min(at, m_regions.size()) - 1 : 0;
        for (; at < m_regions.size() && m_regions[at].m_viewOffsetBlocks < end; ++at) {
            const SubRegionDescriptor& region = m_regions[at];
            const u64 start = region.m_viewOffsetBlocks;
            const u64 regionEnd = start + region.m_lengthBlocks;
            if (start >= offsetBlocks && regionEnd <= end) {
                pieces->push_back(region);
            } else if (regionEnd > offsetBlocks) {
                Extent piece(region);
                piece.shorten(std::min(regionEnd, end) - start);
                if (start < offsetBlocks)
                    piece.dropFirst(offsetBlocks - start);
                pieces->push_back(piece.region(std::max(start, offsetBlocks)));
            }
        }
    }

    void reserveInserts(u32) override {}
    void insert(const SfsDiskMetaItem&) override { HARD_CHECK(false); }
    void reserveLocks(u32) override {}
    void lock(u64, u32, Pieces*) override { HARD_CHECK(false); }
    void unlock(Pieces&) override { HARD_CHECK(false); }
    void reserveRemoves(u32) override {}
    void remove(const SubRegionDescriptor&) override { HARD_CHECK(false); }
    void lockFirst(u32, Pieces*) override { HARD_CHECK(false); }
    void unlockAndRemove(Pieces&) override { HARD_CHECK(false); }

    u64 regions() override { return m_regions.size(); }
    u64 coveredBlocks() override
    {
        u64 blocks = 0;
        for (const SubRegionDescriptor& region : m_regions)
            blocks += region.m_lengthBlocks;
        return blocks;
    }
    u64 memoryBytes() override
    {
        return m_regions.size() * sizeof(SubRegionDescriptor) + m_shortTree.bytes() +
               m_longTree.bytes();
    }

private:
    static constexpr u64 MOST_SHORT = ~u32{0};

    template <class Key> std::vector<Key> starts() const
    {
        std::vector<Key> starts;
        starts.reserve(m_regions.size());
        for (const SubRegionDescriptor& region : m_regions)
            starts.push_back(static_cast<Key>(region.m_viewOffsetBlocks));
        return starts;
    }

    MapExtents<std::map<u64, Extent>> m_filling;
    std::vector<SubRegionDescriptor> m_regions;
    bool m_isShort = true;
    StaticTree<u32> m_shortTree;
    StaticTree<u64> m_longTree;
};

} // namespace

std::unique_ptr<Contender> makeIdealContender()
{
    return std::make_unique<IdealContender>();
}
