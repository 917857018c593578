#include "RegionLocator/RegionLocatorAnalyticsParcel.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/infra/LogItem.h"
#include "common/infra/MemShield.h"

const std::string RegionLocatorAnalyticsParcel::eventName = "regionLocartorStatistics"; // sic
const std::string RegionLocatorAnalyticsParcel::category = "regionLocartor";            // sic
const std::string RegionLocatorAnalyticsParcel::cpAgeSecCm = "cm1";
const std::string RegionLocatorAnalyticsParcel::numIosInsertedToRlCm = "cm2";
const std::string RegionLocatorAnalyticsParcel::numBytesInAddedIosCm = "cm3";
const std::string RegionLocatorAnalyticsParcel::numOfUniqueBytesIosCoverCm = "cm4";
const std::string RegionLocatorAnalyticsParcel::numOfCreatedRegionsCm = "cm5";
const std::string RegionLocatorAnalyticsParcel::rlCreationTimeSecCm = "cm6";
const std::string RegionLocatorAnalyticsParcel::rlTypeCd = "cd11";

RegionLocatorAnalyticsParcel::RegionLocatorAnalyticsParcel(u64 numIOsInserted, u64 bytesInserted,
                                                           u64 uniqueBytesIosCover,
                                                           u64 numRegionsCreated,
                                                           u64 creationTimeSec, u64 rlCpAgeSec,
                                                           std::string regionLocatorType)
{
    setEventName(eventName);
    setCategory(category);
    setAccount(XEL);
    setEventPriority(Normal);

    addEntry(rlTypeCd, regionLocatorType);
    addEntry(numIosInsertedToRlCm, numIOsInserted);
    addEntry(numBytesInAddedIosCm, bytesInserted);
    addEntry(numOfUniqueBytesIosCoverCm, uniqueBytesIosCover);
    addEntry(numOfCreatedRegionsCm, numRegionsCreated);
    addEntry(rlCreationTimeSecCm, creationTimeSec);
    addEntry(cpAgeSecCm, rlCpAgeSec);

    LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
        << "RegionLocatorAnalyticsParcel data:"
        << "xelTimeStamp=" << m_xelTime << ","
        << " eventName=" << m_eventName << " ,"
        << " category=" << m_category << " ,"
        << " accountType=" << static_cast<u32>(m_account) << " ,"
        << " priority=" << static_cast<u32>(m_eventPriority) << " ,"
        << " regionLocatorType=" << regionLocatorType << " ,"
        << " numIOsInserted=" << numIOsInserted << " ,"
        << " bytesInserted=" << bytesInserted << " ,"
        << " uniqueBytesIosCover=" << uniqueBytesIosCover << " ,"
        << " numRegionsCreated=" << numRegionsCreated << " ,"
        << " creationTimeSec=" << creationTimeSec << " ,"
        << " rlCpAgeSec=" << rlCpAgeSec << " " << std::endl;
}

RcStatus RegionLocatorAnalyticsParcel::createAndSendRegionLocatorAnalyticsParcel(
    u64 numIOsInserted, u64 bytesInserted, u64 uniqueBytesIosCover, u64 numRegionsCreated,
    u64 rlCreationTimeSec, u64 rlCpAgeSec, std::string rlType)
{
    auto* parcel =
        SHIELD_NEW(RegionLocatorAnalyticsParcel, numIOsInserted, bytesInserted, uniqueBytesIosCover,
                   numRegionsCreated, rlCreationTimeSec, rlCpAgeSec, rlType);
    return AnalyticsParcelSender::sendAnalyticsParcel(parcel);
}
