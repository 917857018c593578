// The component's private operations and fields, for tests that try them alone.
//
// Forwards and nothing else. Operations that need the locator's mutex take it here; those that
// change a map need an active voucher, which ActiveVoucher
// (VoucherGuard.h) provides.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RlIoReader.h"
#include "common/infra/MemShield.h"

class RegionLocatorTestAccess
{
public:
    // ---- the locator's fields ----

    static Mutex& mutex(RegionLocator& locator) RL_ATTRIBUTE(lock_returned(locator.m_mutex))
    {
        return locator.m_mutex;
    }
    // What is held back is inserted first, and what is locked in place moved.
    static CountedRegionMap* unlocked(RegionLocator& locator)
    {
        settle(locator);
        return locator.m_unlockedRegions;
    }
    static CountedRegionMap* locked(RegionLocator& locator)
    {
        settle(locator);
        return locator.m_lockedRegions;
    }
    // The maps as they are, and what they stand for.
    static CountedRegionMap* unlockedMap(RegionLocator& locator)
    {
        return locator.m_unlockedRegions;
    }
    static CountedRegionMap* lockedMap(RegionLocator& locator) { return locator.m_lockedRegions; }
    static std::vector<SubRegionDescriptor> regions(RegionLocator& locator, bool isLocked)
    {
        MutexGuard lock(locator.m_mutex);
        std::vector<SubRegionDescriptor> regions;
        if (isLocked)
            regions.assign(locator.m_lockedRegions->begin(), locator.m_lockedRegions->end());
        for (auto place = locator.m_unlockedRegions->begin();
             place != locator.m_unlockedRegions->end(); ++place)
            if (locator.m_lockedInPlace.holds(place._M_node) == isLocked)
                regions.push_back(*place);
        std::sort(regions.begin(), regions.end());
        return regions;
    }
    // Regions that are locked in place now. For tests of one thread.
    static u32 lockedInPlace(RegionLocator& locator) RL_NO_THREAD_SAFETY_ANALYSIS
    {
        return locator.m_lockedInPlace.size();
    }
    // Inserts that are held back now. For tests of one thread.
    static u32 heldBack(RegionLocator& locator) RL_NO_THREAD_SAFETY_ANALYSIS
    {
        return locator.m_heldBack.size();
    }
    static bool immutable(RegionLocator& locator)
    {
        MutexGuard lock(locator.m_mutex);
        return locator.m_immutable;
    }
    static RL_LockWaiter* lockWaiter(RegionLocator& locator)
    {
        MutexGuard lock(locator.m_mutex);
        return locator.m_lockWaiter;
    }
    // Takes the waiting request away, unresumed, so that a test can end without it.
    static void dropLockWaiter(RegionLocator& locator)
    {
        MutexGuard lock(locator.m_mutex);
        SHIELD_DELETE(locator.m_lockWaiter);
        locator.m_lockWaiter = nullptr;
    }
    static RegionLocatorCounters counters(RegionLocator& locator)
    {
        MutexGuard lock(locator.m_mutex);
        return locator.m_counters;
    }
    static bool combinesDuringRestore(RegionLocator& locator)
    {
        return locator.t_combineRegionsDuringRestore;
    }
    static RlAllocator<int>& allocator(RegionLocator& locator) { return locator.m_memAllocator; }

    // ---- geometry ----

    static bool checkIntersection(RegionLocator& locator, const SubRegionDescriptor& region,
                                  u64 offsetBlocks, u32 lengthBlocks)
    {
        return locator.checkIntersection(region, offsetBlocks, lengthBlocks);
    }
    static bool checkIntersection(RegionLocator& locator, const SubRegionDescriptor& a,
                                  const SubRegionDescriptor& b)
    {
        return locator.checkIntersection(a, b);
    }
    static SubRegionDescriptor getIntersection(RegionLocator& locator,
                                               const SubRegionDescriptor& region, u64 offsetBlocks,
                                               u32 lengthBlocks)
    {
        return locator.getIntersection(region, offsetBlocks, lengthBlocks);
    }
    static bool equalSubregions(RegionLocator& locator, const SubRegionDescriptor& a,
                                const SubRegionDescriptor& b)
    {
        return locator.equalSubregions(a, b);
    }
    static std::vector<SubRegionDescriptor> subtractRegions(RegionLocator& locator,
                                                            const SubRegionDescriptor& older,
                                                            const SubRegionDescriptor& newer)
    {
        return locator.subtractRegions(older, newer);
    }
    static bool canCombine(RegionLocator& locator, const SubRegionDescriptor& left,
                           const SubRegionDescriptor& right)
    {
        return locator.canCombine(left, right);
    }
    static SubRegionDescriptor combineR2L(RegionLocator& locator, const SubRegionDescriptor& left,
                                          const SubRegionDescriptor& right,
                                          const std::string& message)
    {
        MutexGuard lock(locator.m_mutex);
        return locator.combineR2L(left, right, message);
    }
    static RegionMap::const_iterator getLeftNeighbor(RegionLocator& locator,
                                                     const SubRegionDescriptor& region,
                                                     RegionMap::const_iterator pos)
    {
        MutexGuard lock(locator.m_mutex);
        return locator.getLeftNeighbor(region, pos);
    }

