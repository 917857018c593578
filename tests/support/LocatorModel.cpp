#include "tests/support/LocatorModel.h"

#include <algorithm>
#include <sstream>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "tests/support/RegionLocatorTestAccess.h"

namespace {

constexpr u64 NOW_OR_NEVER = 0;
constexpr u32 TOKEN_BYTES = 64;

SubRegionDescriptor toRegion(const BlockOracle::Write& write)
{
    switch (write.kind) {
    case BlockOracle::Compressed:
        return SfsItemDescriptor::genCompressed(write.viewOffset, write.length, write.address, 0,
                                                write.storedBytes, false);
    case BlockOracle::Zeroes:
        return SfsItemDescriptor::genUncompressed(write.viewOffset, write.length,
                                                  SFS_DEV_ADDR_INVALID, 0, true);
    default:
        return SfsItemDescriptor::genUncompressed(write.viewOffset, write.length, write.address, 0,
                                                  false);
    }
}

SfsDiskMetaItem toItem(const BlockOracle::Write& write)
{
    SfsDiskMetaItem item;
    item.setUncompressedLengthBlocks(write.length);
    item.m_ioData = {write.address, write.viewOffset};
    switch (write.kind) {
    case BlockOracle::Compressed:
        item.setType(SfsMetaType::COMPRESSED_IO);
        item.setCompressedLengthBytes(write.storedBytes);
        break;
    case BlockOracle::Zeroes: item.setType(SfsMetaType::ZEROS); break;
    default: item.setType(SfsMetaType::UNCOMPRESSED_IO); break;
    }
    return item;
}

u64 sumOfLengths(const CountedRegionMap& map)
{
    u64 sum = 0;
    for (const SubRegionDescriptor& region : map)
        sum += region.m_lengthBlocks;
    return sum;
}

} // namespace

// ---- the model ----

struct LocatorModel::Parked
{
    enum Request
    {
        Lookup,
        GetFirst,
        LockAndRemove,
    };

    Request request = Lookup;
    AsyncTask task;
    Write write{};      // of a lock-and-remove
    u32 maxBlocks = 0;  // of a get-first
    u32 maxRegions = 0; //
    u64 offset = 0;
    u32 length = 0;
    Regions result;
    RegionLocatorVoucher* voucher = nullptr;
    int tokens = 0;
};

LocatorModel::LocatorModel(u32 blocks)
    : m_oracle(blocks), m_locator(std::make_unique<RegionLocator>(1, RL_MMI_View))
{}

LocatorModel::~LocatorModel()
{
    // A locator leaves its parked waiter behind, so everything is given back first.
    while (!m_held.empty() && m_problem.empty())
        unlock(0, true);
}

RegionLocatorVoucher* LocatorModel::fill(int tokens)
{
    RegionLocatorMemPool* pool = m_locator->getMemPool();
    RegionLocatorVoucher* voucher = pool->createVoucher();
    require(pool->fillVoucher(voucher, tokens, NOW_OR_NEVER, voucher).get() == RC_SUCCESS,
            "the pool refuses a small reservation");
    return voucher;
}

void LocatorModel::require(bool condition, const std::string& what)
{
    if (!condition && m_problem.empty())
        m_problem = what;
}

void LocatorModel::requireEqual(const Regions& expected, const Regions& actual,
                                const std::string& what)
{
    const std::string difference = describeDifference(expected, actual);
    require(difference.empty(), what + ": " + difference);
}

void LocatorModel::insert(const Write& write)
{
    RegionLocatorVoucher* voucher =
        fill(RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::INSERT, 1));
    const bool stored = m_locator->insert(toRegion(write), voucher);
    require(stored == m_oracle.insert(write), "insert is refused where it should not be, or not "
                                              "refused where it should");
    m_locator->getMemPool()->destroyVoucher(voucher);
}

void LocatorModel::feed(const std::vector<Write>& writes)
{
    auto* feeder = m_locator->getInsertContainer();
    require(feeder->prepareToAdd(static_cast<int>(writes.size()), NOW_OR_NEVER).get() == RC_SUCCESS,
            "the feeder cannot prepare a small batch");
    for (const Write& write : writes) {
        m_oracle.insert(write);
        require(feeder->addMetaData(toItem(write), JournalPtr::invalid) == RC_SUCCESS,
                "the feeder stops at an IO");
    }
    feeder->unPrepareToAdd();
}

