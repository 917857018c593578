// The status that every fallible operation of the data path returns by value.
//
// A status is passed on unchanged by whoever does not handle it. RC_WAIT is not a failure: the
// operation goes on by itself and the task that asked is put back on a ready queue when it is done.
#pragma once

#include "common/infra/Types.h"

enum RcStatus : u32
{
    RC_SUCCESS = 0,
    RC_FAILURE = 1, // a failure with no status of its own; the log says more
    RC_WAIT = 2,
    RC_ABORTED = 3,       // cancelled by its owner
    RC_TIMED_OUT = 4,     // the deadline passed first
    RC_NO_MEMORY = 5,     // a pool's limit left no room, and the caller would not wait
    RC_NO_SPACE = 6,      // the journal's limit or the disk is full
    RC_IO_ERROR = 7,      // a device or file refused
    RC_NOT_FOUND = 8,     // no such grain, checkpoint or volume
    RC_BAD_ARGUMENT = 9,  // a caller's value is out of range
    RC_BAD_CHECKSUM = 10, // stored bytes differ from their checksum; nothing was served
    RC_IN_USE = 11,       // somebody else owns it
    RC_DAMAGED = 12,      // stored structure is damaged beyond an incomplete end
    RC_STOP_EXCLUDE_CURRENT = 18,
    RC_STOP_INCLUDE_CURRENT = 19,
    RC_CORRUPTED_OBJECT = 22, // stored bytes are as they were written, but do not decompress
};

// The status as a word for people ("timed out"); never null.
inline const char* rcStatusText(RcStatus rc)
{
    switch (rc) {
    case RC_SUCCESS: return "success";
    case RC_FAILURE: return "failure";
    case RC_WAIT: return "waiting";
    case RC_ABORTED: return "aborted";
    case RC_TIMED_OUT: return "timed out";
    case RC_NO_MEMORY: return "out of memory";
    case RC_NO_SPACE: return "out of space";
    case RC_IO_ERROR: return "input/output error";
    case RC_NOT_FOUND: return "not found";
    case RC_BAD_ARGUMENT: return "bad argument";
    case RC_BAD_CHECKSUM: return "checksum mismatch";
    case RC_IN_USE: return "in use";
    case RC_DAMAGED: return "damaged";
    case RC_STOP_EXCLUDE_CURRENT: return "stop before the current item";
    case RC_STOP_INCLUDE_CURRENT: return "stop after the current item";
    case RC_CORRUPTED_OBJECT: return "corrupted object";
    }
    return "unknown status";
}
