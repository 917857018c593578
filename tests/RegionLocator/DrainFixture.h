// What the tests of get-first, of exact removal and of their waiters have in common.
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <utility>

#include "common/headers/AsyncTaskControl.h"
#include "common/infra/DynamicTweaks.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

inline const std::string PUNCH_OUT_SIGNATURE =
    "void RegionLocator::punchOutRegions(CountedRegionMap*, "
    "const std::vector<SubRegionDescriptor>&)";

class VerboseLogs
{
public:
    VerboseLogs() { DynamicTweaks::instance()->t_RlVerboseLogs = true; }
    ~VerboseLogs() { DynamicTweaks::instance()->t_RlVerboseLogs = false; }
    VerboseLogs(const VerboseLogs&) = delete;
    VerboseLogs& operator=(const VerboseLogs&) = delete;
};

// The Normal priority's ready queue: looks around at the moment at which a task is put on it.
class LookingControl : public AsyncTaskControl
{
public:
    explicit LookingControl(std::function<void()> look)
        : m_look(std::move(look)),
          m_before(AsyncTaskControlPriority::setControl(AsyncTaskPriority::Normal, this))
    {}
    ~LookingControl() override
    {
        AsyncTaskControlPriority::setControl(AsyncTaskPriority::Normal, m_before);
    }
    void enqueueToReadyQueue(AsyncTask*, AsyncTaskQueue::AsyncTaskQueueID, RcStatus) override
    {
        ++m_calls;
        m_look();
    }

    int m_calls = 0;

private:
    std::function<void()> m_look;
    AsyncTaskControl* m_before;
};

class DrainFixture : public testing::Test
{
protected:
    using Access = RegionLocatorTestAccess;

    Regions unlocked()
    {
        return {Access::unlocked(m_locator)->begin(), Access::unlocked(m_locator)->end()};
    }
    Regions locked()
    {
        return {Access::locked(m_locator)->begin(), Access::locked(m_locator)->end()};
    }
    // What the locator's verbose lines begin with.
    std::string prefix()
    {
        std::ostringstream out;
        out << "<" << &m_locator << ">: ";
        return out.str();
    }
    std::string punchOutText(const std::string& count, const CountedRegionMap* map)
    {
        std::ostringstream out;
        out << " a_regions.size()=" << count << " a_regionMap=" << map;
        return out.str();
    }
    // Whether the record is a verbose line of the locator's.
    testing::AssertionResult isTrace(const LogRecord& record, const std::string& signature,
                                     const std::string& text)
    {
        return isRecord(record, LogModuleXel, InfoLevel, 0, signature, prefix() + text);
    }

    RegionLocator m_locator{7, RL_MMI_View};
    RegionLocatorMemPool* m_pool = m_locator.getMemPool();
    AsyncTask m_task;
};
