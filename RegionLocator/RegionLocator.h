// The index that tells, for each block of a protected volume's view, whether its newest copy lies
// in the journal, and where, or only on the target volume.
//
// It is an ordered set of regions that do not overlap. Each maps a run of view blocks to a run of
// blocks within one journaled IO; a later IO overrides the parts of earlier ones that it overlaps.
// A reader locks the pieces that it reads, and what is locked cannot be overridden.
//
// When not to use it: for a set of ranges without positions in a journal, or where every operation
// may allocate. Its callers pay for speed by reserving memory beforehand, in vouchers.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "RegionLocator/CountedRegionMap.h"
#include "RegionLocator/HeldBackInserts.h"
#include "RegionLocator/LockedInPlace.h"
#include "RegionLocator/RL_LockWaiter.h"
#include "RegionLocator/RegionLocatorCounters.h"
#include "RegionLocator/RegionLocatorMemPool.h"
#include "RegionLocator/RegionLocatorStatistics.h"
#include "RegionLocator/SubRegionDescriptor.h"
#include "common/headers/AsyncTask.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/MemWatchedContainer.h"
#include "common/infra/Mutex.h"
#include "common/infra/RcStatus.h"

class RegionLocatorMetaDataContainer_Insert;
class RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly;

// All lengths and offsets are in blocks; ranges are half-open: [offset, offset + length).
//
// Thread safety: every public operation from any thread, unless its comment says otherwise; each
// holds the locator's mutex for its whole length, but for a scan's insert that is only held back.
// "...Locked" operations are for who holds it.
//
// Vouchers: an operation draws the map nodes that it may need from the voucher that its caller
// passes, filled beforehand with RegionLocatorMemPool::getVoucherRequirement() tokens, and puts the
// nodes that it frees into it. The locator neither keeps nor frees it. No operation waits for
// memory or takes any from the heap, but for the result vectors, which belong to the caller.
//
// Invariants: 1. a view block is covered by at most one region of the two maps together;
//             2. a locked region is exactly a piece that was handed to a caller;
//             3. what is locked is not overridden: an insert that meets it is refused;
//             4. at most one request waits. A second one that would stops the process, so
//                requests that may meet locked regions come through a gate of their callers';
//             5. a waiting request is woken only when nothing at all is locked any more.
//
//   state \ request     | locking lookup     | lookup that meets | unlock that  | unlock that
//                       | beside the locks   | a locked piece    | leaves locks | leaves none
//   --------------------+--------------------+-------------------+--------------+---------------
//   nothing locked      | locked, RC_SUCCESS | -                 | -            | process stops
//   some locked         | more locked        | parks, RC_WAIT    | fewer locked | none locked
//   some locked, parked | more locked        | process stops     | stays parked | waiter resumed
//
// A get-first parks where a lookup does when everything there is locked, a lock-and-remove when a
// piece of its own IO is.
//
// Speed: on a large index an operation mostly waits for memory. What shortens that lies beside the
// maps and never decides anything: a directory and a finger (RegionDirectory.h, RegionFinger.h), a
// descent of its own (RegionDescent.h), the items of a scan that are made together
// (HeldBackInserts.h), and locks that move no node (LockedInPlace.h). The tweak t_RlAccelerators
// has a bit for each, in that order, and t_RlAcceleratorsFromRegions the size from which on walks
// are warmed and locks move no node. Below its default it is the directory's size, too, which else
// is 64; scans' batches are from 64 regions on, or from that size if it is smaller.
class RegionLocator : public MemWatchedContainer, private RegionLocatorMemPool::UpkeepListener
{
public:
    // id: for the pool's log lines. mmiType: which account pays for its memory.
    RegionLocator(u64 id, RegionLocatorMmiType mmiType);

    // Writes the statistics line. REQUIRES: nobody else uses the locator or a voucher of it any
    // more. A request that still waits is neither woken nor freed.
    ~RegionLocator() override;

    // ---- insertion ----

