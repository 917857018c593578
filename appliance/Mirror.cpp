#include "appliance/Mirror.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "appliance/NewFile.h"
#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "common/infra/LogItem.h"
#include "host/journal/FileStorage.h"
#include "host/journal/JournalTags.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* TARGET_FILE = "target";
constexpr const char* INCREMENTS_FOLDER = "increments";
constexpr const char* JOURNAL_FOLDER = "journal";

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

constexpr const char* CREATING = ".creating-";

// The folder of a creation that is under way, held until its end.
class HeldFolder
{
public:
    explicit HeldFolder(const fs::path& path)
        : m_fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
          m_isHeld(m_fd >= 0 && flock(m_fd, LOCK_EX | LOCK_NB) == 0)
    {}
    ~HeldFolder()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    HeldFolder(const HeldFolder&) = delete;
    HeldFolder& operator=(const HeldFolder&) = delete;

    bool isHeld() const { return m_isHeld; }

private:
    const int m_fd;
    const bool m_isHeld;
};

// Whether there is nothing but what a creation makes before its last step, the settings: with them
// it is a mirror, whatever its name.
bool isHalfMirror(const fs::path& folder)
{
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename().string();
        if (name != TARGET_FILE && name != INCREMENTS_FOLDER && name != JOURNAL_FOLDER)
            return false;
    }
    return !error;
}

