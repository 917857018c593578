// One export of a served mirror, as one connection has it open: the live volume, a point in time,
// or what changed between two points.
//
//   live                                            read and write
//   latest, cp:ID, tag:NAME, time:RFC3339, item:N   read: that point, built when first opened
//   diff:A..B                                       reads as B; its map tells what changed after A
//
// Offsets and lengths are in bytes, and have to be whole blocks of 512. Every request is counted in
// the mirror's ServedCounters.
//
// Thread safety: requests from any thread, at the same time; open() and destruction from one.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "appliance/ServedMirror.h"

// A run of a block map. A hole is what takes no space, or in a diff what has not changed.
struct ExportExtent
{
    u64 m_offsetBytes = 0;
    u64 m_lengthBytes = 0;
    bool m_isHole = false;
    bool m_isZero = false; // reads as zeroes
};

class ServedExport
{
public:
    static constexpr const char* LIVE = "live";
    static constexpr const char* LATEST = "latest";

    // The default export, of an empty name: live, or latest of a mirror served read-only.
    // WrongUsage: no such kind of export; NotFound: no such point, the message states the window;
    // Interrupted: the mirror is ending; else as ViewShelf::open(). served: outlives the export.
    static Result open(ServedMirror& served, const std::string& name,
                       std::unique_ptr<ServedExport>* opened);

    // What can be opened: the mirror's window, as far as another process has moved it by now.
    static RecoverableWindow window(ServedMirror& served);

    virtual ~ServedExport();
    ServedExport(const ServedExport&) = delete;
    ServedExport& operator=(const ServedExport&) = delete;

    u64 sizeBytes() const { return m_sizeBytes; }
    virtual bool isWritable() const { return false; }
    // Whether all connections that open the export by this name have the same before them: a name
    // such as "latest" means another point to the next one, when something was written meanwhile.
    virtual bool isSameForAll() const = 0;
    virtual std::string description() const = 0;

    // RC_BAD_ARGUMENT: not whole blocks, beyond the end, or not writable; RC_ABORTED: the mirror is
    // sealed; else as LiveVolume and DirectReader. durable: the request, and all that was answered
    // before it, is durable when it is answered. Zeroing and trimming do the same here.
    RcStatus read(u64 offsetBytes, u32 lengthBytes, u8* data);
    RcStatus write(u64 offsetBytes, u32 lengthBytes, const u8* data, bool durable);
    RcStatus zero(ServedOp zeroOrTrim, u64 offsetBytes, u32 lengthBytes, bool durable);
    RcStatus flush();

    // Replaces *extents by the map of a range from the block in which it begins on, without gaps;
    // at most `maxExtents` of it, and none goes beyond the range's end.
    RcStatus extents(u64 offsetBytes, u32 lengthBytes, size_t maxExtents,
                     std::vector<ExportExtent>* extents);

protected:
    explicit ServedExport(ServedMirror& served);

    // In whole blocks, inside the volume, and not empty.
    virtual RcStatus readBlocks(u64 offsetBlocks, u32 lengthBlocks, u8* data) = 0;
    virtual Result findExtents(u64 offsetBlocks, u64 lengthBlocks, size_t maxExtents,
                               std::vector<ExportExtent>* extents) = 0;

    ServedMirror& m_served;

private:
    bool isWhole(u64 offsetBytes, u32 lengthBytes);
    RcStatus changed(RcStatus rc, bool durable);
    RcStatus counted(ServedOp op, RcStatus rc, u32 lengthBytes);

    const u64 m_sizeBytes;
};
