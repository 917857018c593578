#include "appliance/ServedExport.h"

#include "appliance/ServedExportKinds.h"
#include "common/infra/LogItem.h"

ServedExport::ServedExport(ServedMirror& served)
    : m_served(served), m_sizeBytes(served.mirror().settings().m_sizeBytes)
{
    ++m_served.counters().m_connections;
    ++m_served.counters().m_opened;
}

ServedExport::~ServedExport()
{
    --m_served.counters().m_connections;
}

Result ServedExport::open(ServedMirror& served, const std::string& name,
                          std::unique_ptr<ServedExport>* opened)
{
    const ServedMirror::Request request(served);
    Result result =
        request.isAdmitted() ? openExportKind(served, name, opened) : ServedMirror::ending();
    if (!result.ok())
        ++served.counters().m_refused;
    return result;
}

RecoverableWindow ServedExport::window(ServedMirror& served)
{
    RecoverableWindow window = served.mirror().window();
    ApplyState state;
    // Where it cannot be read now, opening tells.
    if (served.live() == nullptr && loadApplyState(served.mirror().storage(), &state).ok()) {
        window.m_firstItems = std::max(window.m_firstItems, state.firstItems());
        std::erase_if(window.m_checkpoints, [&](const CheckpointInfo& checkpoint) {
            return checkpoint.m_items < window.m_firstItems;
        });
    }
    return window;
}

bool ServedExport::isWhole(u64 offsetBytes, u32 lengthBytes)
{
    return offsetBytes % BLOCK_BYTES == 0 && lengthBytes % BLOCK_BYTES == 0 &&
           offsetBytes <= sizeBytes() && lengthBytes <= sizeBytes() - offsetBytes;
}

RcStatus ServedExport::counted(ServedOp op, RcStatus rc, u32 lengthBytes)
{
    ServedCounters::Op& counters = m_served.counters().of(op);
    counters.m_requests.fetch_add(1, std::memory_order_relaxed);
    if (rc == RC_SUCCESS)
        counters.m_bytes.fetch_add(lengthBytes, std::memory_order_relaxed);
    else
        counters.m_errors.fetch_add(1, std::memory_order_relaxed);
    if (rc == RC_NO_SPACE || rc == RC_NO_MEMORY)
        counters.m_noSpace.fetch_add(1, std::memory_order_relaxed);
    return rc;
}

RcStatus ServedExport::changed(RcStatus rc, bool durable)
{
    return rc == RC_SUCCESS && durable ? m_served.live()->flush() : rc;
}

RcStatus ServedExport::read(u64 offsetBytes, u32 lengthBytes, u8* data)
{
    const ServedMirror::Request request(m_served);
    RcStatus rc = request.isAdmitted() ? RC_BAD_ARGUMENT : RC_ABORTED;
    if (request.isAdmitted() && isWhole(offsetBytes, lengthBytes))
        rc = readBlocks(offsetBytes / BLOCK_BYTES, lengthBytes / BLOCK_BYTES, data);
    return counted(ServedOp::Read, rc, lengthBytes);
}

RcStatus ServedExport::write(u64 offsetBytes, u32 lengthBytes, const u8* data, bool durable)
{
    const ServedMirror::Request request(m_served);
    RcStatus rc = request.isAdmitted() ? RC_BAD_ARGUMENT : RC_ABORTED;
    if (request.isAdmitted() && isWritable() && isWhole(offsetBytes, lengthBytes))
        rc = changed(lengthBytes == 0 ? RC_SUCCESS
                                      : m_served.live()->write(offsetBytes / BLOCK_BYTES, data,
                                                               lengthBytes / BLOCK_BYTES),
                     durable);
    return counted(ServedOp::Write, rc, lengthBytes);
}

RcStatus ServedExport::zero(ServedOp zeroOrTrim, u64 offsetBytes, u32 lengthBytes, bool durable)
{
    const ServedMirror::Request request(m_served);
    RcStatus rc = request.isAdmitted() ? RC_BAD_ARGUMENT : RC_ABORTED;
    if (request.isAdmitted() && isWritable() && isWhole(offsetBytes, lengthBytes))
        rc = changed(lengthBytes == 0 ? RC_SUCCESS
                                      : m_served.live()->writeZeroes(offsetBytes / BLOCK_BYTES,
                                                                     lengthBytes / BLOCK_BYTES),
                     durable);
    return counted(zeroOrTrim, rc, lengthBytes);
}

RcStatus ServedExport::flush()
{
    const ServedMirror::Request request(m_served);
    if (!request.isAdmitted())
        return counted(ServedOp::Flush, RC_ABORTED, 0);
    return counted(ServedOp::Flush, isWritable() ? m_served.live()->flush() : RC_SUCCESS, 0);
}

RcStatus ServedExport::extents(u64 offsetBytes, u32 lengthBytes, size_t maxExtents,
                               std::vector<ExportExtent>* extents)
{
    extents->clear();
    const ServedMirror::Request request(m_served);
    if (!request.isAdmitted())
        return counted(ServedOp::Extents, RC_ABORTED, 0);
    const u64 end = std::min(sizeBytes(), offsetBytes + lengthBytes);
    if (offsetBytes >= end)
        return counted(ServedOp::Extents, RC_BAD_ARGUMENT, 0);
    const u64 first = offsetBytes / BLOCK_BYTES;
    const u64 last = (end + BLOCK_BYTES - 1) / BLOCK_BYTES;
    const Result result = findExtents(first, last - first, maxExtents, extents);
    // The last block may be asked for in part. Whoever asked with 32 bits has no room for the
    // length of all of it.
    if (!extents->empty()) {
        ExportExtent& rest = extents->back();
        rest.m_lengthBytes = std::min(rest.m_lengthBytes, end - rest.m_offsetBytes);
    }
    if (!result.ok())
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << description() << " of " << m_served.mirror().folder() << ": " << result.message()
            << std::endl;
    return counted(ServedOp::Extents, result.ok() ? RC_SUCCESS : RC_IO_ERROR, 0);
}
