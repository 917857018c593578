#include "appliance/ZeroesTrim.h"

#include <algorithm>
#include <new>

#include "appliance/MemoryPatience.h"
#include "common/infra/LogItem.h"
#include "host/journal/JournalTrim.h"

namespace {

// Looked up at a time: at most as many pieces, 2 MiB.
constexpr u32 WINDOW_BLOCKS = 1 << 16;
// Removed at a time, while writers wait.
constexpr u64 REMOVE_BLOCKS = 1 << 16;
// Items between two looks at the outside.
constexpr u64 LOOK_EVERY = 1024;

// A mirror has one live volume, since it has one that appends.
template <class Use> void withLive(Mirror& mirror, Use use)
{
    mirror.withIndexes([&](const std::vector<JournalIndex*>& indexes) {
        const auto live = std::find_if(indexes.begin(), indexes.end(),
                                       [](const JournalIndex* index) { return index->isLive(); });
        if (live != indexes.end())
            use(**live);
    });
}

class ZeroesTrimmer
{
public:
    ZeroesTrimmer(Mirror& mirror, FlowControl& control, u64 trimmedItems)
        : m_mirror(mirror), m_control(control), m_trimmedItems(trimmedItems),
          m_zeroes(mirror.trimmedZeroes())
    {}

    Result run();

private:
    // Writers are heard for its length, whatever ends it.
    class Hearing
    {
    public:
        explicit Hearing(TrimmedZeroes& zeroes) : m_zeroes(zeroes) { m_zeroes.start(); }
        ~Hearing() { m_zeroes.clear(); }
        Hearing(const Hearing&) = delete;
        Hearing& operator=(const Hearing&) = delete;

    private:
        TrimmedZeroes& m_zeroes;
    };

    RcStatus pass();
    RcStatus look();
    RcStatus gather();
    RcStatus subtractJournal();
    RcStatus remove();
    RcStatus removeFrom(JournalIndex& live, u64 offset, u64* end);

