// Scans of a part of the journal: what was written between two points in time, at the cost of the
// items between them.
//
// Thread safety: a plain thread.
#pragma once

#include <string>

#include "RegionLocator/RegionLocator.h"
#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"
#include "host/journal/JournalScanner.h"

// Whether the container got no memory in time: a journal that cannot be read for want of a
// descriptor or of memory says so in the message.
inline bool isForWantOfMemory(const ScanResult& scanned)
{
    return (scanned.rc == RC_TIMED_OUT || scanned.rc == RC_NO_MEMORY) && scanned.message.empty();
}

// Has the container prepare at once or not at all, for few items at a time: then what speeds its
// index up gives way, and nobody waits for memory that nobody gives back.
void prepareAtOnce(ScanOptions& options);

// WrongUsage when the first point comes after the second.
Result checkSpan(const ChosenPoint& from, const ChosenPoint& to);

// Where a scan of all that came after the point starts. Damaged.
Result startAfter(Mirror& mirror, const ChosenPoint& point, JournalPtr* start);

// Hands the journal's items to the container, from options.start on; it waits a little for memory
// where the options do not say how long. Interrupted when control says
// so; Failed when the container got no memory in time, the message says how much `items` items may
// need; Damaged. what: names the work for messages, as in "index cp:3".
Result scanJournal(Mirror& mirror, SfsMetaDataContainer& container, ScanOptions options, u64 items,
                   const std::string& what, FlowControl& control, ScanResult* scanned);

// Fills an empty locator with what was written after `from` and up to `to`: for each block that
// was, the newest write of these. Results as scanJournal().
Result indexSpan(Mirror& mirror, const ChosenPoint& from, const ChosenPoint& to,
                 RegionLocator& locator, FlowControl& control, ScanResult* scanned);
