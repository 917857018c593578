#include "tests/support/SectorContent.h"

#include <algorithm>
#include <cstring>

bool SectorContent::hasSector(u64 sector) const
{
    const auto found = m_pieces.find(sector / PIECE_SECTORS);
    return found != m_pieces.end() && found->second->m_written[sector % PIECE_SECTORS];
}

std::vector<u64> SectorContent::sectorOffsets() const
{
    std::vector<u64> offsets;
    for (const auto& [index, piece] : m_pieces) {
        for (u64 sector = 0; sector < PIECE_SECTORS; ++sector) {
            if (piece->m_written[sector])
                offsets.push_back((index * PIECE_SECTORS + sector) * SECTOR_BYTES);
        }
    }
    return offsets;
}

// Without memory for it nothing has changed.
SectorContent::Piece& SectorContent::toWrite(u64 piece)
{
    const auto found = m_pieces.find(piece);
    if (found != m_pieces.end() && found->second.use_count() == 1)
        return *found->second;
    const auto own = found == m_pieces.end() ? std::make_shared<Piece>()
                                             : std::make_shared<Piece>(*found->second);
    m_pieces[piece] = own;
    return *own;
}

void SectorContent::mark(Piece& piece, u64 from, u64 bytes)
{
    for (u64 sector = from / SECTOR_BYTES; sector * SECTOR_BYTES < from + bytes; ++sector) {
        m_sectors += piece.m_written[sector] ? 0 : 1;
        piece.m_written.set(sector);
    }
}

void SectorContent::write(u64 offset, const u8* data, u64 bytes)
{
    while (bytes > 0) {
        const u64 in = offset % PIECE_BYTES;
        const u64 step = std::min(bytes, PIECE_BYTES - in);
        Piece& piece = toWrite(offset / PIECE_BYTES);
        std::memcpy(piece.m_bytes.data() + in, data, step);
        mark(piece, in, step);
        offset += step;
        data += step;
        bytes -= step;
        m_size = std::max(m_size, offset);
    }
}

void SectorContent::truncate(u64 sizeBytes)
{
    m_size = sizeBytes;
    const u64 last = sizeBytes / PIECE_BYTES;
    for (auto it = m_pieces.upper_bound(last); it != m_pieces.end(); it = m_pieces.erase(it))
        m_sectors -= it->second->m_written.count();
    if (m_pieces.count(last) == 0)
        return;
    Piece& piece = toWrite(last);
    const u64 keep = sizeBytes % PIECE_BYTES;
    std::fill(piece.m_bytes.begin() + static_cast<std::ptrdiff_t>(keep), piece.m_bytes.end(),
              u8{0});
    for (u64 sector = (keep + SECTOR_BYTES - 1) / SECTOR_BYTES; sector < PIECE_SECTORS; ++sector) {
        m_sectors -= piece.m_written[sector] ? 1 : 0;
        piece.m_written.reset(sector);
    }
    if (piece.m_written.none())
        m_pieces.erase(last);
}

void SectorContent::read(u64 offset, u8* out, u64 bytes) const
{
    std::memset(out, 0, bytes);
    for (auto it = m_pieces.lower_bound(offset / PIECE_BYTES); it != m_pieces.end(); ++it) {
        const u64 begin = it->first * PIECE_BYTES;
        if (begin >= offset + bytes)
            break;
        const u64 from = std::max(begin, offset);
        const u64 to = std::min(begin + PIECE_BYTES, offset + bytes);
        std::memcpy(out + (from - offset), it->second->m_bytes.data() + (from - begin), to - from);
    }
}

u8 SectorContent::byteAt(u64 offset) const
{
    const auto found = m_pieces.find(offset / PIECE_BYTES);
    return found == m_pieces.end() ? u8{0} : found->second->m_bytes[offset % PIECE_BYTES];
}

void SectorContent::setByte(u64 offset, u8 value)
{
    Piece& piece = toWrite(offset / PIECE_BYTES);
    piece.m_bytes[offset % PIECE_BYTES] = value;
    mark(piece, offset % PIECE_BYTES, 1);
}

SectorContent SectorContent::ownCopy() const
{
    SectorContent copy = *this;
    for (auto& [index, piece] : copy.m_pieces)
        piece = std::make_shared<Piece>(*piece);
    return copy;
}