    // ---- range queries ----

    static std::vector<SubRegionDescriptor> getIntersectingRegions(RegionLocator& locator,
                                                                   const CountedRegionMap* map,
                                                                   u64 offsetBlocks,
                                                                   u32 lengthBlocks)
    {
        return locator.getIntersectingRegions(map, offsetBlocks, lengthBlocks);
    }
    static std::vector<SubRegionDescriptor>
    getIntersectingRegions(RegionLocator& locator, const CountedRegionMap* map, u64 offsetBlocks,
                           u32 lengthBlocks,
                           std::function<bool(const SubRegionDescriptor&)> exclude)
    {
        return locator.getIntersectingRegions(map, offsetBlocks, lengthBlocks, exclude);
    }
    static std::vector<SubRegionDescriptor>
    getIntersectingRegionsExact(RegionLocator& locator, const CountedRegionMap* map,
                                const SubRegionDescriptor& desc)
    {
        return locator.getIntersectingRegionsExact(map, desc);
    }

    // ---- changes ----

    static void punchOutRegions(RegionLocator& locator, CountedRegionMap* map,
                                const std::vector<SubRegionDescriptor>& regions)
    {
        MutexGuard lock(locator.m_mutex);
        locator.punchOutRegions(map, regions);
    }
    static bool insertAndCombine(RegionLocator& locator, const SubRegionDescriptor& desc)
    {
        MutexGuard lock(locator.m_mutex);
        return locator.insertAndCombine(desc);
    }
    static void lockRegions(RegionLocator& locator, const std::vector<SubRegionDescriptor>& regions)
    {
        MutexGuard lock(locator.m_mutex);
        locator.lockRegions(regions);
    }
    static void clearMap(RegionLocator& locator, CountedRegionMap* map) { locator.clearMap(map); }

    // ---- the pool ----

    static u64 id(RegionLocatorMemPool& pool) { return pool.m_id; }
    static ModuleMemoryInformation* mmi(RegionLocatorMemPool& pool) { return pool.m_mmi; }
    static ModuleMemoryInformation* dummyMmi(RegionLocatorMemPool& pool) { return pool.m_dummyMmi; }
    static s32 liveVouchers(RegionLocatorMemPool& pool)
    {
        return pool.m_activeVouchersCountForDebug;
    }
    static FutureStatus allocate(RegionLocatorMemPool& pool, u32 sizeBytes, u8** out)
    {
        return pool.allocate(sizeBytes, out);
    }
    static void freeAllocation(RegionLocatorMemPool& pool, u8* ptr, u32 sizeBytes)
    {
        pool.freeAllocation(ptr, sizeBytes);
    }
    static bool cancelAllocation(RegionLocatorMemPool& pool) { return pool.cancelAllocation(); }
    static u32 maxAllocationSize(RegionLocatorMemPool& pool) { return pool.maxAllocationSize(); }

    // ---- the reader ----

    static void fillVectorsToReadFrom(RlIoReader& reader, RlIoReader::IoReadRequests& io,
                                      const char* verboseIoTopic,
                                      std::vector<IODescriptorEx>* journal,
                                      std::vector<IODescriptorExCompressed>* compressed,
                                      std::vector<IODescriptor>* target)
    {
        reader.fillVectorsToReadFrom(io.offsetBlocks, io.lenBlocks, io.subRegions, io.scatteredBuf,
                                     verboseIoTopic, journal, compressed, target);
    }
    static RcStatus runFrame(RlIoReader& reader, AsyncTask* task, AsyncFrame* frame)
    {
        return reader.performReadFromSegments(task, frame);
    }

    // ---- the allocator ----

    template <class T> static bool usesPool(const RlAllocator<T>& allocator)
    {
        return allocator.b_useMemPool;
    }
    template <class T> static RegionLocatorMemPool* pool(const RlAllocator<T>& allocator)
    {
        return allocator.m_mem;
    }

private:
    static void settle(RegionLocator& locator)
    {
        if (heldBack(locator) == 0 && lockedInPlace(locator) == 0)
            return;
        MutexGuard lock(locator.m_mutex);
        locator.settleAll();
    }
};
