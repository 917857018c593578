// Where a view has data: the runs of blocks that may hold anything but zeroes, found at the cost of
// what is there and not of the volume's size.
//
// Data are the index's pieces that are not zeroes and, in the gaps, what the target volume's file
// system says is no hole. Neighbouring runs are joined.
//
// Thread safety: one thread at a time.
#pragma once

#include <vector>

#include "appliance/View.h"

class ViewExtents
{
public:
    // view: outlives this.
    explicit ViewExtents(View& view) : m_view(view) {}

    // The next run of data at or after `fromBlocks`, at most `maxBlocks` long: [*startBlocks,
    // *endBlocks), both the view's length when there is none. Everything between `fromBlocks` and
    // the run reads as zeroes.
    Result next(u64 fromBlocks, u64 maxBlocks, u64* startBlocks, u64* endBlocks);

private:
    // One run of one kind that begins at `block`: its end, and whether it is data.
    Result runAt(u64 block, u64* endBlock, bool* isData);
    void loadWindow(u64 block);
    Result nextTargetData(u64 block);

    // Pieces are looked up a window at a time: few lookups where there is nothing, and lists of a
    // bounded length where there is much.
    static constexpr u64 WINDOW_BLOCKS = u64{1} << 22;

    View& m_view;
    std::vector<SubRegionDescriptor> m_pieces; // of [m_windowStart, m_windowEnd)
    size_t m_nextPiece = 0;                    // the first that does not end before the last block
    u64 m_windowStart = 0;
    u64 m_windowEnd = 0;
    u64 m_targetFrom = 0; // [m_targetFrom, m_targetStart) of the target is a hole,
    u64 m_targetStart = 0;
    u64 m_targetEnd = 0; // [m_targetStart, m_targetEnd) data
};