void LocatorModel::removeRange(u64 offset, u32 length)
{
    RegionLocatorVoucher* voucher =
        fill(RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::REMOVE, 1));
    m_locator->remove(offset, length, voucher);
    m_oracle.remove(offset, length);
    m_locator->getMemPool()->destroyVoucher(voucher);
}

void LocatorModel::feedMdOnly(u64 offset, u32 length)
{
    auto* feeder = m_locator->getInsertAllButRemoveMdOnlyContainer();
    require(feeder->prepareToAdd(1, NOW_OR_NEVER).get() == RC_SUCCESS,
            "the feeder cannot prepare one item");
    SfsDiskMetaItem item;
    item.setType(SfsMetaType::MD_ONLY);
    item.setUncompressedLengthBlocks(length);
    item.m_ioData = {0, offset};
    require(feeder->addMetaData(item, JournalPtr::invalid) == RC_SUCCESS,
            "the feeder stops at a metadata-only item");
    m_oracle.remove(offset, length);
    feeder->unPrepareToAdd();
}

void LocatorModel::lookup(u64 offset, u32 length)
{
    Regions result = {SubRegionDescriptor(77)};
    require(m_locator->lookup(nullptr, offset, length, &result, false, nullptr) == RC_SUCCESS,
            "a lookup that locks nothing waits");
    requireEqual(m_oracle.pieces(offset, length, true), result, "lookup");
}

void LocatorModel::lock(u64 offset, u32 length)
{
    const Regions expected = m_oracle.pieces(offset, length, true);
    const bool waits = m_oracle.anyLockedIn(offset, length);
    auto request = std::make_unique<Parked>();
    request->offset = offset;
    request->length = length;
    // A waiter may find more pieces later than there are now: one for each block at the most.
    request->tokens = RegionLocatorMemPool::getVoucherRequirement(
        RegionLocatorMemPool::LOOKUP_LOCKED, static_cast<int>(waits ? length : expected.size()));
    request->voucher = fill(request->tokens);
    request->result = {SubRegionDescriptor(77)};
    const RcStatus rc =
        m_locator->lookup(&request->task, offset, length, &request->result, true, request->voucher);
    require(rc == (waits ? RC_WAIT : RC_SUCCESS), "a locking lookup answers the wrong status");
    if (rc == RC_WAIT) {
        requireEqual({SubRegionDescriptor(77)}, request->result, "the result of a parked lookup");
        m_parked = std::move(request);
        return;
    }
    requireEqual(expected, request->result, "locking lookup");
    m_oracle.lock(offset, length);
    if (!request->result.empty())
        m_held.push_back(request->result);
    m_locator->getMemPool()->destroyVoucher(request->voucher);
}

LocatorModel::Regions LocatorModel::lockFirst(u32 maxBlocks, u32 maxRegions)
{
    Regions taken;
    u64 blocks = 0;
    for (const SubRegionDescriptor& region : m_oracle.regions(false)) {
        blocks += region.m_lengthBlocks;
        if (blocks > maxBlocks || taken.size() == maxRegions)
            break;
        taken.push_back(region);
    }
    for (const SubRegionDescriptor& region : taken)
        m_oracle.lock(region.m_viewOffsetBlocks, region.m_lengthBlocks);
    return taken;
}

void LocatorModel::getFirst(u32 maxBlocks, u32 maxRegions)
{
    const bool waits = m_oracle.regions(false).empty() && m_oracle.anyLocked();
    auto request = std::make_unique<Parked>();
    request->request = Parked::GetFirst;
    request->maxBlocks = maxBlocks;
    request->maxRegions = maxRegions;
    request->tokens = RegionLocatorMemPool::getVoucherRequirement(
        RegionLocatorMemPool::LOOKUP_LOCKED, static_cast<int>(std::min(maxBlocks, maxRegions)));
    request->voucher = fill(request->tokens);
    request->result = {SubRegionDescriptor(77)};
    request->task.setResult(77);
    const RcStatus rc = maxBlocks == ~u32{0}
                            ? m_locator->getFirstRegionsAndLock(&request->task, maxRegions,
                                                                &request->result, request->voucher)
                            : m_locator->getFirstBlocksAndLock(&request->task, maxBlocks,
                                                               &request->result, request->voucher);
    require(rc == (waits ? RC_WAIT : RC_SUCCESS), "a get-first answers the wrong status");
    if (rc == RC_WAIT) {
        m_parked = std::move(request);
        return;
    }
    requireEqual(lockFirst(maxBlocks, maxRegions), request->result, "get-first");
    if (!request->result.empty())
        m_held.push_back(request->result);
    m_locator->getMemPool()->destroyVoucher(request->voucher);
}

