#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include "appliance/DeltaStream.h"

namespace {

constexpr const char BANNER[] = "rbd diff v1\n";
constexpr u64 BANNER_BYTES = sizeof(BANNER) - 1;
constexpr u64 LONGEST_NAME = 4096;

u64 number(const u8* bytes, u32 length)
{
    u64 value = 0;
    for (u32 i = 0; i < length; ++i)
        value |= u64{bytes[i]} << (8 * i);
    return value;
}

} // namespace

struct DeltaReader::Frame
{
    Frame() : m_in(ZSTD_DStreamInSize()), m_out(ZSTD_DStreamOutSize()) {}
    ~Frame()
    {
        ZSTD_freeDCtx(m_context);
        if (m_fd >= 0)
            close(m_fd);
    }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    int m_fd = -1;
    ZSTD_DCtx* m_context = ZSTD_createDCtx();
    std::vector<u8> m_in;
    ZSTD_inBuffer m_input{nullptr, 0, 0}; // of m_in, not decompressed yet
    std::vector<u8> m_out;
    size_t m_outPosition = 0; // [m_outPosition, m_outEnd) of m_out has not been taken yet
    size_t m_outEnd = 0;
};

DeltaReader::DeltaReader(std::string path)
    : m_path(std::move(path)), m_frame(std::make_unique<Frame>())
{}

DeltaReader::~DeltaReader() = default;

Result DeltaReader::open(const std::string& path, std::unique_ptr<DeltaReader>* reader)
{
    std::unique_ptr<DeltaReader> opened(new DeltaReader(path));
    if (Result result = opened->openFile(); !result.ok())
        return result;
    if (Result result = opened->readHeader(); !result.ok())
        return result;
    *reader = std::move(opened);
    return Result();
}

Result DeltaReader::damaged(const std::string& why) const
{
    return Result(ResultCode::Damaged, m_path + " is no whole backup: " + why);
}

Result DeltaReader::openFile()
{
    // A pipe is refused below, and not waited for.
    m_frame->m_fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status = {};
    if (m_frame->m_fd < 0 || fstat(m_frame->m_fd, &status) != 0)
        return Result::fromErrno(errno, "cannot open " + m_path);
    if (!S_ISREG(status.st_mode))
        return Result::failed(m_path + " is no regular file");
    m_fileBytes = static_cast<u64>(status.st_size);
    u8 head[18]; // the longest that a frame begins with
    const ssize_t got = pread(m_frame->m_fd, head, sizeof(head), 0);
    if (got < 0)
        return Result::fromErrno(errno, "cannot read " + m_path);
    // The descriptor of the frame follows its magic; bit 2 says that a checksum ends the frame.
    if (got < 6 || number(head, 4) != ZSTD_MAGICNUMBER)
        return damaged("it is not compressed by zstd");
    if ((head[4] & 4) == 0)
        return damaged("it has no checksum");
    return Result();
}

Result DeltaReader::fill()
{
    Frame& frame = *m_frame;
    while (frame.m_outPosition == frame.m_outEnd) {
        if (m_frameEnded)
            return damaged("it ends too early");
        // A full output may have left more behind it, with no input to come.
        if (frame.m_input.pos == frame.m_input.size && frame.m_outEnd < frame.m_out.size()) {
            const ssize_t got = ::read(frame.m_fd, frame.m_in.data(), frame.m_in.size());
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                return Result::fromErrno(errno, "cannot read " + m_path);
            if (got == 0)
                return damaged("it is cut short");
            frame.m_input = {frame.m_in.data(), static_cast<size_t>(got), 0};
            m_filePosition += static_cast<u64>(got);
        }
        ZSTD_outBuffer out{frame.m_out.data(), frame.m_out.size(), 0};
        const size_t left = ZSTD_decompressStream(frame.m_context, &out, &frame.m_input);
        if (ZSTD_isError(left))
            return damaged(ZSTD_getErrorName(left));
        frame.m_outPosition = 0;
        frame.m_outEnd = out.pos;
        m_frameEnded = left == 0;
        if (m_frameEnded && out.pos == 0)
            return damaged("it ends too early");
    }
    return Result();
}

