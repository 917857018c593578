#include "appliance/Capture.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "appliance/ReadAhead.h"
#include "appliance/RecordState.h"
#include "appliance/Sizes.h"
#include "appliance/ViewExtents.h"
#include "host/journal/FileStorage.h"

namespace {

constexpr u32 SLOTS = 4;
constexpr u32 SLOT_BLOCKS = 4096; // 2 MiB

bool isZero(const u8* block)
{
    // All bytes equal their neighbour, and the first is zero.
    return block[0] == 0 && std::memcmp(block, block + 1, BLOCK_BYTES - 1) == 0;
}

class Capturer
{
public:
    Capturer(Mirror& mirror, TaskEngine& engine, const std::string& image, FlowControl& control,
             CaptureStatistics* statistics)
        : m_mirror(mirror), m_engine(engine), m_path(image), m_control(control),
          m_statistics(*statistics), m_imageData(SLOT_BLOCKS * BLOCK_BYTES)
    {}

    Result run();

private:
    enum class Kind
    {
        Same,
        Data,
        Zeroes,
    };

    Result openImage();
    Result nextExtent(u64 from, u64* start, u64* end);
    Result nextImageData(u64 from, u64* start, u64* end);
    Result compare(u64 offsetBlocks, u32 lengthBlocks, const u8* viewData);
    Result journalRun(Kind kind, u64 offsetBlocks, u32 lengthBlocks, const u8* data);
    Result journalZeroes();

    Mirror& m_mirror;
    TaskEngine& m_engine;
    std::string m_path;
    FlowControl& m_control;
    CaptureStatistics& m_statistics;
    std::unique_ptr<StorageFile> m_image;
    std::unique_ptr<View> m_view;
    std::unique_ptr<ViewExtents> m_extents;
    std::vector<u8> m_imageData;

    // Data found last on either side, so that each side is asked once for each of its runs.
    u64 m_viewStart = 0, m_viewEnd = 0;
    u64 m_imageStart = 0, m_imageEnd = 0;
    // Zeroes that may go on in the next piece.
    u64 m_zeroesStart = 0, m_zeroesEnd = 0;
};

Result Capturer::openImage()
{
    // Opening a pipe would wait for who writes to it.
    std::error_code error;
    const auto status = std::filesystem::status(m_path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status) &&
        !std::filesystem::is_block_file(status))
        return Result::failed("image " + m_path + " is neither a regular file nor a block device");
    RcStatus rc = PosixFile::open(m_path, StorageAccess::ReadOnly, &m_image);
    u64 size = 0;
    if (rc == RC_SUCCESS)
        rc = m_image->size(&size);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot open image " + m_path);
    if (size != m_mirror.settings().m_sizeBytes)
        return Result::usage("image " + m_path + " has " + std::to_string(size) +
                             " bytes, the mirror's volume " +
                             std::to_string(m_mirror.settings().m_sizeBytes));
    return Result();
}

Result Capturer::nextImageData(u64 from, u64* start, u64* end)
{
    u64 startBytes = 0;
    u64 endBytes = 0;
    const RcStatus rc = m_image->nextData(from * BLOCK_BYTES, &startBytes, &endBytes);
    const u64 size = m_view->sizeBlocks();
    const bool none = startBytes == endBytes;
    *start = none ? size : startBytes / BLOCK_BYTES;
    *end = none ? size : std::min(size, (endBytes + BLOCK_BYTES - 1) / BLOCK_BYTES);
    return Result::fromStatus(rc, "cannot find the data of image " + m_path);
}

// The next run at or after `from` where at least one side may have data.
Result Capturer::nextExtent(u64 from, u64* start, u64* end)
{
    if (m_viewEnd <= from && m_viewStart < m_view->sizeBlocks()) {
        if (Result result = m_extents->next(from, SLOT_BLOCKS, &m_viewStart, &m_viewEnd);
            !result.ok())
            return result;
    }
    if (m_imageEnd <= from && m_imageStart < m_view->sizeBlocks()) {
        if (Result result = nextImageData(from, &m_imageStart, &m_imageEnd); !result.ok())
            return result;
    }
    const u64 viewStart = std::max(m_viewStart, from);
    const u64 imageStart = std::max(m_imageStart, from);
    *start = std::min(viewStart, imageStart);
    *end = viewStart <= imageStart ? m_viewEnd : m_imageEnd;
    *end = std::min({*end, *start + SLOT_BLOCKS, m_view->sizeBlocks()});
    return Result();
}

Result Capturer::journalZeroes()
{
    if (m_zeroesStart == m_zeroesEnd)
        return Result();
    const u64 start = m_zeroesStart;
    const u64 length = m_zeroesEnd - m_zeroesStart;
    m_zeroesStart = m_zeroesEnd = 0;
    ++m_statistics.m_items;
    m_statistics.m_zeroedBytes += length * BLOCK_BYTES;
    return m_mirror.writeZeroes(start, length);
}

