// In chapters: the counted map; lifecycle; geometry; range queries; insertion; lookup and locking;
// get-first; removal; contents and statistics.

#include "RegionLocator/RegionLocator.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string_view>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "common/infra/MemShield.h"
#include "common/infra/Tweaks.h"

namespace {

// Stands for no limit of blocks or of regions.
constexpr u32 NO_LIMIT = std::numeric_limits<u32>::max();

constexpr u64 NO_OFFSET = std::numeric_limits<u64>::max();

// The longest run of zeroes that merging may make, in blocks.
constexpr u32 MAX_MERGED_ZEROES_BLOCKS = 2048;

// How many regions' tokens one voucher collects while a whole map is emptied.
constexpr size_t CLEAR_BATCH_REGIONS = 1000;

// Bits of the tweak t_RlAccelerators.
constexpr u64 ACCELERATE_DIRECTORY = 1;
constexpr u64 ACCELERATE_FINGER = 2;
constexpr u64 ACCELERATE_DESCENT = 4;
constexpr u64 ACCELERATE_SCANS = 8;
constexpr u64 ACCELERATE_LOCKS = 16;
constexpr u64 ACCELERATE_ALL = 31;

// From there on a descent waits for the caches, if not for memory.
constexpr u64 LARGE_MAP_REGIONS = 15 * 1024;

// Below, the way down the tree is as short as the one through a directory.
constexpr u64 DIRECTORY_FROM_REGIONS = 64;

// Below, one search takes no longer than its share of several at once.
constexpr u64 BATCHES_FROM_REGIONS = 64;

// Steps that several functions share report under the signature that their records are known by;
// the functions of these names check that it still is theirs.
constexpr const char* REPLACE_SIGNATURE =
    "void CountedRegionMap::replace(const_iterator, const SubRegionDescriptor&)";
constexpr const char* SUBTRACT_SIGNATURE =
    "std::vector<SubRegionDescriptor> RegionLocator::subtractRegions("
    "const SubRegionDescriptor&, const SubRegionDescriptor&) const";
constexpr const char* PUNCH_OUT_SIGNATURE =
    "void RegionLocator::punchOutRegions(CountedRegionMap*, "
    "const std::vector<SubRegionDescriptor>&)";
constexpr const char* LOCK_SIGNATURE =
    "void RegionLocator::lockRegions(const std::vector<SubRegionDescriptor>&)";
constexpr const char* UNLOCK_SIGNATURE =
    "void RegionLocator::unlockRegions(std::vector<SubRegionDescriptor>&, bool, "
    "RegionLocatorVoucher*)";

// Whether rebuilding the whole region yields it again, but for the cscan flag.
inline bool isRebuiltAsStored(const SubRegionDescriptor& region)
{
    if (region.isCompressed())
        return !region.isAllZeroes();
    return region.m_ioTotalLengthBytes == u32{region.m_lengthBlocks} << BLOCK_SHIFT &&
           (!region.isAllZeroes() || (region.m_fifoOffsetOfIoStartBlocks == SFS_DEV_ADDR_INVALID &&
                                      region.m_regionOffsetLBsWithinIo == 0));
}

// Whether the range covers the region, and rebuilding it yields it again.
inline bool isWholeAsStored(const SubRegionDescriptor& region, u64 offsetBlocks, u32 lengthBlocks)
{
    return offsetBlocks <= region.m_viewOffsetBlocks && !region.isCscan() &&
           region.m_viewOffsetBlocks + region.m_lengthBlocks <= offsetBlocks + lengthBlocks &&
           isRebuiltAsStored(region);
}

// What is left of a region before a block within it, and from a block within it on.
inline SubRegionDescriptor leftPart(const SubRegionDescriptor& region, u64 endBlocks)
{
    const u64 first = region.m_viewOffsetBlocks;
    const u32 length = static_cast<u32>(endBlocks - first);
    const u64 address = region.m_fifoOffsetOfIoStartBlocks;
    const u16 offset = region.m_regionOffsetLBsWithinIo;
    return region.isCompressed()
               ? SfsItemDescriptor::genCompressed(first, length, address, offset,
                                                  region.m_ioTotalLengthBytes, false)
               : SfsItemDescriptor::genUncompressed(first, length, address, offset,
                                                    region.isAllZeroes());
}

inline SubRegionDescriptor rightPart(const SubRegionDescriptor& region, u64 firstBlocks)
{
    const u64 delta = firstBlocks - region.m_viewOffsetBlocks;
    const u32 length = static_cast<u32>(region.m_lengthBlocks - delta);
    const u64 address = region.m_fifoOffsetOfIoStartBlocks;
    const u16 offset = static_cast<u16>(region.m_regionOffsetLBsWithinIo + delta);
    if (region.isCompressed())
        return SfsItemDescriptor::genCompressed(firstBlocks, length, address, offset,
                                                region.m_ioTotalLengthBytes, false);
    if (region.isAllZeroes())
        return SfsItemDescriptor::genUncompressed(firstBlocks, length, SFS_DEV_ADDR_INVALID, 0,
                                                  true);
    return SfsItemDescriptor::genUncompressed(firstBlocks, length, address + delta, offset, false);
}

// Whether nothing is to be reported of any piece of the region: its place within its IO has room
// in the field for it.
inline bool isCutQuietly(const SubRegionDescriptor& region)
{
    constexpr u32 MOST_BLOCKS = 1 << 16;
    return u32{region.m_regionOffsetLBsWithinIo} + region.m_lengthBlocks <= MOST_BLOCKS;
}

inline RegionMap::const_iterator behind(RegionMap::const_iterator place)
{
    return RegionMap::const_iterator(nextOf(place._M_node));
}

// What canCombine() asks before anything that it would report; false is its answer then, too.
inline bool mayCombine(const SubRegionDescriptor& left, const SubRegionDescriptor& right)
{
    return left.m_viewOffsetBlocks + left.m_lengthBlocks == right.m_viewOffsetBlocks &&
           left.m_flags == right.m_flags &&
           (left.isAllZeroes() || left.getOrigIoFifoOffsetLbs() == right.getOrigIoFifoOffsetLbs());
}

// Whether all that a region says is the same; then equalSubregions() has nothing to report.
bool isSameRegion(const SubRegionDescriptor& a, const SubRegionDescriptor& b)
{
    return a.m_viewOffsetBlocks == b.m_viewOffsetBlocks && a.m_lengthBlocks == b.m_lengthBlocks &&
           a.m_fifoOffsetOfIoStartBlocks == b.m_fifoOffsetOfIoStartBlocks &&
           a.m_ioTotalLengthBytes == b.m_ioTotalLengthBytes &&
           a.m_regionOffsetLBsWithinIo == b.m_regionOffsetLBsWithinIo && a.m_flags == b.m_flags;
}

// Whether a region begins where another one ends that does not reach beyond the last block.
inline bool goesOn(const SubRegionDescriptor& region, const SubRegionDescriptor& other)
{
    return other.m_viewOffsetBlocks + other.m_lengthBlocks == region.m_viewOffsetBlocks &&
           other.m_viewOffsetBlocks < region.m_viewOffsetBlocks;
}

// The first region of the map that starts after this one does.
RegionMap::const_iterator placeAfter(const CountedRegionMap* map, const SubRegionDescriptor& region)
{
    if (map->empty())
        return map->cend();
    const RegionMap::const_iterator before = map->lastAtOrBefore(region.m_viewOffsetBlocks);
    return before->m_viewOffsetBlocks <= region.m_viewOffsetBlocks ? std::next(before) : before;
}

} // namespace

// g++ is the reference for how a signature is spelt.
#if defined(__clang__)
#define RL_CHECK_SIGNATURE(signature)
#else
#define RL_CHECK_SIGNATURE(signature)                                                              \
    static_assert(std::string_view(__PRETTY_FUNCTION__) == (signature))
#endif

// A line of the verbose trace, under a given signature and under the calling function's.
#define RL_TRACE_IN(signature, ...)                                                                \
    do {                                                                                           \
        if (__builtin_expect(verbose(), 0))                                                        \
            LogItem(LogModuleXel, InfoLevel, signature, 0)                                         \
                << "<" << this << ">: " __VA_ARGS__ << std::endl;                                  \
    } while (false)
#define RL_TRACE(...) RL_TRACE_IN(__PRETTY_FUNCTION__, __VA_ARGS__)

// ==== the counted map ====

CountedRegionMap::CountedRegionMap(RlAllocator<int>& allocator)
    : m_regionMap(SHIELD_NEW(RegionMap, std::less<SubRegionDescriptor>(),
                             RlAllocator<SubRegionDescriptor>(allocator))),
      m_sizeLb(0)
{}

CountedRegionMap::~CountedRegionMap()
{
    SHIELD_DELETE(m_regionMap);
}

inline void CountedRegionMap::added(const_iterator place)
{
    m_directory.note(place._M_node, place->m_viewOffsetBlocks);
    m_finger.set(place._M_node);
}

inline void CountedRegionMap::leaving(const_iterator place)
{
    m_directory.forget(place._M_node, place->m_viewOffsetBlocks);
    m_finger.forget(place._M_node);
}

inline void CountedRegionMap::erasing(const_iterator place)
{
    leaving(place);
    // Volatile, since who reads it does so when the node holds no region any more.
    const_cast<volatile u64&>(place->m_viewOffsetBlocks) = NOWHERE;
}

std::pair<CountedRegionMap::iterator, bool> CountedRegionMap::insert(SubRegionDescriptor region)
{
    const auto result = m_regionMap->insert(region);
    if (result.second) {
        m_sizeLb += region.m_lengthBlocks;
        added(result.first);
    }
    return result;
}

std::pair<CountedRegionMap::iterator, bool> CountedRegionMap::insert(const_iterator next,
                                                                     SubRegionDescriptor region)
{
    const size_t before = m_regionMap->size();
    const iterator place = m_regionMap->insert(next, region);
    const bool inserted = m_regionMap->size() != before;
    if (inserted) {
        m_sizeLb += region.m_lengthBlocks;
        added(place);
    }
    return {place, inserted};
}

CountedRegionMap::iterator CountedRegionMap::erase(const_iterator iter)
{
    SOFT_CHECK(m_sizeLb >= (*iter).m_lengthBlocks);
    m_sizeLb -= (*iter).m_lengthBlocks;
    erasing(iter);
    return m_regionMap->erase(iter);
}

