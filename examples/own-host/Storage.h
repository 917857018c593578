// A journal and a target volume in memory.
#pragma once

#include <vector>

#include "Sfs/IDriverProxy.h"
#include "Sfs/SfsInterface.h"

// A run of blocks. Every read is done when the call returns.
class MemoryDevice
{
public:
    // Block b is filled with bytes of the value first + b, so that a reader can tell it apart.
    MemoryDevice(u32 blocks, u8 first);

    RcStatus read(const IODescriptor& io) const;

private:
    std::vector<u8> m_bytes;
};

// Stores whole IOs as they are; it has no compression and no checksums.
class MemoryJournal : public SfsInterface
{
public:
    explicit MemoryJournal(const MemoryDevice& device) : m_device(device) {}

    RcStatus setPersistentStreamStatus(AsyncTask* pAsyncTask, u64 mirrorId, RcStatus status,
                                       u64 flags) override;
    FutureStatus readStored(const std::vector<IODescriptorEx>& ios, AioPriority priority) override;

private:
    const MemoryDevice& m_device;
};

class MemoryVolume : public IDriverProxy
{
public:
    explicit MemoryVolume(const MemoryDevice& device) : m_device(device) {}

    FutureStatus readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                            AioPriority priority, u64 flags) override;

private:
    const MemoryDevice& m_device;
};
