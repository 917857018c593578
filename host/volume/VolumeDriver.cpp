#include "host/volume/VolumeDriver.h"

void VolumeDriver::add(u64 volumeId, std::shared_ptr<TargetVolume> volume)
{
    MutexGuard guard(m_mutex);
    m_volumes[volumeId] = std::move(volume);
}

void VolumeDriver::remove(u64 volumeId)
{
    MutexGuard guard(m_mutex);
    m_volumes.erase(volumeId);
}

std::shared_ptr<TargetVolume> VolumeDriver::find(u64 volumeId)
{
    MutexGuard guard(m_mutex);
    const auto found = m_volumes.find(volumeId);
    return found == m_volumes.end() ? nullptr : found->second;
}

FutureStatus VolumeDriver::readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                                      AioPriority priority, u64)
{
    // The operations in flight hold the volume's file, so the volume itself may go meanwhile.
    const std::shared_ptr<TargetVolume> volume = find(volumeId);
    return volume ? volume->read(ios, priority) : makeSetFuture(RC_NOT_FOUND);
}
