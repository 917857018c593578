// A buffer made of several pieces of memory, seen as one run of bytes.
#pragma once

#include <algorithm>
#include <vector>

#include "common/infra/Assert.h"
#include "common/infra/MemorySegment.h"

// A list of segments. Copies and sub-buffers refer to the same memory and own nothing: whoever
// filled a buffer from a pool calls deleteContent() on it once.
class ScatteredBuf
{
public:
    ScatteredBuf() = default;

    // A view of caller-owned memory.
    ScatteredBuf(u8* ptr, u32 sizeBytes) { addSegment(MemorySegment(sizeBytes, ptr, nullptr)); }

    void addSegment(const MemorySegment& segment)
    {
        m_segments.push_back(segment);
        m_sizeBytes += segment.getSize();
    }

    void reserveSegments(u32 count) { m_segments.reserve(count); }

    u32 getSegmentsCount() const { return static_cast<u32>(m_segments.size()); }
    MemorySegment& getSegment(u32 index) { return m_segments[index]; }
    const MemorySegment& getSegment(u32 index) const { return m_segments[index]; }

    // Sum of the segments' sizes in bytes.
    u64 getSize() const { return m_sizeBytes; }

    // The bytes [byteOffset, byteOffset + byteLength) of this buffer, in the same memory.
    // REQUIRES: the range lies inside the buffer.
    ScatteredBuf getSubBuffer(u64 byteOffset, u64 byteLength) const
    {
        HARD_CHECK(byteOffset + byteLength <= m_sizeBytes);
        ScatteredBuf result;
        for (const MemorySegment& segment : m_segments) {
            if (byteLength == 0)
                break;
            if (byteOffset >= segment.getSize()) {
                byteOffset -= segment.getSize();
                continue;
            }
            const u64 length = std::min(byteLength, segment.getSize() - byteOffset);
            result.addSegment(MemorySegment(static_cast<u32>(length), segment.getPtr() + byteOffset,
                                            segment.getOwner()));
            byteLength -= length;
            byteOffset = 0;
        }
        return result;
    }

    // Gives every segment back to its owner and empties the list.
    void deleteContent()
    {
        for (MemorySegment& segment : m_segments)
            segment.deleteContent();
        m_segments.clear();
        m_sizeBytes = 0;
    }

private:
    std::vector<MemorySegment> m_segments;
    u64 m_sizeBytes = 0;
};
