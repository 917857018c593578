// What the tests of the locator's operations have in common: a locator, its maps as lists, and its
// verbose lines.
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

class LocatorFixture : public testing::Test
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
    static std::string address(const void* pointer)
    {
        std::ostringstream out;
        out << pointer;
        return out.str();
    }

    RegionLocator m_locator{7, RL_MMI_View};
    RegionLocatorMemPool* m_pool = m_locator.getMemPool();
    AsyncTask m_task;
};