    // Stores the region, overriding what it overlaps. False: it overlaps a locked region, and
    // nothing has changed; the voucher is untouched. REQUIRES: a length above 0, else the process
    // stops. Tokens: INSERT, 1.
    bool insert(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher);

    // The same for an item of a journal scan, which may be held back for a moment where nobody can
    // tell. The voucher is the scan's until settleScan().
    bool insertFromScan(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher);

    // The quick way for an IO item, while others of its scan are held back; false, and nothing has
    // happened, when it has to go the other one.
    bool holdBackMore(const SfsDiskMetaItem& item, RegionLocatorVoucher* voucher)
    {
        return m_heldBack.isOpen() && !checksChanges() && m_heldBack.add(item, voucher);
    }

    // Inserts what is held back, which every other operation does by itself first. For a feeder
    // before it gives up its voucher.
    void settleScan();

    // ---- lookup and locking ----

    // Replaces the result with the pieces of stored regions within the range, clipped to it,
    // ascending; gaps have no entry.
    //
    // a_lock false: RC_SUCCESS; pieces that others hold locked are among them; nothing changes, and
    // the voucher may be null.
    // a_lock true, and nothing in the range is locked: RC_SUCCESS; the pieces are locked for the
    // caller, who gives them back with an unlock. Tokens: LOOKUP_LOCKED, one for each piece.
    // a_lock true, and anything in the range is locked: RC_WAIT; nothing is locked and the result
    // is untouched until the task is resumed: with RC_SUCCESS, by which time the pieces are locked
    // in the result, or with RC_NO_MEMORY, as the heap had no room for them, and nothing is locked.
    // Task, result and voucher live until then.
    RcStatus lookup(AsyncTask* pAsyncTask, u64 a_viewOffsetBlocks, u32 a_lengthBlocks,
                    std::vector<SubRegionDescriptor>* a_subRegionsResult, bool a_lock,
                    RegionLocatorVoucher* voucher);

    // Unlock pieces that were handed out: drop them, or put them back, where neighbours of one IO
    // may become one region again. The unlock that leaves nothing locked resumes the waiting
    // request. An empty list does nothing. REQUIRES: the pieces are locked, else the process stops.
    // Tokens: LOOKUP_LOCKED, one for each piece.
    void unlockAndRemove(std::vector<SubRegionDescriptor>& a_regions,
                         RegionLocatorVoucher* a_voucher);
    void unlockAndRestore(std::vector<SubRegionDescriptor>& a_regions,
                          RegionLocatorVoucher* a_voucher);

    // ---- get-first: draining in view order ----

    // Lock whole regions from the lowest view offset on, as many as stay within the limit, and
    // replace the result with them; the walk stops at the first region that does not fit. Regions
    // that others hold are passed over.
    //
    // RC_SUCCESS: the regions are locked for the caller; none when the locator is empty.
    // RC_WAIT: everything left is locked by others. The task is resumed with RC_SUCCESS and the
    // result 0, with the first regions of that moment locked in its result vector; or with
    // RC_NO_MEMORY, and none is.
    // REQUIRES: the first region fits, else the process stops: a limit of 65535 blocks always
    // does. Tokens: LOOKUP_LOCKED, one for each region.
    RcStatus getFirstRegionsAndLock(AsyncTask* pAsyncTask, u32 a_maxRegions,
                                    std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                    RegionLocatorVoucher* a_voucher);
    RcStatus getFirstBlocksAndLock(AsyncTask* pAsyncTask, u32 a_maxBlocks,
                                   std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                   RegionLocatorVoucher* a_voucher);

    // ---- removal ----

    // Takes every block of the range out of the locator, whatever IO it came from; regions that
    // stick out of the range keep the parts outside. REQUIRES: nothing is locked, else the process
    // stops. Tokens: REMOVE, 1.
    void remove(u64 a_viewOffsetBlocks, u32 a_lengthBlocks, RegionLocatorVoucher* voucher);

    // Takes what is left of one IO out of the locator: the pieces in its view range that still
    // point at its journal data; what later IOs have overridden stays theirs. `desc` is the whole
    // IO, with journal data. REQUIRES: nothing is locked, else the process stops.
    // Tokens: REMOVE, 1.
    void remove(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher);