void LocatorModel::removeWrite(const Write& write)
{
    RegionLocatorVoucher* voucher =
        fill(RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::REMOVE, 1));
    m_locator->remove(toRegion(write), voucher);
    m_oracle.removeWrite(write);
    m_locator->getMemPool()->destroyVoucher(voucher);
}

void LocatorModel::lockAndRemove(const Write& write)
{
    const bool waits = m_oracle.anyLeftOf(write, true);
    auto request = std::make_unique<Parked>();
    request->request = Parked::LockAndRemove;
    request->write = write;
    request->tokens =
        RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::LOCK_AND_REMOVE, 1);
    request->voucher = fill(request->tokens);
    const RcStatus rc = m_locator->lockAndRemove(&request->task, toRegion(write), request->voucher);
    require(rc == (waits ? RC_WAIT : RC_SUCCESS), "a lock-and-remove answers the wrong status");
    if (rc == RC_WAIT) {
        m_parked = std::move(request);
        return;
    }
    m_oracle.removeWrite(write);
    m_locator->getMemPool()->destroyVoucher(request->voucher);
}

void LocatorModel::unlock(size_t held, bool restore)
{
    unlockSome(held, 0, m_held[held].size(), restore);
}

void LocatorModel::unlockSome(size_t held, size_t from, size_t to, bool restore)
{
    Regions& all = m_held[held];
    Regions given(all.begin() + static_cast<long>(from), all.begin() + static_cast<long>(to));
    all.erase(all.begin() + static_cast<long>(from), all.begin() + static_cast<long>(to));
    if (all.empty())
        m_held.erase(m_held.begin() + static_cast<long>(held));
    give(given, restore);
}

void LocatorModel::unlockPartOfPiece(size_t held, size_t piece, u32 skip, u32 length, bool restore)
{
    Regions& all = m_held[held];
    const SubRegionDescriptor whole = all[piece];
    const u64 first = whole.m_viewOffsetBlocks;
    // The oracle cuts the pieces: a lookup of each part returns it as it should be handed out.
    const auto part = [&](u64 offset, u64 blocks) { return m_oracle.pieces(offset, blocks, true); };
    Regions given = part(first + skip, length);
    Regions rest;
    if (skip > 0)
        rest = part(first, skip);
    if (skip + length < whole.m_lengthBlocks) {
        const Regions right = part(first + skip + length, whole.m_lengthBlocks - skip - length);
        rest.insert(rest.end(), right.begin(), right.end());
    }
    all.erase(all.begin() + static_cast<long>(piece));
    all.insert(all.begin() + static_cast<long>(piece), rest.begin(), rest.end());
    if (all.empty())
        m_held.erase(m_held.begin() + static_cast<long>(held));
    give(given, restore);
}

void LocatorModel::give(Regions& pieces, bool restore)
{
    RegionLocatorVoucher* voucher = fill(RegionLocatorMemPool::getVoucherRequirement(
        RegionLocatorMemPool::LOOKUP_LOCKED, static_cast<int>(pieces.size())));
    if (restore)
        m_locator->unlockAndRestore(pieces, voucher);
    else
        m_locator->unlockAndRemove(pieces, voucher);
    for (const SubRegionDescriptor& piece : pieces) {
        if (restore)
            m_oracle.unlockRestore(piece.m_viewOffsetBlocks, piece.m_lengthBlocks);
        else
            m_oracle.unlockRemove(piece.m_viewOffsetBlocks, piece.m_lengthBlocks);
    }
    m_locator->getMemPool()->destroyVoucher(voucher);
    resumeIfFree();
}

