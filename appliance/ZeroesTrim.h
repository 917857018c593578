// The part of a trim that takes zeroes out of the live index; TrimmedZeroes.h says how they are
// told from those that stay.
//
//   passes: gather some -> wait for writers -> flush -> scan the journal's rest -> remove
//
// The rest is scanned only where the index has zeroes where items went that were zeroes, without
// any lock, and no further than there are candidates; once for each MAX_RANGES runs of zeroes that
// the index has between the first and the last of these places.
//
// Thread safety: as trimMirror(). Writes and reads go on beside it.
#pragma once

#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"

// Remembers what an item that goes, ZEROS, may have left in the index. REQUIRES: the index stays
// meanwhile.
void noteTrimmedZeroes(Mirror& mirror, JournalIndex& index, const SfsDiskMetaItem& item);

// Takes out of the live index all zeroes of items before the journal's beginning thereabouts; does
// nothing when none was noted. trimmedItems: for the progress, which is that of the trim.
// Interrupted when control says so. Where the journal cannot be read or there is no memory, the
// log says so. In both cases what is left stays noted, for the next trim: it does no harm to
// whoever reads.
Result removeTrimmedZeroes(Mirror& mirror, FlowControl& control, u64 trimmedItems);