// What creations of that mirror by processes that are gone have left. Who is still at it has the
// number of a process that lives here, or, elsewhere, the folder.
void removeLeftCreations(const fs::path& final)
{
    const std::string prefix = final.filename().string() + CREATING;
    std::error_code ignored;
    std::vector<fs::path> candidates;
    for (const fs::directory_entry& entry : fs::directory_iterator(final.parent_path(), ignored)) {
        const std::string name = entry.path().filename().string();
        const std::string number = name.substr(std::min(prefix.size(), name.size()));
        if (name.compare(0, prefix.size(), prefix) != 0 || number.empty() || number.size() > 9 ||
            number.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const pid_t process = std::stoi(number);
        if (process == getpid() || (kill(process, 0) != 0 && errno == ESRCH))
            candidates.push_back(entry.path());
    }
    for (const fs::path& folder : candidates) {
        const HeldFolder held(folder);
        if (held.isHeld() && isHalfMirror(folder))
            fs::remove_all(folder, ignored);
    }
}

u64 randomId()
{
    std::random_device device;
    // Below 2^53, so that every JSON reader keeps it exactly.
    return ((u64{device()} << 32) | device()) >> 11;
}

Result inUse(const std::string& folder)
{
    return Result(ResultCode::InUse, folder + " is in use by another process that writes");
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
    std::error_code error;
    const auto status = fs::status(settings.m_target, error);
    if (fs::exists(status) && !fs::is_regular_file(status) && !fs::is_block_file(status))
        return Result::failed("target " + settings.m_target +
                              " is neither a regular file nor a block device");
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

} // namespace

Mirror::Mirror(std::string folder, std::unique_ptr<Storage> storage)
    : m_folder(std::move(folder)), m_storage(std::move(storage))
{}

Mirror::~Mirror() = default;

Result Mirror::create(const std::string& folder, MirrorSettings settings)
{
    if (settings.m_sizeBytes == 0 || settings.m_sizeBytes % BLOCK_BYTES != 0)
        return Result::usage("a volume's size is a multiple of 512 bytes above 0");
    if (Result result = checkJournalLimit(settings.m_journalLimitBytes); !result.ok())
        return result;
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
    removeLeftCreations(final);
    const fs::path making = final.string() + CREATING + std::to_string(getpid());
    std::error_code error;
    if (!fs::create_directory(making, error))
        return Result::failed("cannot make " + making.string() + ": " +
                              (error ? error.message() : "it exists"));
    RemoveUnlessDone remove(making);
    const HeldFolder held(making);
    if (!held.isHeld())
        return Result::fromErrno(errno, "cannot hold " + making.string());

    Mirror mirror(making.string(), std::make_unique<FileStorage>(making.string()));
    mirror.m_settings = settings;
    RcStatus rc = mirror.m_storage->makeDir(INCREMENTS_FOLDER);
    if (rc == RC_SUCCESS && settings.m_target.empty())
        rc = TargetVolume::create((making / TARGET_FILE).string(), settings.sizeBlocks());
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot fill " + making.string());
    if (Result result = mirror.openJournal(MirrorAccess::Writer, JournalRecovery::Strict, 0);
        !result.ok())
        return result;
    if (Result result = mirror.close(); !result.ok())
        return result;
    if (Result result = storeSettings(*mirror.m_storage, settings); !result.ok())
        return result;
    if (::rename(making.c_str(), final.c_str()) != 0)
        return Result::fromErrno(errno, "cannot make " + folder);
    remove.done();
    return syncFolder(final.parent_path().string());
}

Result Mirror::checkUnused(const std::string& folder)
{
    FileStorage storage(folder);
    std::unique_ptr<StorageFile> lock;
    if (storage.open("journal/lock", StorageAccess::ReadWrite, &lock) == RC_SUCCESS &&
        lock->lock() == RC_IN_USE)
        return inUse(folder);
    return Result();
}

Result Mirror::open(const std::string& folder, MirrorAccess access, JournalRecovery recovery,
                    std::unique_ptr<Mirror>* mirror)
{
    std::error_code error;
    if (!fs::is_directory(folder, error))
        return Result(ResultCode::NotFound, "no mirror at " + folder);
    return openIn(std::make_unique<FileStorage>(folder), folder, access, recovery, mirror);
}

Result Mirror::openIn(std::unique_ptr<Storage> storage, const std::string& folder,
                      MirrorAccess access, JournalRecovery recovery,
                      std::unique_ptr<Mirror>* mirror)
{
    std::unique_ptr<Mirror> opened(new Mirror(folder, std::move(storage)));
    if (Result result = loadSettings(*opened->m_storage, folder, &opened->m_settings); !result.ok())
        return result;
    {
        MutexGuard guard(opened->m_settingsMutex);
        opened->m_currentSettings = opened->m_settings;
    }
    opened->m_access = access;
    ApplyState state;
    if (Result result = loadApplyState(*opened->m_storage, &state); !result.ok())
        return Result(result.code(), folder + ": " + result.message());
    if (Result result = opened->openJournal(access, recovery, state.firstItems()); !result.ok())
        return result;
    // Again after the journal: it may have moved on meanwhile, and usePoint() notices.
    if (Result result = loadApplyState(*opened->m_storage, &state); !result.ok())
        return Result(result.code(), folder + ": " + result.message());
    // Only what the target holds leaves the journal. Else the note was lost, or is an older one.
    if (const u64 begin = opened->m_journal->begin().m_items; state.m_items < begin)
        return Result(ResultCode::Damaged,
                      folder + " is damaged: its journal begins after " + std::to_string(begin) +
                          " items, but by the note \"applied\" the target holds " +
                          std::to_string(state.m_items));
    {
        MutexGuard guard(opened->m_applyMutex);
        opened->m_applyState = state;
    }
    if (Result result = opened->openTargetAs(true, &opened->m_target); !result.ok())
        return result;
    opened->m_driver.add(opened->m_settings.m_id, opened->m_target);
    if (access == MirrorAccess::Writer) {
        if (Result result = opened->reserveRoom(); !result.ok())
            return result;
    }
    *mirror = std::move(opened);
    return Result();
}

// What a mirror on a full disk has to be able to write, until a trim has made room again.
Result Mirror::reserveRoom()
{
    if (Result result = reserveApplyState(*m_storage); !result.ok())
        return result;
    if (Result result = reserveSettings(*m_storage); !result.ok())
        return result;
    return PinLatch::prepare(*m_storage);
}

Result Mirror::openJournal(MirrorAccess access, JournalRecovery recovery, u64 minimumItems)
{
    JournalOptions options = journalOptions(m_settings, access, recovery);
    options.minimumItems = minimumItems;
    JournalStore::Opened opened = JournalStore::open(*m_storage, options);
    if (opened.m_rc == RC_IN_USE)
        return inUse(m_folder);
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

Result Mirror::openTargetAs(bool readOnly, std::shared_ptr<TargetVolume>* target)
{
    const std::string& named = m_settings.m_target;
    const std::string what = "target volume " + (named.empty() ? "of " + m_folder : named);
    const StorageAccess access = readOnly ? StorageAccess::ReadOnly : StorageAccess::ReadWrite;
    std::unique_ptr<StorageFile> file;
    RcStatus rc = named.empty() ? m_storage->open(TARGET_FILE, access, &file)
                                : PosixFile::open(named, access, &file);
    u64 size = 0;
    if (rc == RC_SUCCESS)
        rc = file->size(&size);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, what);
    // Every target is made, or was found, as large as the volume: what is missing was cut off, and
    // nobody knows what it held.
    if (size < m_settings.m_sizeBytes)
        return Result(ResultCode::Damaged, what + " is damaged: it has " + std::to_string(size) +
                                               " bytes, the volume has " +
                                               std::to_string(m_settings.m_sizeBytes));
    *target = std::make_shared<TargetVolume>(std::move(file), m_settings.sizeBlocks());
    return Result();
}

Result Mirror::openTargetForWriting(std::shared_ptr<TargetVolume>* target)
{
    return openTargetAs(false, target);
}

RecoverableWindow Mirror::window() const
{
    // Before the journal, which only grows: the window's beginning never lies behind its end.
    const u64 firstItems = applyState().firstItems();
    RecoverableWindow window = journalWindow();
    window.m_firstItems = firstItems;
    std::erase_if(window.m_checkpoints, [&](const CheckpointInfo& checkpoint) {
        return checkpoint.m_items < window.m_firstItems;
    });
    return window;
}

RecoverableWindow Mirror::journalWindow() const
{
    RecoverableWindow window;
    window.m_firstItems = m_journal->begin().m_items;
    window.m_items = m_journal->itemCount();
    for (const JournalCheckpoint& cp : m_journal->checkpoints())
        window.m_checkpoints.push_back({cp.m_id, cp.m_timestampUs, cp.m_tag, cp.m_itemsBefore});
    return window;
}

ApplyState Mirror::applyState() const
{
    MutexGuard guard(m_applyMutex);
    return m_applyState;
}

Result Mirror::setApplyState(const ApplyState& state)
{
    // A program that knows nothing of targets that were written to would read wrong points.
    {
        MutexGuard guard(m_settingsMutex);
        if (m_currentSettings.m_formatVersion < MirrorSettings::FORMAT_VERSION) {
            MirrorSettings raised = m_currentSettings;
            raised.m_formatVersion = MirrorSettings::FORMAT_VERSION;
            if (Result result = storeSettings(*m_storage, raised); !result.ok())
                return result;
            m_currentSettings = raised;
            const Result ignored = reserveSettings(*m_storage);
        }
    }
    if (Result result = storeApplyState(*m_storage, state); !result.ok())
        return result;
    {
        MutexGuard guard(m_applyMutex);
        m_applyState = state;
    }
    // For the next one, which tells when it fails for want of this.
    const Result ignored = reserveApplyState(*m_storage);
    return Result();
}

// Whether the point can be had; it stays so while the caller has the latch.
Result Mirror::checkPoint(u64 items)
{
    ApplyState state = applyState();
    // Nobody but the writer moves it, and only a reader has to look.
    if (m_access == MirrorAccess::Reader) {
        if (Result result = loadApplyState(*m_storage, &state); !result.ok())
            return Result(result.code(), m_folder + ": " + result.message());
        MutexGuard guard(m_applyMutex);
        m_applyState = state;
    }
    if (items < state.firstItems())
        return Result(ResultCode::NotFound,
                      "no point item:" + std::to_string(items) + "; " + describeWindow(window()));
    return Result();
}

Result Mirror::hold(Hold* hold, std::string (*freeName)(const std::vector<Hold>&))
{
    // After a crash there would be another past, or none, where the hold says.
    if (Result result = flushUpTo(hold->m_items); !result.ok())
        return result;
    PinLatch latch;
    if (Result result = latch.take(*m_storage); !result.ok())
        return result;
    if (Result result = checkPoint(hold->m_items); !result.ok())
        return result;
    if (hold->m_name.empty()) {
        std::vector<Hold> holds;
        if (Result result = listHolds(*m_storage, &holds); !result.ok())
            return result;
        hold->m_name = freeName(holds);
    }
    return addHold(*m_storage, *hold);
}

Result Mirror::release(const std::string& name)
{
    PinLatch latch;
    if (Result result = latch.take(*m_storage); !result.ok())
        return result;
    return removeHold(*m_storage, name);
}

Result Mirror::pins(std::vector<Hold>* holds, std::vector<UseInfo>* uses)
{
    holds->clear();
    uses->clear();
    PinLatch latch;
    bool isRefused = false;
    if (Result result = latch.take(*m_storage, &isRefused); !result.ok())
        return isRefused ? listHolds(*m_storage, holds) : result;
    if (Result result = listHolds(*m_storage, holds); !result.ok())
        return result;
    return listUses(*m_storage, {}, uses);
}

Result Mirror::usePoint(u64 items, const std::string& what, std::unique_ptr<PointUse>* use)
{
    // A writer could register; and its own apply asks what is registered.
    const bool isReader = m_access == MirrorAccess::Reader;
    PinLatch latch;
    bool isRefused = false;
    if (Result result = latch.take(*m_storage, &isRefused);
        !result.ok() && !(isRefused && isReader))
        return result;
    if (Result result = checkPoint(items); !result.ok())
        return result;
    JournalBegin begin;
    const RcStatus rc = loadJournalBegin(*m_storage, "journal", &begin);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot read where the journal begins");
    // All that is left of the journal is there still, for the point is; else it is past what a
    // reader knows of the journal.
    if (begin.m_page != m_journal->begin().m_page && m_journal->followBegin(begin) != RC_SUCCESS)
        return Result(ResultCode::InUse,
                      m_folder + " was trimmed by another process meanwhile; try again");
    const UseInfo info{items, begin.m_page, 0, what};
    Result added;
    if (!isRefused)
        added = PointUse::add(*m_storage, info, use, &isRefused);
    if (!isRefused || !isReader)
        return added;
    *use = PointUse::unregistered(*m_storage, info);
    return Result();
}

void Mirror::addIndex(JournalIndex* index)
{
    MutexGuard guard(m_indexesMutex);
    m_indexes.push_back(index);
}

void Mirror::removeIndex(JournalIndex* index)
{
    MutexGuard guard(m_indexesMutex);
    std::erase(m_indexes, index);
}

Result Mirror::journaled(RcStatus rc, const std::string& what) const
{
    if (rc == RC_SUCCESS)
        return Result();
    if (rc != RC_NO_SPACE)
        return Result::fromStatus(rc, what);
    if (m_journal->room() == JournalRoom::LimitReached)
        return Result(ResultCode::NoSpace,
                      what + ": the journal's limit of " + formatSize(m_journal->limitBytes()) +
                          " is reached (" + formatSize(m_journal->bytesUsed()) +
                          " used); apply and trim make room, as does a higher limit");
    return Result(ResultCode::NoSpace, what +
                                           ": the disk is full; apply and trim make room, as "
                                           "does whatever else is removed from the disk of " +
                                           m_folder);
}

// Nearly full is told before full is a failure, once for each time that it comes to that.
Result Mirror::accepted(RcStatus rc, const char* what, u64 offsetBlocks)
{
    tellNearlyFull();
    return rc == RC_SUCCESS ? Result()
                            : journaled(rc, std::string(what) + std::to_string(offsetBlocks));
}

void Mirror::tellNearlyFull()
{
    const bool diskFull = m_journal->room() == JournalRoom::DiskFull;
    if (m_toldDiskFull.exchange(diskFull) < diskFull)
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "the disk of " << m_folder << " is full, writes are refused; apply and trim make "
            << "room" << std::endl;
    if (m_journal->limitBytes() == 0)
        return;
    const u64 used = m_journal->bytesUsed();
    const bool nearlyFull = isNearlyFull(used, m_journal->limitBytes());
    if (m_toldNearlyFull.exchange(nearlyFull) < nearlyFull)
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "the journal of " << m_folder << " is nearly full: " << formatSize(used) << " of "
            << formatSize(m_journal->limitBytes()) << "; apply and trim make room" << std::endl;
}

Result Mirror::write(u64 offsetBlocks, const u8* data, u32 lengthBlocks)
{
    return accepted(m_journal->append(offsetBlocks, data, lengthBlocks),
                    "cannot journal the write at block ", offsetBlocks);
}

Result Mirror::writeZeroes(u64 offsetBlocks, u64 lengthBlocks)
{
    return accepted(m_journal->appendZeroes(offsetBlocks, lengthBlocks),
                    "cannot journal the zeroes at block ", offsetBlocks);
}

MirrorSettings Mirror::currentSettings() const
{
    MutexGuard guard(m_settingsMutex);
    return m_currentSettings;
}

Result Mirror::changeSettings(std::optional<u64> keepCheckpoints, std::optional<u64> keepForSeconds,
                              std::optional<u64> journalLimitBytes)
{
    MutexGuard guard(m_settingsMutex);
    MirrorSettings changed = m_currentSettings;
    changed.m_keepCheckpoints = keepCheckpoints.value_or(changed.m_keepCheckpoints);
    changed.m_keepForSeconds = keepForSeconds.value_or(changed.m_keepForSeconds);
    changed.m_journalLimitBytes = journalLimitBytes.value_or(changed.m_journalLimitBytes);
    if (Result result = storeSettings(*m_storage, changed); !result.ok())
        return result;
    m_currentSettings = changed;
    m_journal->setLimitBytes(changed.m_journalLimitBytes);
    // For the next change, which tells when it fails for want of this.
    const Result ignored = reserveSettings(*m_storage);
    return Result();
}

Result Mirror::checkpoint(const std::string& tag, CpId_t* id)
{
    if (!JournalTags::isValid(tag))
        return Result::usage("a tag is UTF-8 of at most 255 bytes without control characters");
    return journaled(m_journal->appendCheckpoint(tag, id), "cannot set the checkpoint");
}

Result Mirror::flush()
{
    return journaled(m_journal->flush(), "cannot flush the journal");
}

Result Mirror::flushUpTo(u64 items)
{
    const bool isThere = m_access == MirrorAccess::Reader || m_journal->durableItemCount() >= items;
    return isThere ? Result() : flush();
}

Result Mirror::close()
{
    return journaled(m_journal->close(), "cannot close the journal");
}
