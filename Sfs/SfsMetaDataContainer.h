// Who takes the items of a journal scan.
#pragma once

#include <ostream>

#include "Sfs/SfsDiskMetaItem.h"
#include "Sfs/SfsItemDescriptor.h"
#include "common/infra/Future.h"
#include "common/infra/LogItem.h"

// Where an item lies in the journal: its metadata grain (as a journal address) and its number
// within that grain.
struct JournalPtr
{
    SfsDevAddr grain;
    u32 entryNum;

    static const JournalPtr invalid;
};

inline const JournalPtr JournalPtr::invalid = {SFS_DEV_ADDR_INVALID, ~u32{0}};

inline std::ostream& operator<<(std::ostream& out, const JournalPtr& ptr)
{
    return out << "<" << (ptr.grain >> 15) << "," << ptr.entryNum << ">";
}

// A scanner calls, in this order: prepareToAdd() before each batch, and waits for its future;
// metaGrainStarted() when it enters a metadata grain; addMetaData() for each item in journal order;
// metaGrainFinished() when it leaves a grain; unPrepareToAdd() after the batch; done() at the end.
//
// Thread safety: the scanner makes one call at a time.
class SfsMetaDataContainer
{
public:
    virtual ~SfsMetaDataContainer() = default;

    // Makes ready to take `opCount` items without waiting for memory; any failure ends the scan.
    // endTime: the deadline for that, absolute monotonic milliseconds.
    virtual FutureStatus prepareToAdd(int opCount, u64 endTime) = 0;

    // Gives back what the preparation reserved and the batch did not use.
    virtual void unPrepareToAdd() = 0;

    // Takes one item. RC_SUCCESS goes on; RC_STOP_EXCLUDE_CURRENT ends the scan without this item,
    // RC_STOP_INCLUDE_CURRENT with it; any other status ends it as a failure.
    virtual RcStatus addMetaData(const SfsDiskMetaItem& meta, const JournalPtr& journalPtr) = 0;

    virtual RcStatus metaGrainStarted(SfsDevAddr metaGrain)
    {
        LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
            << " metaGrain=" << std::hex << metaGrain << " " << std::endl;
        return RC_SUCCESS;
    }
    virtual void metaGrainFinished(SfsDevAddr /*metaGrain*/, u32 /*lastEntry*/) {}
    virtual void done() {}

    // Whether addMetaData() is to be called from another thread than the one that reads.
    virtual bool isAddMetaDataDesireOffload() = 0;
};