    // The same where readers may hold pieces of the IO. Despite its name it locks nothing.
    // RC_SUCCESS: removed. RC_WAIT: pieces of this very IO are locked; they are removed by the
    // unlock that leaves nothing locked, and the task is resumed with RC_SUCCESS after that.
    // Tokens: LOCK_AND_REMOVE, 1.
    RcStatus lockAndRemove(AsyncTask* pAsyncTask, const SubRegionDescriptor& desc,
                           RegionLocatorVoucher* voucher);

    // ---- contents and statistics ----

    // The smallest first block, locked or not; all ones when there is none. The name is the
    // interface's (sic).
    u64 getFirstOffest();

    // Walk the regions that are not locked. The locator is immutable from then on: the caller keeps
    // writers out, and an operation that changes it reports a failed check and goes on.
    RegionMap::const_iterator getConstBeginIterator();
    RegionMap::const_iterator getConstEndIterator();

    // Blocks covered, and number of regions, locked or not.
    u64 getTotalRegionBlocksLocked() RL_REQUIRES(m_mutex);
    u64 getTotalRegionBlocks();
    u64 getItemCountLocked() RL_REQUIRES(m_mutex);
    u64 getItemCount() override;

    // Takes no lock: for callers that keep changes away or accept a momentary view.
    RegionLocatorStatistics getStatistics() RL_NO_THREAD_SAFETY_ANALYSIS;

    // Merges of restored neighbours so far. Takes no lock, as getStatistics().
    u64 getMerges() const RL_NO_THREAD_SAFETY_ANALYSIS { return m_counters.getMerges(); }

    // Memory beside the regions' own nodes that only speeds the locator up: at most 24 bytes a
    // region. It is not among the pool's own bytes.
    u64 getAcceleratorBytes();

    // Writes the "RLSTATS " line.
    void printStatistics(const std::string& prefix);

    // ---- what belongs to the locator ----

    // For vouchers. Owned by the locator.
    RegionLocatorMemPool* getMemPool() { return &m_memPool; }

    // The feeders through which a journal scan builds this locator; one scan at a time. Owned by
    // the locator.
    RegionLocatorMetaDataContainer_Insert* getInsertContainer() { return m_insertContainer; }
    RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly* getInsertAllButRemoveMdOnlyContainer()
    {
        return m_insertAllButRemoveMdOnlyContainer;
    }

private:
    friend class RegionLocatorTestAccess;
    friend class RL_LockWaiter_lookup;
    friend class RL_LockWaiter_getFirst;
    friend class RL_LockWaiter_lockAndRemove;

    using Exclude = std::function<bool(const SubRegionDescriptor&)>;

    // What is left of a region that another one is cut out of: at most a left and a right piece.
    struct Remainders
    {
        void add(const SubRegionDescriptor& piece) { m_pieces[m_count++] = piece; }
        u32 size() const { return m_count; }
        SubRegionDescriptor m_pieces[2] = {SubRegionDescriptor(0), SubRegionDescriptor(0)};
        u32 m_count = 0;
    };

    // ---- geometry: computes, changes nothing ----

