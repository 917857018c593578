#include <cstring>
#include <filesystem>
#include <zstd.h>

#include "appliance/DeltaStream.h"

namespace {

// Fast enough not to be what a backup waits for.
constexpr int LEVEL = 1;
constexpr const char* BANNER = "rbd diff v1\n";

void appendNumber(std::vector<u8>* bytes, u64 value, u32 length)
{
    for (u32 i = 0; i < length; ++i)
        bytes->push_back(static_cast<u8>(value >> (8 * i)));
}

void appendName(std::vector<u8>* bytes, char tag, const std::string& name)
{
    bytes->push_back(static_cast<u8>(tag));
    appendNumber(bytes, name.size(), 4);
    bytes->insert(bytes->end(), name.begin(), name.end());
}

} // namespace

std::string deltaPointName(u64 mirrorId, const ChosenPoint& point)
{
    return "rl-" + std::to_string(mirrorId) +
           (point.m_isCheckpoint ? "-cp-" + std::to_string(point.m_checkpoint.m_id)
                                 : "-item-" + std::to_string(point.m_items));
}

std::string deltaMirrorName(const std::string& pointName)
{
    const auto digitsFrom = [&](size_t from) {
        size_t end = from;
        while (end < pointName.size() && pointName[end] >= '0' && pointName[end] <= '9')
            ++end;
        return end;
    };
    if (pointName.compare(0, 3, "rl-") != 0)
        return "";
    const size_t id = digitsFrom(3);
    for (const std::string kind : {"-cp-", "-item-"}) {
        const size_t number = id + kind.size();
        if (id > 3 && pointName.compare(id, kind.size(), kind) == 0 && number < pointName.size() &&
            digitsFrom(number) == pointName.size())
            return pointName.substr(0, id);
    }
    return "";
}

struct DeltaWriter::Frame
{
    ZSTD_CCtx* m_context = ZSTD_createCCtx();
    ~Frame() { ZSTD_freeCCtx(m_context); }
};

DeltaWriter::DeltaWriter(std::unique_ptr<ImageSink> sink)
    : m_sink(std::move(sink)), m_frame(std::make_unique<Frame>()), m_out(ZSTD_CStreamOutSize())
{}

DeltaWriter::~DeltaWriter() = default;

Result DeltaWriter::open(const std::string& path, const DeltaHeader& header,
                         std::unique_ptr<DeltaWriter>* writer)
{
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (path != "-" && std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
        return Result::failed(path + " is no regular file");
    std::unique_ptr<ImageSink> sink;
    if (Result result = ImageSink::open(path, 0, Durability::Synced, &sink); !result.ok())
        return result;
    std::unique_ptr<DeltaWriter> opened(new DeltaWriter(std::move(sink)));
    if (Result result = opened->start(header); !result.ok())
        return result;
    *writer = std::move(opened);
    return Result();
}

Result DeltaWriter::start(const DeltaHeader& header)
{
    ZSTD_CCtx* context = m_frame->m_context;
    if (context == nullptr ||
        ZSTD_isError(ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, LEVEL)) ||
        ZSTD_isError(ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1)))
        return Result::failed("cannot start compressing");
    std::vector<u8> bytes(BANNER, BANNER + std::strlen(BANNER));
    if (!header.m_from.empty())
        appendName(&bytes, 'f', header.m_from);
    appendName(&bytes, 't', header.m_to);
    bytes.push_back('s');
    appendNumber(&bytes, header.m_sizeBytes, 8);
    return put(bytes.data(), bytes.size());
}

Result DeltaWriter::put(const void* data, u64 bytes, bool last)
{
    ZSTD_inBuffer in{data, bytes, 0};
    const ZSTD_EndDirective mode = last ? ZSTD_e_end : ZSTD_e_continue;
    size_t left = 0;
    do {
        ZSTD_outBuffer out{m_out.data(), m_out.size(), 0};
        left = ZSTD_compressStream2(m_frame->m_context, &out, &in, mode);
        if (ZSTD_isError(left))
            return Result::failed(std::string("cannot compress: ") + ZSTD_getErrorName(left));
        if (out.pos > 0)
            if (Result result = m_sink->write(m_position, m_out.data(), out.pos); !result.ok())
                return result;
        m_position += out.pos;
    } while (last ? left != 0 : in.pos < in.size);
    return Result();
}

Result DeltaWriter::putRecord(char tag, u64 offsetBytes, u64 bytes)
{
    std::vector<u8> record(1, static_cast<u8>(tag));
    appendNumber(&record, offsetBytes, 8);
    appendNumber(&record, bytes, 8);
    return put(record.data(), record.size());
}

Result DeltaWriter::flushZeroes()
{
    if (m_zeroStart == m_zeroEnd)
        return Result();
    const u64 start = m_zeroStart;
    m_zeroStart = m_zeroEnd;
    return putRecord('z', start, m_zeroEnd - start);
}

Result DeltaWriter::data(u64 offsetBytes, const u8* data, u64 bytes)
{
    if (Result result = flushZeroes(); !result.ok())
        return result;
    m_dataBytes += bytes;
    if (Result result = putRecord('w', offsetBytes, bytes); !result.ok())
        return result;
    return put(data, bytes);
}

Result DeltaWriter::zeroes(u64 offsetBytes, u64 bytes)
{
    m_zeroBytes += bytes;
    if (offsetBytes != m_zeroEnd || m_zeroStart == m_zeroEnd) {
        if (Result result = flushZeroes(); !result.ok())
            return result;
        m_zeroStart = offsetBytes;
    }
    m_zeroEnd = offsetBytes + bytes;
    return Result();
}

Result DeltaWriter::finish()
{
    if (Result result = flushZeroes(); !result.ok())
        return result;
    if (Result result = put("e", 1, true); !result.ok())
        return result;
    return m_sink->finish();
}
