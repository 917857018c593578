// The bytes of a file of CrashStorage, and which of its sectors were ever written.
//
// They are kept in pieces of several sectors; a copy shares them until one of both writes there. A
// sync, which makes a copy of all, then costs what was written since the last one, and not what the
// file holds: the tests that fail every call of a play sync thousands of times.
//
// Thread safety: a content and its copies are used under one mutex; ownCopy() gives one that has
// nothing in common with them any more.
#pragma once

#include <array>
#include <bitset>
#include <map>
#include <memory>
#include <vector>

#include "common/infra/Types.h"

class SectorContent
{
public:
    static constexpr u32 SECTOR_BYTES = 512;

    u64 size() const { return m_size; }

    // The sectors that were written and not cut off since.
    u64 sectors() const { return m_sectors; }
    bool hasSector(u64 sector) const;
    std::vector<u64> sectorOffsets() const; // bytes

    // Grows the file where the write ends beyond it.
    void write(u64 offset, const u8* data, u64 bytes);
    void truncate(u64 sizeBytes);

    // Within the file; what was never written is zeroes.
    void read(u64 offset, u8* out, u64 bytes) const;

    // For damage: of any sector, and without a say in the size.
    u8 byteAt(u64 offset) const;
    void setByte(u64 offset, u8 value);

    SectorContent ownCopy() const;

private:
    static constexpr u32 PIECE_SECTORS = 16;
    static constexpr u32 PIECE_BYTES = PIECE_SECTORS * SECTOR_BYTES;

    struct Piece // bytes of sectors that were not written are zeroes
    {
        std::bitset<PIECE_SECTORS> m_written;
        std::array<u8, PIECE_BYTES> m_bytes{};
    };

    // One that nobody else sees; made where there is none.
    Piece& toWrite(u64 piece);
    // Marks the sectors that these bytes, within one piece, lie in.
    void mark(Piece& piece, u64 from, u64 bytes);

    u64 m_size = 0;
    u64 m_sectors = 0;
    std::map<u64, std::shared_ptr<Piece>> m_pieces; // by offset / PIECE_BYTES
};