    bool checkIntersection(const SubRegionDescriptor& region, u64 offsetBlocks,
                           u32 lengthBlocks) const;
    bool checkIntersection(const SubRegionDescriptor& a, const SubRegionDescriptor& b) const;
    // The piece inside the range. REQUIRES: there is one.
    SubRegionDescriptor getIntersection(const SubRegionDescriptor& region, u64 offsetBlocks,
                                        u32 lengthBlocks) const;
    // The same, without rebuilding a whole region that would come out as it is.
    SubRegionDescriptor getPiece(const SubRegionDescriptor& region, u64 offsetBlocks,
                                 u32 lengthBlocks) const;
    // Whether both cover the same blocks; then they are checked to be the same piece of one IO.
    bool equalSubregions(const SubRegionDescriptor& a_region1,
                         const SubRegionDescriptor& a_region2) const;
    // What remains of the older region 1 outside the newer region 2, left piece first.
    std::vector<SubRegionDescriptor> subtractRegions(const SubRegionDescriptor& a_region1,
                                                     const SubRegionDescriptor& a_region2) const;
    Remainders computeRemainders(const SubRegionDescriptor& a_region1,
                                 const SubRegionDescriptor& a_region2) const;
    // Whether `right` may become one region with `left`.
    bool canCombine(const SubRegionDescriptor& left, const SubRegionDescriptor& right);
    // The region before `pos` in the unlocked map, or the map's end when there is none.
    RegionMap::const_iterator getLeftNeighbor(const SubRegionDescriptor& region,
                                              RegionMap::const_iterator pos) RL_REQUIRES(m_mutex);
    SubRegionDescriptor combineR2L(const SubRegionDescriptor& left,
                                   const SubRegionDescriptor& right, const std::string& message)
        RL_REQUIRES(m_mutex);

    // ---- range queries ----

    // Returns the first place that was visited.
    template <class Visit>
    RegionMap::const_iterator visitIntersecting(const CountedRegionMap* map, u64 offsetBlocks,
                                                u32 lengthBlocks, Visit visit) const;
    u32 countIntersecting(const CountedRegionMap* map, u64 offsetBlocks, u32 lengthBlocks) const;
    RegionMap::const_iterator appendIntersecting(const CountedRegionMap* map, u64 offsetBlocks,
                                                 u32 lengthBlocks,
                                                 std::vector<SubRegionDescriptor>* pieces) const;
    std::vector<SubRegionDescriptor> getIntersectingRegions(const CountedRegionMap* map,
                                                            u64 offsetBlocks, u32 lengthBlocks,
                                                            Exclude exclude) const;
    std::vector<SubRegionDescriptor>
    getIntersectingRegions(const CountedRegionMap* map, u64 offsetBlocks, u32 lengthBlocks) const;
    // Whether a piece within the IO's view range belongs to other journal data than the IO's.
    static bool isOtherIo(const SubRegionDescriptor& desc, const SubRegionDescriptor& piece);
    // The pieces in the IO's view range that belong to the same journal data as it.
    std::vector<SubRegionDescriptor>
    getIntersectingRegionsExact(const CountedRegionMap* map, const SubRegionDescriptor& desc) const;

    u32 countIntersectingExact(const CountedRegionMap* map, const SubRegionDescriptor& desc) const;

    // ---- changes: under the mutex, with a voucher active ----

