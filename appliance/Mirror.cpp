#include "appliance/Mirror.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

#include "appliance/Sizes.h"
#include "host/journal/FileStorage.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* TARGET_FILE = "target";
constexpr const char* INCREMENTS_FOLDER = "increments";

// Removes what a failed creation has made so far.
class RemoveUnlessDone
{
public:
    explicit RemoveUnlessDone(fs::path path) : m_path(std::move(path)) {}
    ~RemoveUnlessDone()
    {
        std::error_code ignored;
        if (!m_path.empty())
            fs::remove_all(m_path, ignored);
    }
    RemoveUnlessDone(const RemoveUnlessDone&) = delete;
    RemoveUnlessDone& operator=(const RemoveUnlessDone&) = delete;

    void done() { m_path.clear(); }

private:
    fs::path m_path;
};

u64 randomId()
{
    std::random_device device;
    // Below 2^53, so that every JSON reader keeps it exactly.
    return ((u64{device()} << 32) | device()) >> 11;
}

Result checkFree(const std::string& folder)
{
    std::error_code error;
    if (!fs::exists(folder, error))
        return Result();
    if (fs::exists(fs::path(folder) / MirrorSettings::FILE_NAME, error))
        return Result::failed(folder + " is a mirror already");
    if (!fs::is_directory(folder, error))
        return Result::failed(folder + " exists and is no folder");
    if (!fs::is_empty(folder, error))
        return Result::failed(folder + " has other things in it");
    return Result();
}

// The target that the settings name has to hold the whole volume.
Result checkNamedTarget(const MirrorSettings& settings)
{
    std::unique_ptr<StorageFile> file;
    u64 size = 0;
    RcStatus rc = PosixFile::open(settings.m_target, StorageAccess::ReadOnly, &file);
    if (rc == RC_SUCCESS)
        rc = file->size(&size);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot open target " + settings.m_target);
    if (size < settings.m_sizeBytes)
        return Result::failed("target " + settings.m_target + " has " + formatSize(size) +
                              ", the volume needs " + formatSize(settings.m_sizeBytes));
    return Result();
}

JournalOptions journalOptions(const MirrorSettings& settings, MirrorAccess access,
                              JournalRecovery recovery)
{
    JournalOptions options;
    options.mode = access == MirrorAccess::Writer ? JournalMode::Writer : JournalMode::ReadOnly;
    options.recovery = recovery;
    options.compression = settings.m_compression;
    options.limitBytes = settings.m_journalLimitBytes;
    options.volumeBlocks = settings.sizeBlocks();
    return options;
}

Result syncFolder(const fs::path& folder)
{
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool good = fd >= 0 && fsync(fd) == 0;
    const int error = errno;
    if (fd >= 0)
        close(fd);
    return good ? Result() : Result::fromErrno(error, "cannot sync " + folder.string());
}

} // namespace

Mirror::Mirror(std::string folder, std::unique_ptr<Storage> storage)
    : m_folder(std::move(folder)), m_storage(std::move(storage))
{}

Mirror::~Mirror() = default;

Result Mirror::create(const std::string& folder, MirrorSettings settings)
{
    if (settings.m_sizeBytes == 0 || settings.m_sizeBytes % BLOCK_BYTES != 0)
        return Result::usage("a volume's size is a multiple of 512 bytes above 0");
    if (Result result = checkFree(folder); !result.ok())
        return result;
    if (!settings.m_target.empty()) {
        settings.m_target = fs::absolute(settings.m_target).string();
        if (Result result = checkNamedTarget(settings); !result.ok())
            return result;
    }
    settings.m_id = randomId();

    // Made beside its final place and moved there as one step: a crash leaves no half mirror that
    // could be taken for one.
    fs::path final = fs::absolute(folder).lexically_normal();
    if (!final.has_filename())
        final = final.parent_path();
    const fs::path making = final.string() + ".creating-" + std::to_string(getpid());
    std::error_code error;
    if (!fs::create_directory(making, error))
        return Result::failed("cannot make " + making.string() + ": " +
                              (error ? error.message() : "it exists"));
    RemoveUnlessDone remove(making);

    Mirror mirror(making.string(), std::make_unique<FileStorage>(making.string()));
    mirror.m_settings = settings;
    RcStatus rc = mirror.m_storage->makeDir(INCREMENTS_FOLDER);
    if (rc == RC_SUCCESS && settings.m_target.empty())
        rc = TargetVolume::create((making / TARGET_FILE).string(), settings.sizeBlocks());
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot fill " + making.string());
    if (Result result = mirror.openJournal(MirrorAccess::Writer, JournalRecovery::Strict);
        !result.ok())
        return result;
    if (Result result = mirror.close(); !result.ok())
        return result;
    if (Result result = storeSettings(*mirror.m_storage, settings); !result.ok())
        return result;
    if (::rename(making.c_str(), final.c_str()) != 0)
        return Result::fromErrno(errno, "cannot make " + folder);
    remove.done();
    return syncFolder(final.parent_path());
}

