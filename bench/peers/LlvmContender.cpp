#include <algorithm>

// The library's headers keep to other rules than ours.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include <llvm/ADT/IntervalMap.h>
#pragma GCC diagnostic pop

#include "bench/peers/PeerIndex.h"
#include "bench/peers/Peers.h"
#include "bench/peers/WholeIo.h"

namespace {

using Map =
    llvm::IntervalMap<u64, WholeIo, llvm::IntervalMapImpl::NodeSizer<u64, WholeIo>::LeafSize,
                      llvm::IntervalMapHalfOpenInfo<u64>>;

// The map stores only intervals that overlap none, so what is in the way is cut out before; a bound
// that moves is moved in place. See PeerIndex.h for what the operations do.
class LlvmExtents
{
public:
    using Pieces = Contender::Pieces;

    void put(const SubRegionDescriptor& region)
    {
        const u64 start = region.m_viewOffsetBlocks;
        const u64 end = start + region.m_lengthBlocks;
        Map::iterator at = m_map.find(start);
        if (at.valid() && at.start() == start && at.stop() == end) {
            at.setValue(WholeIo(region));
            return;
        }
        cutFrom(at, start, end);
        at.insert(start, end, WholeIo(region));
    }
    void putBack(const SubRegionDescriptor& region)
    {
        // Neighbours of one value become one interval by themselves.
        m_map.insert(region.m_viewOffsetBlocks, region.m_viewOffsetBlocks + region.m_lengthBlocks,
                     WholeIo(region));
    }

    void append(u64 offset, u64 end, Pieces* pieces) const
    {
        for (Map::const_iterator at = m_map.find(offset); at.valid() && at.start() < end; ++at)
            pieces->push_back(
                at.value().piece(std::max(at.start(), offset), std::min(at.stop(), end)));
    }

    bool intersects(u64 offset, u64 end) const
    {
        if (m_map.empty())
            return false;
        const Map::const_iterator at = m_map.find(offset);
        return at.valid() && at.start() < end;
    }

    void cut(u64 offset, u64 end)
    {
        Map::iterator at = m_map.find(offset);
        cutFrom(at, offset, end);
    }

    void erase(const SubRegionDescriptor& region) { m_map.find(region.m_viewOffsetBlocks).erase(); }

    void removeIo(const SubRegionDescriptor& io)
    {
        const WholeIo whole(io);
        const u64 end = io.m_viewOffsetBlocks + io.m_lengthBlocks;
        Map::iterator at = m_map.find(io.m_viewOffsetBlocks);
        while (at.valid() && at.start() < end) {
            if (at.value() == whole)
                at.erase();
            else
                ++at;
        }
    }

    void takeFirst(u32 maxBlocks, Pieces* pieces)
    {
        u64 blocks = 0;
        Map::iterator at = m_map.begin();
        while (at.valid() && blocks + (at.stop() - at.start()) <= maxBlocks) {
            blocks += at.stop() - at.start();
            pieces->push_back(at.value().piece(at.start(), at.stop()));
            at.erase();
        }
    }

    // The map does not count its intervals.
    u64 size() const
    {
        u64 size = 0;
        for (Map::const_iterator at = m_map.begin(); at.valid(); ++at)
            ++size;
        return size;
    }
    u64 coveredBlocks() const
    {
        u64 blocks = 0;
        for (Map::const_iterator at = m_map.begin(); at.valid(); ++at)
            blocks += at.stop() - at.start();
        return blocks;
    }

private:
    // Cuts the range out, from the first interval that ends after its offset on; `at` is then where
    // the range would be inserted.
    void cutFrom(Map::iterator& at, u64 offset, u64 end)
    {
        if (at.valid() && at.start() < offset) {
            const u64 oldEnd = at.stop();
            at.setStop(offset);
            if (oldEnd > end) {
                const WholeIo io = at.value();
                ++at;
                at.insert(end, oldEnd, io);
                return;
            }
            ++at;
        }
        while (at.valid() && at.stop() <= end)
            at.erase();
        if (at.valid() && at.start() < end)
            at.setStart(end);
    }

    Map::Allocator m_nodes;
    Map m_map{m_nodes};
};

} // namespace

std::unique_ptr<Contender> makeLlvmContender()
{
    return std::make_unique<PeerIndex<LlvmExtents>>();
}
