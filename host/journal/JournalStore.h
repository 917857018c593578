// The journal: every write of a protected volume in the order in which it was accepted, with
// checkpoints between them.
//
// A request (a write or a run of zeroes) is one logical item, however many metadata items it was
// split into; checkpoints are not counted. Data goes to its grain when it is appended; the metadata
// that refers to it is written by the flush that makes both durable.
//
// Thread safety: any thread, except open and destruction. The journal's order is the order in which
// the append calls took the store's lock.
//
// Invariants: 1. data is durable before any metadata page that refers to it is written;
//             2. a metadata page is never written again once its flush was acknowledged;
//             3. what lies after a crash is a prefix of what was appended, never half a request,
//                and holds all that a flush acknowledged;
//             4. after an input/output error nothing more is accepted until the journal is opened
//                anew: what the disk holds is not known before that.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Sfs/SfsInterface.h"
#include "Sfs/SfsMetaDataContainer.h"
#include "host/journal/Compression.h"
#include "host/journal/GrainStore.h"
#include "host/journal/JournalBegin.h"
#include "host/journal/JournalFormat.h"
#include "host/journal/Storage.h"

class AsyncFileIo;
class PreparedRequest;

enum class JournalMode
{
    ReadOnly, // needs no lock; sees the journal as it is when opened
    Writer,   // the only one; makes an empty journal where there is none
};

// What to do with a journal that does not end whole.
enum class JournalRecovery
{
    Strict,      // refuse it
    Tail,        // cut an end that was never acknowledged; refuse damage
    PointInTime, // end at the first damage; as a writer, cut all that follows
    Salvage,     // leave out what is damaged and go on behind it
};

struct JournalOptions
{
    JournalMode mode = JournalMode::ReadOnly;
    JournalRecovery recovery = JournalRecovery::Tail;
    Compression compression = Compression::None;
    u64 limitBytes = 0;   // most bytes the journal may take; 0 for no limit
    u64 volumeBlocks = 0; // items beyond are refused; 0 for no check
    // What recovery must not cut, as something outside of the journal builds on it: a journal that
    // ends before so many items is refused to a writer.
    u64 minimumItems = 0;
    std::string folder = "journal"; // within the storage
    std::function<u64()> nowUs;     // microseconds since 1970 in UTC; empty: the process's clock
    u32 autoFlushItems = 16384;     // so many items pending are flushed by the appender
    AsyncFileIo* io = nullptr;      // not owned; null: the process-wide one
};

// A damaged place of the journal's metadata, or of its tags.
struct JournalDamage
{
    std::string m_where;  // "metadata grain 1 page 7 (items 105 to 119)"
    std::string m_reason; // "checksum mismatch"
};

// What opening found and did.
struct JournalReport
{
    u64 m_cutPages = 0;     // metadata pages of an incomplete end (or behind damage) left out
    u64 m_skippedPages = 0; // damaged pages left out by salvage
    std::vector<JournalDamage> m_damage;
    std::string m_text; // one line for people; empty when the journal was whole
};

struct JournalCheckpoint
{
    CpId_t m_id = 0;
    u64 m_timestampUs = 0; // since 1970 in UTC; never before the one of the checkpoint before
    u64 m_itemsBefore = 0; // logical items
    std::string m_tag;     // empty for none
    JournalPtr m_ptr = JournalPtr::invalid; // of its item; invalid until flushed
};

// Whether there was room for what was appended last.
enum class JournalRoom
{
    Enough,
    LimitReached, // the journal's own
    DiskFull,
};

class JournalStore : public SfsInterface
{
public:
    struct Opened
    {
        RcStatus m_rc = RC_SUCCESS;
        std::string m_message; // one line for people when m_rc is a failure
        JournalReport m_report;
        std::unique_ptr<JournalStore> m_store; // null when m_rc is a failure
    };

    // Opens the journal of a storage, which outlives the store. Reads and checks all metadata, and
    // as a writer removes for good what recovery cut off.
    // RC_NOT_FOUND: no journal (as a reader); RC_IN_USE: another writer has it; RC_DAMAGED: see
    // m_message and m_report; RC_IO_ERROR, RC_NO_SPACE.
    static Opened open(Storage& storage, const JournalOptions& options);

    // A writer's orderly end flushes, and marks the end so that damage of the last pages can be
    // told from a crash. Failures of that are logged.
    ~JournalStore() override;

    // Appends one request; lengthBlocks > 0. Not durable before a flush, but read back at once.
    // RC_NO_SPACE: the limit is reached or the disk is full, see room(), nothing changed; what is
    // appended later may find room, and reading goes on; RC_BAD_ARGUMENT: zero length, beyond the
    // volume, or not a writer; RC_NO_MEMORY: no memory for the request, or a grain could not be
    // opened for want of descriptors, nothing changed; RC_IO_ERROR: nothing more is accepted.
    RcStatus append(u64 offsetBlocks, const void* data, u32 lengthBlocks);
    RcStatus appendZeroes(u64 offsetBlocks, u64 lengthBlocks);

