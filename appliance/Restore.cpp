#include "appliance/Restore.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "appliance/DeltaStream.h"
#include "appliance/NewFile.h"
#include "appliance/OutputPath.h"
#include "host/infra/Clock.h"

namespace fs = std::filesystem;

namespace {

constexpr u64 BUFFER_BYTES = 1 << 20;
// So much zeroed data becomes a hole; and it is the most that is zeroed between two looks at the
// outside, as a file system without holes has to write it.
constexpr u64 HOLE_BYTES = 1 << 16;
constexpr u64 ZERO_STEP_BYTES = u64{1} << 30;

bool isZero(const u8* data, u64 bytes)
{
    return data[0] == 0 && std::memcmp(data, data + 1, bytes - 1) == 0;
}

Result checkRegular(const std::string& path)
{
    std::error_code error;
    const auto status = fs::status(path, error);
    if (fs::exists(status) && !fs::is_regular_file(status))
        return Result::failed(path + " is no regular file");
    return Result();
}

// What a file says of itself.
struct Link
{
    std::string m_path;
    DeltaHeader m_header;
    u64 m_fileBytes = 0;
};

// Whether a file may follow the one before it; the first follows none.
Result checkLink(const Link* before, const Link& file)
{
    const DeltaHeader& header = file.m_header;
    const std::string mirror = deltaMirrorName(header.m_to);
    if (mirror.empty())
        return Result::failed(file.m_path + " is a backup of no mirror");
    if (before == nullptr) {
        if (header.m_from.empty())
            return Result();
        return Result::failed(file.m_path + " is no full backup: it starts from " + header.m_from);
    }
    const DeltaHeader& last = before->m_header;
    if (header.m_from.empty())
        return Result::failed(file.m_path + " is a full backup, and can only be the first");
    if (mirror != deltaMirrorName(last.m_to) || mirror != deltaMirrorName(header.m_from))
        return Result::failed(file.m_path + " is of another mirror than " + before->m_path);
    if (header.m_from != last.m_to)
        return Result::failed(file.m_path + " starts from " + header.m_from + ", but " +
                              before->m_path + " leads to " + last.m_to);
    if (header.m_sizeBytes != last.m_sizeBytes)
        return Result::failed(file.m_path + " is of a volume of another size than " +
                              before->m_path);
    return Result();
}

// Reads the header of each file. They are not kept open: a chain may be longer than a process may
// have files.
Result readChain(const std::vector<std::string>& files, std::vector<Link>* chain)
{
    for (const std::string& file : files) {
        std::unique_ptr<DeltaReader> reader;
        if (Result result = DeltaReader::open(file, &reader); !result.ok())
            return result;
        const Link link{file, reader->header(), reader->fileBytes()};
        if (Result result = checkLink(chain->empty() ? nullptr : &chain->back(), link);
            !result.ok())
            return result;
        chain->push_back(link);
    }
    return chain->empty() ? Result::usage("no backup to restore from") : Result();
}

class Applier
{
public:
    Applier(NewFile& image, FlowControl& control, u64 totalBytes, RestoreStatistics* statistics)
        : m_image(image), m_control(control), m_totalBytes(totalBytes), m_statistics(*statistics),
          m_buffer(BUFFER_BYTES)
    {}