void LocatorModel::resumeIfFree()
{
    if (m_parked == nullptr)
        return;
    const std::vector<EnqueuedTask> wakeUps = m_control.enqueued();
    if (m_oracle.anyLocked()) {
        require(wakeUps.size() == m_wakeUps, "a task is woken while something is locked");
        return;
    }
    require(wakeUps.size() == ++m_wakeUps && wakeUps.back().m_task == &m_parked->task &&
                wakeUps.back().m_priority == AsyncTaskPriority::Normal &&
                wakeUps.back().m_status == RC_SUCCESS &&
                wakeUps.back().m_queue == AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL,
            "the parked task is not woken once, on the control queue, with success");
    switch (m_parked->request) {
    case Parked::Lookup:
        requireEqual(m_oracle.pieces(m_parked->offset, m_parked->length, true), m_parked->result,
                     "the result of a resumed lookup");
        m_oracle.lock(m_parked->offset, m_parked->length);
        break;
    case Parked::GetFirst:
        requireEqual(lockFirst(m_parked->maxBlocks, m_parked->maxRegions), m_parked->result,
                     "the result of a resumed get-first");
        require(m_parked->task.getResult() == 0, "a resumed get-first has another result than 0");
        break;
    case Parked::LockAndRemove: m_oracle.removeWrite(m_parked->write); break;
    }
    if (!m_parked->result.empty())
        m_held.push_back(m_parked->result);
    m_locator->getMemPool()->destroyVoucher(m_parked->voucher);
    m_parked.reset();
}

void LocatorModel::failToFill()
{
    RegionLocatorMemPool* pool = m_locator->getMemPool();
    RegionLocatorVoucher* voucher = pool->createVoucher();
    // More than the process-wide pool may ever hold.
    const int tooMany = 1 << 25;
    require(pool->fillVoucher(voucher, tooMany, NOW_OR_NEVER, voucher).get() != RC_SUCCESS,
            "the pool grants more than its limit");
    require(voucher->empty(), "a failed fill leaves tokens in the voucher");
    pool->destroyVoucher(voucher);
}

void LocatorModel::verify()
{
    // Nothing here has what is locked in place moved.
    const CountedRegionMap& unlocked = *RegionLocatorTestAccess::unlockedMap(*m_locator);
    const CountedRegionMap& locked = *RegionLocatorTestAccess::lockedMap(*m_locator);
    const Regions unlockedRegions = RegionLocatorTestAccess::regions(*m_locator, false);
    const Regions lockedRegions = RegionLocatorTestAccess::regions(*m_locator, true);
    requireEqual(m_oracle.regions(false), unlockedRegions, "unlocked map");
    requireEqual(m_oracle.regions(true), lockedRegions, "locked map");
    require(unlocked.sizeLb() == sumOfLengths(unlocked), "the unlocked map's total is wrong");
    require(locked.sizeLb() == sumOfLengths(locked), "the locked map's total is wrong");
    require(m_locator->getTotalRegionBlocks() == unlocked.sizeLb() + locked.sizeLb(),
            "the locator's total is wrong");
    const size_t items = unlockedRegions.size() + lockedRegions.size();
    require(m_locator->getItemCount() == items, "the item count is wrong");

    u64 first = ~u64{0};
    for (const Regions* regions : {&unlockedRegions, &lockedRegions})
        if (!regions->empty())
            first = std::min(first, regions->front().m_viewOffsetBlocks);
    require(m_locator->getFirstOffest() == first, "the first offset is wrong");

    const RegionLocatorStatistics statistics = m_locator->getStatistics();
    require(statistics.m_numIOsInserted == m_oracle.inserts(), "the count of inserts is wrong");
    require(statistics.m_bytesInserted == m_oracle.insertedBlocks() * 512,
            "the inserted bytes are wrong");
    require(m_locator->getMerges() == m_oracle.merges(), "the count of merges is wrong");

    const u64 tokens = items + (m_parked == nullptr ? 0 : static_cast<u64>(m_parked->tokens));
    require(m_locator->getMemPool()->getMemoryStats().usedBytesNet == tokens * TOKEN_BYTES,
            "tokens are lost or too many");
    require(m_locator->getMemPool()->getActiveVoucher() == nullptr, "a voucher is left active");
}

// ---- random operations ----

ModelRun::ModelRun(u64 seed, u32 blocks)
    : m_seed(seed), m_blocks(blocks), m_random(seed), m_model(blocks)
{
    // Runs differ in which operations they have at all: some states are reached only where others
    // do not keep breaking them up. Every fourth seed has them all.
    m_operationsOn = seed % 4 == 0 ? ~u64{0} : m_random();
}

std::string ModelRun::run(u64 operations)
{
    for (u64 i = 0; i < operations; ++i) {
        step();
        m_model.verify();
        if (!m_model.problem().empty()) {
            std::ostringstream out;
            out << "seed " << m_seed << ", operation " << i << ": " << m_model.problem();
            return out.str();
        }
    }
    return "";
}

