// Reads ranges of a volume on the caller's own thread, through an index that it does not lock:
// what the index covers from the journal, all else from the target volume.
//
//   grace period entered -> plain lookup -> target, journal, right into the caller's buffer
//
// Content that was written over in small pieces is in many places. They are read in the order in
// which they lie there, not in the volume's, so that those near to each other take one call, and a
// compressed IO is read and decompressed once however many pieces of it are left.
//
// Why no locks are needed: journal data never changes where it lies, so what a lookup found stays
// right to serve until its grain goes, and who takes grains away waits for readers. The target
// changes only where some item of the journal covers it: whoever finds a gap there instead began
// before that item was written, and may be given either content.
//
// Thread safety: any thread; reads may overlap one another, writes, apply and trim.
#pragma once

#include "RegionLocator/RegionLocator.h"
#include "appliance/View.h"

// Bytes served, by where they came from; only ever increased.
struct ReadSources
{
    std::atomic<u64> m_plainBytes{0};
    std::atomic<u64> m_compressedBytes{0}; // as served, not as stored
    std::atomic<u64> m_zeroBytes{0};
    std::atomic<u64> m_targetBytes{0};
    std::atomic<u64> m_badBlocks{0}; // of the journal, refused
};

class DirectReader
{
public:
    // name: for the log, as in "live". view: whose point is read; null for the live volume. All
    // outlive the reader.
    DirectReader(Mirror& mirror, RegionLocator& locator, std::string name, ReadSources& sources,
                 View* view = nullptr)
        : m_mirror(mirror), m_locator(locator), m_name(std::move(name)), m_sources(sources),
          m_view(view)
    {}

    // Reads the range into lengthBlocks * 512 bytes. RC_BAD_ARGUMENT: beyond the volume;
    // RC_BAD_CHECKSUM, RC_CORRUPTED_OBJECT, RC_DAMAGED: nothing is served, the log says which
    // block; RC_NOT_FOUND: the view's point was passed; RC_IO_ERROR. After a failure the buffer's
    // content is undefined.
    RcStatus read(u64 offsetBlocks, u32 lengthBlocks, u8* data);

private:
    struct Window;

    RcStatus readWindow(Window& window);
    RcStatus readTarget(Window& window);
    RcStatus readPlain(const Window& window);
    RcStatus readCompressed(const Window& window, size_t first, size_t end);
    RcStatus refuse(RcStatus rc, u64 viewBlock, u64 address) const;

    Mirror& m_mirror;
    RegionLocator& m_locator;
    const std::string m_name;
    ReadSources& m_sources;
    View* const m_view;
};
