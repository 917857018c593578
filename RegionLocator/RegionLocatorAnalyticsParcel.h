// The analytics event that reports a locator's statistics.
#pragma once

#include <string>

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/RcStatus.h"

// Numbers under "cm" keys, the locator's kind under a "cd" key. The key numbers do not follow the
// arguments' order, and the spelling of event and category is what the channel knows them by (sic).
class RegionLocatorAnalyticsParcel : public AnalyticsParcel
{
public:
    static const std::string eventName;
    static const std::string category;
    static const std::string cpAgeSecCm;
    static const std::string numIosInsertedToRlCm;
    static const std::string numBytesInAddedIosCm;
    static const std::string numOfUniqueBytesIosCoverCm;
    static const std::string numOfCreatedRegionsCm;
    static const std::string rlCreationTimeSecCm;
    static const std::string rlTypeCd;

    // creationTimeSec: how long the locator took to build; rlCpAgeSec: how old its checkpoint is.
    // Writes the parcel's data to the log.
    RegionLocatorAnalyticsParcel(u64 numIOsInserted, u64 bytesInserted, u64 uniqueBytesIosCover,
                                 u64 numRegionsCreated, u64 creationTimeSec, u64 rlCpAgeSec,
                                 std::string regionLocatorType);

    // Builds a parcel and hands it to the sender, which owns it from then on. Returns the sender's
    // status. Any thread.
    static RcStatus createAndSendRegionLocatorAnalyticsParcel(u64 numIOsInserted, u64 bytesInserted,
                                                              u64 uniqueBytesIosCover,
                                                              u64 numRegionsCreated,
                                                              u64 rlCreationTimeSec, u64 rlCpAgeSec,
                                                              std::string rlType);
};