    // The same in two steps, for who needs the items' places: prepare without a lock, then append a
    // group in its order, in one go; each request says how it ended. The data of a write lives
    // until it is appended. Statuses as append(); a request that fails leaves the others be.
    RcStatus prepareWrite(u64 offsetBlocks, const void* data, u32 lengthBlocks,
                          PreparedRequest* request) const;
    RcStatus prepareZeroes(u64 offsetBlocks, u64 lengthBlocks, PreparedRequest* request) const;
    void appendGroup(const std::vector<PreparedRequest*>& requests);

    // Appends a checkpoint and flushes: durable when it returns RC_SUCCESS. tag: at most 255 bytes
    // without control characters; empty for none. *id: its id, from 1 upwards. The first one behind
    // the last item may pass the limit, by its page: a journal that is full needs a point to be
    // applied and trimmed to. Statuses as append().
    RcStatus appendCheckpoint(const std::string& tag, CpId_t* id);

    // Makes all that was appended before durable. Callers at the same time share one flush.
    // RC_NO_SPACE, RC_NO_MEMORY: not durable, but kept; a later flush tries again. There is room
    // for what was accepted, so RC_NO_SPACE comes only from a file system that cannot reserve it.
    RcStatus flush();

    // Closes as the destructor does, and says how it went. Appends and flushes that come from its
    // beginning on fail with RC_BAD_ARGUMENT; those under way are waited for, and where what they
    // wait for could not be made durable they fail as well.
    RcStatus close();

    // Logical items accepted; with `durable`, flushed.
    u64 itemCount() const;
    u64 durableItemCount() const;
    std::vector<JournalCheckpoint> checkpoints() const;

    // Bytes of data and metadata, with their checksums.
    u64 bytesUsed() const;
    u64 limitBytes() const;
    JournalRoom room() const;
    // Holds for what is appended from now on.
    void setLimitBytes(u64 limitBytes);
    Compression compression() const;

    // Where the journal begins, after it was trimmed; page 0 of one that never was.
    JournalBegin begin() const;

    // Gives the journal a later beginning, durably; its grains go by removeTrimmed(). Readers of
    // what lies before it are the caller's to keep away. RC_BAD_ARGUMENT: not a writer, before the
    // present beginning or behind the end; RC_NO_SPACE, RC_NO_MEMORY, RC_IO_ERROR: the old
    // beginning holds, or after a crash one of the two; after RC_IO_ERROR nothing more is accepted.
    // freedBlocks: stored blocks in the data grains that go. noDataBefore: the page before which no
    // item from the beginning on has data; where that is still the end, and nothing is pending, the
    // last data grain goes too, dead as it is, and the next write begins another one.
    RcStatus setBegin(const JournalBegin& begin, u64 freedBlocks, u64 noDataBefore = 0);

    // Takes over the beginning that the writer has given the journal since this reader opened it,
    // which was read by loadJournalBegin(); bytesUsed() stays what it was. RC_BAD_ARGUMENT: a
    // writer, or it lies behind the end that this reader knows.
    RcStatus followBegin(const JournalBegin& begin);

    // Gives the space of all grains before the beginning back. *removed: how many went. A failure
    // leaves some; the next writer that opens the journal tries again. After RC_IO_ERROR nothing
    // more is accepted.
    RcStatus removeTrimmed(u64* removed);

    // Makes all metadata that is there, from an item on, durable: recovery keeps pages that a
    // process wrote and died over before it could sync them. Who changes something outside of the
    // journal by what it says asks for this first. RC_NOT_FOUND, RC_NO_MEMORY: a grain is not there
    // or could not be opened; RC_IO_ERROR: nothing more is accepted.
    RcStatus syncMetadata(const JournalPtr& from);

    // The first metadata page that is not written yet: scanners read up to here.
    u64 endPage() const;
    bool skipsDamage() const; // opened with salvage
    const JournalReport& report() const;
    u64 volumeBlocks() const;
    GrainStore& grains();

    // A damaged stream is remembered while the store lives; RC_SUCCESS always.
    RcStatus setPersistentStreamStatus(AsyncTask* pAsyncTask, u64 mirrorId, RcStatus status,
                                       u64 flags) override;
    RcStatus streamStatus() const;

    // Beside those of the interface: RC_BAD_ARGUMENT (a read across grains, or a buffer of another
    // size), RC_DAMAGED (a grain that is missing or ends before the blocks).
    FutureStatus readStored(const std::vector<IODescriptorEx>& ios, AioPriority priority) override;

    // The same here and now, on the caller's thread: stored blocks by their addresses, best in
    // ascending order, as then those that lie close to each other are read together. *badAddress:
    // after a failure, as GrainStore::readDataNow().
    RcStatus readStoredNow(std::span<const StoredPiece> pieces, u64* badAddress);

private:
    struct Impl;
    explicit JournalStore(std::unique_ptr<Impl> impl);
    static Opened openOnce(Storage& storage, const JournalOptions& options);

    std::unique_ptr<Impl> m_impl;
};
