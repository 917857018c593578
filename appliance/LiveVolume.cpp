#include "appliance/LiveVolume.h"

#include <exception>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "appliance/RecordState.h"
#include "appliance/SpanScan.h"
#include "common/infra/LogItem.h"

namespace {

constexpr CpId_t NO_CHECKPOINT = ~CpId_t{0};

// Those that wait for the group have to be answered whatever happens, also where there is not even
// memory for the line.
void tellCutOff(const std::exception& exception) noexcept
{
    try {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "a group of writes was cut off: " << exception.what() << std::endl;
    } catch (const std::exception&) {
        // Nothing is left to tell it with.
    }
}

} // namespace

LiveVolume::LiveVolume(Mirror& mirror)
    : m_mirror(mirror), m_locator(mirror.settings().m_id, RL_MMI_View),
      m_reader(mirror, m_locator, "live", m_sources), m_reserve(m_locator)
{}

LiveVolume::~LiveVolume()
{
    m_mirror.removeIndex(this);
}

Result LiveVolume::open(Mirror& mirror, FlowControl& control, std::unique_ptr<LiveVolume>* volume)
{
    std::unique_ptr<LiveVolume> opened(new LiveVolume(mirror));
    if (Result result = opened->build(control); !result.ok())
        return result;
    // Before anybody else asks for memory; where there is too little left, nothing is written.
    if (!opened->leavesReserve())
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "the memory limit leaves apply and trim too little beside the index of the live "
               "volume: writes are refused until these have made room"
            << std::endl;
    mirror.addIndex(opened.get());
    *volume = std::move(opened);
    return Result();
}

Result LiveVolume::build(FlowControl& control)
{
    // What clients write would be taken for lines of a trace whose recording was interrupted.
    if (Result result = removeRecordState(m_mirror.storage()); !result.ok())
        return result;
    // What was appended before and not flushed is no part of a scan.
    if (Result result = m_mirror.flush(); !result.ok())
        return result;
    RegionLocatorMetaDataContainer_Insert* container = m_locator.getInsertContainer();
    container->init(NO_CHECKPOINT);
    ScanOptions options;
    prepareAtOnce(options);
    ScanResult scanned;
    Result result = scanJournal(m_mirror, *container, options, m_mirror.journal().itemCount(),
                                "index the live volume", control, &scanned);
    if (!result.ok() && isForWantOfMemory(scanned))
        return Result::failed(result.message() +
                              "; give it more, or run rlctl apply and rlctl trim on the mirror "
                              "first: they do with less, in steps");
    const RegionLocatorStatistics statistics = m_locator.getStatistics();
    m_insertedIos = statistics.m_numIOsInserted;
    m_insertedBytes = statistics.m_bytesInserted;
    return result;
}

RcStatus LiveVolume::write(u64 offsetBlocks, const u8* data, u32 lengthBlocks)
{
    Waiting waiting;
    const RcStatus rc =
        m_mirror.journal().prepareWrite(offsetBlocks, data, lengthBlocks, &waiting.m_request);
    return rc == RC_SUCCESS ? append(waiting) : rc;
}

RcStatus LiveVolume::writeZeroes(u64 offsetBlocks, u64 lengthBlocks)
{
    Waiting waiting;
    const RcStatus rc =
        m_mirror.journal().prepareZeroes(offsetBlocks, lengthBlocks, &waiting.m_request);
    return rc == RC_SUCCESS ? append(waiting) : rc;
}

RcStatus LiveVolume::append(Waiting& waiting)
{
    bool leads = false;
    {
        MutexGuard guard(m_queueMutex);
        (m_last != nullptr ? m_last->m_next : m_first) = &waiting;
        m_last = &waiting;
        leads = !m_isLed;
        m_isLed = true;
    }
    if (!leads) {
        waiting.m_state.wait(Waiting::Queued, std::memory_order_acquire);
        leads = waiting.m_state.load(std::memory_order_acquire) == Waiting::Leads;
    }
    if (leads)
        lead(waiting);
    return waiting.m_rc;
}