CountedRegionMap::iterator CountedRegionMap::erase(const_iterator first, const_iterator last)
{
    for (const_iterator iter = first; iter != last; ++iter) {
        SOFT_CHECK(m_sizeLb >= (*iter).m_lengthBlocks);
        m_sizeLb -= (*iter).m_lengthBlocks;
        erasing(iter);
    }
    return m_regionMap->erase(first, last);
}

size_t CountedRegionMap::erase(SubRegionDescriptor region)
{
    const u64 regionSizeLb = region.m_lengthBlocks;
    const const_iterator place = m_regionMap->find(region);
    const size_t found = place == m_regionMap->end() ? 0 : 1;
    SOFT_CHECK(found <= 1, << " found=" << found);
    if (found != 0) {
        m_isTotalRight = m_isTotalRight && place->m_lengthBlocks == regionSizeLb;
        erasing(place);
        m_regionMap->erase(place);
    }
    SOFT_CHECK(m_sizeLb >= found * regionSizeLb);
    m_sizeLb -= found * regionSizeLb;
    return found;
}

std::pair<CountedRegionMap::iterator, bool>
CountedRegionMap::moveTo(CountedRegionMap& other, const_iterator next, const_iterator iter)
{
    SOFT_CHECK(m_sizeLb >= (*iter).m_lengthBlocks);
    const u32 lengthBlocks = iter->m_lengthBlocks;
    leaving(iter);
    const size_t before = other.size();
    RegionMap::node_type node = m_regionMap->extract(iter);
    const iterator place = other.m_regionMap->insert(next, std::move(node));
    if (other.size() == before) {
        // A node that finds its place taken stays as it was.
        // NOLINTNEXTLINE(bugprone-use-after-move)
        added(m_regionMap->insert(std::move(node)).position);
        return {place, false};
    }
    m_sizeLb -= lengthBlocks;
    other.m_sizeLb += lengthBlocks;
    other.added(place);
    return {place, true};
}

void CountedRegionMap::replace(const_iterator iter, const SubRegionDescriptor& region)
{
    RL_CHECK_SIGNATURE(REPLACE_SIGNATURE);
    SOFT_CHECK(m_sizeLb >= (*iter).m_lengthBlocks);
    m_sizeLb = m_sizeLb - (*iter).m_lengthBlocks + region.m_lengthBlocks;
    if (iter->m_viewOffsetBlocks != region.m_viewOffsetBlocks)
        m_directory.move(iter._M_node, iter->m_viewOffsetBlocks, region.m_viewOffsetBlocks);
    m_finger.set(iter._M_node);
    // The set shows its regions as constant since it is ordered by them, and the order stays.
    const_cast<SubRegionDescriptor&>(*iter) = region;
}

inline void CountedRegionMap::renew(const_iterator iter, const SubRegionDescriptor& region)
{
    SOFT_CHECK_IN(REPLACE_SIGNATURE, m_sizeLb >= (*iter).m_lengthBlocks);
    m_finger.set(iter._M_node);
    const_cast<SubRegionDescriptor&>(*iter) = region; // as above
}

void CountedRegionMap::clear()
{
    m_sizeLb = 0;
    m_isTotalRight = true;
    m_directory.forgetAll();
    m_finger.forgetAll();
    m_regionMap->clear();
}

// ---- its searches ----

CountedRegionMap::const_iterator CountedRegionMap::search(u64 offsetBlocks, RegionNode* noted) const
{
    if (m_directory.isOn()) {
        if (RegionNode* const node = m_directory.reaching(offsetBlocks); node != nullptr)
            return at(node);
    }
    if (RegionNode* const node = nearby(offsetBlocks, noted); node != nullptr)
        return at(node);
    RegionNode* found;
    if (m_accelerators.m_descent) {
        found = RegionDescent(*m_regionMap).lastAtOrBefore(offsetBlocks);
    } else {
        const const_iterator after = m_regionMap->upper_bound(SubRegionDescriptor(offsetBlocks));
        found = after == m_regionMap->begin() ? nullptr : std::prev(after)._M_node;
    }
    if (found == nullptr)
        return m_regionMap->begin();
    m_directory.note(found, startOf(found));
    m_finger.set(found);
    return at(found);
}

// What finger and directory know; null when neither knows a region near the block.
inline RegionNode* CountedRegionMap::nearby(u64 offsetBlocks, RegionNode* noted) const
{
    if (m_accelerators.m_finger) {
        if (RegionNode* const finger = m_finger.get(); finger != nullptr) {
            if (RegionNode* const node = stepFrom(finger, offsetBlocks); node != nullptr) {
                m_finger.hit();
                m_finger.set(node);
                return node;
            }
            m_finger.missed();
        }
    }
    if (!m_directory.isOn())
        return nullptr;
    RegionNode* const from = m_directory.near(offsetBlocks, noted);
    if (from == nullptr)
        return nullptr;
    RegionNode* const node = stepFrom(from, offsetBlocks);
    if (node != nullptr)
        m_finger.set(node);
    return node;
}

// From a node to the last region that starts at or before the block, when it is some steps away at
// most; else null. A region that reaches over the block is the one, since regions do not overlap.
RegionNode* CountedRegionMap::stepFrom(RegionNode* node, u64 offsetBlocks) const
{
    constexpr u32 MOST_STEPS = 3;
    const_iterator place = at(node);
    if (place->m_viewOffsetBlocks > offsetBlocks) {
        for (u32 i = 0; i < MOST_STEPS; ++i) {
            if (place == m_regionMap->begin())
                return place._M_node;
            --place;
            if (place->m_viewOffsetBlocks <= offsetBlocks)
                return place._M_node;
        }
        return nullptr;
    }
    for (u32 i = 0; i < MOST_STEPS; ++i) {
        if (offsetBlocks - place->m_viewOffsetBlocks < place->m_lengthBlocks)
            return place._M_node;
        const const_iterator next = std::next(place);
        if (next == m_regionMap->end() || next->m_viewOffsetBlocks > offsetBlocks)
            return place._M_node;
        place = next;
    }
    return nullptr;
}

// ---- its speed ----

void CountedRegionMap::accelerate(const Accelerators& accelerators)
{
    m_accelerators = accelerators;
    setDirectoryBounds();
}

void CountedRegionMap::locate(const SubRegionDescriptor* regions, u32 count,
                              RegionNode** located) const
{
    if (!m_directory.isOn()) {
        std::fill(located, located + count, nullptr);
    } else if (!isLarge()) {
        for (u32 i = 0; i < count; ++i)
            located[i] = m_directory.peek(regions[i].m_viewOffsetBlocks);
    } else {
        for (u32 i = 0; i < count; ++i)
            m_directory.warm(regions[i].m_viewOffsetBlocks);
        for (u32 i = 0; i < count; ++i) {
            located[i] = m_directory.peek(regions[i].m_viewOffsetBlocks);
            prefetch(located[i]);
        }
    }
    // A region that is covered just so is all that is touched. For any other the neighbours are
    // needed, too, and they lie on the way down the tree.
    u64 offsetsBlocks[RegionDescent::MAX_LOCKSTEP] = {};
    u32 others[RegionDescent::MAX_LOCKSTEP];
    u32 otherCount = 0;
    for (u32 i = 0; i < count; ++i) {
        const bool isCovered = isJust(located[i], regions[i]);
        offsetsBlocks[otherCount] = regions[i].m_viewOffsetBlocks;
        others[otherCount] = i;
        otherCount += isCovered || (i > 0 && goesOn(regions[i], regions[i - 1])) ? 0 : 1;
    }
    RegionNode* found[RegionDescent::MAX_LOCKSTEP];
    RegionDescent(*m_regionMap).lastAtOrBefore(offsetsBlocks, otherCount, found);
    for (u32 i = 0; i < otherCount; ++i)
        located[others[i]] = found[i];
}

void CountedRegionMap::warmAround(const_iterator place) const
{
    if (!m_directory.isOn())
        return;
    m_directory.warmNeighbors(place->m_viewOffsetBlocks);
    prefetch(place._M_node->_M_parent);
    prefetch(place._M_node->_M_left);
    prefetch(place._M_node->_M_right);
}

// Regions that are on their way to the cache at a time: what the directory names is asked for just
// ahead of the walk, as much as a processor can wait for; what is found by way of the tree, as long
// before as it is surely in the cache still when the walk comes to it.
void CountedRegionMap::Warmer::begin(u64 firstBlocks, u64 endBlocks)
{
    constexpr u64 GRANULES_A_STEP = 16;
    constexpr u64 REGIONS_A_STEP = 256;
    constexpr u64 FEW_REGIONS = 4;
    if (!m_map.isLarge() || m_map.empty())
        return;
    const RegionDirectory& directory = m_map.m_directory;
    // A walk waits for each region that the directory does not name, so it must name nearly all;
    // but for a short one nothing else is worth its time.
    const bool isShort = endBlocks - firstBlocks < LEAST_WARMED_BLOCKS;
    m_isNoted = directory.isOn() && (isShort || directory.noted() * 16 >= m_map.size() * 15);
    if (m_isNoted) {
        m_stepBlocks = GRANULES_A_STEP * directory.granuleBlocks();
        m_warmedBlocks = firstBlocks - std::min(firstBlocks, directory.reachBlocks());
        const u64 untilBlocks = firstBlocks + 2 * m_stepBlocks;
        directory.warmRange(m_warmedBlocks, std::min(untilBlocks, endBlocks));
        m_warmedBlocks = untilBlocks;
        m_nextBlocks = firstBlocks + m_stepBlocks;
    } else if (m_map.m_accelerators.m_descent && !isShort) {
        const u64 average = m_map.m_sizeLb / m_map.size() + 1;
        if (endBlocks - firstBlocks < FEW_REGIONS * average)
            return;
        m_stepBlocks = REGIONS_A_STEP * average;
        m_nextBlocks = 0;
    }
}

void CountedRegionMap::Warmer::goOn(u64 startBlocks, u64 endBlocks)
{
    if (m_isNoted) {
        const u64 untilBlocks = startBlocks + 2 * m_stepBlocks;
        m_map.m_directory.warmRange(std::max(m_warmedBlocks, startBlocks),
                                    std::min(untilBlocks, endBlocks));
        m_warmedBlocks = untilBlocks;
    } else {
        RegionDescent(*m_map.m_regionMap)
            .warmRange(startBlocks, std::min(endBlocks, startBlocks + m_stepBlocks));
    }
    m_nextBlocks = startBlocks + m_stepBlocks;
}

