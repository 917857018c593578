// Where a volume reads as zeroes and where it may hold data: runs of a range, found at the cost of
// what is there and not of the range's length.
//
// What the index covers is data, or zeroes where it says so; in its gaps the target volume's file
// system tells holes from data. Neighbouring runs of one kind are one.
//
// Thread safety: any thread, also beside writes to the live volume.
#pragma once

#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "appliance/Mirror.h"

struct BlockRun
{
    u64 m_offsetBlocks = 0;
    u64 m_lengthBlocks = 0;
    bool m_isData = false; // else it reads as zeroes
};

// Replaces *runs by the runs of a range from its beginning on, without gaps: all of them, or the
// first `maxRuns`. REQUIRES: the range lies inside the volume, and is not empty.
Result findBlockRuns(Mirror& mirror, RegionLocator& locator, u64 offsetBlocks, u64 lengthBlocks,
                     size_t maxRuns, std::vector<BlockRun>* runs);
