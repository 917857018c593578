#include "appliance/Export.h"

#include "appliance/ImageSink.h"
#include "appliance/OutputPath.h"
#include "appliance/ReadAhead.h"
#include "appliance/ViewExtents.h"

namespace {

// The pieces that are read and written at a time.
struct Pieces
{
    u32 m_slots;
    u32 m_slotBlocks;
};

// A disk wants large ones.
constexpr Pieces FOR_DISK = {5, 8192};

// For the page cache, such as are still in a processor's own cache when they are written.
constexpr Pieces FOR_PAGE_CACHE = {8, 1024};

} // namespace

Result exportView(View& view, TaskEngine& engine, const std::string& path, FlowControl& control,
                  ExportStatistics* statistics, Durability durability)
{
    const u64 startedUs = Clock::instance()->nowUs();
    if (Result result = checkOutputPath(path, view.mirror().settings().m_target); !result.ok())
        return result;
    std::unique_ptr<ImageSink> sink;
    if (Result result = ImageSink::open(path, view.sizeBlocks() * BLOCK_BYTES, durability, &sink);
        !result.ok())
        return result;
    ViewReader reader(view);
    ViewExtents extents(view);
    const Pieces pieces = durability == Durability::Synced ? FOR_DISK : FOR_PAGE_CACHE;
    ReadAhead ahead(reader, engine, pieces.m_slots, pieces.m_slotBlocks);
    const auto use = [&](u64 offsetBlocks, u32 lengthBlocks, const u8* data) {
        const u64 bytes = u64{lengthBlocks} * BLOCK_BYTES;
        statistics->m_dataBytes += bytes;
        control.progress(offsetBlocks, view.sizeBlocks());
        return sink->write(offsetBlocks * BLOCK_BYTES, data, bytes);
    };
    u64 block = 0;
    while (block < view.sizeBlocks() || !ahead.empty()) {
        if (control.stopRequested())
            return Result(ResultCode::Interrupted, "interrupted; run the export again");
        if (ahead.full() || block >= view.sizeBlocks()) {
            if (Result result = ahead.finish(use); !result.ok())
                return result;
            continue;
        }
        u64 start = 0;
        u64 end = 0;
        if (Result result = extents.next(block, pieces.m_slotBlocks, &start, &end); !result.ok())
            return result;
        block = end;
        if (start < end) {
            if (Result result = ahead.start(start, static_cast<u32>(end - start)); !result.ok())
                return result;
        }
    }
    if (Result result = sink->finish(); !result.ok())
        return result;
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return Result();
}