BlockOracle::Write ModelRun::randomWrite()
{
    BlockOracle::Write write{};
    write.length = static_cast<u32>(1 + below(below(4) == 0 ? 60 : 12));
    write.viewOffset = below(m_blocks - write.length + 1);
    write.kind = static_cast<BlockOracle::Kind>(1 + below(3));
    write.storedBytes = static_cast<u32>(1 + below(write.length * 512));
    // No IO spans two grains.
    if (SFS_GRAIN_OF(m_nextAddress) != SFS_GRAIN_OF(m_nextAddress + write.length - 1))
        m_nextAddress += write.length;
    write.address = write.kind == BlockOracle::Zeroes ? ~u64{0} : m_nextAddress;
    // Sometimes the data of two writes touch in the journal, and they must not become one for that.
    m_nextAddress += write.length + (below(2) == 0 ? 0 : 100);
    if (write.kind != BlockOracle::Zeroes) {
        constexpr size_t REMEMBERED = 20;
        if (m_recent.size() == REMEMBERED)
            m_recent.erase(m_recent.begin() + static_cast<long>(below(REMEMBERED)));
        m_recent.push_back(write);
    }
    return write;
}

void ModelRun::step()
{
    const u64 operation = below(20);
    const u32 length = static_cast<u32>(1 + below(64));
    const u64 offset = below(m_blocks - length + 1);
    const bool restore = below(4) != 0;
    const size_t lists = m_model.heldLists();
    if ((m_operationsOn >> operation & 1) == 0 && operation > 3) {
        m_model.insert(randomWrite());
        return;
    }
    switch (operation) {
    case 0:
    case 1:
    case 2: m_model.insert(randomWrite()); return;
    case 3: m_model.lookup(offset, length); return;
    case 4: {
        std::vector<BlockOracle::Write> batch;
        for (u64 n = below(5); n > 0; --n)
            batch.push_back(randomWrite());
        // A refused IO of a feeder is reported as a failed check; that is tried elsewhere.
        if (lists == 0)
            m_model.feed(batch);
        return;
    }
    case 5:
        if (lists == 0)
            m_model.removeRange(offset, length);
        return;
    case 6:
        if (lists == 0)
            m_model.feedMdOnly(offset, length);
        return;
    case 7: m_model.failToFill(); return;
    case 8:
    case 9:
    case 10:
        // A second request that would wait stops the process: callers keep it away.
        if (!m_model.parked() || !m_model.oracle().anyLockedIn(offset, length))
            m_model.lock(offset, length);
        return;
    case 11:
    case 12:
        if (lists > 0)
            m_model.unlock(below(lists), restore);
        return;
    case 13:
        if (lists > 0) {
            const size_t list = below(lists);
            const size_t from = below(m_model.held(list).size());
            const size_t to = from + 1 + below(m_model.held(list).size() - from);
            m_model.unlockSome(list, from, to, restore);
        }
        return;
    case 14:
        if (lists > 0) {
            const size_t list = below(lists);
            const size_t piece = below(m_model.held(list).size());
            const u32 blocks = m_model.held(list)[piece].m_lengthBlocks;
            const u32 skip = static_cast<u32>(below(blocks));
            m_model.unlockPartOfPiece(list, piece, skip, static_cast<u32>(1 + below(blocks - skip)),
                                      restore);
        }
        return;
    case 15:
        if (lists == 0 && !m_recent.empty())
            m_model.removeWrite(m_recent[below(m_recent.size())]);
        return;
    case 16:
        if (!m_recent.empty()) {
            const BlockOracle::Write write = m_recent[below(m_recent.size())];
            if (!m_model.parked() || !m_model.oracle().anyLeftOf(write, true))
                m_model.lockAndRemove(write);
        }
        return;
    case 17:
    case 18: {
        const std::vector<SubRegionDescriptor> free = m_model.oracle().regions(false);
        if (free.empty() && m_model.parked())
            return;
        // What a parked request will find first is not known yet, so its limit takes anything.
        const u32 least = free.empty() ? m_blocks : free.front().m_lengthBlocks;
        if (operation == 17)
            m_model.getFirstRegions(static_cast<u32>(1 + below(8)));
        else
            m_model.getFirstBlocks(least + static_cast<u32>(below(40)));
        return;
    }
    default:
        // Everything back, so that states without locks stay frequent.
        while (m_model.heldLists() > 0 && m_model.problem().empty())
            m_model.unlock(0, restore);
        return;
    }
}
