// In chapters: the counted map; lifecycle; geometry; range queries; insertion; lookup and locking;
// get-first; removal; contents and statistics.

#include "RegionLocator/RegionLocator.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string_view>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "common/infra/DynamicTweaks.h"
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

bool verbose()
{
    return DynamicTweaks::instance()->t_RlVerboseLogs.load(std::memory_order_relaxed);
}

bool binaryVerbose()
{
    return DynamicTweaks::instance()->t_BinVerboseLogs.load(std::memory_order_relaxed);
}

// Whether every change is followed by a query that looks for what should not be there.
bool checksChanges()
{
    return DynamicTweaks::instance()->t_IOVerboseLogs.load(std::memory_order_relaxed) ||
           binaryVerbose() || verbose();
}

// Steps that several functions share report under the signature that their records are known by;
// the functions of these names check that it still is theirs.
constexpr const char* SUBTRACT_SIGNATURE =
    "std::vector<SubRegionDescriptor> RegionLocator::subtractRegions("
    "const SubRegionDescriptor&, const SubRegionDescriptor&) const";
constexpr const char* PUNCH_OUT_SIGNATURE =
    "void RegionLocator::punchOutRegions(CountedRegionMap*, "
    "const std::vector<SubRegionDescriptor>&)";

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
        if (verbose())                                                                             \
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

std::pair<CountedRegionMap::iterator, bool> CountedRegionMap::insert(SubRegionDescriptor region)
{
    const auto result = m_regionMap->insert(region);
    if (result.second)
        m_sizeLb += region.m_lengthBlocks;
    return result;
}

std::pair<CountedRegionMap::iterator, bool> CountedRegionMap::insert(const_iterator next,
                                                                     SubRegionDescriptor region)
{
    const size_t before = m_regionMap->size();
    const iterator place = m_regionMap->insert(next, region);
    const bool inserted = m_regionMap->size() != before;
    if (inserted)
        m_sizeLb += region.m_lengthBlocks;
    return {place, inserted};
}

CountedRegionMap::iterator CountedRegionMap::erase(const_iterator iter)
{
    SOFT_CHECK(m_sizeLb >= (*iter).m_lengthBlocks);
    m_sizeLb -= (*iter).m_lengthBlocks;
    return m_regionMap->erase(iter);
}

CountedRegionMap::iterator CountedRegionMap::erase(const_iterator first, const_iterator last)
{
    for (const_iterator iter = first; iter != last; ++iter) {
        SOFT_CHECK(m_sizeLb >= (*iter).m_lengthBlocks);
        m_sizeLb -= (*iter).m_lengthBlocks;
    }
    return m_regionMap->erase(first, last);
}

size_t CountedRegionMap::erase(SubRegionDescriptor region)
{
    const u64 regionSizeLb = region.m_lengthBlocks;
    const size_t found = m_regionMap->erase(region);
    SOFT_CHECK(found <= 1, << " found=" << found);
    SOFT_CHECK(m_sizeLb >= found * regionSizeLb);
    m_sizeLb -= found * regionSizeLb;
    return found;
}

void CountedRegionMap::clear()
{
    m_sizeLb = 0;
    m_regionMap->clear();
}

// ==== lifecycle ====

