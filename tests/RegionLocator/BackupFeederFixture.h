// A backup's feeder with a manager that notes what it is asked for.
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "RegionLocator/BackupInsertAndReportContainer.h"
#include "RegionLocator/RegionLocator.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Regions.h"

using Calls = std::vector<std::string>; // of the manager, one text each

inline constexpr u64 NONE = ~u64{0};
inline constexpr u64 MIRROR = 42;
inline constexpr CpId_t VIEW = 10;
inline constexpr CpId_t NEWEST = 20;
inline const std::string ADD_SIGNATURE =
    "virtual RcStatus BackupInsertAndReportContainer::addMetaData("
    "const SfsDiskMetaItem&, const JournalPtr&)";
inline const JournalPtr PLACE = {u64{3} << 15, 17};

inline SfsDiskMetaItem io(SfsMetaType type, u64 offset, u32 length, u64 address = 0,
                          u32 storedBytes = 0)
{
    SfsDiskMetaItem item;
    item.m_ioData = {address, offset};
    item.setUncompressedLengthBlocks(length);
    item.setType(type);
    item.setCompressedLengthBytes(storedBytes);
    return item;
}

inline SfsDiskMetaItem write(u64 offset, u32 length = 4)
{
    return io(SfsMetaType::UNCOMPRESSED_IO, offset, length, 40000 + offset);
}

inline SfsDiskMetaItem checkpoint(CpId_t id, u64 timestamp = 0)
{
    SfsDiskMetaItem item;
    item.m_cpData = {timestamp, id};
    item.setType(SfsMetaType::CHECKPOINT);
    return item;
}

inline std::string itemText(const SfsDiskMetaItem& item)
{
    std::ostringstream out;
    out << item;
    return out.str();
}

inline std::string reportCall(u64 offset, u32 length)
{
    return "report " + std::to_string(offset) + " " + std::to_string(length);
}

// Notes the calls that change something. Anything but the three that the feeder makes is a failure.
class FakeManager : public ILtrIncrementManager
{
public:
    RcStatus getIncrementCbt(std::vector<LtrChangedRange>*) override { return unexpected(); }
    RcStatus reportIO(u64, u32) override { return unexpected(); }
    RcStatus initNextIncrementCandidate() override { return unexpected(); }
    RcStatus commitNextIncrementCadidate() override { return unexpected(); }
    RcStatus cancelNextIncrementCadidate() override { return unexpected(); }
    SfsMetaDataContainer* getApplyMdListener() override
    {
        unexpected();
        return nullptr;
    }

    bool isEnabled() override
    {
        ++m_asked;
        step();
        return m_enabled;
    }
    RcStatus setIncrementCandidateCpTimestamp(u64 timestamp) override
    {
        step();
        m_calls.push_back("timestamp " + std::to_string(timestamp));
        return m_timestampRc;
    }
    RcStatus reportCandidateIO(u64 offset, u32 length) override
    {
        step();
        m_calls.push_back(reportCall(offset, length));
        return ++m_reports == m_failReport ? m_failRc : RC_SUCCESS;
    }

    bool m_enabled = true;
    RcStatus m_timestampRc = RC_SUCCESS;
    u64 m_failReport = 0; // the n-th fails, from 1
    RcStatus m_failRc = RC_NO_MEMORY;
    std::function<void(u64)> m_onCall; // with the call's number, from 1
    Calls m_calls;
    u64 m_asked = 0;
    u64 m_reports = 0;

private:
    RcStatus unexpected()
    {
        ADD_FAILURE() << "a call that the feeder has no use for";
        return RC_FAILURE;
    }
    void step()
    {
        if (m_onCall)
            m_onCall(++m_steps);
    }
    u64 m_steps = 0;
};

class BackupFeederTest : public testing::Test
{
protected:
    void make(ILtrIncrementManager* manager, CpId_t view = VIEW, CpId_t newest = NEWEST)
    {
        const LogCapture quiet;
        m_feeder =
            std::make_unique<BackupInsertAndReportContainer>(MIRROR, m_locator.get(), manager);
        m_feeder->init(view, newest);
    }
    RcStatus add(const SfsDiskMetaItem& item) { return m_feeder->addMetaData(item, PLACE); }
    // As a scan does it, in a batch of its own.
    RcStatus addPrepared(const SfsDiskMetaItem& item)
    {
        EXPECT_EQ(m_feeder->prepareToAdd(1, 0).get(), RC_SUCCESS);
        const RcStatus rc = add(item);
        m_feeder->unPrepareToAdd();
        return rc;
    }
    // Up to the view checkpoint, whose timestamp is 1010.
    void reachView()
    {
        const LogCapture quiet;
        ASSERT_EQ(add(checkpoint(VIEW, 1010)), RC_STOP_EXCLUDE_CURRENT);
        ASSERT_TRUE(m_feeder->reachedBackupViewCheckpoint());
    }
    // That an item of any type is refused, and its line.
    void expectStopped()
    {
        const Regions before = contents();
        const Calls calls = m_manager.m_calls;
        for (const SfsDiskMetaItem& item :
             {write(5), io(SfsMetaType::ZEROS, 5, 0), io(SfsMetaType::COMPRESSED_IO, 5, 4, 7, 100),
              checkpoint(1, 5), checkpoint(VIEW, 6), checkpoint(NONE, 7),
              io(SfsMetaType::MD_ONLY, 5, 1), io(SfsMetaType::CSCAN_CHECKSUM, 5, 1)}) {
            const LogCapture log;
            EXPECT_EQ(add(item), RC_STOP_EXCLUDE_CURRENT);
            EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 3, ADD_SIGNATURE,
                                 "Ltr<42> stopped - <3,17>,  meta=" + itemText(item) + " "));
        }
        EXPECT_EQ(contents(), before);
        EXPECT_EQ(m_manager.m_calls, calls);
    }
    Regions contents()
    {
        return {RegionLocatorTestAccess::unlocked(*m_locator)->begin(),
                RegionLocatorTestAccess::unlocked(*m_locator)->end()};
    }

    FakeManager m_manager;
    std::unique_ptr<RegionLocator> m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
    std::unique_ptr<BackupInsertAndReportContainer> m_feeder;
};
