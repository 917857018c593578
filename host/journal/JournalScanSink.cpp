#include "host/journal/JournalScanSink.h"

#include <algorithm>

#include "host/infra/Clock.h"

JournalScanSink::JournalScanSink(SfsMetaDataContainer& container, const ScanOptions& options,
                                 const std::atomic<bool>& cancelled)
    : m_container(container), m_options(options), m_cancelled(cancelled)
{}

bool JournalScanSink::takePages(const JournalPage* pages, u32 count)
{
    // Each chunk has its own batches: what it holds was not known before.
    m_batchLeft = 0;
    m_itemsLeftInChunk = 0;
    for (u32 i = 0; i < count; ++i)
        m_itemsLeftInChunk += pages[i].m_magic != 0 ? pages[i].m_count : 0;
    for (u32 i = 0; i < count; ++i) {
        const JournalPage& page = pages[i];
        if (page.m_magic == 0)
            continue;
        u64 logicalIndex = page.m_itemsBefore;
        m_result.itemsBefore = std::max(m_result.itemsBefore, logicalIndex);
        for (u32 slot = 0; slot < page.m_count; ++slot) {
            const bool begins = page.m_items[slot].is_io_type() && !page.continues(slot);
            if (!takeItem(page, slot, logicalIndex))
                return false;
            logicalIndex += begins ? 1 : 0;
            --m_itemsLeftInChunk;
        }
    }
    return true;
}

bool JournalScanSink::takeItem(const JournalPage& page, u32 slot, u64 logicalIndex)
{
    const JournalPtr ptr = journalPtr(page.m_number, slot);
    const SfsDiskMetaItem& item = page.m_items[slot];
    const bool begins = item.is_io_type() && !page.continues(slot);
    if (m_options.start.grain == ptr.grain && ptr.entryNum < m_options.start.entryNum) {
        m_result.itemsBefore = logicalIndex + (begins ? 1 : 0);
        return true;
    }
    m_result.next = ptr;
    if (begins && logicalIndex >= m_options.limitItems) {
        m_ended = true;
        return false;
    }
    if (ptr.grain != m_inGrain.grain)
        leaveGrain();
    if (m_batchLeft == 0 && !prepareBatch())
        return false;
    if (ptr.grain != m_inGrain.grain && !enterGrain(ptr.grain))
        return false;
    --m_batchLeft;
    m_inGrain.entryNum = ptr.entryNum;
    if (m_options.itemNumber != nullptr)
        *m_options.itemNumber = logicalIndex + (begins ? 1 : 0);
    const RcStatus rc = m_container.addMetaData(item, ptr);
    if (rc != RC_SUCCESS && rc != RC_STOP_INCLUDE_CURRENT)
        return stop(rc);
    ++m_result.physicalItems;
    m_result.last = ptr;
    m_result.next = slot + 1 < JOURNAL_PAGE_ITEMS ? journalPtr(page.m_number, slot + 1)
                                                  : journalPtr(page.m_number + 1, 0);
    if (begins) {
        ++m_result.logicalItems;
        m_result.itemsBefore = logicalIndex + 1;
    }
    return rc == RC_SUCCESS || stop(rc);
}

bool JournalScanSink::prepareBatch()
{
    endBatch();
    if (m_cancelled)
        return stop(RC_ABORTED);
    const u64 count = std::min<u64>(std::max(m_options.batchItems, 1U), m_itemsLeftInChunk);
    u64 endTime = ~u64{0};
    if (m_options.prepareTimeoutMs != ~u64{0})
        endTime = (m_options.nowMs ? m_options.nowMs() : Clock::instance()->nowMs()) +
                  m_options.prepareTimeoutMs;
    const FutureStatus ready = m_container.prepareToAdd(static_cast<int>(count), endTime);
    const RcStatus rc = ready.get();
    // Given back also after a failure: a part may have been reserved.
    m_inBatch = true;
    if (rc != RC_SUCCESS)
        return stop(rc);
    m_batchLeft = static_cast<u32>(count);
    return true;
}

bool JournalScanSink::enterGrain(SfsDevAddr grain)
{
    m_inGrain = {grain, 0};
    const RcStatus rc = m_container.metaGrainStarted(grain);
    return rc == RC_SUCCESS || stop(rc);
}

void JournalScanSink::leaveGrain()
{
    if (m_inGrain.grain != SFS_DEV_ADDR_INVALID)
        m_container.metaGrainFinished(m_inGrain.grain, m_inGrain.entryNum);
    m_inGrain = JournalPtr::invalid;
}

void JournalScanSink::endBatch()
{
    if (m_inBatch)
        m_container.unPrepareToAdd();
    m_inBatch = false;
    m_batchLeft = 0;
}

bool JournalScanSink::stop(RcStatus rc)
{
    m_ended = true;
    m_result.stopped = rc == RC_STOP_EXCLUDE_CURRENT || rc == RC_STOP_INCLUDE_CURRENT;
    if (!m_result.stopped)
        m_result.rc = rc;
    return false;
}

void JournalScanSink::finish(RcStatus failure, u64 endPage)
{
    leaveGrain();
    endBatch();
    m_container.done();
    if (m_ended)
        return;
    m_result.rc = failure;
    if (failure == RC_SUCCESS)
        m_result.next = journalPtr(endPage, 0);
}
