// Finds an item by its number, without walking the items before it.
//
// Every metadata page says how many requests came before it, so a binary search over the pages
// costs a few reads of one page each, however long the journal is.
//
// Thread safety: any thread.
#pragma once

#include <string>

#include "host/journal/JournalStore.h"

// The first entry behind the journal's first `items` requests, all pieces of the last one passed:
// where a scan of all that came later starts. Checkpoints that lie right there are behind it. With
// 0, or when the journal begins behind these requests, the journal's beginning.
//
// RC_SUCCESS; RC_BAD_ARGUMENT: the journal has fewer requests; RC_DAMAGED: a page that
// it takes is not intact (with salvage such pages are passed over); RC_IO_ERROR. *message: for
// people, when it fails.
RcStatus findEndOfItems(JournalStore& store, u64 items, JournalPtr* end, std::string* message);
