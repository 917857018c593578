#include <algorithm>
#include <mutex>
#include <new>

#include "common/infra/LogItem.h"
#include "host/journal/Crc32c.h"
#include "host/journal/JournalStoreImpl.h"

namespace {

// A rest of a grain below this is left empty rather than made the home of a fragment.
constexpr u32 MIN_SPLIT_BLOCKS = 1024;

// A step back of the clock by more is no correction in passing.
constexpr u64 MOST_CLOCK_BEHIND_US = u64{5} * 60 * 1000000;

// A data block and its checksum.
constexpr u64 STORED_BLOCK_BYTES = BLOCK_BYTES + sizeof(u32);

// Data of small flush groups is sent on its way in runs of so many blocks, as soon as one is full.
constexpr u32 RUN_BLOCKS = 256;
constexpr u64 SMALL_GROUP_BLOCKS = 2048;

// Items pack into pages; how many these take at most is known only when they are packed.
u64 pagesFor(u64 items)
{
    return (items + JOURNAL_PAGE_ITEMS - 1) / JOURNAL_PAGE_ITEMS;
}

} // namespace

RcStatus JournalStore::Impl::checkWritableLocked() const
{
    if (m_options.mode != JournalMode::Writer || m_closed)
        return RC_BAD_ARGUMENT;
    return m_failed;
}

u64 JournalStore::Impl::bytesUsedLocked() const
{
    const u64 pages =
        m_endPage - m_begin.m_page + m_group.m_pages.size() + pagesFor(m_pending.size());
    return m_storedBlocks * STORED_BLOCK_BYTES + pages * BLOCK_BYTES;
}

RcStatus JournalStore::Impl::failLocked(RcStatus rc, const char* what)
{
    if (rc == RC_NO_SPACE)
        m_room = JournalRoom::DiskFull;
    // Neither has lost anything: a write that met it is undone, a group is kept.
    if (rc == RC_NO_SPACE || rc == RC_NO_MEMORY)
        return rc;
    if (m_failed == RC_SUCCESS)
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "the journal accepts nothing more until it is opened anew: " << what
            << " failed: " << rcStatusText(rc) << std::endl;
    m_failed = RC_IO_ERROR;
    return m_failed;
}

