#include "RegionLocator/RlIoReader.h"

#include <limits>

#include "common/headers/MultiFuture.h"

namespace {

constexpr u64 NO_TIMEOUT = std::numeric_limits<u64>::max();

// What one read keeps between the runs of its frame.
class ReadFromSegmentsContext : public FrameLocals
{
public:
    ReadFromSegmentsContext(std::vector<RlIoReader::IoReadRequests>& ios, u64 volumeId,
                            AioPriority ioPriority, ModuleMemoryInformation* mmi, u64 endTimeMs,
                            ISingleMonitor* rateMonitor, ISingleMonitor* uncompressRateMonitor,
                            const char* verboseIoTopic)
        : m_ios(ios), m_volumeId(volumeId), m_ioPriority(ioPriority), m_mmi(mmi),
          m_endTimeMs(endTimeMs), m_rateMonitor(rateMonitor),
          m_journalReadMonitor(rateMonitor != nullptr ? rateMonitor->Diverge() : nullptr),
          m_uncompressRateMonitor(uncompressRateMonitor), m_verboseIoTopic(verboseIoTopic),
          m_finalRc(RC_SUCCESS)
    {}
    ~ReadFromSegmentsContext() override { SHIELD_DELETE(m_journalReadMonitor); }

    std::vector<RlIoReader::IoReadRequests>& m_ios; // the caller's
    u64 m_volumeId;
    AioPriority m_ioPriority;
    ModuleMemoryInformation* m_mmi;
    u64 m_endTimeMs;
    ISingleMonitor* m_rateMonitor;
    ISingleMonitor* m_journalReadMonitor; // owned
    ISingleMonitor* m_uncompressRateMonitor;
    const char* m_verboseIoTopic;
    FutureStatus m_targetReadFuture; // of all target reads together
    RcStatus m_finalRc;              // the journal's failure, kept while the target is awaited
};

// States of the frame.
enum ReadState : int
{
    STATE_START = 0,
    STATE_JOURNAL_READ = 1,
    STATE_MARKED_CORRUPTED = 3,
    STATE_TARGET_READ = 100,
};

} // namespace

#define RL_READ_TRACE(...)                                                                         \
    do {                                                                                           \
        if (verboseIoTopic != nullptr)                                                             \
            LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 0)                               \
                << verboseIoTopic << __VA_ARGS__ << std::endl;                                     \
    } while (false)

RlIoReader::RlIoReader(SfsInterface* sfs, IDriverProxy* drvProxy,
                       const std::string& journalMetricsContext, u64 mirrorId)
    : JournalIoReader(sfs, drvProxy, journalMetricsContext, mirrorId)
{}

RcStatus RlIoReader::performReadFromSegments(AsyncTask* pAsyncTask,
                                             std::vector<IoReadRequests>& ios, u64 volumeId,
                                             AioPriority ioPriority, ModuleMemoryInformation* mmi,
                                             u64 endTimeMs, ISingleMonitor* rateMonitor,
                                             ISingleMonitor* uncompressRateMonitor,
                                             const char* verboseIoTopic)
{
    auto* frame = SHIELD_NEW(AsyncFrameCallback<RlIoReader>, "performReadFromSegments", this,
                             static_cast<AsyncFrameCallback<RlIoReader>::Operation>(
                                 &RlIoReader::performReadFromSegments));
    frame->setLocals(SHIELD_NEW(ReadFromSegmentsContext, ios, volumeId, ioPriority, mmi, endTimeMs,
                                rateMonitor, uncompressRateMonitor, verboseIoTopic));
    return performReadFromSegments(pAsyncTask, frame);
}

RcStatus RlIoReader::performReadFromSegments(AsyncTask* pAsyncTask, AsyncFrame* pFrame)
{
    FrameGuard fg(pAsyncTask, pFrame);
    auto* context = static_cast<ReadFromSegmentsContext*>(pFrame->getLocals());
    while (fg.loop()) {
        switch (fg.getState()) {
        case STATE_START: {
            std::vector<IODescriptorEx> fromJournal;
            std::vector<IODescriptorExCompressed> fromCompressed;
            std::vector<IODescriptor> fromTarget;
            for (IoReadRequests& io : context->m_ios)
                fillVectorsToReadFrom(io.offsetBlocks, io.lenBlocks, io.subRegions, io.scatteredBuf,
                                      context->m_verboseIoTopic, &fromJournal, &fromCompressed,
                                      &fromTarget);
            // The target reads are issued first and awaited last, so that both are in flight.
            u64 sizeFromDisk = 0;
            std::vector<FutureStatus> targetFutures;
            if (!fromTarget.empty()) {
                for (const IODescriptor& io : fromTarget)
                    sizeFromDisk += io.m_lengthBlocks;
                targetFutures.push_back(m_drvProxy->readVolume(context->m_volumeId, fromTarget,
                                                               context->m_ioPriority, 0));
            }
            context->m_targetReadFuture = MultiFuture_Status::createMultiFuture(targetFutures);
            if (context->m_rateMonitor != nullptr) {
                context->m_rateMonitor->addBytesPerformed(sizeFromDisk << BLOCK_SHIFT);
                context->m_rateMonitor->start(context->m_targetReadFuture);
            }
            fg.execute(performReadFromJournalIoDescriptors(
                pAsyncTask, fromJournal, fromCompressed, context->m_ioPriority, context->m_mmi,
                context->m_endTimeMs, context->m_journalReadMonitor,
                context->m_uncompressRateMonitor, nullptr));
            fg.setState(STATE_JOURNAL_READ);
            break;
        }
        case STATE_JOURNAL_READ:
            if (fg.getRc() == RC_CORRUPTED_OBJECT) {
                LogItem(LogModuleXel, CtrLevel, __PRETTY_FUNCTION__, 3)
                    << "Read IO returned corrupt. Probably due to decompression failure"
                    << std::endl;
                fg.setState(STATE_MARKED_CORRUPTED);
                fg.execute(m_sfs->setPersistentStreamStatus(pAsyncTask, m_mirrorId,
                                                            RC_CORRUPTED_OBJECT, 0));
                break;
            }
            if (fg.getRc() != RC_SUCCESS)
                context->m_finalRc = fg.getRc();
            fg.executeFuture(context->m_targetReadFuture, NO_TIMEOUT);
            fg.setState(STATE_TARGET_READ);
            break;
        case STATE_MARKED_CORRUPTED:
            SOFT_CHECK(false, << "decompression failed, set corrupted status:"
                              << " fg.getRc()=" << fg.getRc() << " ");
            return RC_CORRUPTED_OBJECT;
        case STATE_TARGET_READ:
            if (fg.getRc() != RC_SUCCESS)
                LogItem(LogModuleXel, WarnLevel, __PRETTY_FUNCTION__, 3)
                    << "failed reading IO from target" << std::endl;
            if (context->m_finalRc != RC_SUCCESS)
                fg.execute(context->m_finalRc);
            break;
        default: HARD_CHECK(0);
        }
    }
    return fg.getRc();
}

