// The value that a map of intervals keeps for an interval: which IO it is from.
//
// It is the same for every part of an IO, so that an interval map may cut and join its intervals
// without looking into their values; what a piece's own address is follows from where it lies.
#pragma once

#include "RegionLocator/SubRegionDescriptor.h"

struct WholeIo
{
    WholeIo() = default;
    explicit WholeIo(const SubRegionDescriptor& region)
        : m_viewStart(region.m_viewOffsetBlocks -
                      (region.isAllZeroes() ? 0 : region.m_regionOffsetLBsWithinIo)),
          m_address(region.getOrigIoFifoOffsetLbs()),
          m_compressedBytes(region.isCompressed() ? region.m_ioTotalLengthBytes : 0),
          m_flags(region.m_flags)
    {}

    SubRegionDescriptor piece(u64 start, u64 end) const
    {
        const u64 offset = start - m_viewStart;
        SubRegionDescriptor region(start);
        region.m_lengthBlocks = static_cast<u16>(end - start);
        region.m_flags = m_flags;
        region.m_fifoOffsetOfIoStartBlocks = m_address;
        region.m_ioTotalLengthBytes = m_compressedBytes;
        if (!region.isCompressed())
            region.m_ioTotalLengthBytes = static_cast<u32>((end - start) << BLOCK_SHIFT);
        if (region.isAllZeroes())
            return region;
        region.m_regionOffsetLBsWithinIo = static_cast<u16>(offset);
        if (!region.isCompressed())
            region.m_fifoOffsetOfIoStartBlocks += offset;
        return region;
    }

    bool operator==(const WholeIo&) const = default;

    u64 m_viewStart = 0;
    u64 m_address = 0;
    u32 m_compressedBytes = 0;
    u8 m_flags = 0;
};