Result Mirror::open(const std::string& folder, MirrorAccess access, JournalRecovery recovery,
                    std::unique_ptr<Mirror>* mirror)
{
    std::error_code error;
    if (!fs::is_directory(folder, error))
        return Result(ResultCode::NotFound, "no mirror at " + folder);
    std::unique_ptr<Mirror> opened(new Mirror(folder, std::make_unique<FileStorage>(folder)));
    if (Result result = loadSettings(*opened->m_storage, folder, &opened->m_settings); !result.ok())
        return result;
    if (Result result = opened->openJournal(access, recovery); !result.ok())
        return result;
    if (Result result = opened->openTarget(); !result.ok())
        return result;
    *mirror = std::move(opened);
    return Result();
}

Result Mirror::openJournal(MirrorAccess access, JournalRecovery recovery)
{
    JournalStore::Opened opened =
        JournalStore::open(*m_storage, journalOptions(m_settings, access, recovery));
    if (opened.m_rc == RC_IN_USE)
        return Result(ResultCode::InUse, m_folder + " is in use by another process that writes");
    if (opened.m_rc == RC_NOT_FOUND)
        return Result(ResultCode::Damaged, m_folder + " is damaged: its journal is gone");
    if (opened.m_rc != RC_SUCCESS)
        return Result(
            Result::fromStatus(opened.m_rc, "").code(),
            "journal of " + m_folder + ": " +
                (opened.m_message.empty() ? rcStatusText(opened.m_rc) : opened.m_message));
    m_journal = std::move(opened.m_store);
    return Result();
}

Result Mirror::openTarget()
{
    const std::string path = m_settings.m_target.empty()
                                 ? (fs::path(m_folder) / TARGET_FILE).string()
                                 : m_settings.m_target;
    const RcStatus rc = TargetVolume::open(path, m_settings.sizeBlocks(), true, &m_target);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "target volume " + path);
    m_driver.add(m_settings.m_id, m_target);
    return Result();
}

RecoverableWindow Mirror::window() const
{
    RecoverableWindow window;
    window.m_items = m_journal->itemCount();
    for (const JournalCheckpoint& cp : m_journal->checkpoints())
        window.m_checkpoints.push_back({cp.m_id, cp.m_timestampUs, cp.m_tag, cp.m_itemsBefore});
    return window;
}

Result Mirror::journaled(RcStatus rc, const std::string& what) const
{
    if (rc == RC_SUCCESS)
        return Result();
    if (rc == RC_NO_SPACE && m_journal->limitBytes() != 0)
        return Result(ResultCode::NoSpace, what + ": the disk is full, or the journal's limit of " +
                                               formatSize(m_journal->limitBytes()) +
                                               " is reached (" +
                                               formatSize(m_journal->bytesUsed()) + " used)");
    return Result::fromStatus(rc, what);
}

Result Mirror::write(u64 offsetBlocks, const u8* data, u32 lengthBlocks)
{
    return journaled(m_journal->append(offsetBlocks, data, lengthBlocks),
                     "cannot journal the write at block " + std::to_string(offsetBlocks));
}

Result Mirror::writeZeroes(u64 offsetBlocks, u64 lengthBlocks)
{
    return journaled(m_journal->appendZeroes(offsetBlocks, lengthBlocks),
                     "cannot journal the zeroes at block " + std::to_string(offsetBlocks));
}

Result Mirror::checkpoint(const std::string& tag, CpId_t* id)
{
    return journaled(m_journal->appendCheckpoint(tag, id), "cannot set the checkpoint");
}

Result Mirror::flush()
{
    return journaled(m_journal->flush(), "cannot flush the journal");
}

Result Mirror::close()
{
    return journaled(m_journal->close(), "cannot close the journal");
}