    Mirror& m_mirror;
    FlowControl& m_control;
    const u64 m_trimmedItems;
    TrimmedZeroes& m_zeroes;
};

Result ZeroesTrimmer::run()
{
    RcStatus rc = RC_SUCCESS;
    try {
        while (rc == RC_SUCCESS && m_zeroes.hasNoted())
            rc = pass();
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    if (rc == RC_ABORTED)
        return Result(ResultCode::Interrupted, "interrupted; the next trim goes on");
    if (rc != RC_SUCCESS)
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 1)
            << "zeroes that were trimmed stay in the live index until the next trim: "
            << rcStatusText(rc) << std::endl;
    return Result();
}

// Gives way to clients, and says whether to go on.
RcStatus ZeroesTrimmer::look()
{
    // The trim is done but for this.
    m_control.progress(m_trimmedItems, m_trimmedItems);
    return m_control.stopRequested() ? RC_ABORTED : RC_SUCCESS;
}

RcStatus ZeroesTrimmer::pass()
{
    const Hearing hearing(m_zeroes);
    if (const RcStatus rc = gather(); rc != RC_SUCCESS)
        return rc;
    // Who was writing while candidates were gathered may have been heard before there were any;
    // but what they write is in the journal after this, where the scan finds it.
    if (!m_mirror.gracePeriod().wait(m_control))
        return RC_ABORTED;
    if (const RcStatus rc = m_mirror.journal().flush(); rc != RC_SUCCESS)
        return rc;
    if (const RcStatus rc = subtractJournal(); rc != RC_SUCCESS)
        return rc;
    if (const RcStatus rc = remove(); rc != RC_SUCCESS)
        return rc;
    const u64 end = m_zeroes.passEnd();
    // There was no memory even for the first candidate.
    if (end <= m_zeroes.firstBlock())
        return RC_NO_MEMORY;
    m_zeroes.doneBefore(end);
    return RC_SUCCESS;
}

RcStatus ZeroesTrimmer::gather()
{
    const u64 end = m_zeroes.endBlock();
    bool hasRoom = true;
    for (u64 block = m_zeroes.firstBlock(); block < end && hasRoom; block += WINDOW_BLOCKS) {
        if (const RcStatus rc = look(); rc != RC_SUCCESS)
            return rc;
        const u32 length = static_cast<u32>(std::min<u64>(WINDOW_BLOCKS, end - block));
        withLive(m_mirror, [&](JournalIndex& live) {
            for (const SubRegionDescriptor& piece : live.pieces(block, length)) {
                if (piece.isAllZeroes() && hasRoom)
                    hasRoom = m_zeroes.add(piece.m_viewOffsetBlocks, piece.m_lengthBlocks);
            }
        });
    }
    return RC_SUCCESS;
}

RcStatus ZeroesTrimmer::subtractJournal()
{
    if (!m_zeroes.subtract(0, 0))
        return RC_SUCCESS;
    JournalStore& journal = m_mirror.journal();
    u64 items = 0;
    bool anyLeft = true;
    const RcStatus rc = visitJournalItems(
        journal, journal.begin().m_page, journal.endPage(), [&](const SfsDiskMetaItem& item) {
            if (item.is_io_type())
                anyLeft = m_zeroes.subtract(item.m_ioData.offsetBlocks,
                                            item.getUncompressedLengthBlocks());
            if (!anyLeft)
                return RC_STOP_EXCLUDE_CURRENT;
            return ++items % LOOK_EVERY == 0 ? look() : RC_SUCCESS;
        });
    return anyLeft ? rc : RC_SUCCESS;
}

// Nobody builds an index from the live one, so the list of indexes is held for a step at a time.
RcStatus ZeroesTrimmer::remove()
{
    u64 offset = 0;
    u64 end = 0;
    RcStatus rc = RC_SUCCESS;
    MemoryPatience patience(m_control);
    for (u64 block = 0; rc == RC_SUCCESS && m_zeroes.next(block, &offset, &end); block = end) {
        end = std::min(end, offset + REMOVE_BLOCKS);
        withLive(m_mirror, [&](JournalIndex& live) { rc = removeFrom(live, offset, &end); });
        if (rc == RC_NO_MEMORY) {
            // Without the list, which keeps views from closing. The same once more.
            rc = patience.wait(block);
            end = block;
        } else if (rc == RC_SUCCESS) {
            rc = look();
        }
    }
    return rc;
}

// Removes the first candidate of a range; *end: where it ends then.
RcStatus ZeroesTrimmer::removeFrom(JournalIndex& live, u64 offset, u64* end)
{
    RegionLocatorMemPool* pool = live.locator().getMemPool();
    RegionLocatorVoucher* voucher = pool->createVoucher();
    const int tokens = RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::REMOVE, 1);
    // Beforehand: writers wait for who holds the candidates.
    const RcStatus rc = pool->fillVoucher(voucher, tokens, 0, &live).get();
    if (rc == RC_SUCCESS)
        *end = m_zeroes.visitFirst(offset, *end, [&](u64 first, u64 behind) {
            live.locator().remove(first, static_cast<u32>(behind - first), voucher);
        });
    pool->destroyVoucher(voucher);
    return rc;
}

} // namespace

void noteTrimmedZeroes(Mirror& mirror, JournalIndex& index, const SfsDiskMetaItem& item)
{
    for (const SubRegionDescriptor& piece :
         index.pieces(item.m_ioData.offsetBlocks, item.getUncompressedLengthBlocks())) {
        if (piece.isAllZeroes())
            mirror.trimmedZeroes().note(piece.m_viewOffsetBlocks, piece.m_lengthBlocks);
    }
}

Result removeTrimmedZeroes(Mirror& mirror, FlowControl& control, u64 trimmedItems)
{
    return ZeroesTrimmer(mirror, control, trimmedItems).run();
}
