// The host's log, written by nbdkit: errors and warnings wherever its log goes, the rest with -v.
#pragma once

// From now on; for the life of the process.
void logThroughNbdkit();
