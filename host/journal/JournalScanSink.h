// The container's side of a scan: takes pages and makes the container's calls in their order.
#pragma once

#include <atomic>

#include "host/journal/JournalScanner.h"

// Thread safety: one thread at a time.
class JournalScanSink
{
public:
    // All outlive the sink.
    JournalScanSink(SfsMetaDataContainer& container, const ScanOptions& options,
                    const std::atomic<bool>& cancelled);

    // Takes checked pages; those with a magic of 0 were left out. Returns whether more are wanted.
    bool takePages(const JournalPage* pages, u32 count);

    // The container's last calls. failure: why the scan could not go on, RC_SUCCESS for its end.
    // endPage: the first page that the scan would have read next.
    void finish(RcStatus failure, u64 endPage);

    ScanResult& result() { return m_result; }

private:
    bool takeItem(const JournalPage& page, u32 slot, u64 logicalIndex);
    bool prepareBatch();
    bool enterGrain(SfsDevAddr grain);
    void leaveGrain();
    void endBatch();
    bool stop(RcStatus rc);

    SfsMetaDataContainer& m_container;
    const ScanOptions& m_options;
    const std::atomic<bool>& m_cancelled;
    ScanResult m_result;
    u64 m_itemsLeftInChunk = 0; // at most so many items can still come before the next chunk
    u32 m_batchLeft = 0;        // items that the container is prepared for
    bool m_inBatch = false;
    JournalPtr m_inGrain = JournalPtr::invalid; // the grain entered, and its last entry walked
    bool m_ended = false;                       // by a stop, the limit or a failure
};