    // Stores the region over what is there, from the last region that starts at or before it, or
    // from one that ends there. Returns its place.
    RegionMap::const_iterator storeOver(const SubRegionDescriptor& desc,
                                        RegionMap::const_iterator before) RL_REQUIRES(m_mutex);
    // Shortens the region, which starts before the range and reaches into it; what sticks out of
    // the range becomes one more. Returns what follows the range's first block.
    // REQUIRES: there is nothing to report of its pieces.
    RegionMap::const_iterator cutBehind(CountedRegionMap* map, RegionMap::const_iterator iter,
                                        u64 firstBlocks, u64 endBlocks) RL_REQUIRES(m_mutex);
    // Takes the range's blocks out of the region where it starts within the range, sticks out of
    // it, and nothing is to be reported; false where not, and nothing has changed.
    bool cutBefore(CountedRegionMap* map, RegionMap::const_iterator iter, u64 firstBlocks,
                   u64 endBlocks) RL_REQUIRES(m_mutex);
    // Inserts what is held back, if anything is, and lets nothing more be: the first step of every
    // operation.
    void settle() RL_REQUIRES(m_mutex)
    {
        if (m_heldBack.isOpen())
            insertHeldBack();
    }
    void insertHeldBack() RL_REQUIRES(m_mutex);
    // Begins to hold back a scan's items, with this one; false where that is not allowed now.
    bool holdBack(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher)
        RL_EXCLUDES(m_mutex);
    // The same, and moves what is locked in place, if anything is: for an operation that looks at
    // the locked map, or changes what may be locked.
    void settleAll() RL_REQUIRES(m_mutex)
    {
        settle();
        if (!m_lockedInPlace.empty())
            moveLocked();
    }
    void moveLocked() RL_REQUIRES(m_mutex);
    bool isNothingLocked() const RL_REQUIRES(m_mutex)
    {
        return m_lockedRegions->empty() && m_lockedInPlace.empty();
    }
    bool isAnyLocked(u64 offsetBlocks, u32 lengthBlocks) const RL_REQUIRES(m_mutex)
    {
        // The map in any case, for what there is to report of the pieces.
        const bool isMoved = !m_lockedRegions->empty() &&
                             countIntersecting(m_lockedRegions, offsetBlocks, lengthBlocks) > 0;
        return isMoved ||
               (!m_lockedInPlace.empty() && m_lockedInPlace.intersects(offsetBlocks, lengthBlocks));
    }
    // Cut the blocks of each element, a piece of a stored region, out of the map. hint: where the
    // first one may lie; the map's end for anywhere.
    void punchOutRegions(CountedRegionMap* a_regionMap,
                         const std::vector<SubRegionDescriptor>& a_regions) RL_REQUIRES(m_mutex);
    void punchOutRegions(CountedRegionMap* a_regionMap,
                         const std::vector<SubRegionDescriptor>& a_regions,
                         RegionMap::const_iterator hint) RL_REQUIRES(m_mutex);
    // The same for every piece within a range, in one walk and without a list of them. Returns the
    // first region that starts at or after the end of the range.
    RegionMap::const_iterator punchOutRange(CountedRegionMap* a_regionMap, u64 offsetBlocks,
                                            u32 lengthBlocks) RL_REQUIRES(m_mutex);
    // The same for every piece that still belongs to one IO.
    void punchOutExact(CountedRegionMap* a_regionMap, const SubRegionDescriptor& desc)
        RL_REQUIRES(m_mutex);
    // Cuts one piece out of the stored region that holds it; returns what follows the piece.
    RegionMap::const_iterator punchOutPiece(CountedRegionMap* a_regionMap,
                                            RegionMap::const_iterator iter,
                                            const SubRegionDescriptor& curRegion)
        RL_REQUIRES(m_mutex);
    // Puts the remainders of a region into its node and, if there are two, one more; returns what
    // follows the piece that was cut out.
    RegionMap::const_iterator putRemainders(CountedRegionMap* a_regionMap,
                                            RegionMap::const_iterator iter,
                                            const Remainders& remainders) RL_REQUIRES(m_mutex);
    bool insertAndCombine(const SubRegionDescriptor& desc) RL_REQUIRES(m_mutex)
    {
        RegionMap::const_iterator hint = m_unlockedRegions->cend();
        return insertAndCombine(desc, &hint);
    }
    // hint: a place near there, or the map's end; becomes the region's place.
    bool insertAndCombine(const SubRegionDescriptor& desc, RegionMap::const_iterator* hint)
        RL_REQUIRES(m_mutex);
    // The regions of the unlocked map before and after a region; the map's end for none.
    struct Neighbors
    {
        RegionMap::const_iterator m_left;
        RegionMap::const_iterator m_right;
    };
    Neighbors getNeighbors(const SubRegionDescriptor& desc, RegionMap::const_iterator hint)
        RL_REQUIRES(m_mutex);
    // Merges the region with its neighbours where they may be merged; false when they may not, and
    // nothing has changed. Else *place is the result's.
    bool combineInPlace(const SubRegionDescriptor& desc, const Neighbors& neighbors,
                        RegionMap::const_iterator* place) RL_REQUIRES(m_mutex);
    void lockRegions(const std::vector<SubRegionDescriptor>& a_regions) RL_REQUIRES(m_mutex);
    void lockRegions(const std::vector<SubRegionDescriptor>& a_regions,
                     RegionMap::const_iterator hint) RL_REQUIRES(m_mutex);
    void unlockRegions(std::vector<SubRegionDescriptor>& a_regions, bool bRestore,
                       RegionLocatorVoucher* a_voucher);
    void restoreRegions(const std::vector<SubRegionDescriptor>& a_regions) RL_REQUIRES(m_mutex);
    bool restoreNode(RegionMap::const_iterator locked) RL_REQUIRES(m_mutex);
    // Locks regions in place, of which `iter` is the first one; false when they are not all to be
    // locked so, and nothing has changed.
    bool lockInPlace(const std::vector<SubRegionDescriptor>& a_regions,
                     RegionMap::const_iterator iter) RL_REQUIRES(m_mutex);
    // Gives them back; false when they are not all locked so, and nothing has changed.
    bool unlockInPlace(const std::vector<SubRegionDescriptor>& a_regions, bool bRestore)
        RL_REQUIRES(m_mutex);
    std::vector<SubRegionDescriptor> resumeLookup(u64 a_offsetBlocks, u32 a_lengthBlocks)
        RL_REQUIRES(m_mutex);

