// The inside of JournalStore: appending (JournalAppend.cpp), the room for what is appended
// (JournalRoom.cpp) and flushing (JournalFlush.cpp).
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/infra/Mutex.h"
#include "host/journal/FileGrainStore.h"
#include "host/journal/JournalPack.h"
#include "host/journal/JournalRecovery.h"
#include "host/journal/JournalStore.h"
#include "host/journal/JournalTags.h"

// Locks: m_checkpointMutex, which keeps the ids of checkpoints in the journal's order while their
// tags are made durable, is taken before m_mutex.
struct JournalStore::Impl
{
    Impl(Storage& storage, const JournalOptions& options, AsyncFileIo& io);

    // Opening; each sets opened.m_rc and m_message on failure.
    bool takeLock(Opened& opened);
    bool recover(Opened& opened);
    bool prepareWriting(Opened& opened);

    // Appends the pieces of one request as one step. placed: for its items, null for nobody.
    RcStatus appendPiecesLocked(std::vector<JournalPiece>& pieces,
                                std::vector<SfsDiskMetaItem>* placed) RL_REQUIRES(m_mutex);
    RcStatus appendCheckpoint(const std::string& tag, CpId_t* id) RL_EXCLUDES(m_mutex);
    RcStatus flush() RL_EXCLUDES(m_mutex);
    RcStatus setBegin(JournalBegin begin, u64 freedBlocks, u64 noDataBefore) RL_EXCLUDES(m_mutex);
    RcStatus syncMetadata(const JournalPtr& from) RL_EXCLUDES(m_mutex);
    RcStatus close() RL_EXCLUDES(m_mutex);

    // Makes the metadata pages from firstPage on before endPage durable. Not beside a flush.
    // RC_NOT_FOUND, RC_NO_MEMORY: a grain could not be opened; RC_IO_ERROR: something may be lost.
    RcStatus syncPages(u64 firstPage, u64 endPage);

    // Forgets what is not part of the journal from its new beginning on.
    void beginAtLocked(const JournalBegin& begin) RL_REQUIRES(m_mutex);

    RcStatus checkWritableLocked() const RL_REQUIRES(m_mutex);
    RcStatus placeLocked(std::vector<JournalPiece>& pieces, std::vector<PendingItem>* items)
        RL_REQUIRES(m_mutex);
    RcStatus storePieceLocked(JournalPiece& piece) RL_REQUIRES(m_mutex);
    RcStatus nextGrainLocked() RL_REQUIRES(m_mutex);
    // Sends what is stored from firstBlock on to the disk, where the flushes are small.
    void startSyncLocked(u32 firstBlock) RL_REQUIRES(m_mutex);

    // Room on the disk is taken before something is accepted, so that a full disk refuses it and
    // never fails the flush. RC_NO_SPACE: there is none; a part of it may have been taken.
    // For the blocks that are stored next in the present grain.
    RcStatus reserveDataLocked(u32 blocks) RL_REQUIRES(m_mutex);
    // For the pages of so many more items, and one that marks the journal's end.
    RcStatus reserveItemsLocked(u64 items) RL_REQUIRES(m_mutex);
    // For the pages before endPage; makes the grains that they lie in.
    RcStatus reservePagesLocked(u64 endPage) RL_REQUIRES(m_mutex);

    u64 bytesUsedLocked() const RL_REQUIRES(m_mutex);
    RcStatus flushLocked() RL_REQUIRES(m_mutex);
    void beginGroupLocked() RL_REQUIRES(m_mutex);
    void endGroupLocked() RL_REQUIRES(m_mutex);
    RcStatus markEndLocked() RL_REQUIRES(m_mutex);

    // After anything but a full disk, or a file that could not be opened for want of descriptors
    // or memory, nothing more is accepted.
    RcStatus failLocked(RcStatus rc, const char* what) RL_REQUIRES(m_mutex);

