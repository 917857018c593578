#include "appliance/DirectReader.h"

#include <algorithm>
#include <cstring>

#include "common/infra/LogItem.h"
#include "host/journal/Compression.h"

namespace {

// The index is asked for so much of a request at a time, which bounds the list of pieces.
constexpr u32 WINDOW_BLOCKS = 1 << 14;

void count(std::atomic<u64>& counter, u64 bytes)
{
    if (bytes > 0)
        counter.fetch_add(bytes, std::memory_order_relaxed);
}

// Whether `next` goes on where `piece` ends, both in its grain and in the buffer.
bool goesOn(const StoredPiece& piece, const StoredPiece& next)
{
    return piece.m_address + piece.m_blocks == next.m_address &&
           piece.m_data + u64{piece.m_blocks} * BLOCK_BYTES == next.m_data &&
           SFS_GRAIN_OF(piece.m_address) == SFS_GRAIN_OF(next.m_address);
}

} // namespace

// A range, and what it is to be read from. The lists are kept by the thread, so that a request
// takes no memory once its thread is warm.
struct DirectReader::Window
{
    u64 m_offsetBlocks = 0;
    u32 m_lengthBlocks = 0;
    u8* m_data = nullptr;

    std::vector<SubRegionDescriptor> m_pieces;            // what the index has
    std::vector<FilePiece> m_target;                      // ascending
    std::vector<StoredPiece> m_plain;                     // ascending
    std::vector<const SubRegionDescriptor*> m_compressed; // those of one IO next to each other

    u8* at(u64 block) const { return m_data + (block - m_offsetBlocks) * BLOCK_BYTES; }

    // Sorts the pieces, and the gaps between them, by where they are read from. Returns how many
    // bytes were zeroed, as zeroes are not read.
    u64 sort()
    {
        m_target.clear();
        m_plain.clear();
        m_compressed.clear();
        u64 zeroBytes = 0;
        u64 block = m_offsetBlocks;
        for (const SubRegionDescriptor& piece : m_pieces) {
            addGap(block, piece.m_viewOffsetBlocks);
            u8* const data = at(piece.m_viewOffsetBlocks);
            block = piece.m_viewOffsetBlocks + piece.m_lengthBlocks;
            if (piece.isAllZeroes()) {
                std::memset(data, 0, u64{piece.m_lengthBlocks} * BLOCK_BYTES);
                zeroBytes += u64{piece.m_lengthBlocks} * BLOCK_BYTES;
            } else if (piece.isCompressed()) {
                m_compressed.push_back(&piece);
            } else {
                m_plain.push_back({piece.m_fifoOffsetOfIoStartBlocks, piece.m_lengthBlocks, data});
            }
        }
        addGap(block, m_offsetBlocks + m_lengthBlocks);
        std::sort(m_plain.begin(), m_plain.end(), [](const StoredPiece& a, const StoredPiece& b) {
            return a.m_address < b.m_address;
        });
        joinPlain();
        std::sort(m_compressed.begin(), m_compressed.end(), [](const auto* a, const auto* b) {
            return a->m_fifoOffsetOfIoStartBlocks < b->m_fifoOffsetOfIoStartBlocks;
        });
        return zeroBytes;
    }

private:
    void addGap(u64 begin, u64 end)
    {
        if (begin < end)
            m_target.push_back(
                {begin * BLOCK_BYTES, (end - begin) * BLOCK_BYTES, at(begin), RC_SUCCESS, 0});
    }

    void joinPlain()
    {
        size_t kept = 0;
        for (size_t i = 1; i < m_plain.size(); ++i) {
            if (goesOn(m_plain[kept], m_plain[i]))
                m_plain[kept].m_blocks += m_plain[i].m_blocks;
            else
                m_plain[++kept] = m_plain[i];
        }
        if (!m_plain.empty())
            m_plain.resize(kept + 1);
    }
};

RcStatus DirectReader::read(u64 offsetBlocks, u32 lengthBlocks, u8* data)
{
    const u64 size = m_mirror.settings().sizeBlocks();
    if (offsetBlocks > size || lengthBlocks > size - offsetBlocks)
        return RC_BAD_ARGUMENT;
    thread_local Window window;
    while (lengthBlocks > 0) {
        window.m_offsetBlocks = offsetBlocks;
        window.m_lengthBlocks = std::min(lengthBlocks, WINDOW_BLOCKS);
        window.m_data = data;
        const RcStatus rc = readWindow(window);
        if (rc != RC_SUCCESS)
            return rc;
        offsetBlocks += window.m_lengthBlocks;
        lengthBlocks -= window.m_lengthBlocks;
        data += u64{window.m_lengthBlocks} * BLOCK_BYTES;
    }
    return RC_SUCCESS;
}

