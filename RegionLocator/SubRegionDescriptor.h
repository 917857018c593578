// The region record: a run of view blocks, and where its newest data lies in the journal.
#pragma once

#include <ostream>
#include <vector>

#include "Sfs/SfsItemDescriptor.h"

// A plain value of 32 bytes, kept by value in ordered sets, vectors and waiters. It covers the
// half-open run of view blocks [m_viewOffsetBlocks, m_viewOffsetBlocks + m_lengthBlocks).
class SubRegionDescriptor : public SfsItemDescriptor
{
public:
    // Not explicit: the host's generators build every record that the locator stores.
    SubRegionDescriptor(const SfsItemDescriptor& item) : SfsItemDescriptor(item) {}

    // A search key: that view offset, length 0.
    explicit SubRegionDescriptor(unsigned long long viewOffsetBlocks)
    {
        init(viewOffsetBlocks, 0, 0, 0, 0, false, false, false);
    }

    // By the first view block alone, so that a set holds at most one region per first block.
    bool operator<(const SubRegionDescriptor& other) const
    {
        return m_viewOffsetBlocks < other.m_viewOffsetBlocks;
    }
};

std::ostream& operator<<(std::ostream& out, const SubRegionDescriptor& region);

// One region a line.
std::ostream& operator<<(std::ostream& out, const std::vector<SubRegionDescriptor>& regions);

// Event codes of the binary log.
enum RegionEvent : u32
{
    REGION_EVENT_CUT = 21,       // a stored region that is cut, before it is erased
    REGION_EVENT_REMAINDER = 22, // each remainder that takes its place
    REGION_EVENT_INSERTED = 23,  // a new region
};

// Writes one record to the process-wide binary logger. Any thread.
void binaryLogSfsRegionDesc(u32 eventCode, const SubRegionDescriptor* region);
