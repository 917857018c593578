#include "common/headers/AsyncTaskControl.h"

#include <atomic>

#include "common/infra/Assert.h"

namespace {
std::atomic<AsyncTaskControl*> s_controls[3];

std::atomic<AsyncTaskControl*>& controlOf(AsyncTaskPriority priority)
{
    const u32 index = static_cast<u32>(priority);
    HARD_CHECK(index < 3);
    return s_controls[index];
}
} // namespace

AsyncTaskControl* AsyncTaskControlPriority::getControl(AsyncTaskPriority priority)
{
    AsyncTaskControl* control = controlOf(priority).load(std::memory_order_acquire);
    HARD_CHECK(control != nullptr);
    return control;
}

AsyncTaskControl* AsyncTaskControlPriority::setControl(AsyncTaskPriority priority,
                                                       AsyncTaskControl* control)
{
    return controlOf(priority).exchange(control, std::memory_order_acq_rel);
}
