// What the target volume holds: the mirror's file "applied".
//
//   m_items            of the journal are on the target, whole
//   m_towardItems      an apply that is under way brings it to; the same when none is
//   m_doneBlocks       below this view offset it has got there already
//
// While an apply is under way the target is of no point between the two: points before
// m_towardItems cannot be had any more. From there on all can, as a view finds everything that was
// written after m_items in the journal.
//
// Thread safety: plain values; one writer of the file at a time.
#pragma once

#include "Sfs/SfsMetaDataContainer.h"
#include "appliance/Result.h"
#include "host/journal/Storage.h"

struct ApplyState
{
    u64 m_items = 0;
    u64 m_towardItems = 0;
    u64 m_doneBlocks = 0;
    JournalPtr m_next = JournalPtr::invalid; // of the first item not on the target; invalid: the
                                             // journal's beginning

    bool underWay() const { return m_towardItems != m_items; }
    // The first point that can be served.
    u64 firstItems() const { return m_towardItems; }
};

// Durable when it returns; a crash leaves the old or the new state.
Result storeApplyState(Storage& storage, const ApplyState& state);

// Takes the room for that beforehand, where there is any: on a full disk an apply is what lets a
// trim make room again.
Result reserveApplyState(Storage& storage);

// A mirror without the file has a target that nothing was applied to. Damaged: then nobody knows
// which points can be served.
Result loadApplyState(Storage& storage, ApplyState* state);
