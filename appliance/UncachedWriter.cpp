#include "appliance/UncachedWriter.h"

#include <fcntl.h>
#include <string>

namespace {

// A shorter write waits longer for the disk than the page cache takes for it.
constexpr u64 LEAST_DIRECT_BYTES = u64{1} << 19;

} // namespace

UncachedWriter::UncachedWriter(PosixFile& file) : m_file(file)
{
    // By the descriptor, as another file may have got the name.
    const std::string path = "/proc/self/fd/" + std::to_string(file.fd());
    if (const int fd = ::open(path.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC); fd >= 0)
        m_direct = std::make_unique<PosixFile>(fd);
}

RcStatus UncachedWriter::write(const u8* data, u64 bytes, u64 offsetBytes)
{
    const u64 head = (ALIGNMENT_BYTES - offsetBytes % ALIGNMENT_BYTES) % ALIGNMENT_BYTES;
    const u64 body = bytes > head ? (bytes - head) / ALIGNMENT_BYTES * ALIGNMENT_BYTES : 0;
    if (m_direct == nullptr || body < LEAST_DIRECT_BYTES)
        return writeCached(data, bytes, offsetBytes);
    if (m_direct->pwrite(data + head, body, offsetBytes + head) != RC_SUCCESS) {
        // Refused where the memory is not aligned as the disk wants it; whatever else it is, the
        // page cache meets it too, or the sync.
        m_direct.reset();
        return writeCached(data, bytes, offsetBytes);
    }
    RcStatus rc = head > 0 ? writeCached(data, head, offsetBytes) : RC_SUCCESS;
    const u64 done = head + body;
    if (rc == RC_SUCCESS && done < bytes)
        rc = writeCached(data + done, bytes - done, offsetBytes + done);
    return rc;
}

RcStatus UncachedWriter::writeCached(const u8* data, u64 bytes, u64 offsetBytes)
{
    const RcStatus rc = m_file.pwrite(data, bytes, offsetBytes);
    // Has the disk write while the next data is read. Only a hint: errors, and what was not
    // written, are the sync's to find.
    if (rc == RC_SUCCESS)
        static_cast<void>(::sync_file_range(m_file.fd(), static_cast<off64_t>(offsetBytes),
                                            static_cast<off64_t>(bytes), SYNC_FILE_RANGE_WRITE));
    return rc;
}
