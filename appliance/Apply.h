// Apply: brings the target volume forward to a point, while views of later points are read.
//
//   journal -> scan of the items behind the target's point -> apply locator -> all of its data read
//              once, to be sure of it
//   again and again: getFirstBlocksAndLock -> read the journal -> write the target
//                    -> unlockAndRemove; now and then: sync the target, note how far it came
//
// The locator is drained from its lowest view offset on, so "how far it came" is one number. From
// the first byte that is written the target is of no point before the new one any more: that is
// noted durably before it; and before that, that the new point can be reached: everything that it
// takes from the journal was read and found whole. Views of later points do not see the change, as
// whatever is written here they find in the journal.
//
// Where there is no memory for the index of all that lies between, it goes to nearer points first,
// one after the other, each as above: so little memory makes an apply slow, and not impossible. One
// that was cut off and finds less memory than it had also goes by nearer points: until it has got
// to where it went, the target stays of none.
#pragma once

#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"
#include "host/tasks/TaskEngine.h"

struct ApplyOptions
{
    bool m_dryRun = false; // find out what there is to do, and what holds it
    // Most of the view that one step takes. REQUIRES: no journaled item is longer.
    u32 m_stepBlocks = 65535;
    // So much is written between two notes of how far it came.
    u64 m_noteEveryBlocks = (u64{128} << 20) / BLOCK_BYTES;
    double m_noteEverySeconds = 5;
};

struct ApplyStatistics
{
    u64 m_fromItems = 0; // where the target was
    u64 m_toItems = 0;
    u64 m_items = 0;        // that lie between
    u64 m_itemBytes = 0;    // of the volume, that those done cover; of one block twice where two do
    u64 m_dataBytes = 0;    // written, or to be written; of one block twice where two steps do
    u64 m_zeroBytes = 0;    // made holes
    bool m_resumed = false; // an apply to the same point that was cut off
    double m_seconds = 0;
};

// The target holds the point, durably, when it is done. A point that it holds already is done at
// once.
// NotFound: before the target's point; InUse: a held point, or one that somebody reads, lies before
// the one asked for; Damaged: something that the point takes from the journal cannot be read, the
// message says what. Nothing was changed by these, unless an apply was under way before: then
// points before the one asked for stay gone; or they came up after some steps, then the target is
// where the last one went. Interrupted, NoSpace, Failed: run it again, it goes on. Until then
// points before the one that it went to are gone, as the window tells.
// Thread safety: a plain thread; one apply or trim at a time. Writes, views and reads of the mirror
// may go on beside it.
Result applyMirror(Mirror& mirror, TaskEngine& engine, const ChosenPoint& to,
                   const ApplyOptions& options, FlowControl& control, ApplyStatistics* statistics);
// control is told of all data as moved twice: when it is read to be sure of it, and when it is
// copied. Zeroes move nothing.

// Why the mirror's target may not be brought to that many items: a hold or a use; InUse, or done.
// REQUIRES: the pins' latch.
Result checkPins(Storage& storage, u64 items);