u64 CountedRegionMap::wantedDirectorySlots() const
{
    // Once it is there, it goes only when the map has become much smaller: so it does not come and
    // go with every region.
    const u64 slots = m_directory.slots();
    const u64 from = slots == 0 ? m_accelerators.m_directoryFromRegions : leastWithDirectory();
    if (!m_accelerators.m_directory || size() < from)
        return 0;
    // Where the tree's nodes are in the cache, what is not known is found there as fast.
    return RegionDirectory::wantedSlots(size(), slots, isLarge() ? m_directory.noted() : size());
}

void CountedRegionMap::installDirectory(RegionDirectoryMemory& memory)
{
    m_directory.install(memory, *m_regionMap, m_sizeLb);
    setDirectoryBounds();
}

void CountedRegionMap::setDirectoryBounds()
{
    const u64 slots = m_directory.slots();
    m_granuleMask = slots == 0 || !isLarge() ? 0 : ~(m_directory.granuleBlocks() - 1);
    if (!m_accelerators.m_directory) {
        m_directoryLeast = 0;
        m_directorySpan = ~size_t{0};
    } else if (slots == 0) {
        m_directoryLeast = 0;
        m_directorySpan = std::max<u64>(m_accelerators.m_directoryFromRegions, 1) - 1;
    } else {
        m_directoryLeast =
            std::max(slots / RegionDirectory::MOST_SLOTS_A_REGION + 1, leastWithDirectory());
        const u64 again = RegionDirectory::regionsToLookAgain(slots);
        m_directorySpan = (size() > again ? slots : again) - m_directoryLeast;
        if (wantedDirectorySlots() != slots)
            m_directorySpan = 0; // not what it should be, so it is due
    }
}

// ==== lifecycle ====

RegionLocator::RegionLocator(u64 id, RegionLocatorMmiType mmiType)
    : MemWatchedContainer("RegionLocator", 40, 12), m_tweaks(*DynamicTweaks::instance()),
      m_immutable(false), m_memPool(id, mmiType), m_memAllocator(&m_memPool),
      m_unlockedRegions(nullptr), m_lockedRegions(nullptr), m_lockWaiter(nullptr),
      t_holdBackScans(false), t_lockInPlace(false),
      t_combineRegionsDuringRestore(
          Tweaks::uintVal("t_XelCombineRegionLocatorRegionsDuringRestore", 1) == 1),
      m_insertContainer(nullptr), m_insertAllButRemoveMdOnlyContainer(nullptr)
{
    try {
        m_unlockedRegions = SHIELD_NEW(CountedRegionMap, m_memAllocator);
        m_lockedRegions = SHIELD_NEW(CountedRegionMap, m_memAllocator);
        m_insertContainer = SHIELD_NEW(RegionLocatorMetaDataContainer_Insert, this);
        m_insertAllButRemoveMdOnlyContainer =
            SHIELD_NEW(RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly, this);
        const u64 accelerators = Tweaks::uintVal("t_RlAccelerators", ACCELERATE_ALL);
        t_holdBackScans = (accelerators & ACCELERATE_SCANS) != 0;
        t_lockInPlace = (accelerators & ACCELERATE_LOCKS) != 0;
        const u64 fromRegions = Tweaks::uintVal("t_RlAcceleratorsFromRegions", LARGE_MAP_REGIONS);
        m_unlockedRegions->accelerate(
            {(accelerators & ACCELERATE_DESCENT) != 0, (accelerators & ACCELERATE_DIRECTORY) != 0,
             (accelerators & ACCELERATE_FINGER) != 0, fromRegions,
             fromRegions < LARGE_MAP_REGIONS ? fromRegions : DIRECTORY_FROM_REGIONS,
             std::min(fromRegions, BATCHES_FROM_REGIONS)});
        m_memPool.setUpkeepListener(this);
        // Last: from here on the watcher may ask for the item count.
        MemWatchedContainerDatabase::instance()->registerContainer(this);
    } catch (...) { // no memory for all of it: what is there already goes with it
        SHIELD_DELETE(m_insertContainer);
        SHIELD_DELETE(m_insertAllButRemoveMdOnlyContainer);
        SHIELD_DELETE(m_lockedRegions);
        SHIELD_DELETE(m_unlockedRegions);
        throw;
    }
}

RegionLocator::~RegionLocator()
{
    printStatistics("dtor");
    MemWatchedContainerDatabase::instance()->unregisterContainer(this);
    // The feeders hold vouchers of the pool.
    SHIELD_DELETE(m_insertContainer);
    SHIELD_DELETE(m_insertAllButRemoveMdOnlyContainer);
    clearMap(m_lockedRegions);
    clearMap(m_unlockedRegions);
    SHIELD_DELETE(m_lockedRegions);
    SHIELD_DELETE(m_unlockedRegions);
}

void RegionLocator::upkeep()
{
    u64 slots;
    {
        MutexGuard lock(m_mutex);
        slots = m_unlockedRegions->wantedDirectorySlots();
        if (slots == m_unlockedRegions->directorySlots()) {
            m_unlockedRegions->keepDirectory();
            return;
        }
        // Until it has come: asking is dear, and in vain again and again where memory is short.
        m_unlockedRegions->postponeDirectory();
    }
    // Got before and given back after the mutex is held, so that nobody waits for that.
    RegionDirectoryMemory memory;
    if (!memory.obtain(m_memPool, slots))
        return;
    MutexGuard lock(m_mutex);
    if (slots == m_unlockedRegions->wantedDirectorySlots())
        m_unlockedRegions->installDirectory(memory);
}

bool RegionLocator::giveWay()
{
    RegionDirectoryMemory memory; // given back when the mutex is free again
    MutexGuard lock(m_mutex);
    if (m_unlockedRegions->directoryPoolBytes() == 0)
        return false; // what the heap has is of no use to the pool
    m_unlockedRegions->installDirectory(memory);
    m_unlockedRegions->postponeDirectory();
    return true;
}

void RegionLocator::clearMap(CountedRegionMap* map)
{
    RegionLocatorVoucher* voucher = m_memPool.createVoucher();
    m_memPool.setActiveVoucher(voucher);
    voucher->makeRoom(CLEAR_BATCH_REGIONS);
    // As long as no check of a total can fail, nobody sees in which order the regions go.
    if (map->size() > CLEAR_BATCH_REGIONS && map->isTotalRight())
        map->takeApart(CLEAR_BATCH_REGIONS, [this, voucher] { m_memPool.clearVoucher(voucher); });
    while (map->size() > CLEAR_BATCH_REGIONS) {
        map->erase(map->begin(), std::next(map->begin(), CLEAR_BATCH_REGIONS));
        m_memPool.clearVoucher(voucher);
    }
    map->clear();
    m_memPool.setActiveVoucher(nullptr);
    m_memPool.destroyVoucher(voucher);
}

// ==== geometry ====

bool RegionLocator::checkIntersection(const SubRegionDescriptor& region, u64 offsetBlocks,
                                      u32 lengthBlocks) const
{
    if (region.m_viewOffsetBlocks >= offsetBlocks)
        return region.m_viewOffsetBlocks < offsetBlocks + lengthBlocks;
    return region.m_viewOffsetBlocks + region.m_lengthBlocks > offsetBlocks;
}

bool RegionLocator::checkIntersection(const SubRegionDescriptor& a,
                                      const SubRegionDescriptor& b) const
{
    return checkIntersection(a, b.m_viewOffsetBlocks, b.m_lengthBlocks);
}

inline SubRegionDescriptor RegionLocator::getPiece(const SubRegionDescriptor& region,
                                                   u64 offsetBlocks, u32 lengthBlocks) const
{
    if (isWholeAsStored(region, offsetBlocks, lengthBlocks))
        return region;
    return getIntersection(region, offsetBlocks, lengthBlocks);
}

//   region    [--------------]           [------]
//   range         [++++]             [++++++++++++++]
//   result        [----]                 [------]
//
// Every piece is rebuilt by the host's generators, also one that is the whole region: a compressed
// one loses its cscan flag that way, since a checksum of the whole says nothing about a piece.
SubRegionDescriptor RegionLocator::getIntersection(const SubRegionDescriptor& region,
                                                   u64 offsetBlocks, u32 lengthBlocks) const
{
    const u64 start = std::max(region.m_viewOffsetBlocks, offsetBlocks);
    const u64 end =
        std::min(offsetBlocks + lengthBlocks, region.m_viewOffsetBlocks + region.m_lengthBlocks);
    const u32 length = static_cast<u32>(end - start);
    const u64 delta = start - region.m_viewOffsetBlocks;

    if (region.isCompressed()) {
        const u64 regionOffsetWithinIo = region.m_regionOffsetLBsWithinIo + delta;
        SOFT_CHECK(regionOffsetWithinIo <= 0xFFFF,
                   << " regionOffsetWithinIo=" << regionOffsetWithinIo);
        return SfsItemDescriptor::genCompressed(start, length, region.m_fifoOffsetOfIoStartBlocks,
                                                static_cast<u16>(regionOffsetWithinIo),
                                                region.m_ioTotalLengthBytes, false);
    }
    if (region.isAllZeroes())
        return SfsItemDescriptor::genUncompressed(start, length, SFS_DEV_ADDR_INVALID, 0, true);

    const u64 offsetFromOrigIoLbs = region.m_regionOffsetLBsWithinIo + delta;
    SOFT_CHECK(offsetFromOrigIoLbs <= 0xFFFF, << " offsetFromOrigIoLbs=" << offsetFromOrigIoLbs);
    return SfsItemDescriptor::genUncompressed(
        start, length, region.m_fifoOffsetOfIoStartBlocks + delta,
        static_cast<u16>(offsetFromOrigIoLbs), region.isAllZeroes());
}

