// Reads, as they are handed to the journal store and to the driver of the target volume.
#pragma once

#include "Sfs/SfsItemDescriptor.h"
#include "common/infra/ScatteredBuf.h"

enum class AioPriority : u32
{
    High = 0,
    Normal = 1,
    Low = 2,
};

// A read of a volume.
struct IODescriptor
{
    u64 m_offsetBlocks = 0;
    u32 m_lengthBlocks = 0;
    ScatteredBuf m_data; // refers to the destination, m_lengthBlocks * 512 bytes
    bool m_bRead = true;
};

// A read of journal data; m_offsetBlocks is a journal address. A run of zeroes has the address
// SFS_DEV_ADDR_INVALID.
struct IODescriptorEx : IODescriptor
{
    u64 m_devId = 0; // the journal device
};

// A read of a part of a compressed IO: m_offsetBlocks is the address of the whole IO.
struct IODescriptorExCompressed : IODescriptorEx
{
    u32 m_compIoLengthBytes = 0;      // the whole IO as stored
    u16 m_regionOffsetLbWithinIo = 0; // the part wanted, within the IO as it was written
    u16 m_regionLengthBlocks = 0;
    bool m_isCscan = false;
};

// A journal piece and its destination, not owned.
struct ActiveApplyIO : SfsItemDescriptor
{
    ActiveApplyIO(const SfsItemDescriptor& item, ScatteredBuf* data)
        : SfsItemDescriptor(item), m_data(data)
    {}

    ScatteredBuf* m_data;
};
