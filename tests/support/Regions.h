// Regions of each kind, and their comparison field by field.
#pragma once

#include <string>
#include <vector>

#include "RegionLocator/SubRegionDescriptor.h"

// Of an uncompressed IO. address: where the region's own first block lies.
SubRegionDescriptor plainRegion(u64 viewOffsetBlocks, u32 lengthBlocks, u64 address,
                                u16 offsetInIo = 0);

// Of a compressed IO. address: where the whole stored IO lies.
SubRegionDescriptor compressedRegion(u64 viewOffsetBlocks, u32 lengthBlocks, u64 address,
                                     u16 offsetInIo = 0, u32 ioBytes = 1000, bool cscan = false);

SubRegionDescriptor zeroesRegion(u64 viewOffsetBlocks, u32 lengthBlocks);

// All six fields.
inline bool operator==(const SubRegionDescriptor& a, const SubRegionDescriptor& b)
{
    return a.m_viewOffsetBlocks == b.m_viewOffsetBlocks &&
           a.m_fifoOffsetOfIoStartBlocks == b.m_fifoOffsetOfIoStartBlocks &&
           a.m_ioTotalLengthBytes == b.m_ioTotalLengthBytes &&
           a.m_lengthBlocks == b.m_lengthBlocks &&
           a.m_regionOffsetLBsWithinIo == b.m_regionOffsetLBsWithinIo && a.m_flags == b.m_flags;
}

using Regions = std::vector<SubRegionDescriptor>;

// As the log prints it.
std::string regionText(const SubRegionDescriptor& region);