Result Capturer::journalRun(Kind kind, u64 offsetBlocks, u32 lengthBlocks, const u8* data)
{
    if (kind == Kind::Same)
        return Result();
    if (kind == Kind::Zeroes && m_zeroesEnd == offsetBlocks && m_zeroesStart < m_zeroesEnd) {
        m_zeroesEnd += lengthBlocks;
        return Result();
    }
    if (Result result = journalZeroes(); !result.ok())
        return result;
    if (kind == Kind::Zeroes) {
        m_zeroesStart = offsetBlocks;
        m_zeroesEnd = offsetBlocks + lengthBlocks;
        return Result();
    }
    ++m_statistics.m_items;
    m_statistics.m_changedBytes += u64{lengthBlocks} * BLOCK_BYTES;
    return m_mirror.write(offsetBlocks, data, lengthBlocks);
}

Result Capturer::compare(u64 offsetBlocks, u32 lengthBlocks, const u8* viewData)
{
    const u64 bytes = u64{lengthBlocks} * BLOCK_BYTES;
    u64 done = 0;
    const RcStatus rc =
        m_image->pread(m_imageData.data(), bytes, offsetBlocks * BLOCK_BYTES, &done);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot read image " + m_path);
    if (done < bytes)
        return Result::failed("image " + m_path + " became shorter while it was read");
    m_statistics.m_comparedBytes += bytes;
    m_control.progress(offsetBlocks, m_view->sizeBlocks());

    const auto kindOf = [&](u32 block) {
        const u8* image = m_imageData.data() + size_t{block} * BLOCK_BYTES;
        if (std::memcmp(image, viewData + size_t{block} * BLOCK_BYTES, BLOCK_BYTES) == 0)
            return Kind::Same;
        return isZero(image) ? Kind::Zeroes : Kind::Data;
    };
    u32 start = 0;
    Kind kind = kindOf(0);
    for (u32 block = 1; block <= lengthBlocks; ++block) {
        const bool last = block == lengthBlocks;
        const Kind next = last ? kind : kindOf(block);
        if (!last && next == kind)
            continue;
        if (Result result = journalRun(kind, offsetBlocks + start, block - start,
                                       m_imageData.data() + size_t{start} * BLOCK_BYTES);
            !result.ok())
            return result;
        start = block;
        kind = next;
    }
    return Result();
}

Result Capturer::run()
{
    if (Result result = openImage(); !result.ok())
        return result;
    ChosenPoint latest;
    latest.m_items = m_mirror.window().m_items;
    FlowControl silent; // the index is a small part of the work
    if (Result result = View::build(m_mirror, latest, silent, &m_view); !result.ok())
        return result;
    m_extents = std::make_unique<ViewExtents>(*m_view);
    ViewReader reader(*m_view);
    ReadAhead ahead(reader, m_engine, SLOTS, SLOT_BLOCKS);
    const auto use = [this](u64 offsetBlocks, u32 lengthBlocks, const u8* data) {
        return compare(offsetBlocks, lengthBlocks, data);
    };
    u64 block = 0;
    const u64 size = m_view->sizeBlocks();
    while (block < size || !ahead.empty()) {
        if (m_control.stopRequested()) {
            if (Result result = m_mirror.flush(); !result.ok())
                return result;
            return Result(ResultCode::Interrupted,
                          "interrupted, no checkpoint was set; capture again to complete it");
        }
        if (ahead.full() || block >= size) {
            if (Result result = ahead.finish(use); !result.ok())
                return result;
            continue;
        }
        u64 start = 0;
        u64 end = 0;
        if (Result result = nextExtent(block, &start, &end); !result.ok())
            return result;
        block = std::max(end, start);
        if (start < end) {
            if (Result result = ahead.start(start, static_cast<u32>(end - start)); !result.ok())
                return result;
        }
    }
    return journalZeroes();
}

} // namespace

Result captureImage(Mirror& mirror, TaskEngine& engine, const std::string& image,
                    const std::string& tag, FlowControl& control, CaptureStatistics* statistics)
{
    const u64 startedUs = Clock::instance()->nowUs();
    // What is journaled now would be taken for lines of a trace whose recording was interrupted.
    if (Result result = removeRecordState(mirror.storage()); !result.ok())
        return result;
    if (Result result = Capturer(mirror, engine, image, control, statistics).run(); !result.ok())
        return result;
    if (Result result = mirror.checkpoint(tag, &statistics->m_checkpoint); !result.ok())
        return result;
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return Result();
}
