#include "appliance/Restore.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "appliance/DeltaStream.h"
#include "host/infra/Clock.h"
#include "host/journal/FileStorage.h"

namespace fs = std::filesystem;

namespace {

constexpr u64 BUFFER_BYTES = 1 << 20;

// An image in the making: gone again unless it was finished.
class NewImage
{
public:
    explicit NewImage(const std::string& path)
        : m_path(path),
          m_temporary((fs::path(path).parent_path() / ("." + fs::path(path).filename().string() +
                                                       ".partial-" + std::to_string(getpid())))
                          .string())
    {}
    ~NewImage()
    {
        if (m_file != nullptr)
            unlink(m_temporary.c_str());
    }
    NewImage(const NewImage&) = delete;
    NewImage& operator=(const NewImage&) = delete;

    Result open(u64 sizeBytes)
    {
        std::error_code error;
        const auto status = fs::status(m_path, error);
        if (fs::exists(status) && !fs::is_regular_file(status))
            return Result::failed(m_path + " is no regular file");
        const int fd = ::open(m_temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0)
            return Result::fromErrno(errno, "cannot make " + m_temporary);
        m_file = std::make_unique<PosixFile>(fd);
        return Result::fromStatus(m_file->truncate(sizeBytes), "cannot make " + m_temporary);
    }

    Result write(u64 offsetBytes, const u8* data, u64 bytes)
    {
        return Result::fromStatus(m_file->pwrite(data, bytes, offsetBytes),
                                  "cannot write " + m_path);
    }

    Result zero(u64 offsetBytes, u64 bytes)
    {
        return Result::fromStatus(m_file->zeroRange(offsetBytes, bytes), "cannot write " + m_path);
    }

    Result finish()
    {
        if (const RcStatus rc = m_file->sync(); rc != RC_SUCCESS)
            return Result::fromStatus(rc, "cannot sync " + m_path);
        if (rename(m_temporary.c_str(), m_path.c_str()) != 0)
            return Result::fromErrno(errno, "cannot make " + m_path);
        m_file.reset();
        return Result();
    }

private:
    const std::string m_path;
    const std::string m_temporary;
    std::unique_ptr<PosixFile> m_file; // while it is in the making
};

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
    Applier(NewImage& image, FlowControl& control, u64 totalBytes, RestoreStatistics* statistics)
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
            Result result = kind == DeltaReader::Kind::Zeroes ? m_image.zero(offset, bytes)
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
            if (Result result = m_image.write(offset, m_buffer.data(), now); !result.ok())
                return result;
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

    NewImage& m_image;
    FlowControl& m_control;
    const u64 m_totalBytes;
    RestoreStatistics& m_statistics;
    std::vector<u8> m_buffer;
    u64 m_doneBytes = 0;
};

} // namespace

Result restoreImage(const std::vector<std::string>& files, const std::string& path,
                    FlowControl& control, RestoreStatistics* statistics)
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

    NewImage image(path);
    if (Result result = image.open(statistics->m_sizeBytes); !result.ok())
        return result;
    Applier applier(image, control, totalBytes, statistics);
    for (const Link& link : chain) {
        if (Result result = applier.apply(link); !result.ok())
            return result;
    }
    if (Result result = image.finish(); !result.ok())
        return result;
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return Result();
}
