// Remembers, in a file of the mirror's folder, that a trace is being recorded and from where, so
// that a recording that was interrupted, by whatever, can go on at the right line.
//
// Thread safety: the mirror's writer.
#pragma once

#include <string>

#include "appliance/Result.h"
#include "host/journal/Storage.h"

struct RecordState
{
    u64 m_digest = 0; // of the whole trace's lines
    u64 m_lines = 0;
    u64 m_itemsAtStart = 0; // journaled before its first line
};

Result storeRecordState(Storage& storage, const RecordState& state);
// NotFound: no recording was interrupted.
Result loadRecordState(Storage& storage, RecordState* state);
// Durable when it returns. For who journals anything else: it would be taken for lines of the
// trace.
Result removeRecordState(Storage& storage);