Result DeltaReader::take(void* data, u64 bytes)
{
    u8* to = static_cast<u8*>(data);
    while (bytes > 0) {
        if (Result result = fill(); !result.ok())
            return result;
        Frame& frame = *m_frame;
        const u64 now = std::min<u64>(bytes, frame.m_outEnd - frame.m_outPosition);
        std::memcpy(to, frame.m_out.data() + frame.m_outPosition, now);
        frame.m_outPosition += now;
        to += now;
        bytes -= now;
    }
    return Result();
}

Result DeltaReader::readName(std::string* name)
{
    u8 length[4];
    if (Result result = take(length, sizeof(length)); !result.ok())
        return result;
    if (!name->empty() || number(length, 4) == 0 || number(length, 4) > LONGEST_NAME)
        return damaged("it has a point without a proper name");
    name->resize(number(length, 4));
    return take(name->data(), name->size());
}

Result DeltaReader::readHeader()
{
    char banner[BANNER_BYTES];
    if (Result result = take(banner, sizeof(banner)); !result.ok())
        return result;
    if (std::memcmp(banner, BANNER, sizeof(banner)) != 0)
        return damaged("it does not begin as one");
    bool hasSize = false;
    for (;;) {
        if (Result result = take(&m_nextTag, 1); !result.ok())
            return result;
        Result result;
        if (m_nextTag == 'f') {
            result = readName(&m_header.m_from);
        } else if (m_nextTag == 't') {
            result = readName(&m_header.m_to);
        } else if (m_nextTag == 's' && !hasSize) {
            u8 size[8];
            result = take(size, sizeof(size));
            m_header.m_sizeBytes = number(size, 8);
            hasSize = true;
        } else {
            m_hasNextTag = true;
            break;
        }
        if (!result.ok())
            return result;
    }
    if (!hasSize || m_header.m_to.empty())
        return damaged("it does not say its size and where it leads to");
    return Result();
}

Result DeltaReader::next(Kind* kind, u64* offsetBytes, u64* bytes)
{
    char tag = m_nextTag;
    if (!m_hasNextTag)
        if (Result result = take(&tag, 1); !result.ok())
            return result;
    m_hasNextTag = false;
    *kind = Kind::End;
    *offsetBytes = 0;
    *bytes = 0;
    if (tag == 'e')
        return checkEnd();
    if (tag != 'w' && tag != 'z')
        return damaged("it has a record of an unknown kind");
    u8 range[16];
    if (Result result = take(range, sizeof(range)); !result.ok())
        return result;
    *kind = tag == 'w' ? Kind::Data : Kind::Zeroes;
    *offsetBytes = number(range, 8);
    *bytes = number(range + 8, 8);
    if (*offsetBytes > m_header.m_sizeBytes || *bytes > m_header.m_sizeBytes - *offsetBytes)
        return damaged("it has a record beyond the volume's end");
    return Result();
}

Result DeltaReader::readData(u8* data, u64 bytes)
{
    return take(data, bytes);
}

// The decompressor compares the checksum when it comes to the frame's end, which may be some input
// further on.
Result DeltaReader::checkEnd()
{
    Frame& frame = *m_frame;
    if (frame.m_outPosition != frame.m_outEnd)
        return damaged("it goes on behind its end");
    while (!m_frameEnded) {
        if (Result result = fill(); result.ok())
            return damaged("it goes on behind its end");
        else if (!m_frameEnded)
            return result;
    }
    u8 more = 0;
    if (frame.m_input.pos != frame.m_input.size || ::read(frame.m_fd, &more, 1) != 0)
        return damaged("something follows it");
    return Result();
}