void RlIoReader::fillVectorsToReadFrom(
    u64 offsetBlocks, u32 lenBlocks, const std::vector<SubRegionDescriptor>& subRegions,
    ScatteredBuf& scatteredBuf, const char* verboseIoTopic,
    std::vector<IODescriptorEx>* readFromSfsDescriptors,
    std::vector<IODescriptorExCompressed>* readFromCompressedSfsDescriptors,
    std::vector<IODescriptor>* readFromTargetVolumeDescriptors)
{
    u32 remainingLengthBlocks = lenBlocks;
    RL_READ_TRACE(": performReadFromSegments remainingLengthBlocks : "
                  << remainingLengthBlocks << " subRegions.size()  " << subRegions.size());
    std::vector<ActiveApplyIO> journalIos;
    SOFT_CHECK(remainingLengthBlocks > 0, << "this function can't handle 0 length IOs");

    u64 curViewOffsetBlocks = offsetBlocks;
    u64 areaDataOffset = 0;
    size_t i = 0;
    while (remainingLengthBlocks > 0) {
        RL_READ_TRACE(": performReadFromSegments from where to read : "
                      << " curViewOffsetBlocks  " << curViewOffsetBlocks);
        u64 curLengthBlocks;
        if (i < subRegions.size() && subRegions[i].m_viewOffsetBlocks == curViewOffsetBlocks) {
            const SubRegionDescriptor& piece = subRegions[i];
            curLengthBlocks = piece.m_lengthBlocks;
            if (verboseIoTopic != nullptr) {
                LogItem line(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 0);
                line << verboseIoTopic << ":performReadFromSegments read from log offset : "
                     << piece.m_viewOffsetBlocks << " sfs offset  "
                     << piece.m_fifoOffsetOfIoStartBlocks << " m_lengthBlocks  "
                     << piece.m_lengthBlocks;
                if (piece.isCompressed())
                    line << " compressed IO size " << piece.getIoTotalLengthLBs()
                         << " offset in compressed IO " << piece.m_regionOffsetLBsWithinIo;
                else if (!piece.isAllZeroes() && !piece.isCscan())
                    line << " offset from orig io " << piece.m_regionOffsetLBsWithinIo;
                line << std::endl;
            }
            HARD_CHECK(remainingLengthBlocks >= curLengthBlocks);
            auto* slice =
                SHIELD_NEW(ScatteredBuf, scatteredBuf.getSubBuffer(areaDataOffset,
                                                                   curLengthBlocks << BLOCK_SHIFT));
            journalIos.emplace_back(piece, slice);
            ++i;
        } else {
            // A piece that starts before the current offset makes this wrap, and is caught below.
            curLengthBlocks = i < subRegions.size()
                                  ? subRegions[i].m_viewOffsetBlocks - curViewOffsetBlocks
                                  : remainingLengthBlocks;
            RL_READ_TRACE(": performReadFromSegments read from target volume : "
                          << curViewOffsetBlocks << " m_lengthBlocks  " << curLengthBlocks);
            HARD_CHECK(remainingLengthBlocks >= curLengthBlocks);
            IODescriptor io;
            io.m_offsetBlocks = curViewOffsetBlocks;
            io.m_lengthBlocks = static_cast<u32>(curLengthBlocks);
            io.m_data = scatteredBuf.getSubBuffer(areaDataOffset, curLengthBlocks << BLOCK_SHIFT);
            io.m_bRead = true;
            readFromTargetVolumeDescriptors->push_back(io);
        }
        areaDataOffset += curLengthBlocks << BLOCK_SHIFT;
        curViewOffsetBlocks += curLengthBlocks;
        remainingLengthBlocks -= static_cast<u32>(curLengthBlocks);
    }

    fillIoDescriptorVectors(journalIos, readFromSfsDescriptors, readFromCompressedSfsDescriptors);
    for (const ActiveApplyIO& io : journalIos)
        SHIELD_DELETE(io.m_data);
}
