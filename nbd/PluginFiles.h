// How many files and connections the process may have open, and what that suffices for.
//
// Thread safety: any thread, after raiseFileLimit().
#pragma once

#include "appliance/FileBudget.h"
#include "appliance/Result.h"

// Raises the limit of open files as far as it may be. Failed: that is too few to serve a mirror.
Result raiseFileLimit();

// What the limit leaves to connections and views.
FileBudget& clientFiles();

// Counts the connection of the calling thread, until the thread ends: nbdkit gives each one of its
// own. False: its socket is one more than leaves enough for the mirror's files.
bool takeConnectionFile();