bool RegionLocator::equalSubregions(const SubRegionDescriptor& a_region1,
                                    const SubRegionDescriptor& a_region2) const
{
    if (a_region1.m_viewOffsetBlocks != a_region2.m_viewOffsetBlocks ||
        a_region1.m_lengthBlocks != a_region2.m_lengthBlocks)
        return false;
    SOFT_CHECK(a_region1.m_fifoOffsetOfIoStartBlocks == a_region2.m_fifoOffsetOfIoStartBlocks,
               << " a_region1.m_fifoOffsetOfIoStartBlocks=" << a_region1.m_fifoOffsetOfIoStartBlocks
               << " a_region2.m_fifoOffsetOfIoStartBlocks="
               << a_region2.m_fifoOffsetOfIoStartBlocks);
    SOFT_CHECK(a_region1.isAllZeroes() == a_region2.isAllZeroes(),
               << " a_region1.isAllZeroes()=" << a_region1.isAllZeroes()
               << " a_region2.isAllZeroes()=" << a_region2.isAllZeroes());
    SOFT_CHECK(a_region1.isCompressed() == a_region2.isCompressed(),
               << " a_region1.isCompressed()=" << a_region1.isCompressed()
               << " a_region2.isCompressed()=" << a_region2.isCompressed());
    SOFT_CHECK(a_region1.m_regionOffsetLBsWithinIo == a_region2.m_regionOffsetLBsWithinIo,
               << " a_region1.m_regionOffsetLBsWithinIo=" << a_region1.m_regionOffsetLBsWithinIo
               << " a_region2.m_regionOffsetLBsWithinIo=" << a_region2.m_regionOffsetLBsWithinIo);
    SOFT_CHECK(a_region1.getIoTotalLengthBytes() == a_region2.getIoTotalLengthBytes(),
               << " a_region1.getIoTotalLengthBytes()=" << a_region1.getIoTotalLengthBytes()
               << " a_region2.getIoTotalLengthBytes()=" << a_region2.getIoTotalLengthBytes());
    return true;
}

std::vector<SubRegionDescriptor>
RegionLocator::subtractRegions(const SubRegionDescriptor& a_region1,
                               const SubRegionDescriptor& a_region2) const
{
    RL_CHECK_SIGNATURE(SUBTRACT_SIGNATURE);
    const Remainders remainders = computeRemainders(a_region1, a_region2);
    return {remainders.m_pieces, remainders.m_pieces + remainders.m_count};
}

//   region 1   [--------------]     [--------------]     [--------------]
//   region 2       [++++]           [++++]                         [++++]
//   result     [--]      [----]           [--------]     [--------]
RegionLocator::Remainders
RegionLocator::computeRemainders(const SubRegionDescriptor& a_region1,
                                 const SubRegionDescriptor& a_region2) const
{
    HARD_CHECK(!equalSubregions(a_region1, a_region2));
    HARD_CHECK(checkIntersection(a_region1, a_region2));
    SOFT_CHECK_IN(SUBTRACT_SIGNATURE, a_region1.m_viewOffsetBlocks <= a_region2.m_viewOffsetBlocks,
                  << " a_region1.m_viewOffsetBlocks=" << a_region1.m_viewOffsetBlocks
                  << " a_region2.m_viewOffsetBlocks=" << a_region2.m_viewOffsetBlocks);

    Remainders remainders;
    const u64 first = a_region1.m_viewOffsetBlocks;
    if (first < a_region2.m_viewOffsetBlocks)
        remainders.add(leftPart(a_region1, a_region2.m_viewOffsetBlocks));

    const u64 end1 = first + a_region1.m_lengthBlocks;
    const u64 end2 = a_region2.m_viewOffsetBlocks + a_region2.m_lengthBlocks;
    SOFT_CHECK_IN(SUBTRACT_SIGNATURE, end1 >= end2, << " end1=" << end1 << " end2=" << end2);
    if (end1 <= end2)
        return remainders;

    const u64 delta = a_region1.m_lengthBlocks + end2 - end1;
    const u64 offsetFromOrigIoLbs = a_region1.m_regionOffsetLBsWithinIo + delta;
    if (!a_region1.isCompressed() && !a_region1.isAllZeroes()) {
        SOFT_CHECK_IN(SUBTRACT_SIGNATURE, offsetFromOrigIoLbs <= 0xFFFF,
                      << " offsetFromOrigIoLbs=" << offsetFromOrigIoLbs);
    }
    remainders.add(rightPart(a_region1, end2));
    return remainders;
}

bool RegionLocator::canCombine(const SubRegionDescriptor& left, const SubRegionDescriptor& right)
{
    if (left.isCscan() || right.isCscan())
        return false;
    if (left.isAllZeroes() != right.isAllZeroes() || left.isCompressed() != right.isCompressed())
        return false;
    if (left.m_viewOffsetBlocks + left.m_lengthBlocks != right.m_viewOffsetBlocks)
        return false;
    // Zeroes carry no data, so they need not come from one IO.
    if (left.isAllZeroes())
        return u32{left.m_lengthBlocks} + right.m_lengthBlocks <= MAX_MERGED_ZEROES_BLOCKS;
    if (left.getOrigIoFifoOffsetLbs() != right.getOrigIoFifoOffsetLbs())
        return false;
    if (!left.isCompressed()) {
        SOFT_CHECK((left.m_fifoOffsetOfIoStartBlocks + left.m_lengthBlocks) ==
                       right.m_fifoOffsetOfIoStartBlocks,
                   << " left=" << left << " right=" << right);
        return true;
    }
    SOFT_CHECK(
        (left.m_regionOffsetLBsWithinIo + left.m_lengthBlocks) == right.m_regionOffsetLBsWithinIo,
        << " left=" << left << " right=" << right);
    SOFT_CHECK(left.getIoTotalLengthLBs() == right.getIoTotalLengthLBs(),
               << " left=" << left << " right=" << right);
    return true;
}

RegionMap::const_iterator RegionLocator::getLeftNeighbor(const SubRegionDescriptor& region,
                                                         RegionMap::const_iterator pos)
{
    if (pos == m_unlockedRegions->cbegin())
        return m_unlockedRegions->cend();
    const RegionMap::const_iterator lNeighbor = std::prev(pos);
    SOFT_CHECK(*lNeighbor < region, << " *lNeighbor=" << *lNeighbor << " region=" << region);
    return lNeighbor;
}

//   left       [------]              right         [++++]
//   combined   [------------]        everything but the length is the left one's
SubRegionDescriptor RegionLocator::combineR2L(const SubRegionDescriptor& left,
                                              const SubRegionDescriptor& right,
                                              const std::string& message)
{
    const u32 length = u32{left.m_lengthBlocks} + right.m_lengthBlocks;
    const SubRegionDescriptor combined =
        left.isCompressed()
            ? SfsItemDescriptor::genCompressed(
                  left.m_viewOffsetBlocks, length, left.m_fifoOffsetOfIoStartBlocks,
                  left.m_regionOffsetLBsWithinIo, left.m_ioTotalLengthBytes, left.isCscan())
            : SfsItemDescriptor::genUncompressed(
                  left.m_viewOffsetBlocks, length, left.m_fifoOffsetOfIoStartBlocks,
                  left.m_regionOffsetLBsWithinIo, left.isAllZeroes());
    m_counters.updateMerges();
    RL_TRACE(<< message << " left=" << left << " "
             << " right=" << right << " "
             << " combined=" << combined << " ");
    return combined;
}

// ==== range queries ====

// Calls visit(piece) for each stored region that intersects the range, with its piece inside the
// range, ascending.
template <class Visit>
RegionMap::const_iterator RegionLocator::visitIntersecting(const CountedRegionMap* map,
                                                           u64 offsetBlocks, u32 lengthBlocks,
                                                           Visit visit) const
{
    if (map->empty())
        return map->cend();
    const u64 endBlocks = offsetBlocks + lengthBlocks;
    CountedRegionMap::Warmer warmer(*map, offsetBlocks, endBlocks);
    // The last region that starts at or before the range: it may reach into it.
    RegionMap::const_iterator iter = map->lastAtOrBefore(offsetBlocks);
    if (iter->m_viewOffsetBlocks < endBlocks &&
        !checkIntersection(*iter, offsetBlocks, lengthBlocks))
        ++iter;
    const RegionMap::const_iterator first = iter;
    for (u32 i = 0; iter != map->cend() && iter->m_viewOffsetBlocks < endBlocks; ++i) {
        warmer.reached(iter->m_viewOffsetBlocks, endBlocks);
        if (iter->m_viewOffsetBlocks < offsetBlocks)
            HARD_CHECK(i == 0);
        if (isWholeAsStored(*iter, offsetBlocks, lengthBlocks))
            visit(*iter);
        else
            visit(getIntersection(*iter, offsetBlocks, lengthBlocks));
        // Nothing can follow a region that reaches the end, so what does is not even looked at.
        if (iter->m_viewOffsetBlocks + iter->m_lengthBlocks >= endBlocks)
            break;
        iter = map->after(iter);
    }
    return first;
}

u32 RegionLocator::countIntersecting(const CountedRegionMap* map, u64 offsetBlocks,
                                     u32 lengthBlocks) const
{
    u32 count = 0;
    visitIntersecting(map, offsetBlocks, lengthBlocks,
                      [&count](const SubRegionDescriptor&) { ++count; });
    return count;
}

RegionMap::const_iterator
RegionLocator::appendIntersecting(const CountedRegionMap* map, u64 offsetBlocks, u32 lengthBlocks,
                                  std::vector<SubRegionDescriptor>* pieces) const
{
    return visitIntersecting(
        map, offsetBlocks, lengthBlocks,
        [pieces](const SubRegionDescriptor& piece) { pieces->push_back(piece); });
}

std::vector<SubRegionDescriptor> RegionLocator::getIntersectingRegions(const CountedRegionMap* map,
                                                                       u64 offsetBlocks,
                                                                       u32 lengthBlocks,
                                                                       Exclude exclude) const
{
    std::vector<SubRegionDescriptor> pieces;
    visitIntersecting(map, offsetBlocks, lengthBlocks,
                      [&pieces, &exclude](const SubRegionDescriptor& piece) {
                          if (!exclude(piece))
                              pieces.push_back(piece);
                      });
    return pieces;
}

std::vector<SubRegionDescriptor> RegionLocator::getIntersectingRegions(const CountedRegionMap* map,
                                                                       u64 offsetBlocks,
                                                                       u32 lengthBlocks) const
{
    std::vector<SubRegionDescriptor> pieces;
    appendIntersecting(map, offsetBlocks, lengthBlocks, &pieces);
    return pieces;
}

inline bool RegionLocator::isOtherIo(const SubRegionDescriptor& desc,
                                     const SubRegionDescriptor& piece)
{
    // A compressed IO is known by its address.
    if (desc.isCompressed())
        return piece.isAllZeroes() || !piece.isCompressed() ||
               piece.m_fifoOffsetOfIoStartBlocks != desc.m_fifoOffsetOfIoStartBlocks;
    // Zeroes have no address by which one IO's could be told from another's.
    if (desc.isAllZeroes())
        return false;
    return piece.isAllZeroes() || piece.isCompressed() ||
           piece.m_fifoOffsetOfIoStartBlocks + piece.m_lengthBlocks <=
               desc.m_fifoOffsetOfIoStartBlocks ||
           piece.m_fifoOffsetOfIoStartBlocks >=
               desc.m_fifoOffsetOfIoStartBlocks + desc.m_lengthBlocks;
}

