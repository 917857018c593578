// Reads of one file that lie close to each other, in as few calls as that takes.
//
//   pieces    [=====]  [=]    [======]               [==]
//   calls     |----------------------|               |--|
//
// A call costs what copying a few pages of the page cache does. So pieces with little between them
// are read by one call, which puts what lies between where nobody looks. Where such a call fails or
// ends early, its pieces are read one by one: a piece never suffers from what nobody asked for.
//
// Thread safety: any thread.
#pragma once

#include <span>

#include "host/journal/Storage.h"

struct FilePiece
{
    u64 m_offsetBytes;
    u64 m_bytes;
    u8* m_data;

    // The outcome.
    RcStatus m_rc;
    u64 m_doneBytes; // smaller only where the file ends
};

// The most that is read to be thrown away in one place.
constexpr u64 MOST_SKIPPED_BYTES = 8192;

// Reads the pieces in their order, up to the first one that fails, and returns its status; the
// outcome of those behind it is undefined. Only a piece that begins at or behind the end of the one
// before is read together with it. Takes no memory.
RcStatus readPieces(StorageFile& file, std::span<FilePiece> pieces);