RegionLocator::RegionLocator(u64 id, RegionLocatorMmiType mmiType)
    : MemWatchedContainer("RegionLocator", 40, 12), m_immutable(false), m_memPool(id, mmiType),
      m_memAllocator(&m_memPool),
      t_combineRegionsDuringRestore(
          Tweaks::uintVal("t_XelCombineRegionLocatorRegionsDuringRestore", 1) == 1)
{
    m_unlockedRegions = SHIELD_NEW(CountedRegionMap, m_memAllocator);
    m_lockedRegions = SHIELD_NEW(CountedRegionMap, m_memAllocator);
    m_insertContainer = SHIELD_NEW(RegionLocatorMetaDataContainer_Insert, this);
    m_insertAllButRemoveMdOnlyContainer =
        SHIELD_NEW(RegionLocatorMetaDataContainer_InsertAllButRemoveMdOnly, this);
    m_lockWaiter = nullptr;
    // Last: from here on the watcher may ask for the item count.
    MemWatchedContainerDatabase::instance()->registerContainer(this);
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

void RegionLocator::clearMap(CountedRegionMap* map)
{
    RegionLocatorVoucher* voucher = m_memPool.createVoucher();
    m_memPool.setActiveVoucher(voucher);
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
    const u64 address = a_region1.m_fifoOffsetOfIoStartBlocks;
    if (first < a_region2.m_viewOffsetBlocks) {
        const u32 length = static_cast<u32>(a_region2.m_viewOffsetBlocks - first);
        const u16 offset = a_region1.m_regionOffsetLBsWithinIo;
        remainders.add(a_region1.isCompressed()
                           ? SfsItemDescriptor::genCompressed(first, length, address, offset,
                                                              a_region1.m_ioTotalLengthBytes, false)
                           : SfsItemDescriptor::genUncompressed(first, length, address, offset,
                                                                a_region1.isAllZeroes()));
    }

    const u64 end1 = first + a_region1.m_lengthBlocks;
    const u64 end2 = a_region2.m_viewOffsetBlocks + a_region2.m_lengthBlocks;
    SOFT_CHECK_IN(SUBTRACT_SIGNATURE, end1 >= end2, << " end1=" << end1 << " end2=" << end2);
    if (end1 <= end2)
        return remainders;

    const u32 length = static_cast<u32>(end1 - end2);
    const u64 delta = a_region1.m_lengthBlocks + end2 - end1;
    const u64 offsetFromOrigIoLbs = a_region1.m_regionOffsetLBsWithinIo + delta;
    if (a_region1.isCompressed()) {
        remainders.add(SfsItemDescriptor::genCompressed(end2, length, address,
                                                        static_cast<u16>(offsetFromOrigIoLbs),
                                                        a_region1.m_ioTotalLengthBytes, false));
    } else if (a_region1.isAllZeroes()) {
        remainders.add(
            SfsItemDescriptor::genUncompressed(end2, length, SFS_DEV_ADDR_INVALID, 0, true));
    } else {
        SOFT_CHECK_IN(SUBTRACT_SIGNATURE, offsetFromOrigIoLbs <= 0xFFFF,
                      << " offsetFromOrigIoLbs=" << offsetFromOrigIoLbs);
        remainders.add(SfsItemDescriptor::genUncompressed(
            end2, length, address + delta, static_cast<u16>(offsetFromOrigIoLbs), false));
    }
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

// Calls visit(iterator, piece) for each stored region that intersects the range, with its piece
// inside the range, ascending. visit may erase the region and insert pieces of it.
template <class Visit> void RegionLocator::visitIntersecting(const CountedRegionMap* map,
                                                             u64 offsetBlocks, u32 lengthBlocks,
                                                             Visit visit) const
{
    if (map->empty())
        return;
    // The last region that starts at or before the range: it may reach into it.
    RegionMap::const_iterator iter = map->lower_bound(SubRegionDescriptor(offsetBlocks));
    if (iter != map->cbegin() && (iter == map->cend() || iter->m_viewOffsetBlocks != offsetBlocks))
        --iter;
    const u64 endBlocks = offsetBlocks + lengthBlocks;
    for (u32 i = 0; iter != map->cend() && iter->m_viewOffsetBlocks < endBlocks; ++i) {
        if (!checkIntersection(*iter, offsetBlocks, lengthBlocks)) {
            HARD_CHECK(i == 0);
            ++iter;
            continue;
        }
        iter = visit(iter, getIntersection(*iter, offsetBlocks, lengthBlocks));
    }
}

u32 RegionLocator::countIntersecting(const CountedRegionMap* map, u64 offsetBlocks,
                                     u32 lengthBlocks) const
{
    u32 count = 0;
    visitIntersecting(map, offsetBlocks, lengthBlocks,
                      [&count](RegionMap::const_iterator iter, const SubRegionDescriptor&) {
                          ++count;
                          return std::next(iter);
                      });
    return count;
}

void RegionLocator::appendIntersecting(const CountedRegionMap* map, u64 offsetBlocks,
                                       u32 lengthBlocks,
                                       std::vector<SubRegionDescriptor>* pieces) const
{
    visitIntersecting(map, offsetBlocks, lengthBlocks,
                      [pieces](RegionMap::const_iterator iter, const SubRegionDescriptor& piece) {
                          pieces->push_back(piece);
                          return std::next(iter);
                      });
}

std::vector<SubRegionDescriptor> RegionLocator::getIntersectingRegions(const CountedRegionMap* map,
                                                                       u64 offsetBlocks,
                                                                       u32 lengthBlocks,
                                                                       Exclude exclude) const
{
    std::vector<SubRegionDescriptor> pieces;
    visitIntersecting(
        map, offsetBlocks, lengthBlocks,
        [&pieces, &exclude](RegionMap::const_iterator iter, const SubRegionDescriptor& piece) {
            if (!exclude(piece))
                pieces.push_back(piece);
            return std::next(iter);
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

bool RegionLocator::isOtherIo(const SubRegionDescriptor& desc, const SubRegionDescriptor& piece)
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
    visitIntersecting(
        map, desc.m_viewOffsetBlocks, desc.m_lengthBlocks,
        [&count, &desc](RegionMap::const_iterator iter, const SubRegionDescriptor& piece) {
            count += isOtherIo(desc, piece) ? 0 : 1;
            return std::next(iter);
        });
    return count;
}

// ==== insertion, punch-out and combining ====

bool RegionLocator::insert(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
    RL_TRACE(<< desc);
    HARD_CHECK(desc.m_lengthBlocks > 0);
    SOFT_CHECK(!m_immutable);
    if (countIntersecting(m_lockedRegions, desc.m_viewOffsetBlocks, desc.m_lengthBlocks) > 0) {
        LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3)
            << "trying to insert to region locator when there are intersecting locked regions"
            << std::endl;
        return false;
    }

    m_memPool.setActiveVoucher(voucher);
    const RegionMap::const_iterator next =
        punchOutRange(m_unlockedRegions, desc.m_viewOffsetBlocks, desc.m_lengthBlocks);
    if (checksChanges()) {
        const std::vector<SubRegionDescriptor> intersecting =
            getIntersectingRegions(m_unlockedRegions, desc.m_viewOffsetBlocks, desc.m_lengthBlocks);
        SOFT_CHECK(intersecting.empty(), << "region locator has intersecting regions in it:\n"
                                         << intersecting);
        if (binaryVerbose())
            binaryLogSfsRegionDesc(REGION_EVENT_INSERTED, &desc);
    }
    RL_TRACE(<< "result insert" << desc);
    if (!m_unlockedRegions->insert(next, desc).second)
        HARD_CHECK(false);
    m_memPool.setActiveVoucher(nullptr);
    m_counters.updateInserts(desc.m_lengthBlocks);
    return true;
}

void RegionLocator::punchOutRegions(CountedRegionMap* a_regionMap,
                                    const std::vector<SubRegionDescriptor>& a_regions)
{
    RL_CHECK_SIGNATURE(PUNCH_OUT_SIGNATURE);
    RL_TRACE_IN(PUNCH_OUT_SIGNATURE,
                << " a_regions.size()=" << a_regions.size() << " a_regionMap=" << a_regionMap);
    RegionMap::const_iterator next = a_regionMap->cend();
    for (const SubRegionDescriptor& curRegion : a_regions) {
        HARD_CHECK(a_regionMap->size() > 0);
        // The pieces of one range lie in regions that follow each other, so the region after the
        // last one is tried before the map is searched.
        RegionMap::const_iterator iter = next;
        if (iter == a_regionMap->cend() || curRegion < *iter ||
            (std::next(iter) != a_regionMap->cend() && !(curRegion < *std::next(iter)))) {
            iter = a_regionMap->lower_bound(SubRegionDescriptor(curRegion.m_viewOffsetBlocks));
            if (iter == a_regionMap->cend() || curRegion < *iter)
                --iter;
        }
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
    if (a_regionMap->empty())
        return a_regionMap->cend();
    RegionMap::const_iterator iter = a_regionMap->lower_bound(SubRegionDescriptor(offsetBlocks));
    if (iter != a_regionMap->cbegin() &&
        (iter == a_regionMap->cend() || iter->m_viewOffsetBlocks != offsetBlocks)) {
        const RegionMap::const_iterator before = std::prev(iter);
        if (checkIntersection(*before, offsetBlocks, lengthBlocks))
            iter = before;
    }
    const u64 endBlocks = offsetBlocks + lengthBlocks;
    while (iter != a_regionMap->cend() && iter->m_viewOffsetBlocks < endBlocks)
        iter = punchOutPiece(a_regionMap, iter, getIntersection(*iter, offsetBlocks, lengthBlocks));
    return iter;
}

void RegionLocator::punchOutExact(CountedRegionMap* a_regionMap, const SubRegionDescriptor& desc)
{
    RL_TRACE_IN(PUNCH_OUT_SIGNATURE,
                << " a_regions.size()=" << countIntersectingExact(a_regionMap, desc)
                << " a_regionMap=" << a_regionMap);
    visitIntersecting(a_regionMap, desc.m_viewOffsetBlocks, desc.m_lengthBlocks,
                      [this, a_regionMap, &desc](RegionMap::const_iterator iter,
                                                 const SubRegionDescriptor& piece) {
                          m_mutex.assertHeld();
                          return isOtherIo(desc, piece) ? std::next(iter)
                                                        : punchOutPiece(a_regionMap, iter, piece);
                      });
}

// Cuts a piece out of the stored region that holds it; returns the first region after the piece.
//
//   stored   [--------------]      and the result, when the piece is not the whole region:
//   piece        [++++]            [--]      [----]
RegionMap::const_iterator RegionLocator::punchOutPiece(CountedRegionMap* a_regionMap,
                                                       RegionMap::const_iterator iter,
                                                       const SubRegionDescriptor& curRegion)
{
    if (equalSubregions(*iter, curRegion)) {
        RL_TRACE_IN(PUNCH_OUT_SIGNATURE, << "erase whole "
                                         << " curRegion=" << curRegion);
        return a_regionMap->erase(iter);
    }
    const Remainders altRegions = computeRemainders(*iter, curRegion);
    HARD_CHECK(altRegions.size() > 0);
    if (binaryVerbose())
        binaryLogSfsRegionDesc(REGION_EVENT_CUT, &*iter);
    RL_TRACE_IN(PUNCH_OUT_SIGNATURE, << "erase "
                                     << " curRegion=" << curRegion);
    RegionMap::const_iterator next = a_regionMap->erase(iter);
    for (u32 i = 0; i < altRegions.size(); ++i) {
        const SubRegionDescriptor& alt = altRegions.m_pieces[i];
        if (checksChanges()) {
            const std::vector<SubRegionDescriptor> intersecting =
                getIntersectingRegions(a_regionMap, alt.m_viewOffsetBlocks, alt.m_lengthBlocks);
            SOFT_CHECK_IN(PUNCH_OUT_SIGNATURE, intersecting.empty(),
                          << "region locator has intersecting regions in it:\n"
                          << intersecting);
            if (binaryVerbose())
                binaryLogSfsRegionDesc(REGION_EVENT_REMAINDER, &alt);
        }
        RL_TRACE_IN(PUNCH_OUT_SIGNATURE, << "insert " << alt);
        const auto [place, rc] = a_regionMap->insert(next, alt);
        SOFT_CHECK_IN(PUNCH_OUT_SIGNATURE, rc);
        if (rc && !(alt < curRegion))
            next = place;
    }
    return next;
}

//   left [----]                right           [----]
//   desc       [++++++++]      merged    [----++++++++----]   as far as canCombine() allows
bool RegionLocator::insertAndCombine(const SubRegionDescriptor& desc)
{
    if (!t_combineRegionsDuringRestore || desc.isCscan() || m_unlockedRegions->empty())
        return m_unlockedRegions->insert(desc).second;

    RegionMap::const_iterator right = m_unlockedRegions->lower_bound(desc);
    if (right != m_unlockedRegions->cend() && !(desc < *right))
        ++right;
    const RegionMap::const_iterator left = getLeftNeighbor(desc, right);
    SubRegionDescriptor merged = desc;
    if (left != m_unlockedRegions->cend() && canCombine(*left, merged)) {
        merged = combineR2L(*left, merged, "left merge");
        m_unlockedRegions->erase(left);
    }
    if (right != m_unlockedRegions->cend() && canCombine(merged, *right)) {
        merged = combineR2L(merged, *right, "right merge");
        right = m_unlockedRegions->erase(right);
    }
    return m_unlockedRegions->insert(right, merged).second;
}

// ==== lookup and locking ====

RcStatus RegionLocator::lookup(AsyncTask* pAsyncTask, u64 a_viewOffsetBlocks, u32 a_lengthBlocks,
                               std::vector<SubRegionDescriptor>* a_subRegionsResult, bool a_lock,
                               RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
    SOFT_CHECK(!m_immutable);
    RL_TRACE(<< " a_viewOffsetBlocks=" << a_viewOffsetBlocks << " "
             << " a_lengthBlocks=" << a_lengthBlocks << " ");
    m_memPool.setActiveVoucher(voucher);

    if (a_lock) {
        if (countIntersecting(m_lockedRegions, a_viewOffsetBlocks, a_lengthBlocks) > 0) {
            m_memPool.setActiveVoucher(nullptr);
            HARD_CHECK(m_lockWaiter == NULL);
            m_lockWaiter = SHIELD_NEW(RL_LockWaiter_lookup, this, a_viewOffsetBlocks,
                                      a_lengthBlocks, pAsyncTask, a_subRegionsResult, voucher);
            return RC_WAIT;
        }
        a_subRegionsResult->clear();
        appendIntersecting(m_unlockedRegions, a_viewOffsetBlocks, a_lengthBlocks,
                           a_subRegionsResult);
        lockRegions(*a_subRegionsResult);
        m_memPool.setActiveVoucher(nullptr);
        return RC_SUCCESS;
    }

    const std::vector<SubRegionDescriptor> locked =
        getIntersectingRegions(m_lockedRegions, a_viewOffsetBlocks, a_lengthBlocks);
    a_subRegionsResult->clear();
    appendIntersecting(m_unlockedRegions, a_viewOffsetBlocks, a_lengthBlocks, a_subRegionsResult);
    if (!locked.empty()) {
        const std::vector<SubRegionDescriptor> unlocked = *a_subRegionsResult;
        a_subRegionsResult->resize(locked.size() + unlocked.size(), SubRegionDescriptor(0));
        // Of equal offsets, the first range's comes first.
        std::merge(locked.begin(), locked.end(), unlocked.begin(), unlocked.end(),
                   a_subRegionsResult->begin());
    }
    m_memPool.setActiveVoucher(nullptr);
    return RC_SUCCESS;
}

void RegionLocator::lockRegions(const std::vector<SubRegionDescriptor>& a_regions)
{
    punchOutRegions(m_unlockedRegions, a_regions);
    for (u32 i = 0; i < a_regions.size(); ++i) {
        RL_TRACE(<< "insert " << a_regions[i]);
        const bool rc = m_lockedRegions->insert(a_regions[i]).second;
        HARD_CHECK(rc);
    }
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

void RegionLocator::unlockRegions(std::vector<SubRegionDescriptor>& a_regions, bool bRestore,
                                  RegionLocatorVoucher* a_voucher)
{
    if (a_regions.empty()) {
        RL_TRACE(<< "empty");
        return;
    }
    MutexGuard lock(m_mutex);
    SOFT_CHECK(!m_immutable);
    RL_TRACE(<< " a_regions[0]=" << a_regions[0] << " "
             << " a_regions.size()=" << a_regions.size() << " ");
    m_memPool.setActiveVoucher(a_voucher);
    HARD_CHECK(m_lockedRegions->size() > 0);
    punchOutRegions(m_lockedRegions, a_regions);
    if (bRestore) {
        for (const SubRegionDescriptor& region : a_regions) {
            RL_TRACE(<< "insert unlocked " << region);
            const bool rc = insertAndCombine(region);
            SOFT_CHECK(rc, << "failed to re-insert locked segment to region locator");
        }
    }
    m_memPool.setActiveVoucher(nullptr);

    if (m_lockWaiter == nullptr)
        return;
    // Woken only when nothing at all is locked: so the waiter need not look for locks again.
    if (!m_lockedRegions->empty()) {
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
    SOFT_CHECK(!m_immutable);
    a_subRegionsResult->clear();
    if (m_unlockedRegions->empty() && m_lockedRegions->empty())
        return RC_SUCCESS;

    m_memPool.setActiveVoucher(a_voucher);
    u32 numBlocks = 0;
    RegionMap::const_iterator iter = m_unlockedRegions->cbegin();
    while (iter != m_unlockedRegions->cend()) {
        const SubRegionDescriptor curRegion = *iter;
        if (numBlocks + curRegion.m_lengthBlocks > a_maxBlocks ||
            a_subRegionsResult->size() + 1 > a_maxRegions) {
            // Later regions that would fit are not tried: the consumer goes by view order.
            SOFT_CHECK(numBlocks > 0, << " a_maxBlocks=" << a_maxBlocks << " "
                                      << " curRegion=" << curRegion << " ");
            HARD_CHECK(a_subRegionsResult->size() > 0);
            m_memPool.setActiveVoucher(nullptr);
            return RC_SUCCESS;
        }
        a_subRegionsResult->push_back(curRegion);
        RL_TRACE(<< "erase from unlocked " << curRegion);
        iter = m_unlockedRegions->erase(iter);
        RL_TRACE(<< "insert locked " << curRegion);
        const bool rc = m_lockedRegions->insert(curRegion).second;
        HARD_CHECK(rc);
        numBlocks += curRegion.m_lengthBlocks;
    }

    m_memPool.setActiveVoucher(nullptr);
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

std::vector<SubRegionDescriptor> RegionLocator::resumeGetFirst(u32 a_maxBlocks, u32 a_maxRegions,
                                                               bool& a_resHasMore)
{
    HARD_CHECK(m_lockedRegions->empty());
    std::vector<SubRegionDescriptor> res;
    if (m_unlockedRegions->empty()) {
        a_resHasMore = false;
        return res;
    }
    std::vector<SubRegionDescriptor> regionsToLock;
    u32 numBlocks = 0;
    for (const SubRegionDescriptor& curRegion : *m_unlockedRegions) {
        if (numBlocks + curRegion.m_lengthBlocks > a_maxBlocks || res.size() + 1 > a_maxRegions) {
            HARD_CHECK(numBlocks > 0);
            a_resHasMore = true;
            break;
        }
        res.push_back(curRegion);
        regionsToLock.push_back(curRegion);
        numBlocks += curRegion.m_lengthBlocks;
    }
    for (const SubRegionDescriptor& region : regionsToLock) {
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
    SOFT_CHECK(!m_immutable);
    m_memPool.setActiveVoucher(voucher);
    HARD_CHECK(m_lockedRegions->empty());
    punchOutRange(m_unlockedRegions, a_viewOffsetBlocks, a_lengthBlocks);
    m_memPool.setActiveVoucher(nullptr);
}

void RegionLocator::remove(const SubRegionDescriptor& desc, RegionLocatorVoucher* voucher)
{
    MutexGuard lock(m_mutex);
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
}

RcStatus RegionLocator::lockAndRemove(AsyncTask* pAsyncTask, const SubRegionDescriptor& desc,
                                      RegionLocatorVoucher* voucher)
{
    RL_TRACE(<< " desc=" << desc);
    SOFT_CHECK(desc.m_fifoOffsetOfIoStartBlocks != SFS_DEV_ADDR_INVALID, << "invalid fifo offset");
    MutexGuard lock(m_mutex);
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
    m_immutable = true;
    return m_unlockedRegions->cbegin();
}

RegionMap::const_iterator RegionLocator::getConstEndIterator()
{
    MutexGuard lock(m_mutex);
    m_immutable = true;
    return m_unlockedRegions->cend();
}

u64 RegionLocator::getTotalRegionBlocksLocked()
{
    return m_unlockedRegions->sizeLb() + m_lockedRegions->sizeLb();
}

u64 RegionLocator::getTotalRegionBlocks()
{
    MutexGuard lock(m_mutex);
    return getTotalRegionBlocksLocked();
}

u64 RegionLocator::getItemCountLocked()
{
    return m_unlockedRegions->size() + m_lockedRegions->size();
}

u64 RegionLocator::getItemCount()
{
    MutexGuard lock(m_mutex);
    return getItemCountLocked();
}

RegionLocatorStatistics RegionLocator::getStatistics()
{
    RegionLocatorStatistics statistics;
    statistics.m_numIOsInserted = m_counters.getInserts();
    statistics.m_bytesInserted = m_counters.getInsertLbs() * BLOCK_BYTES;
    statistics.m_uniqueBytesIosCover = getTotalRegionBlocksLocked() * BLOCK_BYTES;
    statistics.m_numRegionsCreated = getItemCountLocked();
    return statistics;
}

void RegionLocator::printStatistics(const std::string& prefix)
{
    MutexGuard lock(m_mutex);
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
