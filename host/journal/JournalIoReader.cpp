#include "Sfs/JournalIoReader.h"

#include <algorithm>
#include <cstring>

#include "common/infra/MemoryPoolImpl.h"
#include "common/infra/Tweaks.h"
#include "host/journal/Compression.h"

namespace {

using Pool = Singleton<MemoryPoolImpl, MemoryPoolImpl>;

constexpr u64 DEFAULT_ROUND_BYTES = 4 << 20;
constexpr u64 NO_TIMEOUT = ~u64{0};

enum ReadState
{
    Start,
    GetMemory,
    ReadRound,
    DecompressRound,
    WaitForPlain,
    End,
};

u32 storedBlocksOf(const IODescriptorExCompressed& io)
{
    return (io.m_compIoLengthBytes >> BLOCK_SHIFT) +
           (io.m_compIoLengthBytes % BLOCK_BYTES != 0 ? 1 : 0);
}

// Copies plain bytes into a scattered destination of exactly that size.
void scatter(const u8* from, ScatteredBuf& to)
{
    for (u32 i = 0; i < to.getSegmentsCount(); ++i) {
        std::memcpy(to.getSegment(i).getPtr(), from, to.getSegment(i).getSize());
        from += to.getSegment(i).getSize();
    }
}

void zero(ScatteredBuf& to)
{
    for (u32 i = 0; i < to.getSegmentsCount(); ++i)
        std::memset(to.getSegment(i).getPtr(), 0, to.getSegment(i).getSize());
}

// What one read keeps between its steps.
class JournalReadContext : public FrameLocals
{
public:
    ~JournalReadContext() override { m_memory.deleteContent(); }

    // Pieces of the same stored IO are next to each other.
    void sortCompressed()
    {
        std::stable_sort(
            m_compressed.begin(), m_compressed.end(),
            [](const auto& a, const auto& b) { return a.m_offsetBlocks < b.m_offsetBlocks; });
    }

    // One past the last piece that wants the same stored IO.
    size_t endOfIo(size_t first) const
    {
        size_t end = first + 1;
        while (end < m_compressed.size() &&
               m_compressed[end].m_offsetBlocks == m_compressed[first].m_offsetBlocks)
            ++end;
        return end;
    }

    // Chooses the pieces of the next round: as many whole IOs as the bytes allow, at least one.
    void beginRound(u32 maxBytes)
    {
        m_roundBegin = m_roundEnd;
        m_roundBytes = 0;
        while (m_roundEnd < m_compressed.size()) {
            const u64 bytes = u64{storedBlocksOf(m_compressed[m_roundEnd])} * BLOCK_BYTES;
            if (m_roundBytes != 0 && m_roundBytes + bytes > maxBytes)
                break;
            m_roundBytes += static_cast<u32>(bytes);
            m_roundEnd = endOfIo(m_roundEnd);
        }
    }

    std::vector<IODescriptorEx> roundReads() const
    {
        std::vector<IODescriptorEx> reads;
        u64 at = 0;
        for (size_t i = m_roundBegin; i < m_roundEnd; i = endOfIo(i)) {
            IODescriptorEx read = m_compressed[i];
            read.m_lengthBlocks = storedBlocksOf(m_compressed[i]);
            const u64 bytes = u64{read.m_lengthBlocks} * BLOCK_BYTES;
            read.m_data = m_memory.getSubBuffer(at, bytes);
            at += bytes;
            reads.push_back(std::move(read));
        }
        return reads;
    }

    RcStatus decompressRound(JournalMetricsMonitor& metrics)
    {
        PooledCompressionContext context;
        u64 at = 0;
        for (size_t i = m_roundBegin; i < m_roundEnd;) {
            const size_t end = endOfIo(i);
            const u64 bytes = u64{storedBlocksOf(m_compressed[i])} * BLOCK_BYTES;
            const RcStatus rc =
                decompressIo(*context.get(), m_memory.getSubBuffer(at, bytes), i, end, metrics);
            if (rc != RC_SUCCESS)
                return rc;
            at += bytes;
            i = end;
        }
        return RC_SUCCESS;
    }