RcStatus JournalStore::Impl::appendPiecesLocked(std::vector<JournalPiece>& pieces,
                                                std::vector<SfsDiskMetaItem>* placed)
{
    RcStatus rc = checkWritableLocked();
    // Before anything changes, so that a flush that finds no space leaves the request unaccepted.
    if (rc == RC_SUCCESS && m_pending.size() >= m_options.autoFlushItems)
        rc = flushLocked();
    if (rc == RC_SUCCESS)
        rc = checkWritableLocked();
    if (rc != RC_SUCCESS)
        return rc;

    u64 blocks = 0;
    for (const JournalPiece& piece : pieces)
        blocks += piece.m_storedBlocks;
    const u64 needBytes = blocks * STORED_BLOCK_BYTES + pagesFor(pieces.size()) * BLOCK_BYTES;
    if (m_limitBytes != 0 && bytesUsedLocked() + needBytes > m_limitBytes) {
        m_room = JournalRoom::LimitReached;
        return RC_NO_SPACE;
    }
    // Twice, as the ends of grains may split pieces.
    rc = reserveItemsLocked(2 * pieces.size());
    if (rc != RC_SUCCESS)
        return failLocked(rc, "making a metadata grain");

    const u64 grainBefore = m_dataGrain;
    const u32 blockBefore = m_dataBlock;
    std::vector<PendingItem> items;
    try {
        rc = placeLocked(pieces, &items);
        if (rc == RC_SUCCESS) {
            // Whatever takes memory comes before the request counts; its being pending comes last.
            for (const PendingItem& one : items) {
                if (placed != nullptr)
                    placed->push_back(one.m_item);
            }
            m_pending.insert(m_pending.end(), items.begin(), items.end());
        }
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    if (rc != RC_SUCCESS) {
        m_dataGrain = grainBefore;
        m_dataBlock = blockBefore;
        if (placed != nullptr)
            placed->clear();
        return failLocked(rc, "writing data");
    }
    for (const PendingItem& one : items)
        m_storedBlocks += storedBlocks(one.m_item);
    m_accepted += items.size();
    ++m_items;
    m_room.store(JournalRoom::Enough, std::memory_order_relaxed);
    return RC_SUCCESS;
}

// Gives each piece its place and writes it there; splits what a grain has no room for.
RcStatus JournalStore::Impl::placeLocked(std::vector<JournalPiece>& pieces,
                                         std::vector<PendingItem>* items)
{
    for (size_t i = 0; i < pieces.size(); ++i) {
        const u32 rest = SFS_GRAIN_BLOCKS - m_dataBlock;
        if (pieces[i].m_storedBlocks > rest) {
            if (rest < MIN_SPLIT_BLOCKS) {
                const RcStatus rc = nextGrainLocked();
                if (rc != RC_SUCCESS)
                    return rc;
            } else {
                // Rare enough to encode both parts under the lock.
                const u64 offset = pieces[i].m_item.m_ioData.offsetBlocks;
                const u8* plain = pieces[i].m_plain;
                const u32 length = pieces[i].m_item.getUncompressedLengthBlocks();
                std::vector<JournalPiece> parts;
                encodeWrite(offset, plain, rest, Compression::None, &parts);
                encodeWrite(offset + rest, plain + u64{rest} * BLOCK_BYTES, length - rest,
                            m_options.compression, &parts);
                pieces.erase(pieces.begin() + static_cast<std::ptrdiff_t>(i));
                pieces.insert(pieces.begin() + static_cast<std::ptrdiff_t>(i),
                              std::make_move_iterator(parts.begin()),
                              std::make_move_iterator(parts.end()));
            }
        }
        if (pieces[i].m_storedBlocks > 0) {
            const RcStatus rc = storePieceLocked(pieces[i]);
            if (rc != RC_SUCCESS)
                return rc;
        }
        items->push_back({pieces[i].m_item, i > 0});
    }
    return RC_SUCCESS;
}

RcStatus JournalStore::Impl::storePieceLocked(JournalPiece& piece)
{
    piece.m_item.m_ioData.dataAddr = m_dataGrain * SFS_GRAIN_BLOCKS + m_dataBlock;
    m_dirtyGrains.insert(m_dataGrain);
    RcStatus rc = reserveDataLocked(piece.m_storedBlocks);
    if (rc == RC_SUCCESS)
        rc = m_grains.append(GrainKind::Data, m_dataGrain, m_dataBlock, piece.m_stored,
                             piece.m_storedBlocks, piece.m_checksums.data());
    if (rc == RC_SUCCESS) {
        const u32 firstBlock = m_dataBlock;
        m_dataBlock += piece.m_storedBlocks;
        m_groupBlocks += piece.m_storedBlocks;
        startSyncLocked(firstBlock);
    }
    return rc;
}

// Who flushes every few writes waits for the disk each time, the shorter the more it has got by
// then. Who does not would only pay for more and smaller writes to the disk.
void JournalStore::Impl::startSyncLocked(u32 firstBlock)
{
    const u32 begin = firstBlock - firstBlock % RUN_BLOCKS;
    const u32 end = m_dataBlock - m_dataBlock % RUN_BLOCKS;
    if (begin < end && std::max(m_lastGroupBlocks, m_groupBlocks) <= SMALL_GROUP_BLOCKS)
        m_grains.startSync(m_dataGrain, begin, end - begin);
}

RcStatus JournalStore::Impl::nextGrainLocked()
{
    const RcStatus rc = m_grains.create(GrainKind::Data, m_dataGrain + 1);
    if (rc == RC_SUCCESS) {
        ++m_dataGrain;
        m_dataBlock = 0;
        m_roomGrain = 0; // one of that number may have had room, and has been emptied
    }
    return rc;
}

RcStatus JournalStore::Impl::appendCheckpoint(const std::string& tag, CpId_t* id)
{
    MutexGuard checkpointGuard(m_checkpointMutex);
    {
        MutexGuard guard(m_mutex);
        RcStatus rc = checkWritableLocked();
        if (rc != RC_SUCCESS)
            return rc;
        // A page beyond the limit is the way out of a journal that is full without a checkpoint to
        // apply to. One behind what it has accepted, so that they cannot go on beyond it.
        const bool isFirstHere =
            m_checkpoints.empty() || m_checkpoints.back().m_itemsBefore != m_items;
        if (m_limitBytes != 0 && !isFirstHere && bytesUsedLocked() + BLOCK_BYTES > m_limitBytes) {
            m_room = JournalRoom::LimitReached;
            return RC_NO_SPACE;
        }
        rc = reserveItemsLocked(1);
        if (rc != RC_SUCCESS)
            return failLocked(rc, "making a metadata grain");
    }
    JournalCheckpoint checkpoint;
    checkpoint.m_id = m_lastCheckpoint + 1;
    const u64 nowUs = m_options.nowUs();
    checkpoint.m_timestampUs = std::max(nowUs, m_lastTimestampUs);
    if (checkpoint.m_timestampUs - nowUs > MOST_CLOCK_BEHIND_US && !m_toldClockBehind) {
        m_toldClockBehind = true;
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "the clock is " << (checkpoint.m_timestampUs - nowUs) / 1000000
            << " s behind the last checkpoint's time; until it has caught up, new checkpoints have "
               "that time"
            << std::endl;
    }
    checkpoint.m_tag = tag;
    if (!tag.empty()) {
        const RcStatus rc = m_tags.add(checkpoint.m_id, tag);
        if (rc != RC_SUCCESS) {
            MutexGuard guard(m_mutex);
            return failLocked(rc, "writing a tag");
        }
    }

    PendingItem item;
    item.m_item.setType(SfsMetaType::CHECKPOINT);
    item.m_item.m_cpData = {checkpoint.m_timestampUs, checkpoint.m_id};
    item.m_item.setUserData(tagMark(tag));
    MutexGuard guard(m_mutex);
    RcStatus rc = checkWritableLocked();
    if (rc != RC_SUCCESS)
        return rc;
    rc = reserveItemsLocked(1); // others may have used up what there was room for
    if (rc != RC_SUCCESS)
        return failLocked(rc, "making a metadata grain");
    checkpoint.m_itemsBefore = m_items;
    // All memory is taken before any of it counts: an item without its entry would be given a place
    // behind the list's end.
    m_pending.reserve(m_pending.size() + 1);
    m_checkpoints.push_back(checkpoint);
    m_pending.push_back(item);
    ++m_accepted;
    m_lastCheckpoint = checkpoint.m_id;
    m_lastTimestampUs = checkpoint.m_timestampUs;
    m_room = JournalRoom::Enough;
    rc = flushLocked();
    if (rc == RC_SUCCESS && id != nullptr)
        *id = checkpoint.m_id;
    return rc;
}
