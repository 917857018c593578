// Trim: gives the journal's beginning, which the target volume holds by now, back to the file
// system.
//
//   plan -> look at who reads it -> new beginning, durable -> every IO that goes is taken out of
//   the open indexes, exactly -> readers that found it there finish -> the grains go
//   -> zeroes of items that went leave the live index (ZeroesTrim.h)
//
// A view that had a block from an IO that goes finds it on the target then: what the target holds
// is what the view found in the journal, as nothing newer may have been applied while it is open.
// So does the live volume, where the IO was the newest one; its index is then, region by region,
// the one that a restart builds from the journal. A view keeps its zeroes: they have no address by
// which they could be taken out below those who hold them locked, and the target holds them as
// well.
#pragma once

#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"
#include "host/tasks/TaskEngine.h"

struct TrimOptions
{
    bool m_dryRun = false; // find out what would go, and what holds it
};

struct TrimStatistics
{
    u64 m_items = 0; // that leave the journal
    u64 m_dataGrains = 0;
    u64 m_metaGrains = 0;
    u64 m_bytes = 0;      // of journal that they took
    u64 m_removedIos = 0; // taken out of open indexes, counted for each
    double m_seconds = 0;
};

// The journal begins, at the latest, behind the point's items; at the earliest a grain or so
// before, as only what is whole can go. Nothing to give back is a success. InUse: the target does
// not hold the point, or another process reads what would go, nothing was changed. Damaged;
// NoSpace, Failed: the new beginning may hold already, and the grains are removed when the mirror
// is opened for writing next. Thread safety: a plain thread; one apply or trim at a time. Writes,
// views and reads of the mirror may go on beside it. Waits for readers of what goes, unless control
// says to stop; closing a view may wait for a step of that.
Result trimMirror(Mirror& mirror, TaskEngine& engine, const ChosenPoint& to,
                  const TrimOptions& options, FlowControl& control, TrimStatistics* statistics);

// Takes one IO out of an index, waiting for those who hold its pieces locked. *removed: whether the
// index had any. RC_NO_MEMORY: no memory for it at once, nothing was removed.
RcStatus removeIoFromIndex(JournalIndex& index, TaskEngine& engine, const SfsDiskMetaItem& item,
                           bool* removed);