    // Decompresses as far as the last of the pieces [first, end) reaches, once for all of them.
    RcStatus decompressIo(CompressionContext& context, ScatteredBuf stored, size_t first,
                          size_t end, JournalMetricsMonitor& metrics)
    {
        const u32 storedBytes = m_compressed[first].m_compIoLengthBytes;
        const u8* bytes = stored.getSegment(0).getPtr();
        if (stored.getSegmentsCount() > 1) {
            u8* gathered = context.gatherBuffer(static_cast<u32>(stored.getSize()));
            bytes = gathered;
            for (u32 i = 0; i < stored.getSegmentsCount(); ++i) {
                std::memcpy(gathered, stored.getSegment(i).getPtr(),
                            stored.getSegment(i).getSize());
                gathered += stored.getSegment(i).getSize();
            }
        }
        u32 wantedBlocks = 0;
        for (size_t i = first; i < end; ++i)
            wantedBlocks = std::max(wantedBlocks, u32{m_compressed[i].m_regionOffsetLbWithinIo} +
                                                      m_compressed[i].m_regionLengthBlocks);
        const u8* plain = nullptr;
        const RcStatus rc = context.decompress(bytes, storedBytes, wantedBlocks, &plain);
        if (rc != RC_SUCCESS)
            return rc;
        metrics.m_compressedBytes += storedBytes;
        metrics.m_uncompressedBytes += u64{wantedBlocks} * BLOCK_BYTES;
        m_uncompressedBytes += u64{wantedBlocks} * BLOCK_BYTES;
        for (size_t i = first; i < end; ++i)
            scatter(plain + u64{m_compressed[i].m_regionOffsetLbWithinIo} * BLOCK_BYTES,
                    m_compressed[i].m_data);
        return RC_SUCCESS;
    }

    std::vector<IODescriptorExCompressed> m_compressed;
    AioPriority m_priority = AioPriority::Normal;
    ModuleMemoryInformation* m_mmi = nullptr;
    u64 m_endTimeMs = 0;
    ISingleMonitor* m_readMonitor = nullptr;
    ISingleMonitor* m_uncompressMonitor = nullptr;
    void* m_cancelToken = nullptr;

    FutureStatus m_plainFuture; // of all plain pieces
    RcStatus m_finalRc = RC_SUCCESS;
    size_t m_roundBegin = 0;
    size_t m_roundEnd = 0;
    u32 m_roundBytes = 0;
    u64 m_uncompressedBytes = 0; // in this round
    ScatteredBuf m_memory;       // of the round, from the pool
};

bool areConsistent(const std::vector<IODescriptorEx>& uncompressed,
                   const std::vector<IODescriptorExCompressed>& compressed)
{
    const auto fits = [](const IODescriptorEx& io) {
        return io.m_data.getSize() == u64{io.m_lengthBlocks} * BLOCK_BYTES;
    };
    return std::all_of(uncompressed.begin(), uncompressed.end(), fits) &&
           std::all_of(compressed.begin(), compressed.end(), [&](const auto& io) {
               return io.m_data.getSize() == u64{io.m_regionLengthBlocks} * BLOCK_BYTES &&
                      io.m_regionLengthBlocks > 0 && io.m_compIoLengthBytes > 0;
           });
}

} // namespace

JournalIoReader::JournalIoReader(SfsInterface* sfs, IDriverProxy* drvProxy,
                                 std::string journalMetricsContext, u64 mirrorId)
    : m_sfs(sfs), m_drvProxy(drvProxy),
      t_maxBufBytesForUncompress(
          static_cast<u32>(Tweaks::uintVal("t_maxBufBytesForUncompress", DEFAULT_ROUND_BYTES))),
      m_mirrorId(mirrorId)
{
    m_metricsMonitor.m_context = std::move(journalMetricsContext);
}

JournalIoReader::~JournalIoReader() = default;

void JournalIoReader::fillIoDescriptorVectors(const std::vector<ActiveApplyIO>& journalIos,
                                              std::vector<IODescriptorEx>* uncompressed,
                                              std::vector<IODescriptorExCompressed>* compressed)
{
    for (const ActiveApplyIO& io : journalIos) {
        IODescriptorExCompressed read;
        read.m_offsetBlocks =
            io.isAllZeroes() ? SFS_DEV_ADDR_INVALID : io.m_fifoOffsetOfIoStartBlocks;
        read.m_lengthBlocks = io.m_lengthBlocks;
        read.m_data = *io.m_data;
        read.m_devId = m_mirrorId;
        if (!io.isCompressed()) {
            uncompressed->push_back(std::move(read));
            continue;
        }
        read.m_compIoLengthBytes = io.getIoTotalLengthBytes();
        read.m_regionOffsetLbWithinIo = io.m_regionOffsetLBsWithinIo;
        read.m_regionLengthBlocks = io.m_lengthBlocks;
        read.m_isCscan = io.isCscan();
        compressed->push_back(std::move(read));
    }
}

