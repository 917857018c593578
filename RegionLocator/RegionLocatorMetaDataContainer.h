// The feeders: they take the items of a journal scan and make locator content of them.
//
// A scan reserves memory for a whole batch of items first (prepareToAdd), so that taking an item
// never waits for any. What each item becomes:
//
//   item                                | Insert                 | InsertAllButRemoveMdOnly
//   ------------------------------------+------------------------+-------------------------
//   UNCOMPRESSED_IO, ZEROS,             | inserted               | inserted
//   COMPRESSED_IO                       |                        |
//   MD_ONLY                             | reported, ignored      | its blocks are removed
//   CHECKPOINT at or above the target   | ends the scan, without | ignored
//   CHECKPOINT below the target         | noted                  | ignored
//   CSCAN_CHECKSUM, any other           | ignored                | ignored
#pragma once

#include <atomic>

#include "Sfs/CtrlCp.h"
#include "Sfs/SfsMetaDataContainer.h"
#include "common/infra/Mutex.h"

class RegionLocator;
class RegionLocatorVoucher;

// The voucher of a feeder, sized and filled for each batch; and the way to give up.
//
// Thread safety: one scan at a time makes the calls of SfsMetaDataContainer. abort() and
// isAborted() may come from any thread at any moment.
class RegionLocatorMetaDataContainer : public SfsMetaDataContainer
{
public:
    // rl: not owned; it outlives the feeder.
    explicit RegionLocatorMetaDataContainer(RegionLocator* rl);
    ~RegionLocatorMetaDataContainer() override;
    RegionLocatorMetaDataContainer(const RegionLocatorMetaDataContainer&) = delete;
    RegionLocatorMetaDataContainer& operator=(const RegionLocatorMetaDataContainer&) = delete;

    // Fills the voucher for the worst case of opCount items. The future carries the pool's status;
    // RC_ABORTED once the feeder has been aborted.
    FutureStatus prepareToAdd(int opCount, u64 endTime) override;
    void unPrepareToAdd() override;
    bool isAddMetaDataDesireOffload() override { return true; }

    // For good: ends a fill that waits, and lets every later preparation fail.
    virtual void abort();
    // Tokens that the costliest item needs.
    virtual int objsCountNeededForOperations() = 0;
    bool isAborted();

protected:
    // Whether the item is one of many IOs that are inserted together and is kept until then, so
    // that nothing more is to be done for it.
    bool isHeldBack(const SfsDiskMetaItem& meta);

    RegionLocator* m_regionLocator;
    RegionLocatorVoucher* m_voucher;

private:
    bool m_bAborted RL_GUARDED_BY(m_abortMutex);
    // Also held while a fill is started, so that an abort comes either before it or can cancel it.
    Mutex m_abortMutex;
};

// Adds the rule by which an item is inserted.
class RegionLocatorMetaDataContainer_InsertAbstract : public RegionLocatorMetaDataContainer
{
public:
    using RegionLocatorMetaDataContainer::RegionLocatorMetaDataContainer;

    int objsCountNeededForOperations() override;

    // Inserts an IO item; a refused one is reported and left out. REQUIRES of an IO item: a length
    // above 0, else the process stops.
    void insert(const SfsDiskMetaItem& meta);
};

// Inserts everything up to a target checkpoint.
class RegionLocatorMetaDataContainer_Insert : public RegionLocatorMetaDataContainer_InsertAbstract
{
public:
    explicit RegionLocatorMetaDataContainer_Insert(RegionLocator* rl);

    RcStatus addMetaData(const SfsDiskMetaItem& meta, const JournalPtr& journalPtr) override;
    bool isAddMetaDataDesireOffload() override { return true; }
    // The next checkpoint, whichever it is, ends the scan.
    void abort() override;

    // Makes ready for a scan that ends at this checkpoint, or at the first one above it; all ones
    // for a scan that no checkpoint ends.
    void init(CpId_t targetCheckpointID);

    CpId_t getTargetCheckpointId() const { return m_targetCheckpointId; }
    const CtrlCp& getLastAddedCheckpoint() const { return m_lastAddedCheckpoint; }

private:
    // What addMetaData() does with an item that is not held back. Apart from it, so that no more
    // than a few instructions are spent on one that is. signature: for its records.
    [[gnu::noinline]] RcStatus addByItself(const SfsDiskMetaItem& meta, const char* signature);

    // Atomic, since abort() writes it from any thread and takes no lock for that.
    std::atomic<CpId_t> m_targetCheckpointId;
    CtrlCp m_lastAddedCheckpoint; // the last checkpoint item seen
};

// Follows the journal to its end, and forgets the blocks that only have metadata.
class RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly
    : public RegionLocatorMetaDataContainer
{
public:
    using RegionLocatorMetaDataContainer::RegionLocatorMetaDataContainer;

    RcStatus addMetaData(const SfsDiskMetaItem& meta, const JournalPtr& journalPtr) override;
    int objsCountNeededForOperations() override;
};
