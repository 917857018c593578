#include "host/increments/IncrementManager.h"

#include <utility>

#define INCREMENT_LOG(level)                                                                       \
    LogItem(LogModuleCommon, level, __PRETTY_FUNCTION__, 3)                                        \
        << "mirror " << m_options.m_mirrorId << ": "

IncrementManager::IncrementManager(Storage& storage, const IncrementOptions& options)
    : m_options(options), m_file(storage, options.m_folder, options.m_mirrorId)
{}

IncrementManager::Opened IncrementManager::open(Storage& storage, const IncrementOptions& options)
{
    Opened opened;
    std::unique_ptr<IncrementManager> manager(new IncrementManager(storage, options));
    if (options.m_enabled) {
        if (!manager->geometry().isValid())
            return {RC_BAD_ARGUMENT,
                    "increments need 1 to 2^32 granules; a volume of " +
                        std::to_string(options.m_volumeBlocks) + " blocks has not that with " +
                        std::to_string(options.m_granuleBlocks) + " blocks each",
                    nullptr};
        MutexGuard file(manager->m_fileMutex);
        IncrementFile::Loaded loaded = manager->m_file.load(options.m_volumeBlocks);
        if (loaded.m_rc != RC_SUCCESS && loaded.m_rc != RC_NOT_FOUND)
            return {loaded.m_rc, loaded.m_message, nullptr};
        MutexGuard lock(manager->m_mutex);
        if (loaded.m_increment)
            manager->m_increment.emplace(
                Gathered{std::move(*loaded.m_increment), true, RC_SUCCESS});
    }
    opened.m_manager = std::move(manager);
    return opened;
}

RcStatus IncrementManager::discard(Storage& storage, const IncrementOptions& options)
{
    return IncrementFile(storage, options.m_folder, options.m_mirrorId).remove();
}

// ---- reports ----

RcStatus IncrementManager::mark(std::optional<Gathered>& into, const std::optional<Gathered>& other,
                                u64 offsetBlocks, u32 lengthBlocks)
{
    // Marking more in a map that misses something would only cost memory.
    if (into->m_rc != RC_SUCCESS)
        return into->m_rc;
    const u64 otherBytes = other ? other->m_increment.m_changed.memoryBytes() : 0;
    const u64 maxBytes =
        m_options.m_maxMemoryBytes > otherBytes ? m_options.m_maxMemoryBytes - otherBytes : 0;
    into->m_rc = into->m_increment.m_changed.add(offsetBlocks, lengthBlocks, maxBytes);
    if (into->m_rc != RC_SUCCESS)
        INCREMENT_LOG(WarnLevel) << "changed blocks take more than the limit of "
                                 << m_options.m_maxMemoryBytes
                                 << " bytes; the next backup is to be a full one" << std::endl;
    return into->m_rc;
}

RcStatus IncrementManager::reportIO(u64 offsetBlocks, u32 lengthBlocks)
{
    if (!m_options.m_enabled)
        return RC_SUCCESS;
    if (!geometry().contains(offsetBlocks, lengthBlocks))
        return RC_BAD_ARGUMENT;
    MutexGuard lock(m_mutex);
    RcStatus rc = RC_SUCCESS;
    if (m_increment)
        rc = mark(m_increment, m_candidate, offsetBlocks, lengthBlocks);
    if (m_candidate) {
        const RcStatus candidateRc = mark(m_candidate, m_increment, offsetBlocks, lengthBlocks);
        rc = rc == RC_SUCCESS ? candidateRc : rc;
    }
    return rc;
}

RcStatus IncrementManager::reportCandidateIO(u64 offsetBlocks, u32 lengthBlocks)
{
    if (!m_options.m_enabled)
        return RC_SUCCESS;
    if (!geometry().contains(offsetBlocks, lengthBlocks))
        return RC_BAD_ARGUMENT;
    MutexGuard lock(m_mutex);
    if (!m_candidate)
        return RC_NOT_FOUND;
    // The bytes that are being stored would not have it.
    if (m_committing)
        return RC_IN_USE;
    return mark(m_candidate, m_increment, offsetBlocks, lengthBlocks);
}

RcStatus IncrementManager::getIncrementCbt(std::vector<LtrChangedRange>* ranges)
{
    ranges->clear();
    MutexGuard lock(m_mutex);
    if (!m_increment)
        return RC_NOT_FOUND;
    if (m_increment->m_rc != RC_SUCCESS)
        return m_increment->m_rc;
    *ranges = m_increment->m_increment.m_changed.ranges();
    return RC_SUCCESS;
}

// ---- the candidate's life ----

