#include "host/journal/JournalStore.h"

#include <algorithm>
#include <new>

#include "common/infra/LogItem.h"
#include "host/infra/Clock.h"
#include "host/journal/JournalStoreImpl.h"
#include "host/journal/PreparedRequest.h"
#include "host/volume/AsyncFileIo.h"

namespace {

// Of a reader whose journal is trimmed each time that it looks.
constexpr u32 MOST_TRIES = 10;

JournalOptions completed(JournalOptions options)
{
    if (!options.nowUs)
        options.nowUs = [] { return Clock::instance()->wallTimeUs(); };
    return options;
}

// volumeBlocks: 0 for no check.
bool isInVolume(u64 offsetBlocks, u64 lengthBlocks, u64 volumeBlocks)
{
    return lengthBlocks > 0 && offsetBlocks + lengthBlocks > offsetBlocks &&
           (volumeBlocks == 0 || offsetBlocks + lengthBlocks <= volumeBlocks);
}

bool fail(JournalStore::Opened& opened, RcStatus rc, const std::string& message)
{
    opened.m_rc = rc;
    opened.m_message = message;
    return false;
}

} // namespace

JournalStore::Impl::Impl(Storage& storage, const JournalOptions& options, AsyncFileIo& io)
    : m_storage(storage), m_options(completed(options)),
      m_grains(storage, options.folder, options.mode == JournalMode::ReadOnly, io),
      m_limitBytes(options.limitBytes)
{}

bool JournalStore::Impl::takeLock(Opened& opened)
{
    RcStatus rc = m_storage.makeDir(m_options.folder);
    if (rc == RC_SUCCESS)
        rc = m_storage.syncDir("");
    if (rc == RC_SUCCESS)
        rc = m_storage.open(m_options.folder + "/lock", StorageAccess::Create, &m_lockFile);
    if (rc == RC_SUCCESS)
        rc = m_lockFile->lock();
    if (rc == RC_IN_USE)
        return fail(opened, rc, "another process writes to this journal");
    return rc == RC_SUCCESS ||
           fail(opened, rc, std::string("cannot lock the journal: ") + rcStatusText(rc));
}

bool JournalStore::Impl::recover(Opened& opened)
{
    JournalBegin begin;
    const RcStatus begun = loadJournalBegin(m_storage, m_options.folder, &begin);
    if (begun != RC_SUCCESS)
        return fail(opened, begun,
                    std::string("cannot read where the journal begins: ") + rcStatusText(begun));
    RecoveryResult found = recoverJournal(m_grains, m_options, begin);
    opened.m_report = found.m_report;
    if (found.m_rc != RC_SUCCESS)
        return fail(opened, found.m_rc,
                    !found.m_message.empty()
                        ? found.m_message
                        : std::string("cannot read the journal: ") + rcStatusText(found.m_rc));

    MutexGuard checkpointGuard(m_checkpointMutex);
    MutexGuard guard(m_mutex);
    const RcStatus rc = m_tags.load(m_storage, m_options.folder);
    if (rc != RC_SUCCESS)
        return fail(opened, rc, std::string("cannot read the tags: ") + rcStatusText(rc));
    for (const RecoveredCheckpoint& one : found.m_checkpoints) {
        const std::string* tag =
            one.m_tagMark != 0 ? m_tags.find(one.m_id, one.m_tagMark) : nullptr;
        if (one.m_tagMark != 0 && tag == nullptr)
            opened.m_report.m_damage.push_back(
                {"tag of checkpoint " + std::to_string(one.m_id), "damaged or missing"});
        m_checkpoints.push_back({one.m_id, one.m_timestampUs, one.m_itemsBefore,
                                 tag != nullptr ? *tag : std::string(), one.m_ptr});
        if (one.m_tagMark != 0 && tag == nullptr && m_options.recovery == JournalRecovery::Strict)
            return fail(opened, RC_DAMAGED,
                        "the journal is damaged: the tag of checkpoint " +
                            std::to_string(one.m_id) + " is damaged or missing");
    }
    m_begin = begin;
    m_placedCheckpoints = m_checkpoints.size();
    m_lastCheckpoint = found.m_position.m_lastCheckpoint;
    m_lastTimestampUs = found.m_position.m_lastTimestampUs;
    m_items = m_durableItems = found.m_position.m_items;
    m_endPage = m_roomPage = found.m_position.m_endPage;
    m_endsMarked = found.m_position.m_endsMarked;
    m_storedBlocks = found.m_position.m_storedBlocks;
    m_dataGrain = found.m_position.m_dataGrain;
    m_dataBlock = m_dataGrain != 0 ? found.m_position.m_dataBlock : SFS_GRAIN_BLOCKS;
    if (m_options.mode == JournalMode::Writer) {
        if (m_items < m_options.minimumItems)
            return fail(opened, RC_DAMAGED,
                        "the journal can be read up to item:" + std::to_string(m_items) +
                            " only, but the target volume holds more of it, up to item:" +
                            std::to_string(m_options.minimumItems) +
                            "; it is not cut there, as what is written next would be lost");
        // The beginning that was read may be younger than the last sync of its name. Nothing goes
        // for its sake before a power cut can no longer bring the old one back.
        RcStatus cut = m_storage.syncDir(m_options.folder);
        if (cut == RC_SUCCESS)
            cut = cutJournal(m_grains, found.m_position);
        u64 removed = 0; // what a trim that was cut off has left behind
        if (cut == RC_SUCCESS)
            cut = removeBeforeBegin(m_grains, begin, &removed);
        if (cut != RC_SUCCESS)
            return fail(opened, cut,
                        std::string("cannot cut the journal's incomplete end: ") +
                            rcStatusText(cut));
    }
    m_report = opened.m_report;
    if (!m_report.m_text.empty())
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3) << m_report.m_text << std::endl;
    return true;
}