    // Writes the group that m_group holds; called by the one thread that flushes. roomPage: there
    // is room for the pages before it.
    RcStatus writeGroup(const std::set<u64>& dirtyGrains, u64 roomPage);
    // Writes empty pages from the group's end on, where the group reached what had been.
    RcStatus writeAhead(u64 endPage, u64 roomPage);

    Storage& m_storage;
    const JournalOptions m_options;
    FileGrainStore m_grains;
    std::unique_ptr<StorageFile> m_lockFile;
    JournalReport m_report;
    JournalBegin m_begin RL_GUARDED_BY(m_mutex);

    Mutex m_checkpointMutex;
    JournalTags m_tags RL_GUARDED_BY(m_checkpointMutex);
    CpId_t m_lastCheckpoint RL_GUARDED_BY(m_checkpointMutex) = 0;
    u64 m_lastTimestampUs RL_GUARDED_BY(m_checkpointMutex) = 0;
    bool m_toldClockBehind RL_GUARDED_BY(m_checkpointMutex) = false;

    mutable Mutex m_mutex;
    std::condition_variable_any m_flushed;
    RcStatus m_failed RL_GUARDED_BY(m_mutex) = RC_SUCCESS; // why nothing more is accepted
    RcStatus m_streamStatus RL_GUARDED_BY(m_mutex) = RC_SUCCESS;
    bool m_closed RL_GUARDED_BY(m_mutex) = false;
    u64 m_limitBytes RL_GUARDED_BY(m_mutex); // 0 for no limit
    std::atomic<JournalRoom> m_room{JournalRoom::Enough};

    // Where the next data block goes.
    u64 m_dataGrain RL_GUARDED_BY(m_mutex) = 0;
    u32 m_dataBlock RL_GUARDED_BY(m_mutex) = SFS_GRAIN_BLOCKS;
    std::set<u64> m_dirtyGrains RL_GUARDED_BY(m_mutex); // data grains not synced since an append
    u64 m_storedBlocks RL_GUARDED_BY(m_mutex) = 0;
    u64 m_groupBlocks RL_GUARDED_BY(m_mutex) = 0;           // stored since the last group was begun
    u64 m_lastGroupBlocks RL_GUARDED_BY(m_mutex) = ~u64{0}; // and how many that one had

    // What room is taken for: the blocks of one data grain before a block, and all pages before a
    // page that are not flushed yet.
    u64 m_roomGrain RL_GUARDED_BY(m_mutex) = 0;
    u32 m_roomBlock RL_GUARDED_BY(m_mutex) = 0;
    u32 m_roomStepBlocks RL_GUARDED_BY(m_mutex) = 0; // what was taken at once last
    u64 m_roomPage RL_GUARDED_BY(m_mutex) = 0;

    // Accepted, and not in a group yet.
    std::vector<PendingItem> m_pending RL_GUARDED_BY(m_mutex);
    u64 m_items RL_GUARDED_BY(m_mutex) = 0;    // logical items accepted
    u64 m_accepted RL_GUARDED_BY(m_mutex) = 0; // items of all kinds since the store was opened

    // The group that is being written, or could not be for want of space or descriptors and is to
    // be written again as it is: pages of two attempts must not differ. Only the flushing thread
    // reads it unlocked.
    JournalGroup m_group;
    u64 m_aheadPage = 0; // pages before it are written, if only as empty ones; like m_group
    u64 m_groupAccepted RL_GUARDED_BY(m_mutex) = 0; // m_accepted at its end
    bool m_flushing RL_GUARDED_BY(m_mutex) = false; // one thread flushes or syncs metadata
    u64 m_flushedAccepted RL_GUARDED_BY(m_mutex) = 0;
    u64 m_durableItems RL_GUARDED_BY(m_mutex) = 0;
    u64 m_endPage RL_GUARDED_BY(m_mutex) = 0;
    bool m_endsMarked RL_GUARDED_BY(m_mutex) = true;

    std::vector<JournalCheckpoint> m_checkpoints RL_GUARDED_BY(m_mutex);
    size_t m_placedCheckpoints RL_GUARDED_BY(m_mutex) = 0; // of these, durable
};