RcStatus IncrementManager::initNextIncrementCandidate()
{
    if (!m_options.m_enabled)
        return RC_NOT_FOUND;
    MutexGuard file(m_fileMutex);
    const RcStatus rc = dropCandidate();
    if (rc != RC_SUCCESS)
        return rc;
    MutexGuard lock(m_mutex);
    m_candidate.emplace(Gathered{Increment{GranuleMap(geometry())}});
    return RC_SUCCESS;
}

RcStatus IncrementManager::setIncrementCandidateCpTimestamp(u64 timestamp)
{
    MutexGuard lock(m_mutex);
    if (!m_candidate)
        return RC_NOT_FOUND;
    if (m_committing)
        return RC_IN_USE;
    m_candidate->m_increment.m_startTimestampUs = timestamp;
    m_candidate->m_hasStart = true;
    return RC_SUCCESS;
}

RcStatus IncrementManager::setCandidateEndCheckpoint(CpId_t checkpoint)
{
    MutexGuard lock(m_mutex);
    if (!m_candidate)
        return RC_NOT_FOUND;
    if (m_committing)
        return RC_IN_USE;
    m_candidate->m_increment.m_endCheckpoint = checkpoint;
    return RC_SUCCESS;
}

RcStatus IncrementManager::commitNextIncrementCadidate()
{
    MutexGuard file(m_fileMutex);
    std::string bytes;
    {
        MutexGuard lock(m_mutex);
        if (!m_candidate)
            return RC_NOT_FOUND;
        if (m_candidate->m_rc != RC_SUCCESS)
            return m_candidate->m_rc;
        if (!m_candidate->m_hasStart)
            return RC_BAD_ARGUMENT;
        bytes = m_file.encode(m_candidate->m_increment);
        m_committing = true;
    }
    const RcStatus rc = m_file.store(bytes);
    MutexGuard lock(m_mutex);
    m_committing = false;
    if (rc != RC_SUCCESS) {
        INCREMENT_LOG(ErrorLevel) << "the next increment could not be stored: " << rcStatusText(rc)
                                  << std::endl;
        return rc;
    }
    m_increment = std::move(m_candidate);
    m_candidate.reset();
    return RC_SUCCESS;
}

RcStatus IncrementManager::cancelNextIncrementCadidate()
{
    if (!m_options.m_enabled)
        return RC_NOT_FOUND;
    MutexGuard file(m_fileMutex);
    {
        MutexGuard lock(m_mutex);
        if (!m_candidate)
            return RC_NOT_FOUND;
    }
    return dropCandidate();
}

RcStatus IncrementManager::dropCandidate()
{
    std::optional<std::string> bytes;
    {
        MutexGuard lock(m_mutex);
        m_candidate.reset();
        // Where a commit failed half way, the file may be the candidate's: the increment's is put
        // back. It may have more than up to its end, and nothing less.
        if (m_file.isUncertain() && m_increment)
            bytes = m_file.encode(m_increment->m_increment);
    }
    if (!m_file.isUncertain())
        return RC_SUCCESS;
    return bytes ? m_file.store(*bytes) : m_file.remove();
}

RcStatus IncrementManager::save(CpId_t endCheckpoint)
{
    MutexGuard file(m_fileMutex);
    std::string bytes;
    {
        MutexGuard lock(m_mutex);
        if (!m_increment)
            return RC_NOT_FOUND;
        if (m_increment->m_rc != RC_SUCCESS)
            return m_increment->m_rc;
        const CpId_t endBefore =
            std::exchange(m_increment->m_increment.m_endCheckpoint, endCheckpoint);
        bytes = m_file.encode(m_increment->m_increment);
        m_increment->m_increment.m_endCheckpoint = endBefore;
    }
    const RcStatus rc = m_file.store(bytes);
    if (rc == RC_SUCCESS) {
        MutexGuard lock(m_mutex);
        m_increment->m_increment.m_endCheckpoint = endCheckpoint;
    }
    return rc;
}

// ---- for people ----

std::optional<IncrementInfo> IncrementManager::infoOf(const std::optional<Gathered>& gathered)
{
    if (!gathered)
        return std::nullopt;
    const Increment& increment = gathered->m_increment;
    return IncrementInfo{
        increment.m_startTimestampUs, increment.m_endCheckpoint, increment.m_changed.granules(),
        increment.m_changed.geometry().m_granuleBlocks, gathered->m_rc == RC_SUCCESS};
}

std::optional<IncrementInfo> IncrementManager::increment()
{
    MutexGuard lock(m_mutex);
    return infoOf(m_increment);
}

std::optional<IncrementInfo> IncrementManager::candidate()
{
    MutexGuard lock(m_mutex);
    return infoOf(m_candidate);
}
