// Walks the journal's items and hands them to a container in the calling order that
// Sfs/SfsMetaDataContainer.h tells.
//
// Pages are read and checked in large pieces. A container that wants to be offloaded is called from
// a second thread while this one reads and checks ahead; all its calls come from one thread.
//
// Thread safety: one scan at a time per scanner; cancel() and progress from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "Sfs/SfsMetaDataContainer.h"
#include "host/journal/JournalStore.h"

struct ScanOptions
{
    JournalPtr start = JournalPtr::invalid; // the first item to hand over; invalid: the journal's
    u64 limitItems = ~u64{0}; // logical items from the journal's beginning: the scan ends before
                              // the request after that many
    u32 batchItems = 4096;
    u64 prepareTimeoutMs = ~u64{0}; // for each batch, from its beginning; all ones: no limit
    std::function<u64()> nowMs;     // the monotonic clock; empty: the process-wide one

    // Set before each item is handed over to the number of its request, from 1 at the journal's
    // beginning, by the thread that hands over; a checkpoint has that of the request before it.
    u64* itemNumber = nullptr;

    // Called about once a megabyte of metadata with pages done and pages in all.
    std::function<void(u64 donePages, u64 allPages)> progress;
};

struct ScanResult
{
    // RC_SUCCESS (also when the container stopped it), RC_ABORTED (cancelled), RC_DAMAGED,
    // RC_IO_ERROR, RC_NO_MEMORY (the heap gave nothing; what was handed over is a part), or
    // RC_BAD_ARGUMENT (a start outside of the journal), or the container's failure.
    RcStatus rc = RC_SUCCESS;
    std::string message;                   // for people, when rc is a failure of the journal
    u64 logicalItems = 0;                  // requests handed over of which the first piece was
    u64 physicalItems = 0;                 // all items handed over, checkpoints too
    u64 itemsBefore = 0;                   // logical items of the journal up to the end of the scan
    bool stopped = false;                  // by the container
    JournalPtr last = JournalPtr::invalid; // the last item handed over and not excluded
    JournalPtr next = JournalPtr::invalid; // where a scan that goes on starts
};

class JournalScanner
{
public:
    // store: outlives the scanner. What it has flushed by the start of a scan is scanned.
    explicit JournalScanner(JournalStore& store) : m_store(store) {}

    ScanResult scan(SfsMetaDataContainer& container, const ScanOptions& options = {});

    // Ends a running scan, and every later one, with RC_ABORTED at the next batch. A container that
    // waits for memory is its owner's to abort.
    void cancel() { m_cancelled = true; }

private:
    JournalStore& m_store;
    std::atomic<bool> m_cancelled{false};
};
