// How many files and connections the process may have open, and what that suffices for.
//
// Thread safety: any thread, after raiseFileLimit().
#pragma once

#include "appliance/Result.h"

// Raises the limit of open files as far as it may be. Failed: that is too few to serve a mirror.
Result raiseFileLimit();

// Whether the connections that there are, the newest included, leave enough descriptors for the
// mirror's files.
bool hasRoomForConnections();