RcStatus JournalIoReader::performReadFromJournalIoDescriptors(
    AsyncTask* pAsyncTask, std::vector<IODescriptorEx>& uncompressed,
    std::vector<IODescriptorExCompressed>& compressed, AioPriority ioPriority,
    ModuleMemoryInformation* mmi, u64 endTimeMs, ISingleMonitor* readMonitor,
    ISingleMonitor* uncompressMonitor, CancelToken* cancelToken)
{
    if (!areConsistent(uncompressed, compressed))
        return RC_BAD_ARGUMENT;
    auto* context = SHIELD_NEW(JournalReadContext);
    context->m_compressed = compressed;
    context->sortCompressed();
    context->m_priority = ioPriority;
    context->m_mmi = mmi != nullptr ? mmi : Pool::instance()->getMmi("JournalIoReader");
    context->m_endTimeMs = endTimeMs;
    context->m_readMonitor = readMonitor;
    context->m_uncompressMonitor = uncompressMonitor;
    // The pool only compares tokens, and never looks behind them.
    context->m_cancelToken = cancelToken != nullptr ? static_cast<void*>(cancelToken) : context;

    std::vector<IODescriptorEx> plain;
    plain.reserve(uncompressed.size());
    u64 plainBytes = 0;
    for (IODescriptorEx& io : uncompressed) {
        if (io.m_offsetBlocks == SFS_DEV_ADDR_INVALID) {
            zero(io.m_data);
            m_metricsMonitor.m_zeroBytes += io.m_data.getSize();
            continue;
        }
        plainBytes += io.m_data.getSize();
        plain.push_back(io);
    }
    m_metricsMonitor.m_plainBytes += plainBytes;
    if (plain.empty())
        context->m_plainFuture.set(RC_SUCCESS);
    else
        context->m_plainFuture = m_sfs->readStored(plain, ioPriority);
    if (readMonitor != nullptr) {
        readMonitor->addBytesPerformed(plainBytes);
        readMonitor->start(context->m_plainFuture);
    }

    AsyncFrame* frame =
        SHIELD_NEW(AsyncFrameCallback<JournalIoReader>, "performReadFromJournalIoDescriptors", this,
                   &JournalIoReader::readFrame);
    frame->setLocals(context);
    return readFrame(pAsyncTask, frame);
}

// The plain reads are in flight all the while. Compressed IOs follow in rounds: memory, read,
// decompression. Whatever fails, the plain reads are waited for, as they write to the caller's
// memory.
RcStatus JournalIoReader::readFrame(AsyncTask* pAsyncTask, AsyncFrame* pFrame)
{
    FrameGuard fg(pAsyncTask, pFrame);
    auto* context = static_cast<JournalReadContext*>(pFrame->getLocals());
    const auto failRound = [&](RcStatus rc) {
        context->m_memory.deleteContent();
        context->m_finalRc = rc;
        fg.execute(RC_SUCCESS);
        fg.setState(WaitForPlain);
    };
    while (fg.loop()) {
        switch (fg.getState()) {
        case Start:
        case GetMemory:
            context->beginRound(t_maxBufBytesForUncompress);
            if (context->m_roundBegin == context->m_roundEnd) {
                fg.execute(RC_SUCCESS);
                fg.setState(WaitForPlain);
                break;
            }
            fg.setState(ReadRound);
            fg.executeFuture(Pool::instance()->fillBufFutureWithTimeout(
                                 m_mirrorId, &context->m_memory, context->m_roundBytes,
                                 context->m_mmi, context->m_endTimeMs, context->m_cancelToken),
                             NO_TIMEOUT);
            break;
        case ReadRound: {
            if (fg.getRc() != RC_SUCCESS) {
                failRound(fg.getRc());
                break;
            }
            const FutureStatus read = m_sfs->readStored(context->roundReads(), context->m_priority);
            if (context->m_readMonitor != nullptr)
                context->m_readMonitor->addBytesPerformed(context->m_roundBytes);
            fg.setState(DecompressRound);
            fg.executeFuture(read, NO_TIMEOUT);
            break;
        }
        case DecompressRound: {
            if (fg.getRc() != RC_SUCCESS) {
                failRound(fg.getRc());
                break;
            }
            const FutureStatus decompressed;
            context->m_uncompressedBytes = 0;
            if (context->m_uncompressMonitor != nullptr)
                context->m_uncompressMonitor->start(decompressed);
            const RcStatus rc = context->decompressRound(m_metricsMonitor);
            if (context->m_uncompressMonitor != nullptr)
                context->m_uncompressMonitor->addBytesPerformed(context->m_uncompressedBytes);
            decompressed.set(rc);
            if (rc != RC_SUCCESS) {
                failRound(rc);
                break;
            }
            context->m_memory.deleteContent();
            fg.execute(RC_SUCCESS);
            fg.setState(GetMemory);
            break;
        }
        case WaitForPlain:
            fg.setState(End);
            fg.executeFuture(context->m_plainFuture, NO_TIMEOUT);
            break;
        case End:
            if (fg.getRc() == RC_SUCCESS || context->m_finalRc == RC_CORRUPTED_OBJECT)
                fg.execute(context->m_finalRc);
            if (fg.getRc() != RC_SUCCESS)
                ++m_metricsMonitor.m_failures;
            break;
        default: HARD_CHECK(0);
        }
    }
    return fg.getRc();
}