std::vector<SubRegionDescriptor>
RegionLocator::getIntersectingRegionsExact(const CountedRegionMap* map,
                                           const SubRegionDescriptor& desc) const
{
    return getIntersectingRegions(
        map, desc.m_viewOffsetBlocks, desc.m_lengthBlocks,
        [&desc](const SubRegionDescriptor& piece) { return isOtherIo(desc, piece); });
}

u32 RegionLocator::countIntersectingExact(const CountedRegionMap* map,
                                          const SubRegionDescriptor& desc) const
{
    u32 count = 0;
    visitIntersecting(map, desc.m_viewOffsetBlocks, desc.m_lengthBlocks,
                      [&count, &desc](const SubRegionDescriptor& piece) {
                          count += isOtherIo(desc, piece) ? 0 : 1;
                      });
    return count;
}

// ==== insertion, punch-out and combining ====

bool RegionLocator::insert(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
    settle();
    RL_TRACE(<< desc);
    HARD_CHECK(desc.m_lengthBlocks > 0);
    SOFT_CHECK(!m_immutable);
    if (isAnyLocked(desc.m_viewOffsetBlocks, desc.m_lengthBlocks)) {
        LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
            << "trying to insert to region locator when there are intersecting locked regions"
            << std::endl;
        return false;
    }

    m_memPool.setActiveVoucher(voucher);
    if (__builtin_expect(!checksChanges(), 1)) {
        storeOver(desc, m_unlockedRegions->lastAtOrBefore(desc.m_viewOffsetBlocks));
    } else {
        const RegionMap::const_iterator next =
            punchOutRange(m_unlockedRegions, desc.m_viewOffsetBlocks, desc.m_lengthBlocks);
        const std::vector<SubRegionDescriptor> intersecting =
            getIntersectingRegions(m_unlockedRegions, desc.m_viewOffsetBlocks, desc.m_lengthBlocks);
        SOFT_CHECK(intersecting.empty(), << "region locator has intersecting regions in it:\n"
                                         << intersecting);
        if (binaryVerbose())
            binaryLogSfsRegionDesc(REGION_EVENT_INSERTED, &desc);
        RL_TRACE(<< "result insert" << desc);
        if (!m_unlockedRegions->insert(next, desc).second)
            HARD_CHECK(false);
    }
    m_memPool.setActiveVoucher(nullptr);
    m_counters.updateInserts(desc.m_lengthBlocks);
    noteSize();
    return true;
}

bool RegionLocator::insertFromScan(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher)
{
    if (m_isHoldingBack.load(std::memory_order_relaxed) && desc.m_lengthBlocks > 0 &&
        !checksChanges() && (m_heldBack.add(desc, voucher) || holdBack(desc, voucher)))
        return true;
    return insert(desc, voucher);
}

bool RegionLocator::holdBack(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
    settle();
    if (!isNothingLocked() || m_immutable)
        return false;
    m_heldBack.open(voucher);
    return m_heldBack.add(desc, voucher);
}

void RegionLocator::settleScan()
{
    MutexGuard lock(m_mutex);
    settle();
}

void RegionLocator::insertHeldBack()
{
    m_heldBack.close();
    RegionNode* located[HeldBackInserts::MOST];
    m_heldBack.locate(*m_unlockedRegions, located);
    m_memPool.setActiveVoucher(m_heldBack.voucher());
    RegionNode** place = located;
    RegionMap::const_iterator stored = m_unlockedRegions->cend();
    const SubRegionDescriptor* last = nullptr;
    u64 blocks = 0;
    for (const SubRegionDescriptor& desc : m_heldBack) {
        RegionNode* const found = *place++;
        if (CountedRegionMap::isJust(found, desc) && isRebuiltAsStored(regionOf(found))) {
            stored = RegionMap::const_iterator(found);
            m_unlockedRegions->renew(stored, desc);
        } else {
            // A run goes on behind the region that was stored last.
            if (last == nullptr || !goesOn(desc, *last))
                stored = m_unlockedRegions->lastAtOrBefore(desc.m_viewOffsetBlocks, found);
            stored = storeOver(desc, stored);
        }
        last = &desc;
        blocks += desc.m_lengthBlocks;
    }
    m_memPool.setActiveVoucher(nullptr);
    m_counters.updateInserts(m_heldBack.size(), blocks);
    m_heldBack.clear();
    noteSize();
}

// One walk over the regions that the new one meets. The first that it covers becomes the new one,
// in its node; of one that sticks out the remainders stay.
//
//   stored   [------][----][------]             after   [--][++++++++++][--]
//   desc         [++++++++++]
RegionMap::const_iterator RegionLocator::storeOver(const SubRegionDescriptor& desc,
                                                   RegionMap::const_iterator before)
{
    CountedRegionMap* const map = m_unlockedRegions;
    const u64 firstBlocks = desc.m_viewOffsetBlocks;
    RegionMap::const_iterator iter = before;
    if (iter != map->cend() && CountedRegionMap::isJust(iter._M_node, desc) &&
        isRebuiltAsStored(*iter)) {
        map->renew(iter, desc);
        return iter;
    }
    const u64 endBlocks = firstBlocks + desc.m_lengthBlocks;
    if (iter != map->cend() && iter->m_viewOffsetBlocks < firstBlocks) {
        if (iter->m_viewOffsetBlocks + iter->m_lengthBlocks <= firstBlocks)
            iter = behind(iter);
        else if (isCutQuietly(*iter))
            iter = cutBehind(map, iter, firstBlocks, endBlocks);
        else
            iter = punchOutPiece(map, iter, getPiece(*iter, firstBlocks, desc.m_lengthBlocks));
    }
    RegionMap::const_iterator covered = map->cend();
    while (iter != map->cend() && iter->m_viewOffsetBlocks < endBlocks) {
        const u64 regionEndBlocks = iter->m_viewOffsetBlocks + iter->m_lengthBlocks;
        if (regionEndBlocks <= endBlocks && isRebuiltAsStored(*iter)) {
            if (covered != map->cend()) {
                iter = map->erase(iter);
            } else {
                covered = iter;
                if (regionEndBlocks < endBlocks)
                    iter = behind(iter);
            }
        } else if (!cutBefore(map, iter, firstBlocks, endBlocks)) {
            iter = punchOutPiece(map, iter, getPiece(*iter, firstBlocks, desc.m_lengthBlocks));
        }
        if (regionEndBlocks >= endBlocks)
            break; // nothing can follow in the range, so what does is not even looked at
    }
    if (covered != map->cend()) {
        map->replace(covered, desc);
        return covered;
    }
    const auto [place, rc] = map->insert(iter, desc);
    if (!rc)
        HARD_CHECK(false);
    return place;
}

// The usual cuts, as punchOutPiece() makes them, where it would have nothing to report.
RegionMap::const_iterator RegionLocator::cutBehind(CountedRegionMap* map,
                                                   RegionMap::const_iterator iter, u64 firstBlocks,
                                                   u64 endBlocks)
{
    const SubRegionDescriptor region = *iter;
    map->replace(iter, leftPart(region, firstBlocks));
    const RegionMap::const_iterator next = behind(iter);
    if (region.m_viewOffsetBlocks + region.m_lengthBlocks <= endBlocks)
        return next;
    const auto [place, rc] = map->insert(next, rightPart(region, endBlocks));
    SOFT_CHECK_IN(PUNCH_OUT_SIGNATURE, rc);
    return rc ? place : next;
}

bool RegionLocator::cutBefore(CountedRegionMap* map, RegionMap::const_iterator iter,
                              u64 firstBlocks, u64 endBlocks)
{
    if (iter->m_viewOffsetBlocks < firstBlocks || !isCutQuietly(*iter) ||
        iter->m_viewOffsetBlocks + iter->m_lengthBlocks <= endBlocks)
        return false;
    const RegionMap::const_iterator next = behind(iter);
    if (next != map->cend() && next->m_viewOffsetBlocks <= endBlocks)
        return false;
    map->replace(iter, rightPart(*iter, endBlocks));
    return true;
}

void RegionLocator::punchOutRegions(CountedRegionMap* a_regionMap,
                                    const std::vector<SubRegionDescriptor>& a_regions)
{
    RL_CHECK_SIGNATURE(PUNCH_OUT_SIGNATURE);
    punchOutRegions(a_regionMap, a_regions, a_regionMap->cend());
}

void RegionLocator::punchOutRegions(CountedRegionMap* a_regionMap,
                                    const std::vector<SubRegionDescriptor>& a_regions,
                                    RegionMap::const_iterator hint)
{
    RL_TRACE_IN(PUNCH_OUT_SIGNATURE,
                << " a_regions.size()=" << a_regions.size() << " a_regionMap=" << a_regionMap);
    // The pieces of one range lie in regions that follow each other, so the region after the last
    // one is tried before the map is searched.
    RegionMap::const_iterator next = hint;
    for (const SubRegionDescriptor& curRegion : a_regions) {
        HARD_CHECK(a_regionMap->size() > 0);
        const RegionMap::const_iterator iter =
            a_regionMap->lastAtOrBefore(curRegion.m_viewOffsetBlocks, next);
        HARD_CHECK(checkIntersection(*iter, curRegion));
        next = punchOutPiece(a_regionMap, iter, curRegion);
    }
}

RegionMap::const_iterator RegionLocator::punchOutRange(CountedRegionMap* a_regionMap,
                                                       u64 offsetBlocks, u32 lengthBlocks)
{
    RL_TRACE_IN(PUNCH_OUT_SIGNATURE, << " a_regions.size()="
                                     << countIntersecting(a_regionMap, offsetBlocks, lengthBlocks)
                                     << " a_regionMap=" << a_regionMap);
    RegionMap::const_iterator iter = a_regionMap->lastAtOrBefore(offsetBlocks);
    if (iter != a_regionMap->cend() && iter->m_viewOffsetBlocks < offsetBlocks &&
        !checkIntersection(*iter, offsetBlocks, lengthBlocks))
        ++iter;
    const u64 endBlocks = offsetBlocks + lengthBlocks;
    while (iter != a_regionMap->cend() && iter->m_viewOffsetBlocks < endBlocks)
        iter = punchOutPiece(a_regionMap, iter, getPiece(*iter, offsetBlocks, lengthBlocks));
    return iter;
}

