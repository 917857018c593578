// The volumes of the process by their ids.
#pragma once

#include <map>
#include <memory>

#include "Sfs/IDriverProxy.h"
#include "common/infra/Mutex.h"
#include "host/volume/TargetVolume.h"

// Thread safety: any thread. A volume stays alive until the last read of it is done.
class VolumeDriver : public IDriverProxy
{
public:
    // Replaces a volume of the same id.
    void add(u64 volumeId, std::shared_ptr<TargetVolume> volume);
    void remove(u64 volumeId);
    std::shared_ptr<TargetVolume> find(u64 volumeId); // null: unknown

    // RC_NOT_FOUND: no such volume; else as TargetVolume::read().
    FutureStatus readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                            AioPriority priority, u64 flags) override;

private:
    Mutex m_mutex;
    std::map<u64, std::shared_ptr<TargetVolume>> m_volumes RL_GUARDED_BY(m_mutex);
};
