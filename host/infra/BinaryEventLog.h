// The binary event log as a file.
//
// A file header of 64 bytes, then records of 64 bytes each, all numbers little-endian, each block
// of 64 bytes with its own checksum. A record's place follows from its number, so that a damaged
// one costs nothing but itself.
#pragma once

#include <string>
#include <vector>

#include "common/infra/Types.h"
#include "host/infra/Outcome.h"

struct BinaryEvent
{
    u64 m_number; // from 0 in each file; a gap means that records were lost
    u64 m_monotonicUs;
    u64 m_wallTimeUs;
    u32 m_code;
    u8 m_kind;
    u64 m_viewOffsetBlocks;
    u64 m_lengthBlocks;
    u64 m_journalAddressBlocks;
};

// Writes every record of BinaryLogger to a file. One open log a process.
class BinaryEventLog
{
public:
    // Creates the file anew and takes over the logger's sink. RC_IO_ERROR: nothing has changed.
    static Outcome open(const std::string& path);

    // Brings what has been logged to the file.
    static Outcome flush();

    // Flushes, closes and gives the logger its sink from before back. RC_IO_ERROR when a write has
    // failed since open(): the records from there on are not in the file.
    static Outcome close();
};

// What a file holds, however damaged.
struct BinaryEventFile
{
    std::vector<BinaryEvent> m_events; // those that are whole, in file order
    std::vector<u64> m_damagedAtBytes; // file offsets of records with a wrong checksum
    u64 m_cutBytes = 0;                // bytes of an incomplete record at the end
};

// Reads a file. RC_IO_ERROR: it cannot be read. RC_DAMAGED: it is no event log, or its header is
// damaged or cut off. RC_BAD_ARGUMENT: of a version that this program does not know. Damage behind
// the header is told in the result and is no failure.
Outcome readBinaryEvents(const std::string& path, BinaryEventFile* result);