RcStatus DirectReader::readWindow(Window& window)
{
    const GracePeriod::Reader reading(m_mirror.gracePeriod());
    m_locator.lookup(nullptr, window.m_offsetBlocks, window.m_lengthBlocks, &window.m_pieces, false,
                     nullptr);
    count(m_sources.m_zeroBytes, window.sort());
    RcStatus rc = readTarget(window);
    if (rc == RC_SUCCESS)
        rc = readPlain(window);
    const std::vector<const SubRegionDescriptor*>& compressed = window.m_compressed;
    for (size_t first = 0; first < compressed.size() && rc == RC_SUCCESS;) {
        size_t end = first + 1;
        while (end < compressed.size() && compressed[end]->m_fifoOffsetOfIoStartBlocks ==
                                              compressed[first]->m_fifoOffsetOfIoStartBlocks)
            ++end;
        rc = readCompressed(window, first, end);
        first = end;
    }
    return rc;
}

RcStatus DirectReader::readTarget(Window& window)
{
    u64 bytes = 0;
    const RcStatus rc = m_mirror.target().readNow(window.m_target);
    for (const FilePiece& piece : window.m_target) {
        if (piece.m_rc != RC_SUCCESS) {
            const u64 first = piece.m_offsetBytes / BLOCK_BYTES;
            LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
                << m_name << " of " << m_mirror.folder() << ": cannot read blocks " << first
                << " to " << first + piece.m_bytes / BLOCK_BYTES - 1
                << " of the target volume: " << rcStatusText(rc) << std::endl;
            return rc;
        }
        bytes += piece.m_bytes;
    }
    if (m_view != nullptr && bytes > 0) {
        if (const RcStatus confirmed = m_view->confirmTarget(); confirmed != RC_SUCCESS)
            return confirmed;
    }
    count(m_sources.m_targetBytes, bytes);
    return rc;
}

RcStatus DirectReader::readPlain(const Window& window)
{
    u64 badAddress = 0;
    const RcStatus rc = m_mirror.journal().readStoredNow(window.m_plain, &badAddress);
    u64 blocks = 0;
    for (const StoredPiece& piece : window.m_plain) {
        if (rc != RC_SUCCESS && badAddress >= piece.m_address &&
            badAddress < piece.m_address + piece.m_blocks)
            return refuse(rc,
                          window.m_offsetBlocks +
                              static_cast<u64>(piece.m_data - window.m_data) / BLOCK_BYTES +
                              (badAddress - piece.m_address),
                          badAddress);
        blocks += piece.m_blocks;
    }
    if (rc == RC_SUCCESS)
        count(m_sources.m_plainBytes, blocks * BLOCK_BYTES);
    return rc;
}

// The pieces [first, end) of the window's compressed ones, which are of one IO.
RcStatus DirectReader::readCompressed(const Window& window, size_t first, size_t end)
{
    const SubRegionDescriptor& io = *window.m_compressed[first];
    const u32 storedBytes = io.getIoTotalLengthBytes();
    u32 wantedBlocks = 0;
    for (size_t i = first; i < end; ++i) {
        const SubRegionDescriptor& piece = *window.m_compressed[i];
        wantedBlocks =
            std::max(wantedBlocks, u32{piece.m_regionOffsetLBsWithinIo} + piece.m_lengthBlocks);
    }
    PooledCompressionContext context;
    StoredPiece stored{io.m_fifoOffsetOfIoStartBlocks, io.getIoTotalLengthLBs(), nullptr};
    stored.m_data = context->gatherBuffer(stored.m_blocks * BLOCK_BYTES);
    u64 badAddress = stored.m_address;
    RcStatus rc = m_mirror.journal().readStoredNow({&stored, 1}, &badAddress);
    const u8* plain = nullptr;
    if (rc == RC_SUCCESS)
        rc = context->decompress(stored.m_data, storedBytes, wantedBlocks, &plain);
    if (rc != RC_SUCCESS)
        return refuse(rc, io.m_viewOffsetBlocks, badAddress);
    u64 blocks = 0;
    for (size_t i = first; i < end; ++i) {
        const SubRegionDescriptor& piece = *window.m_compressed[i];
        std::memcpy(window.at(piece.m_viewOffsetBlocks),
                    plain + u64{piece.m_regionOffsetLBsWithinIo} * BLOCK_BYTES,
                    u64{piece.m_lengthBlocks} * BLOCK_BYTES);
        blocks += piece.m_lengthBlocks;
    }
    count(m_sources.m_compressedBytes, blocks * BLOCK_BYTES);
    return RC_SUCCESS;
}

RcStatus DirectReader::refuse(RcStatus rc, u64 viewBlock, u64 address) const
{
    m_sources.m_badBlocks.fetch_add(1, std::memory_order_relaxed);
    LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
        << m_name << " of " << m_mirror.folder() << ": block " << viewBlock
        << " is not served: data grain " << SFS_GRAIN_OF(address) << " block "
        << address % SFS_GRAIN_BLOCKS << ": " << rcStatusText(rc) << std::endl;
    return rc;
}
