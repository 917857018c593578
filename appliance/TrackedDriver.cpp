#include "appliance/TrackedDriver.h"

#include "common/headers/MultiFuture.h"

FutureStatus TrackedDriver::readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                                       AioPriority priority, u64 flags)
{
    FutureStatus future = m_driver.readVolume(volumeId, ios, priority, flags);
    MutexGuard guard(m_mutex);
    dropFinishedLocked();
    m_inFlight.push_back(future);
    return future;
}

FutureStatus TrackedDriver::quiet()
{
    std::vector<FutureStatus> inFlight;
    {
        MutexGuard guard(m_mutex);
        dropFinishedLocked();
        inFlight = m_inFlight;
    }
    return MultiFuture_Status::createMultiFuture(inFlight);
}

void TrackedDriver::dropFinishedLocked()
{
    std::erase_if(m_inFlight, [](const FutureStatus& future) { return future.isSet(); });
}