void RegionLocator::punchOutExact(CountedRegionMap* a_regionMap, const SubRegionDescriptor& desc)
{
    RL_TRACE_IN(PUNCH_OUT_SIGNATURE,
                << " a_regions.size()=" << countIntersectingExact(a_regionMap, desc)
                << " a_regionMap=" << a_regionMap);
    RegionMap::const_iterator iter = a_regionMap->lastAtOrBefore(desc.m_viewOffsetBlocks);
    if (iter != a_regionMap->cend() && !checkIntersection(*iter, desc))
        ++iter;
    const u64 endBlocks = desc.m_viewOffsetBlocks + desc.m_lengthBlocks;
    const bool checked = checksChanges();
    while (iter != a_regionMap->cend() && iter->m_viewOffsetBlocks < endBlocks) {
        const bool isLast = iter->m_viewOffsetBlocks + iter->m_lengthBlocks >= endBlocks;
        if (isWholeAsStored(*iter, desc.m_viewOffsetBlocks, desc.m_lengthBlocks) && !checked) {
            if (!isOtherIo(desc, *iter))
                iter = a_regionMap->erase(iter);
            else if (!isLast)
                ++iter;
        } else {
            const SubRegionDescriptor piece =
                getIntersection(*iter, desc.m_viewOffsetBlocks, desc.m_lengthBlocks);
            if (!isOtherIo(desc, piece))
                iter = punchOutPiece(a_regionMap, iter, piece);
            else if (!isLast)
                ++iter;
        }
        if (isLast)
            break;
    }
}

// Cuts a piece out of the stored region that holds it; returns the first region after the piece.
//
//   stored   [--------------]      and the result, when the piece is not the whole region:
//   piece        [++++]            [--]      [----]
RegionMap::const_iterator RegionLocator::punchOutPiece(CountedRegionMap* a_regionMap,
                                                       RegionMap::const_iterator iter,
                                                       const SubRegionDescriptor& curRegion)
{
    if (isSameRegion(*iter, curRegion) || equalSubregions(*iter, curRegion)) {
        RL_TRACE_IN(PUNCH_OUT_SIGNATURE, << "erase whole "
                                         << " curRegion=" << curRegion);
        return a_regionMap->erase(iter);
    }
    const Remainders altRegions = computeRemainders(*iter, curRegion);
    HARD_CHECK(altRegions.size() > 0);
    if (__builtin_expect(!checksChanges(), 1))
        return putRemainders(a_regionMap, iter, altRegions);
    if (binaryVerbose())
        binaryLogSfsRegionDesc(REGION_EVENT_CUT, &*iter);
    RL_TRACE_IN(PUNCH_OUT_SIGNATURE, << "erase "
                                     << " curRegion=" << curRegion);
    RegionMap::const_iterator next = a_regionMap->erase(iter);
    for (u32 i = 0; i < altRegions.size(); ++i) {
        const SubRegionDescriptor& alt = altRegions.m_pieces[i];
        const std::vector<SubRegionDescriptor> intersecting =
            getIntersectingRegions(a_regionMap, alt.m_viewOffsetBlocks, alt.m_lengthBlocks);
        SOFT_CHECK_IN(PUNCH_OUT_SIGNATURE, intersecting.empty(),
                      << "region locator has intersecting regions in it:\n"
                      << intersecting);
        if (binaryVerbose())
            binaryLogSfsRegionDesc(REGION_EVENT_REMAINDER, &alt);
        RL_TRACE_IN(PUNCH_OUT_SIGNATURE, << "insert " << alt);
        const auto [place, rc] = a_regionMap->insert(next, alt);
        SOFT_CHECK_IN(PUNCH_OUT_SIGNATURE, rc);
        if (rc && !(alt < curRegion))
            next = place;
    }
    return next;
}

RegionMap::const_iterator RegionLocator::putRemainders(CountedRegionMap* a_regionMap,
                                                       RegionMap::const_iterator iter,
                                                       const Remainders& remainders)
{
    const SubRegionDescriptor& first = remainders.m_pieces[0];
    const bool isLeft = first.m_viewOffsetBlocks == iter->m_viewOffsetBlocks;
    RegionMap::const_iterator next = std::next(iter);
    if (isLeft || next == a_regionMap->cend() || first < *next) {
        a_regionMap->replace(iter, first);
        if (!isLeft)
            return iter;
    } else {
        next = a_regionMap->erase(iter);
        const auto [place, rc] = a_regionMap->insert(next, first);
        SOFT_CHECK_IN(PUNCH_OUT_SIGNATURE, rc);
        return rc ? place : next;
    }
    if (remainders.size() == 1)
        return next;
    const auto [place, rc] = a_regionMap->insert(next, remainders.m_pieces[1]);
    SOFT_CHECK_IN(PUNCH_OUT_SIGNATURE, rc);
    return rc ? place : next;
}

//   left [----]                right           [----]
//   desc       [++++++++]      merged    [----++++++++----]   as far as canCombine() allows
bool RegionLocator::insertAndCombine(const SubRegionDescriptor& desc,
                                     RegionMap::const_iterator* hint)
{
    CountedRegionMap* const map = m_unlockedRegions;
    if (!t_combineRegionsDuringRestore || desc.isCscan() || map->empty())
        return map->insert(desc).second;

    const Neighbors neighbors = getNeighbors(desc, *hint);
    if (combineInPlace(desc, neighbors, hint))
        return true;
    const auto [place, rc] = map->insert(neighbors.m_right, desc);
    *hint = place;
    return rc;
}

// REQUIRES: the unlocked map is not empty.
inline RegionLocator::Neighbors RegionLocator::getNeighbors(const SubRegionDescriptor& desc,
                                                            RegionMap::const_iterator hint)
{
    const RegionMap::const_iterator near =
        m_unlockedRegions->lastAtOrBefore(desc.m_viewOffsetBlocks, hint);
    if (near->m_viewOffsetBlocks < desc.m_viewOffsetBlocks)
        return {near, std::next(near)};
    const RegionMap::const_iterator right =
        near->m_viewOffsetBlocks == desc.m_viewOffsetBlocks ? std::next(near) : near;
    return {getLeftNeighbor(desc, right), right};
}

// The merged region takes the place of one of its parts.
inline bool RegionLocator::combineInPlace(const SubRegionDescriptor& desc,
                                          const Neighbors& neighbors,
                                          RegionMap::const_iterator* place)
{
    CountedRegionMap* const map = m_unlockedRegions;
    const auto& [left, right] = neighbors;
    // What is locked in place only looks like a neighbour.
    const bool isLeftNear =
        left != map->cend() && mayCombine(*left, desc) && !m_lockedInPlace.holds(left._M_node);
    // Nothing is read of the right one when the left one cannot change what is compared with it.
    if (!isLeftNear && (right == map->cend() || !mayCombine(desc, *right)))
        return false;
    SubRegionDescriptor merged = desc;
    const bool isLeftMerged = isLeftNear && canCombine(*left, merged);
    if (isLeftMerged)
        merged = combineR2L(*left, merged, "left merge");
    const bool isRightMerged =
        right != map->cend() && !m_lockedInPlace.holds(right._M_node) && canCombine(merged, *right);
    if (isRightMerged)
        merged = combineR2L(merged, *right, "right merge");
    if (!isLeftMerged && !isRightMerged)
        return false;
    if (isLeftMerged && isRightMerged)
        map->erase(right);
    *place = isLeftMerged ? left : right;
    map->replace(*place, merged);
    return true;
}

// The same for a region that is locked as it is, and may be merged: if it is merged with nothing,
// its node moves.
inline bool RegionLocator::restoreNode(RegionMap::const_iterator locked)
{
    const SubRegionDescriptor& desc = *locked;
    RegionMap::const_iterator right = m_unlockedRegions->cend();
    if (!m_unlockedRegions->empty()) {
        const Neighbors neighbors = getNeighbors(desc, right);
        RegionMap::const_iterator place = right;
        if (combineInPlace(desc, neighbors, &place)) {
            m_lockedRegions->erase(locked);
            return true;
        }
        right = neighbors.m_right;
    }
    if (m_lockedRegions->moveTo(*m_unlockedRegions, right, locked).second)
        return true;
    m_lockedRegions->erase(locked); // it is lost, and reported
    return false;
}

// ==== lookup and locking ====

RcStatus RegionLocator::lookup(AsyncTask* pAsyncTask, u64 a_viewOffsetBlocks, u32 a_lengthBlocks,
                               std::vector<SubRegionDescriptor>* a_subRegionsResult, bool a_lock,
                               RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
    settle();
    SOFT_CHECK(!m_immutable);
    RL_TRACE(<< " a_viewOffsetBlocks=" << a_viewOffsetBlocks << " "
             << " a_lengthBlocks=" << a_lengthBlocks << " ");
    const OperationVoucher active(m_memPool, voucher);

    if (a_lock) {
        if (isAnyLocked(a_viewOffsetBlocks, a_lengthBlocks)) {
            HARD_CHECK(m_lockWaiter == NULL);
            m_lockWaiter = SHIELD_NEW(RL_LockWaiter_lookup, this, a_viewOffsetBlocks,
                                      a_lengthBlocks, pAsyncTask, a_subRegionsResult, voucher);
            return RC_WAIT;
        }
        a_subRegionsResult->clear();
        const RegionMap::const_iterator first = appendIntersecting(
            m_unlockedRegions, a_viewOffsetBlocks, a_lengthBlocks, a_subRegionsResult);
        if (!a_subRegionsResult->empty())
            m_unlockedRegions->warmAround(first);
        if (!lockInPlace(*a_subRegionsResult, first))
            lockRegions(*a_subRegionsResult, first);
        return RC_SUCCESS;
    }

    a_subRegionsResult->clear();
    if (m_lockedRegions->empty()) {
        appendIntersecting(m_unlockedRegions, a_viewOffsetBlocks, a_lengthBlocks,
                           a_subRegionsResult);
    } else {
        const std::vector<SubRegionDescriptor> locked =
            getIntersectingRegions(m_lockedRegions, a_viewOffsetBlocks, a_lengthBlocks);
        const std::vector<SubRegionDescriptor> unlocked =
            getIntersectingRegions(m_unlockedRegions, a_viewOffsetBlocks, a_lengthBlocks);
        a_subRegionsResult->resize(locked.size() + unlocked.size(), SubRegionDescriptor(0));
        // Of equal offsets, the first range's comes first.
        std::merge(locked.begin(), locked.end(), unlocked.begin(), unlocked.end(),
                   a_subRegionsResult->begin());
    }
    return RC_SUCCESS;
}

