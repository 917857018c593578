// Tells blocks that were written from blocks that came out different, by reading the view of the
// earlier point as well.
//
// Thread safety: a plain thread.
#pragma once

#include <functional>
#include <vector>

#include "appliance/View.h"
#include "appliance/ViewExtents.h"
#include "appliance/ViewReader.h"

class ChangeFilter
{
public:
    // then: the earlier view; outlives the filter, as does the engine.
    ChangeFilter(View& then, TaskEngine& engine);

    // Calls `use` for each run of blocks in which the range was different then, ascending. now: the
    // later content, null for zeroes. Ranges of zeroes cost what was there, not their length.
    // REQUIRES: the ranges of successive calls ascend. The failure of a read, or that of `use`.
    using Use = std::function<Result(u64 offsetBlocks, u64 lengthBlocks)>;
    Result differing(u64 offsetBlocks, u64 lengthBlocks, const u8* now, const Use& use);

private:
    Result compare(u64 offsetBlocks, u32 lengthBlocks, const u8* now, const Use& use);

    static constexpr u32 PART_BLOCKS = 4096;

    TaskEngine& m_engine;
    ViewReader m_reader;
    ViewExtents m_extents;
    std::vector<u8> m_then;
};
