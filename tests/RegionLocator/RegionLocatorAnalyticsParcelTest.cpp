#include "RegionLocator/RegionLocatorAnalyticsParcel.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/Analytics/AnalyticsParcelSender.h"
#include "host/infra/MemShieldControl.h"
#include "tests/support/LogCapture.h"

namespace {

using Parcel = RegionLocatorAnalyticsParcel;

const char* const PARCEL_SIGNATURE =
    "RegionLocatorAnalyticsParcel::RegionLocatorAnalyticsParcel(u64, u64, u64, u64, u64, u64, "
    "std::string)";

class AnalyticsParcelTest : public testing::Test
{
protected:
    LogCapture m_log;
};

TEST_F(AnalyticsParcelTest, KeysAreWhatTheChannelKnows)
{
    EXPECT_EQ(Parcel::eventName, "regionLocartorStatistics");
    EXPECT_EQ(Parcel::category, "regionLocartor");
    EXPECT_EQ(Parcel::cpAgeSecCm, "cm1");
    EXPECT_EQ(Parcel::numIosInsertedToRlCm, "cm2");
    EXPECT_EQ(Parcel::numBytesInAddedIosCm, "cm3");
    EXPECT_EQ(Parcel::numOfUniqueBytesIosCoverCm, "cm4");
    EXPECT_EQ(Parcel::numOfCreatedRegionsCm, "cm5");
    EXPECT_EQ(Parcel::rlCreationTimeSecCm, "cm6");
    EXPECT_EQ(Parcel::rlTypeCd, "cd11");
}

TEST_F(AnalyticsParcelTest, AddsNoFieldToTheHostsParcel)
{
    EXPECT_EQ(sizeof(Parcel), sizeof(AnalyticsParcel));
}

TEST_F(AnalyticsParcelTest, HasItsHeader)
{
    const Parcel parcel(1, 2, 3, 4, 5, 6, "view");
    EXPECT_EQ(parcel.m_eventName, "regionLocartorStatistics");
    EXPECT_EQ(parcel.m_category, "regionLocartor");
    EXPECT_EQ(parcel.m_account, AnalyticsParcel::XEL);
    EXPECT_EQ(static_cast<u32>(parcel.m_account), 1u);
    EXPECT_EQ(parcel.m_eventPriority, AnalyticsParcel::Normal);
    EXPECT_EQ(static_cast<u32>(parcel.m_eventPriority), 0u);
    EXPECT_NE(parcel.m_xelTime, 0u);
}

TEST_F(AnalyticsParcelTest, PutsEachNumberUnderItsKey)
{
    const Parcel parcel(11, 12, 13, 14, 15, 16, "backup");
    EXPECT_EQ(parcel.m_strEntries, (std::map<std::string, std::string>{{"cd11", "backup"}}));
    EXPECT_EQ(parcel.m_u64Entries,
              (std::map<std::string, u64>{
                  {"cm1", 16}, {"cm2", 11}, {"cm3", 12}, {"cm4", 13}, {"cm5", 14}, {"cm6", 15}}));
    EXPECT_TRUE(parcel.m_u32Entries.empty());
    EXPECT_TRUE(parcel.m_longEntries.empty());
    EXPECT_TRUE(parcel.m_intEntries.empty());
    EXPECT_TRUE(parcel.m_doubleEntries.empty());
}

TEST_F(AnalyticsParcelTest, CarriesAllSevenEntriesAlsoWhenAllIsZero)
{
    const Parcel parcel(0, 0, 0, 0, 0, 0, "");
    EXPECT_EQ(parcel.m_strEntries.size(), 1u);
    EXPECT_EQ(parcel.m_u64Entries.size(), 6u);
    EXPECT_TRUE(isRecord(
        m_log.only(), LogModuleXel, InfoLevel, 3, PARCEL_SIGNATURE,
        "RegionLocatorAnalyticsParcel data:xelTimeStamp=" + std::to_string(parcel.m_xelTime) +
            ", eventName=regionLocartorStatistics , category=regionLocartor , accountType=1 ,"
            " priority=0 , regionLocatorType= , numIOsInserted=0 , bytesInserted=0 ,"
            " uniqueBytesIosCover=0 , numRegionsCreated=0 , creationTimeSec=0 , rlCpAgeSec=0 "));
}

TEST_F(AnalyticsParcelTest, WritesItsDataToTheLog)
{
    const Parcel parcel(11, 12, 13, 14, 15, ~u64{0}, "view");
    EXPECT_TRUE(isRecord(
        m_log.only(), LogModuleXel, InfoLevel, 3, PARCEL_SIGNATURE,
        "RegionLocatorAnalyticsParcel data:xelTimeStamp=" + std::to_string(parcel.m_xelTime) +
            ", eventName=regionLocartorStatistics , category=regionLocartor , accountType=1 ,"
            " priority=0 , regionLocatorType=view , numIOsInserted=11 , bytesInserted=12 ,"
            " uniqueBytesIosCover=13 , numRegionsCreated=14 , creationTimeSec=15 ,"
            " rlCpAgeSec=18446744073709551615 "));
}

// ---- sending ----

class AnalyticsSendTest : public AnalyticsParcelTest
{
protected:
    ~AnalyticsSendTest() override { AnalyticsParcelSender::setSender(nullptr); }
};

TEST_F(AnalyticsSendTest, HandsTheParcelOverAndReturnsTheSendersStatus)
{
    for (const RcStatus rc : {RC_SUCCESS, RC_IO_ERROR, RC_ABORTED}) {
        std::vector<AnalyticsParcel*> parcels;
        AnalyticsParcelSender::setSender([&](AnalyticsParcel* parcel) {
            parcels.push_back(parcel);
            return rc;
        });
        EXPECT_EQ(Parcel::createAndSendRegionLocatorAnalyticsParcel(11, 12, 13, 14, 15, 16, "MD5"),
                  rc);
        ASSERT_EQ(parcels.size(), 1u);
        const auto* parcel = dynamic_cast<Parcel*>(parcels[0]);
        ASSERT_NE(parcel, nullptr);
        EXPECT_EQ(parcel->m_strEntries.at("cd11"), "MD5");
        EXPECT_EQ(parcel->m_u64Entries.at("cm1"), 16u);
        EXPECT_EQ(parcel->m_u64Entries.at("cm2"), 11u);
        EXPECT_EQ(parcel->m_u64Entries.at("cm3"), 12u);
        EXPECT_EQ(parcel->m_u64Entries.at("cm4"), 13u);
        EXPECT_EQ(parcel->m_u64Entries.at("cm5"), 14u);
        EXPECT_EQ(parcel->m_u64Entries.at("cm6"), 15u);
        SHIELD_DELETE(parcels[0]);
    }
    EXPECT_EQ(m_log.records().size(), 3u);
}

TEST_F(AnalyticsSendTest, ParcelIsTrackedUnderItsName)
{
    if (MemShieldControl::enable() != RC_SUCCESS)
        GTEST_SKIP() << "an earlier test of this process has left tracked objects behind";
    std::vector<std::string> names;
    AnalyticsParcelSender::setSender([&](AnalyticsParcel* parcel) {
        for (const MemShieldGroup& group : MemShieldControl::liveGroups())
            names.push_back(group.m_typeName + " " + group.m_file);
        SHIELD_DELETE(parcel);
        return RC_SUCCESS;
    });
    Parcel::createAndSendRegionLocatorAnalyticsParcel(1, 2, 3, 4, 5, 6, "view");
    EXPECT_EQ(names, std::vector<std::string>{
                         "RegionLocatorAnalyticsParcel ../RegionLocatorAnalyticsParcel.cpp"});
    EXPECT_EQ(MemShieldControl::disable(), RC_SUCCESS);
}

TEST_F(AnalyticsSendTest, WithoutASenderTheParcelIsDeleted)
{
    EXPECT_EQ(Parcel::createAndSendRegionLocatorAnalyticsParcel(1, 2, 3, 4, 5, 6, "view"),
              RC_SUCCESS);
    EXPECT_EQ(m_log.records().size(), 1u);
}

} // namespace
