#include "Storage.h"

#include <cstring>
#include <utility>

#include "Sfs/JournalIoReader.h"

MemoryDevice::MemoryDevice(u32 blocks, u8 first) : m_bytes(u64{blocks} * BLOCK_BYTES)
{
    for (u32 block = 0; block < blocks; ++block)
        std::memset(&m_bytes[u64{block} * BLOCK_BYTES], static_cast<u8>(first + block),
                    BLOCK_BYTES);
}

RcStatus MemoryDevice::read(const IODescriptor& io) const
{
    const u64 begin = io.m_offsetBlocks * BLOCK_BYTES;
    if (begin + u64{io.m_lengthBlocks} * BLOCK_BYTES > m_bytes.size())
        return RC_IO_ERROR;
    const u8* from = &m_bytes[begin];
    for (u32 i = 0; i < io.m_data.getSegmentsCount(); ++i) {
        const MemorySegment& to = io.m_data.getSegment(i);
        std::memcpy(to.getPtr(), from, to.getSize());
        from += to.getSize();
    }
    return RC_SUCCESS;
}

RcStatus MemoryJournal::setPersistentStreamStatus(AsyncTask*, u64, RcStatus, u64)
{
    return RC_SUCCESS;
}

FutureStatus MemoryJournal::readStored(const std::vector<IODescriptorEx>& ios, AioPriority)
{
    for (const IODescriptorEx& io : ios) {
        const RcStatus rc = m_device.read(io);
        if (rc != RC_SUCCESS)
            return makeSetFuture(rc);
    }
    return makeSetFuture(RC_SUCCESS);
}

FutureStatus MemoryVolume::readVolume(u64, const std::vector<IODescriptor>& ios, AioPriority, u64)
{
    for (const IODescriptor& io : ios) {
        const RcStatus rc = m_device.read(io);
        if (rc != RC_SUCCESS)
            return makeSetFuture(rc);
    }
    return makeSetFuture(RC_SUCCESS);
}

JournalIoReader::JournalIoReader(SfsInterface* sfs, IDriverProxy* drvProxy,
                                 std::string journalMetricsContext, u64 mirrorId)
    : m_sfs(sfs), m_drvProxy(drvProxy), t_maxBufBytesForUncompress(0), m_mirrorId(mirrorId)
{
    m_metricsMonitor.m_context = std::move(journalMetricsContext);
}

JournalIoReader::~JournalIoReader() = default;

void JournalIoReader::fillIoDescriptorVectors(const std::vector<ActiveApplyIO>& journalIos,
                                              std::vector<IODescriptorEx>* uncompressed,
                                              std::vector<IODescriptorExCompressed>* compressed)
{
    for (const ActiveApplyIO& piece : journalIos) {
        IODescriptorExCompressed io;
        io.m_offsetBlocks = piece.m_fifoOffsetOfIoStartBlocks;
        io.m_lengthBlocks = piece.m_lengthBlocks;
        io.m_data = *piece.m_data;
        if (piece.isCompressed())
            compressed->push_back(io);
        else
            uncompressed->push_back(io);
    }
}

RcStatus JournalIoReader::performReadFromJournalIoDescriptors(
    AsyncTask*, std::vector<IODescriptorEx>& uncompressed,
    std::vector<IODescriptorExCompressed>& compressed, AioPriority ioPriority,
    ModuleMemoryInformation*, u64, ISingleMonitor*, ISingleMonitor*, CancelToken*)
{
    // This journal never compresses, so such a piece is nothing that was stored here.
    if (!compressed.empty())
        return RC_CORRUPTED_OBJECT;
    std::vector<IODescriptorEx> stored;
    for (IODescriptorEx& io : uncompressed) {
        if (io.m_offsetBlocks != SFS_DEV_ADDR_INVALID) {
            stored.push_back(io);
            continue;
        }
        for (u32 i = 0; i < io.m_data.getSegmentsCount(); ++i) {
            const MemorySegment& to = io.m_data.getSegment(i);
            std::memset(to.getPtr(), 0, to.getSize());
        }
    }
    return m_sfs->readStored(stored, ioPriority).get();
}
