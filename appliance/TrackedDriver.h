// A way to the volumes that remembers which reads are still in flight.
//
// A read of a view that meets corrupt journal data ends at once, while its reads of the target
// volume may still be writing into the caller's buffer. Who hands out the buffer asks here when it
// is free.
//
// Thread safety: any thread.
#pragma once

#include <vector>

#include "Sfs/IDriverProxy.h"
#include "common/infra/Mutex.h"

class TrackedDriver : public IDriverProxy
{
public:
    // driver: not owned; outlives this.
    explicit TrackedDriver(IDriverProxy& driver) : m_driver(driver) {}

    FutureStatus readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                            AioPriority priority, u64 flags) override;

    // A future that is set when every read that is in flight now has ended.
    FutureStatus quiet();

private:
    void dropFinishedLocked() RL_REQUIRES(m_mutex);

    IDriverProxy& m_driver;
    Mutex m_mutex;
    std::vector<FutureStatus> m_inFlight RL_GUARDED_BY(m_mutex);
};
