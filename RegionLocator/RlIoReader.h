// Reads ranges of a volume's view: journal pieces from the journal, gaps from the target volume.
//
// The caller has asked a locator which pieces of each range lie in the journal, and holds them
// locked while it reads, where somebody may change the locator.
#pragma once

#include <string>
#include <vector>

#include "RegionLocator/SubRegionDescriptor.h"
#include "Sfs/JournalIoReader.h"

// Thread safety: any thread; a reader keeps no state between reads, so one serves many at once.
class RlIoReader : public JournalIoReader
{
public:
    // One range, its journal pieces and its destination.
    struct IoReadRequests
    {
        IoReadRequests(u64 a_offsetLb, u32 a_lenLb) : offsetBlocks(a_offsetLb), lenBlocks(a_lenLb)
        {}
        IoReadRequests(u64 a_offsetLb, u32 a_lenLb, std::vector<SubRegionDescriptor>& a_subRegions,
                       ScatteredBuf& a_scatteredBuf)
            : offsetBlocks(a_offsetLb), lenBlocks(a_lenLb), subRegions(a_subRegions),
              scatteredBuf(a_scatteredBuf)
        {}

        u64 offsetBlocks; // view offset
        u32 lenBlocks;
        std::vector<SubRegionDescriptor> subRegions; // ascending, not overlapping, each inside
        ScatteredBuf scatteredBuf;                   // lenBlocks * 512 bytes, in view order
    };

    RlIoReader(SfsInterface* sfs, IDriverProxy* drvProxy, const std::string& journalMetricsContext,
               u64 mirrorId);

    // Reads all ranges into their buffers, journal and target volume in flight together.
    //
    // RC_WAIT: the task is resumed with the outcome. RC_CORRUPTED_OBJECT: journal data does not
    // decompress; the mirror's stream is marked corrupted, and target reads may still be under way.
    // Otherwise the journal's failure, if there was one, else the target volume's. After a failure
    // the buffers' content is undefined.
    //
    // ios and its buffers live until the outcome; after RC_CORRUPTED_OBJECT until the reads of the
    // target volume are done too. REQUIRES: pieces as IoReadRequests says, else the process stops.
    // endTimeMs: deadline for the journal reads' memory, absolute monotonic milliseconds. Monitors:
    // null for none, not owned. verboseIoTopic: null, or what each line of a step-by-step log
    // begins with.
    RcStatus performReadFromSegments(AsyncTask* pAsyncTask, std::vector<IoReadRequests>& ios,
                                     u64 volumeId, AioPriority ioPriority,
                                     ModuleMemoryInformation* mmi, u64 endTimeMs,
                                     ISingleMonitor* rateMonitor,
                                     ISingleMonitor* uncompressRateMonitor,
                                     const char* verboseIoTopic);

private:
    friend class RegionLocatorTestAccess;

    // One run of the read's frame.
    RcStatus performReadFromSegments(AsyncTask* pAsyncTask, AsyncFrame* pFrame);

    // Splits one range into reads of the three kinds, appended to the vectors in view order. The
    // descriptors refer to slices of the range's own buffer: nothing is copied.
    void
    fillVectorsToReadFrom(u64 offsetBlocks, u32 lenBlocks,
                          const std::vector<SubRegionDescriptor>& subRegions,
                          ScatteredBuf& scatteredBuf, const char* verboseIoTopic,
                          std::vector<IODescriptorEx>* readFromSfsDescriptors,
                          std::vector<IODescriptorExCompressed>* readFromCompressedSfsDescriptors,
                          std::vector<IODescriptor>* readFromTargetVolumeDescriptors);
};
