#include "host/increments/IncrementFile.h"

#include <bit>
#include <cstring>

#include "host/journal/Crc32c.h"

namespace {

constexpr u32 FORMAT_VERSION = 1;
constexpr char MAGIC[4] = {'R', 'L', 'I', 'N'};
// A bitmap of 2^32 bits is never larger; so a length beyond it is not believed.
constexpr u64 MAX_FILE_BYTES = u64{1} << 30;

// As it lies on disk, little-endian.
struct Header
{
    char m_magic[4];
    u32 m_version;
    u64 m_mirrorId;
    u64 m_volumeBlocks;
    u32 m_granuleBlocks;
    u32 m_bitmapChecksum;
    u64 m_startTimestampUs;
    u64 m_endCheckpoint;
    u64 m_bitmapBytes;
    u32 m_reserved; // 0
    u32 m_checksum; // of all before it
};
static_assert(sizeof(Header) == 64 && std::endian::native == std::endian::little);

constexpr size_t CHECKED_BYTES = offsetof(Header, m_checksum);

IncrementFile::Loaded failed(RcStatus rc, const std::string& message)
{
    return {rc, message, std::nullopt};
}

} // namespace

std::string IncrementFile::encode(Increment& increment) const
{
    const GranuleGeometry& geometry = increment.m_changed.geometry();
    const std::string bitmap = increment.m_changed.serialize();
    Header header{};
    std::memcpy(header.m_magic, MAGIC, sizeof(MAGIC));
    header.m_version = FORMAT_VERSION;
    header.m_mirrorId = m_mirrorId;
    header.m_volumeBlocks = geometry.m_volumeBlocks;
    header.m_granuleBlocks = geometry.m_granuleBlocks;
    header.m_bitmapChecksum = crc32c(bitmap.data(), bitmap.size());
    header.m_startTimestampUs = increment.m_startTimestampUs;
    header.m_endCheckpoint = increment.m_endCheckpoint;
    header.m_bitmapBytes = bitmap.size();
    header.m_checksum = crc32c(&header, CHECKED_BYTES);
    std::string bytes(sizeof(Header), '\0');
    std::memcpy(bytes.data(), &header, sizeof(Header));
    return bytes += bitmap;
}

IncrementFile::Loaded IncrementFile::decode(const std::string& bytes, u64 volumeBlocks) const
{
    Header header;
    if (bytes.size() < sizeof(Header))
        return failed(RC_DAMAGED, "the file is shorter than its header");
    std::memcpy(&header, bytes.data(), sizeof(Header));
    if (std::memcmp(header.m_magic, MAGIC, sizeof(MAGIC)) != 0)
        return failed(RC_DAMAGED, "the file does not begin as an increment does");
    if (crc32c(&header, CHECKED_BYTES) != header.m_checksum)
        return failed(RC_BAD_CHECKSUM, "the header differs from its checksum");
    if (header.m_version != FORMAT_VERSION)
        return failed(RC_BAD_ARGUMENT,
                      "format version " + std::to_string(header.m_version) + " is not known");
    if (header.m_mirrorId != m_mirrorId)
        return failed(RC_BAD_ARGUMENT, "it belongs to another mirror");
    if (header.m_volumeBlocks != volumeBlocks)
        return failed(RC_BAD_ARGUMENT,
                      "it is of a volume of " + std::to_string(header.m_volumeBlocks) + " blocks");
    const GranuleGeometry geometry{volumeBlocks, header.m_granuleBlocks};
    if (!geometry.isValid() || header.m_reserved != 0)
        return failed(RC_DAMAGED, "the header has a value that cannot be");
    if (header.m_bitmapBytes != bytes.size() - sizeof(Header))
        return failed(RC_DAMAGED, "the file is not as long as its header says");
    const std::string bitmap = bytes.substr(sizeof(Header));
    if (crc32c(bitmap.data(), bitmap.size()) != header.m_bitmapChecksum)
        return failed(RC_BAD_CHECKSUM, "the bitmap differs from its checksum");
    Loaded loaded;
    loaded.m_increment.emplace(
        Increment{GranuleMap(geometry), header.m_startTimestampUs, header.m_endCheckpoint});
    if (!loaded.m_increment->m_changed.deserialize(bitmap))
        return failed(RC_DAMAGED, "the bitmap is none, or reaches beyond the volume");
    return loaded;
}

IncrementFile::Loaded IncrementFile::load(u64 volumeBlocks)
{
    std::unique_ptr<StorageFile> file;
    RcStatus rc = m_storage.open(name(), StorageAccess::ReadOnly, &file);
    if (rc != RC_SUCCESS)
        return failed(rc, name() + ": " + rcStatusText(rc));
    u64 sizeBytes = 0;
    rc = file->size(&sizeBytes);
    if (rc == RC_SUCCESS && sizeBytes > MAX_FILE_BYTES)
        return failed(RC_DAMAGED, name() + ": the file is too long for an increment");
    std::string bytes;
    u64 doneBytes = 0;
    if (rc == RC_SUCCESS) {
        bytes.resize(sizeBytes);
        rc = file->pread(bytes.data(), sizeBytes, 0, &doneBytes);
    }
    if (rc != RC_SUCCESS)
        return failed(rc, name() + ": " + rcStatusText(rc));
    bytes.resize(doneBytes);
    Loaded loaded = decode(bytes, volumeBlocks);
    if (loaded.m_rc != RC_SUCCESS)
        loaded.m_message = name() + ": " + loaded.m_message;
    return loaded;
}

RcStatus IncrementFile::writeNew(const std::string& bytes)
{
    RcStatus rc = m_storage.makeDir(m_folder);
    std::unique_ptr<StorageFile> file;
    if (rc == RC_SUCCESS)
        rc = m_storage.open(newName(), StorageAccess::Create, &file);
    // An earlier attempt may have left a longer one.
    if (rc == RC_SUCCESS)
        rc = file->truncate(0);
    if (rc == RC_SUCCESS)
        rc = file->pwrite(bytes.data(), bytes.size(), 0);
    if (rc == RC_SUCCESS)
        rc = file->sync();
    return rc;
}

RcStatus IncrementFile::store(const std::string& bytes)
{
    RcStatus rc = writeNew(bytes);
    if (rc != RC_SUCCESS)
        return rc;
    m_uncertain = true;
    rc = m_storage.rename(newName(), name());
    return rc == RC_SUCCESS ? syncNames() : rc;
}

RcStatus IncrementFile::remove()
{
    m_uncertain = true;
    const RcStatus rc = m_storage.remove(name());
    if (rc != RC_SUCCESS && rc != RC_NOT_FOUND)
        return rc;
    // Nothing was ever stored where there is no folder.
    std::vector<std::string> names;
    if (rc == RC_NOT_FOUND && m_storage.list(m_folder, &names) == RC_NOT_FOUND) {
        m_uncertain = false;
        return RC_SUCCESS;
    }
    return syncNames();
}

RcStatus IncrementFile::syncNames()
{
    RcStatus rc = m_storage.syncDir(m_folder);
    // The folder itself may be new.
    if (rc == RC_SUCCESS)
        rc = m_storage.syncDir("");
    m_uncertain = rc != RC_SUCCESS;
    return rc;
}
