// What a locator did and holds, for reports.
#pragma once

#include "common/infra/Types.h"

struct RegionLocatorStatistics
{
    u64 m_numIOsInserted = 0;
    u64 m_bytesInserted = 0;
    u64 m_uniqueBytesIosCover = 0; // each view block once
    u64 m_numRegionsCreated = 0;   // regions in the locator now
};
