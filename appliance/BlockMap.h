// Where a volume reads as zeroes and where it may hold data: runs of a range, found at the cost of
// what is there and not of the range's length.
//
// What the index covers is data, or zeroes where it says so; in its gaps the target volume's file
// system tells holes from data. Neighbouring runs of one kind are one.
//
// Thread safety: any thread, also beside writes to the live volume.
#pragma once

#include <algorithm>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "appliance/Mirror.h"

struct BlockRun
{
    u64 m_offsetBlocks = 0;
    u64 m_lengthBlocks = 0;
    bool m_isData = false; // else it reads as zeroes
};

// Most pieces of the index that are listed at a time: each takes memory, and whoever changes the
// index waits meanwhile.
constexpr u64 MOST_PIECES_AT_A_TIME = u64{1} << 18;

// How much of the volume may be looked up at once in an index of so many regions, if `wantedBlocks`
// are wanted: no more pieces come out of it than the most, as none is shorter than a block.
constexpr u64 pieceWindow(u64 wantedBlocks, u64 regions)
{
    return regions <= MOST_PIECES_AT_A_TIME ? wantedBlocks
                                            : std::min(wantedBlocks, MOST_PIECES_AT_A_TIME);
}

// Replaces *runs by the runs of a range from its beginning on, without gaps: all of them, or the
// first `maxRuns`. REQUIRES: the range lies inside the volume, and is not empty.
Result findBlockRuns(Mirror& mirror, RegionLocator& locator, u64 offsetBlocks, u64 lengthBlocks,
                     size_t maxRuns, std::vector<BlockRun>* runs);
