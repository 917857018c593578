#include "host/journal/FilePieces.h"

#include <array>

namespace {

// Of one call: every other one is for what lies between two pieces.
constexpr size_t MOST_PLACES = 128;

// One call that reads some pieces, and the places for it.
class Span
{
public:
    // How many of the pieces it takes, at least one.
    size_t plan(std::span<const FilePiece> pieces)
    {
        m_offsetBytes = m_endBytes = pieces[0].m_offsetBytes;
        m_places = 0;
        size_t taken = 0;
        for (const FilePiece& piece : pieces) {
            const u64 skipped = piece.m_offsetBytes - m_endBytes; // huge where it lies before
            if (skipped > MOST_SKIPPED_BYTES || m_places + 2 > MOST_PLACES)
                break;
            if (skipped > 0)
                m_iov[m_places++] = {m_unseen.data(), skipped};
            m_iov[m_places++] = {piece.m_data, piece.m_bytes};
            m_endBytes = piece.m_offsetBytes + piece.m_bytes;
            ++taken;
        }
        return taken;
    }

    // Whether one call read all of it.
    bool read(StorageFile& file)
    {
        u64 doneBytes = 0;
        return file.preadv(m_iov.data(), static_cast<int>(m_places), m_offsetBytes, &doneBytes) ==
                   RC_SUCCESS &&
               doneBytes == m_endBytes - m_offsetBytes;
    }

private:
    u64 m_offsetBytes = 0;
    u64 m_endBytes = 0;
    size_t m_places = 0;
    std::array<iovec, MOST_PLACES> m_iov;
    std::array<u8, MOST_SKIPPED_BYTES> m_unseen;
};

} // namespace

RcStatus readPieces(StorageFile& file, std::span<FilePiece> pieces)
{
    Span span;
    while (!pieces.empty()) {
        const size_t count = span.plan(pieces);
        const bool isRead = count > 1 && span.read(file);
        for (FilePiece& piece : pieces.first(count)) {
            piece.m_rc = RC_SUCCESS;
            piece.m_doneBytes = piece.m_bytes;
            if (!isRead)
                piece.m_rc = file.pread(piece.m_data, piece.m_bytes, piece.m_offsetBytes,
                                        &piece.m_doneBytes);
            if (piece.m_rc != RC_SUCCESS)
                return piece.m_rc;
        }
        pieces = pieces.subspan(count);
    }
    return RC_SUCCESS;
}