    Result apply(const Link& link)
    {
        std::unique_ptr<DeltaReader> reader;
        if (Result result = DeltaReader::open(link.m_path, &reader); !result.ok())
            return result;
        if (reader->header() != link.m_header)
            return Result::failed(link.m_path + " has been changed meanwhile");
        for (;;) {
            DeltaReader::Kind kind = DeltaReader::Kind::End;
            u64 offset = 0;
            u64 bytes = 0;
            if (Result result = tick(*reader); !result.ok())
                return result;
            if (Result result = reader->next(&kind, &offset, &bytes); !result.ok())
                return result;
            if (kind == DeltaReader::Kind::End)
                break;
            if (bytes == 0)
                continue;
            Result result = kind == DeltaReader::Kind::Zeroes ? zero(*reader, offset, bytes)
                                                              : copy(*reader, offset, bytes);
            if (!result.ok())
                return result;
        }
        m_doneBytes += link.m_fileBytes;
        return Result();
    }

private:
    Result copy(DeltaReader& reader, u64 offset, u64 bytes)
    {
        m_statistics.m_dataBytes += bytes;
        while (bytes > 0) {
            const u64 now = std::min(bytes, BUFFER_BYTES);
            if (Result result = reader.readData(m_buffer.data(), now); !result.ok())
                return result;
            if (Result result = write(offset, now); !result.ok())
                return result;
            if (Result result = tick(reader); !result.ok())
                return result;
            offset += now;
            bytes -= now;
        }
        return Result();
    }

    // The buffer's first bytes; what is zero in them takes no space.
    Result write(u64 offset, u64 bytes)
    {
        const auto stepAt = [&](u64 at) { return std::min(bytes - at, HOLE_BYTES); };
        RcStatus rc = RC_SUCCESS;
        for (u64 done = 0; done < bytes && rc == RC_SUCCESS;) {
            const u8* data = m_buffer.data() + done;
            const bool hole = isZero(data, stepAt(done));
            u64 end = done + stepAt(done);
            while (end < bytes && isZero(m_buffer.data() + end, stepAt(end)) == hole)
                end += stepAt(end);
            rc = hole ? m_image.file().zeroRange(offset + done, end - done)
                      : m_image.file().pwrite(data, end - done, offset + done);
            done = end;
        }
        return Result::fromStatus(rc, "cannot write " + m_image.path());
    }

    Result zero(const DeltaReader& reader, u64 offset, u64 bytes)
    {
        while (bytes > 0) {
            const u64 now = std::min(bytes, ZERO_STEP_BYTES);
            if (const RcStatus rc = m_image.file().zeroRange(offset, now); rc != RC_SUCCESS)
                return Result::fromStatus(rc, "cannot write " + m_image.path());
            if (Result result = tick(reader); !result.ok())
                return result;
            offset += now;
            bytes -= now;
        }
        return Result();
    }

    Result tick(const DeltaReader& reader)
    {
        m_control.progress(m_doneBytes + reader.position(), m_totalBytes);
        if (m_control.stopRequested())
            return Result(ResultCode::Interrupted, "interrupted; run the restore again");
        return Result();
    }

    NewFile& m_image;
    FlowControl& m_control;
    const u64 m_totalBytes;
    RestoreStatistics& m_statistics;
    std::vector<u8> m_buffer;
    u64 m_doneBytes = 0;
};

} // namespace

Result restoreImage(const std::vector<std::string>& files, const std::string& path,
                    FlowControl& control, RestoreStatistics* statistics,
                    const RestoreOptions& options)
{
    const u64 startedUs = Clock::instance()->nowUs();
    *statistics = RestoreStatistics();
    std::vector<Link> chain;
    if (Result result = readChain(files, &chain); !result.ok())
        return result;
    u64 totalBytes = 0;
    for (const Link& link : chain)
        totalBytes += link.m_fileBytes;
    statistics->m_point = chain.back().m_header.m_to;
    statistics->m_sizeBytes = chain.back().m_header.m_sizeBytes;

    if (Result result = checkRegular(path); !result.ok())
        return result;
    if (Result result = checkOutputPath(path, ""); !result.ok())
        return result;
    if (Result result =
            options.m_force ? Result() : checkReplaceableImage(path, statistics->m_sizeBytes);
        !result.ok())
        return result;
    NewFile image(path);
    if (Result result = image.open(statistics->m_sizeBytes); !result.ok())
        return result;
    Applier applier(image, control, totalBytes, statistics);
    for (const Link& link : chain) {
        if (Result result = applier.apply(link); !result.ok())
            return result;
    }
    if (Result result = image.finish(options.m_durability); !result.ok())
        return result;
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return Result();
}