void RegionLocator::lockRegions(const std::vector<SubRegionDescriptor>& a_regions)
{
    RL_CHECK_SIGNATURE(LOCK_SIGNATURE);
    lockRegions(a_regions, m_unlockedRegions->cend());
}

void RegionLocator::lockRegions(const std::vector<SubRegionDescriptor>& a_regions,
                                RegionMap::const_iterator hint)
{
    if (a_regions.size() == 1 && hint != m_unlockedRegions->cend() &&
        isSameRegion(*hint, a_regions[0]) && !checksChanges()) {
        // A whole region, as most are that are locked: its node moves.
        const bool rc =
            m_unlockedRegions->moveTo(*m_lockedRegions, placeAfter(m_lockedRegions, *hint), hint)
                .second;
        HARD_CHECK(rc);
        return;
    }
    punchOutRegions(m_unlockedRegions, a_regions, hint);
    RegionMap::const_iterator next = m_lockedRegions->cend();
    for (u32 i = 0; i < a_regions.size(); ++i) {
        RL_TRACE_IN(LOCK_SIGNATURE, << "insert " << a_regions[i]);
        const auto [place, rc] = m_lockedRegions->insert(next, a_regions[i]);
        HARD_CHECK(rc);
        next = std::next(place);
    }
}

bool RegionLocator::lockInPlace(const std::vector<SubRegionDescriptor>& a_regions,
                                RegionMap::const_iterator iter)
{
    if (!t_lockInPlace || !m_unlockedRegions->isLarge() || m_immutable ||
        !m_lockedInPlace.hasRoom(a_regions.size()) || checksChanges())
        return false;
    const u32 before = m_lockedInPlace.size();
    for (size_t i = 0; i < a_regions.size(); ++i) {
        if (i > 0)
            iter = m_unlockedRegions->after(iter);
        // What there would be to report of a piece of it is reported where it has been moved.
        if (!isSameRegion(*iter, a_regions[i]) || !isCutQuietly(*iter)) {
            m_lockedInPlace.shrinkTo(before);
            return false;
        }
        m_lockedInPlace.add(iter._M_node);
    }
    return true;
}

bool RegionLocator::unlockInPlace(const std::vector<SubRegionDescriptor>& a_regions, bool bRestore)
{
    if (a_regions.size() > m_lockedInPlace.size() || checksChanges())
        return false;
    u32 places[LockedInPlace::MOST];
    u64 seen = 0;
    for (size_t i = 0; i < a_regions.size(); ++i) {
        places[i] =
            m_lockedInPlace.find(a_regions[i].m_viewOffsetBlocks, i == 0 ? 0 : places[i - 1] + 1);
        if (places[i] == LockedInPlace::MOST || (seen >> places[i] & 1) != 0 ||
            !isSameRegion(regionOf(m_lockedInPlace.at(places[i])), a_regions[i]))
            return false;
        seen |= u64{1} << places[i];
    }
    for (size_t i = 0; i < a_regions.size(); ++i) {
        const RegionMap::const_iterator place(m_lockedInPlace.at(places[i]));
        m_lockedInPlace.release(places[i]);
        if (!bRestore) {
            m_unlockedRegions->erase(place);
        } else if (t_combineRegionsDuringRestore) {
            const Neighbors neighbors{m_unlockedRegions->before(place),
                                      m_unlockedRegions->after(place)};
            RegionMap::const_iterator merged = place;
            if (combineInPlace(a_regions[i], neighbors, &merged))
                m_unlockedRegions->erase(place);
        }
    }
    m_lockedInPlace.tidy();
    return true;
}

void RegionLocator::moveLocked()
{
    for (u32 i = 0; i < m_lockedInPlace.size(); ++i) {
        const RegionMap::const_iterator place(m_lockedInPlace.at(i));
        const bool rc =
            m_unlockedRegions->moveTo(*m_lockedRegions, placeAfter(m_lockedRegions, *place), place)
                .second;
        HARD_CHECK(rc);
    }
    m_lockedInPlace.shrinkTo(0);
}

std::vector<SubRegionDescriptor> RegionLocator::resumeLookup(u64 a_offsetBlocks, u32 a_lengthBlocks)
{
    // The locked map is not looked at again: the unlock that resumes has made sure it is empty.
    std::vector<SubRegionDescriptor> pieces =
        getIntersectingRegions(m_unlockedRegions, a_offsetBlocks, a_lengthBlocks);
    lockRegions(pieces);
    return pieces;
}

void RegionLocator::unlockAndRemove(std::vector<SubRegionDescriptor>& a_regions,
                                    RegionLocatorVoucher* a_voucher)
{
    unlockRegions(a_regions, false, a_voucher);
}

void RegionLocator::unlockAndRestore(std::vector<SubRegionDescriptor>& a_regions,
                                     RegionLocatorVoucher* a_voucher)
{
    unlockRegions(a_regions, true, a_voucher);
}

void RegionLocator::restoreRegions(const std::vector<SubRegionDescriptor>& a_regions)
{
    RegionMap::const_iterator hint = m_unlockedRegions->cend();
    for (const SubRegionDescriptor& region : a_regions) {
        RL_TRACE_IN(UNLOCK_SIGNATURE, << "insert unlocked " << region);
        const bool rc = insertAndCombine(region, &hint);
        SOFT_CHECK_IN(UNLOCK_SIGNATURE, rc,
                      << "failed to re-insert locked segment to region locator");
    }
}

void RegionLocator::unlockRegions(std::vector<SubRegionDescriptor>& a_regions, bool bRestore,
                                  RegionLocatorVoucher* a_voucher)
{
    RL_CHECK_SIGNATURE(UNLOCK_SIGNATURE);
    if (a_regions.empty()) {
        RL_TRACE(<< "empty");
        return;
    }
    MutexGuard lock(m_mutex);
    settle();
    SOFT_CHECK(!m_immutable);
    RL_TRACE(<< " a_regions[0]=" << a_regions[0] << " "
             << " a_regions.size()=" << a_regions.size() << " ");
    m_memPool.setActiveVoucher(a_voucher);
    if (!unlockInPlace(a_regions, bRestore)) {
        settleAll();
        HARD_CHECK(m_lockedRegions->size() > 0);
        const RegionMap::const_iterator first = m_lockedRegions->lastAtOrBefore(
            a_regions[0].m_viewOffsetBlocks, m_lockedRegions->cbegin());
        if (bRestore && a_regions.size() == 1 && t_combineRegionsDuringRestore &&
            !a_regions[0].isCscan() && isSameRegion(*first, a_regions[0]) && !checksChanges()) {
            const bool rc = restoreNode(first);
            SOFT_CHECK(rc, << "failed to re-insert locked segment to region locator");
        } else {
            punchOutRegions(m_lockedRegions, a_regions, first);
            if (bRestore)
                restoreRegions(a_regions);
        }
    }
    m_memPool.setActiveVoucher(nullptr);
    noteSize();

    if (m_lockWaiter == nullptr)
        return;
    // Woken only when nothing at all is locked: so the waiter need not look for locks again.
    if (!isNothingLocked()) {
        RL_TRACE(<< "There are locked regions. Not resuming lock waiter");
        return;
    }
    RL_TRACE(<< "before resume "
             << " a_regions[0]=" << a_regions[0] << " ");
    m_lockWaiter->resume();
    RL_TRACE(<< "after resume "
             << " a_regions[0]=" << a_regions[0] << " ");
    SHIELD_DELETE(m_lockWaiter);
    m_lockWaiter = nullptr;
}

// ==== get-first ====

RcStatus RegionLocator::getFirstRegionsAndLock(AsyncTask* pAsyncTask, u32 a_maxRegions,
                                               std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                               RegionLocatorVoucher* a_voucher)
{
    return getFirstAndLockInternal(pAsyncTask, NO_LIMIT, a_maxRegions, a_subRegionsResult,
                                   a_voucher);
}

RcStatus RegionLocator::getFirstBlocksAndLock(AsyncTask* pAsyncTask, u32 a_maxBlocks,
                                              std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                              RegionLocatorVoucher* a_voucher)
{
    return getFirstAndLockInternal(pAsyncTask, a_maxBlocks, NO_LIMIT, a_subRegionsResult,
                                   a_voucher);
}

RcStatus
RegionLocator::getFirstAndLockInternal(AsyncTask* pAsyncTask, u32 a_maxBlocks, u32 a_maxRegions,
                                       std::vector<SubRegionDescriptor>* a_subRegionsResult,
                                       RegionLocatorVoucher* a_voucher)
{
    MutexGuard lock(m_mutex);
    settleAll();
    SOFT_CHECK(!m_immutable);
    a_subRegionsResult->clear();
    if (m_unlockedRegions->empty() && m_lockedRegions->empty())
        return RC_SUCCESS;

    const OperationVoucher active(m_memPool, a_voucher);
    u32 numBlocks = 0;
    RegionMap::const_iterator iter = m_unlockedRegions->cbegin();
    RegionMap::const_iterator lockedNext = m_lockedRegions->cend();
    const u64 firstBlocks = m_unlockedRegions->empty() ? 0 : iter->m_viewOffsetBlocks;
    CountedRegionMap::Warmer warmer(*m_unlockedRegions, firstBlocks, firstBlocks + a_maxBlocks);
    while (iter != m_unlockedRegions->cend()) {
        const SubRegionDescriptor curRegion = *iter;
        warmer.reached(curRegion.m_viewOffsetBlocks,
                       curRegion.m_viewOffsetBlocks + (a_maxBlocks - numBlocks));
        if (numBlocks + curRegion.m_lengthBlocks > a_maxBlocks ||
            a_subRegionsResult->size() + 1 > a_maxRegions) {
            // Later regions that would fit are not tried: the consumer goes by view order.
            SOFT_CHECK(numBlocks > 0, << " a_maxBlocks=" << a_maxBlocks << " "
                                      << " curRegion=" << curRegion << " ");
            HARD_CHECK(a_subRegionsResult->size() > 0);
            return RC_SUCCESS;
        }
        try {
            a_subRegionsResult->push_back(curRegion);
        } catch (const std::bad_alloc&) {
            // Whoever gets no answer gives nothing back.
            returnRegions(*a_subRegionsResult);
            a_subRegionsResult->clear();
            throw;
        }
        RL_TRACE(<< "erase from unlocked " << curRegion);
        iter = m_unlockedRegions->erase(iter);
        RL_TRACE(<< "insert locked " << curRegion);
        const auto [place, rc] = m_lockedRegions->insert(lockedNext, curRegion);
        HARD_CHECK(rc);
        lockedNext = std::next(place);
        numBlocks += curRegion.m_lengthBlocks;
    }

    if (numBlocks == 0) {
        // Everything there is, somebody holds.
        HARD_CHECK(m_lockWaiter == NULL);
        m_lockWaiter = SHIELD_NEW(RL_LockWaiter_getFirst, this, pAsyncTask, a_subRegionsResult,
                                  a_maxBlocks, a_maxRegions, a_voucher);
        return RC_WAIT;
    }
    HARD_CHECK(a_subRegionsResult->size() > 0);
    return RC_SUCCESS;
}