// Takes what queues, the leader's own request first, and hands the lead over.
// Whatever happens in between, or those that wait would do so for ever.
void LiveVolume::lead(Waiting& leader)
{
    Waiting* first = nullptr;
    {
        MutexGuard guard(m_queueMutex);
        first = m_first;
        m_first = m_last = nullptr;
    }
    try {
        appendGroup(first);
    } catch (const std::exception& exception) {
        // Each request keeps the status that it had got by then.
        tellCutOff(exception);
    }
    m_groups.fetch_add(1, std::memory_order_relaxed);
    const auto wake = [](Waiting* one, Waiting::State state) {
        // It may be gone as soon as the state is set; waking takes its address alone.
        one->m_state.store(state, std::memory_order_release);
        one->m_state.notify_one();
    };
    for (Waiting* one = first; one != nullptr;) {
        Waiting* const after = one->m_next;
        if (one != &leader)
            wake(one, Waiting::Done);
        one = after;
    }
    Waiting* next = nullptr;
    {
        MutexGuard guard(m_queueMutex);
        next = m_first;
        m_isLed = next != nullptr;
    }
    if (next != nullptr)
        wake(next, Waiting::Leads);
}

// What nobody uses goes before a writer is refused.
RcStatus LiveVolume::reserve(u64 insertions)
{
    RcStatus rc = prepare(insertions);
    if (rc != RC_SUCCESS && m_makeRoom && m_makeRoom())
        rc = prepare(insertions);
    return rc;
}

RcStatus LiveVolume::prepare(u64 insertions)
{
    if (m_reserve.has(insertions))
        return RC_SUCCESS;
    // Tokens that are left are for a trim.
    m_reserve.release();
    return leavesReserve() ? m_reserve.prepare(insertions) : RC_NO_MEMORY;
}

bool LiveVolume::leavesReserve()
{
    if (m_forApply.isThere())
        return true;
    // What speeds the index up may have it, and gives way to insertions.
    const RcStatus rc = m_reserve.prepare(m_forApply.bytes() / TokenReserve::BYTES_PER_INSERT);
    m_reserve.release();
    return rc == RC_SUCCESS && m_forApply.isThere();
}

void LiveVolume::appendGroup(Waiting* first)
{
    u64 insertions = 0;
    for (const Waiting* one = first; one != nullptr; one = one->m_next)
        insertions += one->m_request.maxItems();
    if (reserve(insertions) == RC_SUCCESS) {
        appendPrepared(first, nullptr);
    } else {
        // There may be memory for some of them.
        for (Waiting* one = first; one != nullptr; one = one->m_next) {
            if (prepare(one->m_request.maxItems()) == RC_SUCCESS)
                appendPrepared(one, one->m_next);
            else
                m_refused.fetch_add(1, std::memory_order_relaxed);
        }
    }
    m_mirror.tellNearlyFull();
}

// The requests from `first` up to `end`, without it. Once they are in the journal nothing here
// takes memory, or the index could lack what the journal has.
void LiveVolume::appendPrepared(Waiting* first, Waiting* end)
{
    m_requests.clear();
    for (Waiting* one = first; one != end; one = one->m_next)
        m_requests.push_back(&one->m_request);
    // In between the items can be applied and trimmed, but are not to be found in the index: a trim
    // waits for this before it takes anything out.
    const GracePeriod::Reader inBetween(m_mirror.gracePeriod());
    m_mirror.journal().appendGroup(m_requests);
    for (Waiting* one = first; one != end; one = one->m_next) {
        one->m_rc = one->m_request.rc();
        for (const SfsDiskMetaItem& item : one->m_request.items()) {
            m_mirror.trimmedZeroes().written(item.m_ioData.offsetBlocks,
                                             item.getUncompressedLengthBlocks());
            m_reserve.insert(SfsItemDescriptor::genFromSfsDiskMetaItem(item));
            m_insertedIos.fetch_add(1, std::memory_order_relaxed);
            m_insertedBytes.fetch_add(u64{item.getUncompressedLengthBlocks()} * BLOCK_BYTES,
                                      std::memory_order_relaxed);
        }
    }
}