bool JournalStore::Impl::prepareWriting(Opened& opened)
{
    MutexGuard guard(m_checkpointMutex);
    const RcStatus rc = m_tags.openForWriting(m_storage, m_options.folder);
    if (rc != RC_SUCCESS)
        return fail(opened, rc, std::string("cannot open the tags: ") + rcStatusText(rc));
    // A process that was killed may have written pages that it never synced. They are part of the
    // journal from here on, and the next flush counts on their being durable.
    u64 page = 0;
    u64 end = 0;
    {
        MutexGuard pages(m_mutex);
        page = m_begin.m_page;
        end = m_endPage;
    }
    for (; page < end; page += JOURNAL_PAGES_PER_GRAIN - pageInGrain(page)) {
        const RcStatus written = m_grains.sync(GrainKind::Meta, pageGrain(page));
        // Salvage goes on without what is lost.
        if (written != RC_SUCCESS && m_options.recovery != JournalRecovery::Salvage)
            return fail(opened, written,
                        std::string("cannot make the journal durable: ") + rcStatusText(written));
    }
    RcStatus synced = m_storage.syncDir(m_options.folder);
    if (synced == RC_SUCCESS)
        synced = reserveJournalBegin(m_storage, m_options.folder);
    return synced == RC_SUCCESS ||
           fail(opened, synced,
                std::string("cannot make the journal durable: ") + rcStatusText(synced));
}

JournalStore::Opened JournalStore::open(Storage& storage, const JournalOptions& options)
{
    // A reader may come while the writer takes the journal's beginning away, and miss some of it;
    // what it then finds damaged is looked at again, from the new beginning.
    for (u32 tries = 1;; ++tries) {
        JournalBegin before;
        JournalBegin after;
        const RcStatus had = loadJournalBegin(storage, options.folder, &before);
        Opened opened = openOnce(storage, options);
        if (opened.m_rc == RC_SUCCESS || options.mode == JournalMode::Writer || had != RC_SUCCESS ||
            tries == MOST_TRIES ||
            loadJournalBegin(storage, options.folder, &after) != RC_SUCCESS ||
            after.m_page == before.m_page)
            return opened;
    }
}

