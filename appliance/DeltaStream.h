// The stream of a backup: what changed, as other tools read it, in a compressed frame with a
// checksum of its content.
//
//   "rbd diff v1\n"  banner
//   'f' name         the point it starts from; left out of a full backup
//   't' name         the point it leads to
//   's' u64          the volume's size
//   'w' u64 u64 ...  offset, length, data
//   'z' u64 u64      offset, length: zeroes
//   'e'              the end
//
// Everything little-endian and in bytes; a name is a u32 length and its bytes. The frame is one of
// zstd. Names say the mirror, so that backups of two mirrors are never mixed.
//
// Thread safety: one thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "appliance/ImageSink.h"
#include "appliance/PointInTime.h"

// "rl-<mirror id>-cp-<n>" for a checkpoint, "rl-<mirror id>-item-<n>" for any other point.
std::string deltaPointName(u64 mirrorId, const ChosenPoint& point);

// The part of such a name that says the mirror, "rl-<mirror id>"; empty for any other name.
std::string deltaMirrorName(const std::string& pointName);

struct DeltaHeader
{
    std::string m_from; // empty for a full backup
    std::string m_to;
    u64 m_sizeBytes = 0;

    bool operator==(const DeltaHeader&) const = default;
};

// Writes a stream to a regular file, which takes its name only when the stream is whole, or to "-",
// standard output.
class DeltaWriter
{
public:
    static Result open(const std::string& path, const DeltaHeader& header,
                       std::unique_ptr<DeltaWriter>* writer);
    ~DeltaWriter();
    DeltaWriter(const DeltaWriter&) = delete;
    DeltaWriter& operator=(const DeltaWriter&) = delete;

    // Records in ascending order. Zeroes that follow each other become one record.
    Result data(u64 offsetBytes, const u8* data, u64 bytes);
    Result zeroes(u64 offsetBytes, u64 bytes);

    // The end of the stream; makes the file durable, under its name.
    Result finish();

    // Bytes of data and of zeroes so far, and what the frame has taken.
    u64 dataBytes() const { return m_dataBytes; }
    u64 zeroBytes() const { return m_zeroBytes; }
    u64 frameBytes() const { return m_position; }

private:
    struct Frame;
    explicit DeltaWriter(std::unique_ptr<ImageSink> sink);

    Result start(const DeltaHeader& header);
    Result put(const void* data, u64 bytes, bool last = false);
    Result putRecord(char tag, u64 offsetBytes, u64 bytes);
    Result flushZeroes();

    std::unique_ptr<ImageSink> m_sink;
    std::unique_ptr<Frame> m_frame;
    std::vector<u8> m_out;
    u64 m_position = 0;
    u64 m_zeroStart = 0; // zeroes not written yet: [m_zeroStart, m_zeroEnd)
    u64 m_zeroEnd = 0;
    u64 m_dataBytes = 0;
    u64 m_zeroBytes = 0;
};

// Reads a stream, as strictly as it can be: what is not exactly a stream in one checked frame is
// refused with Damaged.
class DeltaReader
{
public:
    enum class Kind
    {
        Data,
        Zeroes,
        End,
    };

    // Opens a file and reads up to the first record.
    static Result open(const std::string& path, std::unique_ptr<DeltaReader>* reader);
    ~DeltaReader();
    DeltaReader(const DeltaReader&) = delete;
    DeltaReader& operator=(const DeltaReader&) = delete;

    const std::string& path() const { return m_path; }
    const DeltaHeader& header() const { return m_header; }

    // The next record, inside the volume. Its data has to be read before the next call. After End
    // the frame has been checked to its last byte.
    Result next(Kind* kind, u64* offsetBytes, u64* bytes);
    Result readData(u8* data, u64 bytes);

    // How far the file has been read, and its size.
    u64 position() const { return m_filePosition; }
    u64 fileBytes() const { return m_fileBytes; }

private:
    struct Frame;
    explicit DeltaReader(std::string path);

    Result openFile();
    Result readHeader();
    Result readName(std::string* name);
    Result checkEnd();
    Result fill();
    Result take(void* data, u64 bytes);
    Result damaged(const std::string& why) const;

    const std::string m_path;
    DeltaHeader m_header;
    std::unique_ptr<Frame> m_frame;
    u64 m_filePosition = 0;
    u64 m_fileBytes = 0;
    bool m_hasNextTag = false; // the header's end was told by the tag that follows it
    char m_nextTag = 0;
    bool m_frameEnded = false;
};
