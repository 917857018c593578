#include "RegionLocator/SubRegionDescriptor.h"

#include "common/infra/BinaryLogger.h"

std::ostream& operator<<(std::ostream& out, const SubRegionDescriptor& region)
{
    region.toStream(out);
    return out;
}

std::ostream& operator<<(std::ostream& out, const std::vector<SubRegionDescriptor>& regions)
{
    for (const SubRegionDescriptor& region : regions)
        out << region << "\n";
    return out;
}

void binaryLogSfsRegionDesc(u32 eventCode, const SubRegionDescriptor* region)
{
    constexpr u8 KIND_WITH_DATA = 40; // an all-zeroes region is the next number
    Singleton<BinaryLogger, BinaryLogger>::instance()->log(
        eventCode, region->m_viewOffsetBlocks,
        static_cast<u8>(KIND_WITH_DATA + (region->isAllZeroes() ? 1 : 0)), region->m_lengthBlocks,
        region->m_fifoOffsetOfIoStartBlocks);
}
