#include <boost/icl/interval_map.hpp>

#include "bench/peers/PeerIndex.h"
#include "bench/peers/Peers.h"
#include "bench/peers/WholeIo.h"

namespace {

// Intervals that are half-open by their type: smaller and faster than the library's default, which
// keeps the kind of its bounds in each of them. Values that equal the default are kept.
using Interval = boost::icl::right_open_interval<u64>;

using Map = boost::icl::interval_map<u64, WholeIo, boost::icl::partial_enricher, std::less,
                                     boost::icl::inplace_plus, boost::icl::inter_section, Interval>;

// See PeerIndex.h for what the operations do.
class IclExtents
{
public:
    using Pieces = Contender::Pieces;

    void put(const SubRegionDescriptor& region) { m_map.set({interval(region), WholeIo(region)}); }
    void putBack(const SubRegionDescriptor& region)
    {
        m_map.insert({interval(region), WholeIo(region)});
    }

    void append(u64 offset, u64 end, Pieces* pieces) const
    {
        for (auto at = m_map.lower_bound(Interval(offset, end));
             at != m_map.end() && at->first.lower() < end; ++at)
            pieces->push_back(at->second.piece(std::max(at->first.lower(), offset),
                                               std::min(at->first.upper(), end)));
    }

    bool intersects(u64 offset, u64 end) const
    {
        return m_map.find(Interval(offset, end)) != m_map.end();
    }

    void cut(u64 offset, u64 end) { m_map.erase(Interval(offset, end)); }
    void erase(const SubRegionDescriptor& region) { m_map.erase(interval(region)); }

    void removeIo(const SubRegionDescriptor& io)
    {
        const WholeIo whole(io);
        const Interval range = interval(io);
        auto at = m_map.lower_bound(range);
        while (at != m_map.end() && at->first.lower() < range.upper()) {
            const auto next = std::next(at);
            if (at->second == whole)
                m_map.erase(at);
            at = next;
        }
    }

    void takeFirst(u32 maxBlocks, Pieces* pieces)
    {
        u64 blocks = 0;
        auto at = m_map.begin();
        for (; at != m_map.end(); ++at) {
            const u64 length = at->first.upper() - at->first.lower();
            if (blocks + length > maxBlocks)
                break;
            blocks += length;
            pieces->push_back(at->second.piece(at->first.lower(), at->first.upper()));
        }
        m_map.erase(m_map.begin(), at);
    }

    u64 size() const { return m_map.iterative_size(); }
    u64 coveredBlocks() const { return m_map.size(); }

private:
    static Interval interval(const SubRegionDescriptor& region)
    {
        return {region.m_viewOffsetBlocks, region.m_viewOffsetBlocks + region.m_lengthBlocks};
    }

    Map m_map;
};

} // namespace

std::unique_ptr<Contender> makeIclContender()
{
    return std::make_unique<PeerIndex<IclExtents>>();
}
