#include "appliance/ImageSink.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>
#include <vector>

#include "appliance/Sizes.h"
#include "appliance/UncachedWriter.h"
#include "host/journal/FileStorage.h"

namespace fs = std::filesystem;

namespace {

// Most bytes of one call into the page cache. The kernel takes its new pages in runs up to a call's
// length: the longer, the rarer from memory that was in use a moment ago, and other memory a
// virtual machine may first have to ask its host for.
constexpr u64 MOST_CACHED_BYTES = u64{128} << 10;

class RegularFile : public ImageSink
{
public:
    RegularFile(const std::string& path, Durability durability)
        : m_file(path), m_durability(durability)
    {}

    Result open(u64 sizeBytes)
    {
        Result result = m_file.open(sizeBytes);
        if (result.ok() && m_durability == Durability::Synced)
            m_writer = std::make_unique<UncachedWriter>(m_file.file());
        return result;
    }

    Result write(u64 offsetBytes, const u8* data, u64 bytes) override
    {
        const RcStatus rc = m_writer != nullptr ? m_writer->write(data, bytes, offsetBytes)
                                                : writeCached(data, bytes, offsetBytes);
        return Result::fromStatus(rc, "cannot write " + m_file.path());
    }

    Result finish() override { return m_file.finish(m_durability); }

private:
    RcStatus writeCached(const u8* data, u64 bytes, u64 offsetBytes)
    {
        RcStatus rc = RC_SUCCESS;
        for (u64 done = 0; done < bytes && rc == RC_SUCCESS; done += MOST_CACHED_BYTES)
            rc = m_file.file().pwrite(data + done, std::min(bytes - done, MOST_CACHED_BYTES),
                                      offsetBytes + done);
        return rc;
    }

    NewFile m_file;
    const Durability m_durability;
    std::unique_ptr<UncachedWriter> m_writer; // null: nobody waits for the disk
};

class BlockDevice : public ImageSink
{
public:
    BlockDevice(const std::string& path, u64 sizeBytes, Durability durability)
        : m_path(path), m_sizeBytes(sizeBytes), m_durability(durability)
    {}

    Result open()
    {
        RcStatus rc = PosixFile::open(m_path, StorageAccess::ReadWrite, &m_file);
        u64 size = 0;
        if (rc == RC_SUCCESS)
            rc = m_file->size(&size);
        if (rc == RC_SUCCESS && size < m_sizeBytes)
            return Result(ResultCode::NoSpace, "device " + m_path + " has " + formatSize(size) +
                                                   ", the view " + formatSize(m_sizeBytes));
        return Result::fromStatus(rc, "cannot open " + m_path);
    }

    Result write(u64 offsetBytes, const u8* data, u64 bytes) override
    {
        RcStatus rc = RC_SUCCESS;
        if (offsetBytes > m_position)
            rc = m_file->zeroRange(m_position, offsetBytes - m_position);
        if (rc == RC_SUCCESS)
            rc = m_file->pwrite(data, bytes, offsetBytes);
        m_position = offsetBytes + bytes;
        return Result::fromStatus(rc, "cannot write " + m_path);
    }

    Result finish() override
    {
        RcStatus rc = RC_SUCCESS;
        if (m_position < m_sizeBytes)
            rc = m_file->zeroRange(m_position, m_sizeBytes - m_position);
        if (rc == RC_SUCCESS && m_durability == Durability::Synced)
            rc = m_file->sync();
        return Result::fromStatus(rc, "cannot write " + m_path);
    }

private:
    std::string m_path;
    u64 m_sizeBytes;
    const Durability m_durability;
    u64 m_position = 0; // everything before is as it has to be
    std::unique_ptr<StorageFile> m_file;
};

// Standard output or a pipe: every byte in order.
class Stream : public ImageSink
{
public:
    Stream(int fd, u64 sizeBytes) : m_fd(fd), m_sizeBytes(sizeBytes), m_zeroes(1 << 20) {}

    Result write(u64 offsetBytes, const u8* data, u64 bytes) override
    {
        if (Result result = fill(offsetBytes); !result.ok())
            return result;
        m_position += bytes;
        return writeAll(data, bytes);
    }

    Result finish() override { return fill(m_sizeBytes); }

private:
    Result fill(u64 untilBytes)
    {
        while (m_position < untilBytes) {
            const u64 now = std::min<u64>(untilBytes - m_position, m_zeroes.size());
            m_position += now;
            if (Result result = writeAll(m_zeroes.data(), now); !result.ok())
                return result;
        }
        return Result();
    }

    Result writeAll(const u8* data, u64 bytes)
    {
        while (bytes > 0) {
            const ssize_t wrote = ::write(m_fd, data, bytes);
            if (wrote < 0 && errno == EINTR)
                continue;
            if (wrote <= 0)
                return Result::fromErrno(wrote == 0 ? EIO : errno, "cannot write the image");
            data += wrote;
            bytes -= static_cast<u64>(wrote);
        }
        return Result();
    }

    int m_fd;
    u64 m_sizeBytes;
    u64 m_position = 0;
    std::vector<u8> m_zeroes;
};

} // namespace

Result ImageSink::open(const std::string& path, u64 sizeBytes, Durability durability,
                       std::unique_ptr<ImageSink>* sink)
{
    if (path == "-") {
        *sink = std::make_unique<Stream>(STDOUT_FILENO, sizeBytes);
        return Result();
    }
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_block_file(status)) {
        auto device = std::make_unique<BlockDevice>(path, sizeBytes, durability);
        Result result = device->open();
        *sink = std::move(device);
        return result;
    }
    if (fs::exists(status) && !fs::is_regular_file(status))
        return Result::failed(path + " is neither a regular file nor a block device");
    auto file = std::make_unique<RegularFile>(path, durability);
    Result result = file->open(sizeBytes);
    *sink = std::move(file);
    return result;
}
