#include "tests/support/Regions.h"

#include <sstream>

SubRegionDescriptor plainRegion(u64 viewOffsetBlocks, u32 lengthBlocks, u64 address, u16 offsetInIo)
{
    return SfsItemDescriptor::genUncompressed(viewOffsetBlocks, lengthBlocks, address, offsetInIo,
                                              false);
}

SubRegionDescriptor compressedRegion(u64 viewOffsetBlocks, u32 lengthBlocks, u64 address,
                                     u16 offsetInIo, u32 ioBytes, bool cscan)
{
    return SfsItemDescriptor::genCompressed(viewOffsetBlocks, lengthBlocks, address, offsetInIo,
                                            ioBytes, cscan);
}

SubRegionDescriptor zeroesRegion(u64 viewOffsetBlocks, u32 lengthBlocks)
{
    return SfsItemDescriptor::genUncompressed(viewOffsetBlocks, lengthBlocks, SFS_DEV_ADDR_INVALID,
                                              0, true);
}

std::string regionText(const SubRegionDescriptor& region)
{
    std::ostringstream out;
    out << region;
    return out.str();
}