    RcStatus getFirstAndLockInternal(AsyncTask* pAsyncTask, u32 a_maxBlocks, u32 a_maxRegions,
                                     std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                     RegionLocatorVoucher* a_voucher);
    // Moves regions that have just been locked as they were back to the unlocked ones.
    void returnRegions(const std::vector<SubRegionDescriptor>& a_regions) RL_REQUIRES(m_mutex);
    std::vector<SubRegionDescriptor> resumeGetFirst(u32 a_maxBlocks, u32 a_maxRegions,
                                                    bool& a_resHasMore) RL_REQUIRES(m_mutex);
    void resumeLockAndRemove(const SubRegionDescriptor& desc) RL_REQUIRES(m_mutex);

    // Empties a map, giving its tokens back in batches. For the destructor.
    void clearMap(CountedRegionMap* map);

    // ---- tweaks that are read at each use ----

    bool verbose() const { return m_tweaks.t_RlVerboseLogs.load(std::memory_order_relaxed); }
    bool binaryVerbose() const { return m_tweaks.t_BinVerboseLogs.load(std::memory_order_relaxed); }
    // Whether every change is followed by a query that looks for what should not be there. Then
    // each step of a change is made by itself, so that the query sees it.
    bool checksChanges() const
    {
        return m_tweaks.t_IOVerboseLogs.load(std::memory_order_relaxed) || binaryVerbose() ||
               verbose();
    }

    // ---- accelerators ----

    // Sees to the memory of the directory.
    void upkeep() override RL_EXCLUDES(m_mutex);
    bool giveWay() override RL_EXCLUDES(m_mutex);
    void noteSize() RL_REQUIRES(m_mutex)
    {
        m_isHoldingBack.store(t_holdBackScans && m_unlockedRegions->isWorthBatches(),
                              std::memory_order_relaxed);
        if (__builtin_expect(m_unlockedRegions->isDirectoryDue(), 0))
            m_memPool.setUpkeepDue();
    }

    const DynamicTweaks& m_tweaks;
    Mutex m_mutex;
    bool m_immutable RL_GUARDED_BY(m_mutex);
    RegionLocatorMemPool m_memPool;
    RlAllocator<int> m_memAllocator;
    CountedRegionMap* m_unlockedRegions RL_PT_GUARDED_BY(m_mutex);
    CountedRegionMap* m_lockedRegions RL_PT_GUARDED_BY(m_mutex);
    RL_LockWaiter* m_lockWaiter RL_GUARDED_BY(m_mutex);
    RegionLocatorCounters m_counters RL_GUARDED_BY(m_mutex);
    HeldBackInserts m_heldBack;
    LockedInPlace m_lockedInPlace RL_GUARDED_BY(m_mutex);
    std::atomic<bool> m_isHoldingBack{false}; // as of lately; for a look without the mutex
    bool t_holdBackScans;
    bool t_lockInPlace;
    bool t_combineRegionsDuringRestore;
    RegionLocatorMetaDataContainer_Insert* m_insertContainer;
    RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly* m_insertAllButRemoveMdOnlyContainer;
};