void RegionLocator::returnRegions(const std::vector<SubRegionDescriptor>& a_regions)
{
    for (const SubRegionDescriptor& region : a_regions) {
        m_lockedRegions->erase(region);
        const bool rc = m_unlockedRegions->insert(region).second;
        HARD_CHECK(rc);
    }
}

std::vector<SubRegionDescriptor> RegionLocator::resumeGetFirst(u32 a_maxBlocks, u32 a_maxRegions,
                                                               bool& a_resHasMore)
{
    HARD_CHECK(m_lockedRegions->empty());
    std::vector<SubRegionDescriptor> res;
    if (m_unlockedRegions->empty()) {
        a_resHasMore = false;
        return res;
    }
    u32 numBlocks = 0;
    for (const SubRegionDescriptor& curRegion : *m_unlockedRegions) {
        if (numBlocks + curRegion.m_lengthBlocks > a_maxBlocks || res.size() + 1 > a_maxRegions) {
            HARD_CHECK(numBlocks > 0);
            a_resHasMore = true;
            break;
        }
        res.push_back(curRegion);
        numBlocks += curRegion.m_lengthBlocks;
    }
    for (const SubRegionDescriptor& region : res) {
        RL_TRACE(<< "erase from unlocked " << region);
        const size_t nErased = m_unlockedRegions->erase(region);
        SOFT_CHECK(nErased == 1, << "bad region locator set"
                                 << " nErased=" << nErased);
        RL_TRACE(<< "insert locked " << region);
        const bool rc = m_lockedRegions->insert(region).second;
        HARD_CHECK(rc);
    }
    // On every path: a resumed consumer asks again in any case, and is told so by an empty answer.
    a_resHasMore = false;
    return res;
}

// ==== removal ====

void RegionLocator::remove(u64 a_viewOffsetBlocks, u32 a_lengthBlocks,
                           RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
    settleAll();
    SOFT_CHECK(!m_immutable);
    m_memPool.setActiveVoucher(voucher);
    HARD_CHECK(m_lockedRegions->empty());
    punchOutRange(m_unlockedRegions, a_viewOffsetBlocks, a_lengthBlocks);
    m_memPool.setActiveVoucher(nullptr);
    noteSize();
}

void RegionLocator::remove(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
    settleAll();
    SOFT_CHECK(!m_immutable);
    m_memPool.setActiveVoucher(voucher);
    HARD_CHECK(m_lockedRegions->empty());
    SOFT_CHECK(desc.m_fifoOffsetOfIoStartBlocks != SFS_DEV_ADDR_INVALID,
               << "you cannot use the 'exact remove' with IOs which have no UD");
    const u64 fifoEnd = desc.m_fifoOffsetOfIoStartBlocks + desc.getIoTotalLengthLBs() - 1;
    SOFT_CHECK(SFS_GRAIN_OF(desc.m_fifoOffsetOfIoStartBlocks) == SFS_GRAIN_OF(fifoEnd),
               << "an IO across grains is not supported"
               << " desc.m_fifoOffsetOfIoStartBlocks=" << desc.m_fifoOffsetOfIoStartBlocks << " "
               << " desc.getIoTotalLengthLBs()=" << desc.getIoTotalLengthLBs() << " ");
    punchOutExact(m_unlockedRegions, desc);
    m_memPool.setActiveVoucher(nullptr);
    noteSize();
}

RcStatus RegionLocator::lockAndRemove(AsyncTask* pAsyncTask, const SubRegionDescriptor& desc,
                                      RegionLocatorVoucher* voucher)
{
    RL_TRACE(<< " desc=" << desc);
    SOFT_CHECK(desc.m_fifoOffsetOfIoStartBlocks != SFS_DEV_ADDR_INVALID, << "invalid fifo offset");
    MutexGuard lock(m_mutex);
    settleAll();
    SOFT_CHECK(!m_immutable);
    m_memPool.setActiveVoucher(voucher);
    // Locked pieces of other IOs in the same view range do not matter.
    if (countIntersectingExact(m_lockedRegions, desc) > 0) {
        m_memPool.setActiveVoucher(nullptr);
        HARD_CHECK(m_lockWaiter == NULL);
        m_lockWaiter = SHIELD_NEW(RL_LockWaiter_lockAndRemove, this, desc, pAsyncTask, voucher);
        RL_TRACE(<< "locked " << desc << " " << getIntersectingRegionsExact(m_lockedRegions, desc));
        return RC_WAIT;
    }
    RL_TRACE(<< "not locked " << desc);
    punchOutExact(m_unlockedRegions, desc);
    m_memPool.setActiveVoucher(nullptr);
    noteSize();
    return RC_SUCCESS;
}

void RegionLocator::resumeLockAndRemove(const SubRegionDescriptor& desc)
{
    // A count under the name that the check's text has: a list would be made on the heap.
    struct
    {
        u32 m_count;
        u32 size() const { return m_count; }
    } const res{countIntersectingExact(m_unlockedRegions, desc)};
    SOFT_CHECK(res.size() > 0, << "Region is not unlocked."
                               << " desc=" << desc);
    SOFT_CHECK(m_lockedRegions->size() == 0, << "When resuming, no locked regions are allowed. "
                                             << " m_lockedRegions=" << m_lockedRegions);
    RL_TRACE(<< desc << " res=" << getIntersectingRegionsExact(m_unlockedRegions, desc)
             << " res.size()=" << res.size());
    punchOutExact(m_unlockedRegions, desc);
}

// ==== contents and statistics ====

u64 RegionLocator::getFirstOffest()
{
    MutexGuard lock(m_mutex);
    settle();
    u64 first = NO_OFFSET;
    if (!m_unlockedRegions->empty())
        first = m_unlockedRegions->begin()->m_viewOffsetBlocks;
    if (!m_lockedRegions->empty())
        first = std::min(first, m_lockedRegions->begin()->m_viewOffsetBlocks);
    return first;
}

RegionMap::const_iterator RegionLocator::getConstBeginIterator()
{
    MutexGuard lock(m_mutex);
    settleAll();
    m_immutable = true;
    return m_unlockedRegions->cbegin();
}

RegionMap::const_iterator RegionLocator::getConstEndIterator()
{
    MutexGuard lock(m_mutex);
    settleAll();
    m_immutable = true;
    return m_unlockedRegions->cend();
}

u64 RegionLocator::getTotalRegionBlocksLocked()
{
    settle();
    return m_unlockedRegions->sizeLb() + m_lockedRegions->sizeLb();
}

u64 RegionLocator::getTotalRegionBlocks()
{
    MutexGuard lock(m_mutex);
    return getTotalRegionBlocksLocked();
}

u64 RegionLocator::getItemCountLocked()
{
    settle();
    return m_unlockedRegions->size() + m_lockedRegions->size();
}

u64 RegionLocator::getItemCount()
{
    MutexGuard lock(m_mutex);
    return getItemCountLocked();
}

RegionLocatorStatistics RegionLocator::getStatistics()
{
    // What is held back is counted as if it were in already, and for that it has to be. Who has
    // the mutex may be this very thread, and has closed the list then; whoever it is, what is seen
    // without the mutex is a momentary view.
    if (!m_heldBack.empty() && m_mutex.tryLock()) {
        settle();
        m_mutex.unlock();
    }
    const u64 blocks = m_unlockedRegions->sizeLb() + m_lockedRegions->sizeLb();
    RegionLocatorStatistics statistics;
    statistics.m_numIOsInserted = m_counters.getInserts();
    statistics.m_bytesInserted = m_counters.getInsertLbs() * BLOCK_BYTES;
    statistics.m_uniqueBytesIosCover = blocks * BLOCK_BYTES;
    statistics.m_numRegionsCreated = m_unlockedRegions->size() + m_lockedRegions->size();
    return statistics;
}

u64 RegionLocator::getAcceleratorBytes()
{
    MutexGuard lock(m_mutex);
    return m_unlockedRegions->directoryBytes();
}

void RegionLocator::printStatistics(const std::string& prefix)
{
    MutexGuard lock(m_mutex);
    settleAll();
    // In single precision: the line is for people, and programs have compared its numbers for long.
    const auto quotient = [](u64 a, u64 b) {
        return static_cast<float>(a) / static_cast<float>(b);
    };
    const u64 totalRegionBlocks = getTotalRegionBlocksLocked();
    const u64 inserts = m_counters.getInserts();
    const u64 insertLbs = m_counters.getInsertLbs();
    const u64 itemCount = getItemCountLocked();
    const int overlapPerc =
        insertLbs == 0 ? 0
                       : 100 - static_cast<int>(quotient(totalRegionBlocks, insertLbs) * 100.0F);
    const u64 avgIoSizeLbs = inserts == 0 ? 0 : static_cast<u64>(quotient(insertLbs, inserts));
    const u64 avgRegionSizeLbs =
        itemCount == 0 ? 0 : static_cast<u64>(quotient(totalRegionBlocks, itemCount));
    LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
        << "RLSTATS " << prefix << "<" << this << ">: "
        << " m_counters.getInserts()=" << inserts << " "
        << " m_counters.getInsertLbs()=" << insertLbs << " "
        << " overlapPerc=" << overlapPerc << " "
        << " m_unlockedRegions->size()=" << m_unlockedRegions->size() << " "
        << " m_lockedRegions->size()=" << m_lockedRegions->size() << " "
        << " totalRegionBlocks=" << totalRegionBlocks << " "
        << " avgIoSizeLbs=" << avgIoSizeLbs << " "
        << " avgRegionSizeLbs=" << avgRegionSizeLbs << " "
        << " m_counters.getMerges()=" << m_counters.getMerges() << " " << std::endl;
}