JournalStore::Opened JournalStore::openOnce(Storage& storage, const JournalOptions& options)
{
    Opened opened;
    auto impl = std::make_unique<Impl>(
        storage, options, options.io != nullptr ? *options.io : AsyncFileIo::instance());
    const bool writer = options.mode == JournalMode::Writer;
    if ((!writer || impl->takeLock(opened)) && impl->recover(opened) &&
        (!writer || impl->prepareWriting(opened)))
        opened.m_store.reset(new JournalStore(std::move(impl)));
    else if (opened.m_rc == RC_NOT_FOUND)
        opened.m_message = "there is no journal";
    return opened;
}

JournalStore::JournalStore(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

JournalStore::~JournalStore()
{
    if (m_impl->m_options.mode != JournalMode::Writer)
        return;
    try {
        const RcStatus rc = close();
        if (rc != RC_SUCCESS)
            LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
                << "the journal's end could not be made durable: " << rcStatusText(rc) << std::endl;
    } catch (const std::bad_alloc&) {
        // Nor is there memory to tell of it; the journal ends as it does after a crash.
    }
}

RcStatus JournalStore::append(u64 offsetBlocks, const void* data, u32 lengthBlocks)
{
    PreparedRequest request;
    const RcStatus rc = prepareWrite(offsetBlocks, data, lengthBlocks, &request);
    if (rc != RC_SUCCESS)
        return rc;
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->appendPiecesLocked(request.m_pieces, nullptr);
}

RcStatus JournalStore::appendZeroes(u64 offsetBlocks, u64 lengthBlocks)
{
    PreparedRequest request;
    const RcStatus rc = prepareZeroes(offsetBlocks, lengthBlocks, &request);
    if (rc != RC_SUCCESS)
        return rc;
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->appendPiecesLocked(request.m_pieces, nullptr);
}

RcStatus JournalStore::prepareWrite(u64 offsetBlocks, const void* data, u32 lengthBlocks,
                                    PreparedRequest* request) const
{
    *request = PreparedRequest();
    if (!isInVolume(offsetBlocks, lengthBlocks, m_impl->m_options.volumeBlocks))
        return RC_BAD_ARGUMENT;
    try {
        encodeWrite(offsetBlocks, static_cast<const u8*>(data), lengthBlocks,
                    m_impl->m_options.compression, &request->m_pieces);
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
    return RC_SUCCESS;
}

RcStatus JournalStore::prepareZeroes(u64 offsetBlocks, u64 lengthBlocks,
                                     PreparedRequest* request) const
{
    *request = PreparedRequest();
    if (!isInVolume(offsetBlocks, lengthBlocks, m_impl->m_options.volumeBlocks))
        return RC_BAD_ARGUMENT;
    try {
        encodeZeroes(offsetBlocks, lengthBlocks, &request->m_pieces);
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
    return RC_SUCCESS;
}

void JournalStore::appendGroup(const std::vector<PreparedRequest*>& requests)
{
    MutexGuard guard(m_impl->m_mutex);
    for (PreparedRequest* request : requests)
        request->m_rc = m_impl->appendPiecesLocked(request->m_pieces, &request->m_items);
}

RcStatus JournalStore::appendCheckpoint(const std::string& tag, CpId_t* id)
{
    return JournalTags::isValid(tag) ? m_impl->appendCheckpoint(tag, id) : RC_BAD_ARGUMENT;
}

RcStatus JournalStore::flush()
{
    return m_impl->flush();
}
RcStatus JournalStore::close()
{
    return m_impl->close();
}

u64 JournalStore::itemCount() const
{
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->m_items;
}

u64 JournalStore::durableItemCount() const
{
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->m_durableItems;
}

std::vector<JournalCheckpoint> JournalStore::checkpoints() const
{
    MutexGuard guard(m_impl->m_mutex);
    const auto begin = m_impl->m_checkpoints.begin();
    return {begin, begin + static_cast<std::ptrdiff_t>(m_impl->m_placedCheckpoints)};
}

u64 JournalStore::bytesUsed() const
{
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->bytesUsedLocked();
}

u64 JournalStore::endPage() const
{
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->m_endPage;
}

JournalBegin JournalStore::begin() const
{
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->m_begin;
}

RcStatus JournalStore::setBegin(const JournalBegin& begin, u64 freedBlocks, u64 noDataBefore)
{
    return m_impl->setBegin(begin, freedBlocks, noDataBefore);
}

RcStatus JournalStore::removeTrimmed(u64* removed)
{
    const RcStatus rc = removeBeforeBegin(m_impl->m_grains, begin(), removed);
    // Where the new beginning has used that up, there is room now; the next one tells otherwise.
    if (rc == RC_SUCCESS)
        (void)reserveJournalBegin(m_impl->m_storage, m_impl->m_options.folder);
    if (rc != RC_IO_ERROR)
        return rc;
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->failLocked(rc, "removing grains");
}

RcStatus JournalStore::Impl::setBegin(JournalBegin begin, u64 freedBlocks, u64 noDataBefore)
{
    MutexGuard guard(m_mutex);
    while (m_flushing) // see syncMetadata()
        m_flushed.wait(m_mutex);
    const RcStatus writable = checkWritableLocked();
    if (writable != RC_SUCCESS)
        return writable;
    if (begin.m_page < m_begin.m_page || begin.m_page > m_endPage)
        return RC_BAD_ARGUMENT;
    const bool dropsLastGrain = noDataBefore == m_endPage && m_pending.empty() &&
                                m_group.m_pages.empty() && begin.m_firstGrain <= m_dataGrain &&
                                begin.m_lastGrain == m_dataGrain && m_dataGrain != 0;
    if (dropsLastGrain) {
        freedBlocks += begin.m_deadBlocks;
        begin.m_deadBlocks = 0;
        begin.m_firstGrain = m_dataGrain + 1;
        begin.m_lastBlock = SFS_GRAIN_BLOCKS; // nothing is stored behind it
    }
    // What begins here must be durable, or the journal could end before its beginning.
    RcStatus rc = syncPages(begin.m_page, m_endPage);
    if (rc == RC_SUCCESS)
        rc = storeJournalBegin(m_storage, m_options.folder, begin);
    if (rc != RC_SUCCESS)
        return rc == RC_NOT_FOUND ? rc : failLocked(rc, "making the journal's beginning durable");
    if (dropsLastGrain) {
        m_dataBlock = SFS_GRAIN_BLOCKS;
        m_dirtyGrains.erase(m_dataGrain); // of a write that was undone
    }
    m_storedBlocks -= std::min(m_storedBlocks, freedBlocks);
    beginAtLocked(begin);
    return RC_SUCCESS;
}

void JournalStore::Impl::beginAtLocked(const JournalBegin& begin)
{
    m_begin = begin;
    const auto gone =
        std::find_if(m_checkpoints.begin(), m_checkpoints.end(), [&](const JournalCheckpoint& one) {
            return one.m_id > begin.m_lastCheckpoint;
        });
    m_placedCheckpoints -= static_cast<size_t>(gone - m_checkpoints.begin());
    m_checkpoints.erase(m_checkpoints.begin(), gone);
}

RcStatus JournalStore::followBegin(const JournalBegin& begin)
{
    MutexGuard guard(m_impl->m_mutex);
    if (m_impl->m_options.mode == JournalMode::Writer || begin.m_page < m_impl->m_begin.m_page ||
        begin.m_page > m_impl->m_endPage)
        return RC_BAD_ARGUMENT;
    m_impl->beginAtLocked(begin);
    return RC_SUCCESS;
}

RcStatus JournalStore::syncMetadata(const JournalPtr& from)
{
    return m_impl->syncMetadata(from);
}

RcStatus JournalStore::Impl::syncPages(u64 firstPage, u64 endPage)
{
    for (u64 page = firstPage; page < endPage;
         page += JOURNAL_PAGES_PER_GRAIN - pageInGrain(page)) {
        const RcStatus rc = m_grains.sync(GrainKind::Meta, pageGrain(page));
        // There is nothing to sync where salvage has left a grain out, or before one is open. A
        // sync that failed has dropped what it failed for, also when that was for want of space.
        if (rc != RC_SUCCESS)
            return rc == RC_NOT_FOUND || rc == RC_NO_MEMORY ? rc : RC_IO_ERROR;
    }
    return RC_SUCCESS;
}

// In the place of a flush, as both sync the same files: the system tells a failure to only one of
// them, and a flush beside this one could take its pages for durable that this one was told of.
RcStatus JournalStore::Impl::syncMetadata(const JournalPtr& from)
{
    MutexGuard guard(m_mutex);
    while (m_flushing)
        m_flushed.wait(m_mutex);
    if (m_failed != RC_SUCCESS)
        return m_failed;
    const u64 start = from.grain == SFS_DEV_ADDR_INVALID
                          ? m_begin.m_page
                          : std::max(m_begin.m_page, pageOfJournalPtr(from));
    const u64 end = m_endPage;
    m_flushing = true;
    m_mutex.unlock();
    RcStatus rc = RC_IO_ERROR;
    try {
        rc = syncPages(start, end);
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY; // of opening a file
    }
    m_mutex.lock();
    m_flushing = false;
    m_flushed.notify_all();
    return rc == RC_SUCCESS || rc == RC_NOT_FOUND ? rc : failLocked(rc, "a sync of the metadata");
}

RcStatus JournalStore::streamStatus() const
{
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->m_streamStatus;
}

RcStatus JournalStore::setPersistentStreamStatus(AsyncTask*, u64, RcStatus status, u64)
{
    MutexGuard guard(m_impl->m_mutex);
    m_impl->m_streamStatus = status;
    return RC_SUCCESS;
}

u64 JournalStore::limitBytes() const
{
    MutexGuard guard(m_impl->m_mutex);
    return m_impl->m_limitBytes;
}
JournalRoom JournalStore::room() const
{
    return m_impl->m_room;
}
void JournalStore::setLimitBytes(u64 limitBytes)
{
    MutexGuard guard(m_impl->m_mutex);
    m_impl->m_limitBytes = limitBytes;
}
u64 JournalStore::volumeBlocks() const
{
    return m_impl->m_options.volumeBlocks;
}
Compression JournalStore::compression() const
{
    return m_impl->m_options.compression;
}
const JournalReport& JournalStore::report() const
{
    return m_impl->m_report;
}
GrainStore& JournalStore::grains()
{
    return m_impl->m_grains;
}

bool JournalStore::skipsDamage() const
{
    return m_impl->m_options.recovery == JournalRecovery::Salvage;
}

FutureStatus JournalStore::readStored(const std::vector<IODescriptorEx>& ios, AioPriority priority)
{
    std::vector<GrainRead> reads;
    reads.reserve(ios.size());
    for (const IODescriptorEx& io : ios) {
        const u64 address = io.m_offsetBlocks & 0xffffffffffff;
        const u32 block = static_cast<u32>(address % SFS_GRAIN_BLOCKS);
        if (io.m_offsetBlocks == SFS_DEV_ADDR_INVALID || io.m_lengthBlocks == 0 ||
            io.m_lengthBlocks > SFS_GRAIN_BLOCKS - block ||
            io.m_data.getSize() != u64{io.m_lengthBlocks} * BLOCK_BYTES)
            return makeSetFuture(RC_BAD_ARGUMENT);
        reads.push_back({address / SFS_GRAIN_BLOCKS, block, io.m_lengthBlocks, io.m_data});
    }
    return m_impl->m_grains.readData(std::move(reads), priority);
}

RcStatus JournalStore::readStoredNow(std::span<const StoredPiece> pieces, u64* badAddress)
{
    for (const StoredPiece& piece : pieces) {
        const u32 block = static_cast<u32>(piece.m_address % SFS_GRAIN_BLOCKS);
        *badAddress = piece.m_address;
        if (piece.m_address == SFS_DEV_ADDR_INVALID || piece.m_blocks == 0 ||
            piece.m_blocks > SFS_GRAIN_BLOCKS - block)
            return RC_BAD_ARGUMENT;
    }
    return m_impl->m_grains.readDataNow(pieces, badAddress);
}
