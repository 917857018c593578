#include "appliance/LocatorDrain.h"

#include <algorithm>

#include "common/infra/MemoryPoolImpl.h"
#include "host/infra/Clock.h"

namespace {

// The least limit that fits every region; so a step is at most 32 MiB.
constexpr u32 STEP_BLOCKS = 65535;
// A unit is full at or above this; with one region more it may be larger.
constexpr u64 UNIT_BLOCKS = 4096;
constexpr size_t UNITS_IN_FLIGHT = 4;
constexpr u64 PATIENCE_MS = 30000;

} // namespace

class LocatorDrain::Step
{
public:
    explicit Step(LocatorDrain& drain)
        : m_drain(drain), m_voucher(drain.m_locator.getMemPool()->createVoucher())
    {}
    ~Step()
    {
        m_drain.m_heldRegions -= m_pieces.size();
        if (m_drain.m_failed)
            m_drain.m_locator.unlockAndRestore(m_pieces, m_voucher);
        else
            m_drain.m_locator.unlockAndRemove(m_pieces, m_voucher);
        m_drain.m_locator.getMemPool()->destroyVoucher(m_voucher);
    }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

    // regions: that are not locked; at least one, for with none the request would park.
    Result lock(u64 regions)
    {
        const int tokens = RegionLocatorMemPool::getVoucherRequirement(
            RegionLocatorMemPool::LOOKUP_LOCKED,
            static_cast<int>(std::min<u64>(regions, STEP_BLOCKS)));
        RcStatus rc =
            m_drain.m_locator.getMemPool()
                ->fillVoucher(m_voucher, tokens, Clock::instance()->nowMs() + PATIENCE_MS, this)
                .get();
        if (rc != RC_SUCCESS)
            return Result::fromStatus(rc, "the memory limit leaves no room to drain the index");
        rc = runAndWait(m_drain.m_engine, [this](AsyncTask* task) {
            return m_drain.m_locator.getFirstBlocksAndLock(task, STEP_BLOCKS, &m_pieces, m_voucher);
        });
        m_drain.m_heldRegions += m_pieces.size();
        return Result::fromStatus(rc, "cannot drain the index");
    }

    std::vector<SubRegionDescriptor> m_pieces;

private:
    LocatorDrain& m_drain;
    RegionLocatorVoucher* m_voucher;
};

LocatorDrain::LocatorDrain(Mirror& mirror, RegionLocator& locator, TaskEngine& engine,
                           Content content)
    : m_mirror(mirror), m_locator(locator), m_engine(engine), m_content(content),
      m_sizeBlocks(mirror.settings().sizeBlocks()), m_driver(mirror.driver()),
      m_reader(&mirror.journal(), &m_driver, "backup", mirror.settings().m_id),
      m_memory(Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance()->getMmi("Backup_reads"))
{}

LocatorDrain::~LocatorDrain()
{
    m_failed = true;
    for (const std::unique_ptr<Unit>& unit : m_inFlight)
        if (unit->m_task != nullptr)
            unit->m_task->wait();
    // A read that failed early may have left reads of the target volume under way.
    m_driver.quiet().get();
}

Result LocatorDrain::lockStep()
{
    const u64 unlocked = m_locator.getItemCount() - m_heldRegions;
    if (unlocked == 0)
        return Result();
    auto step = std::make_shared<Step>(*this);
    Result result = step->lock(unlocked);
    if (!result.ok())
        m_failed = true;
    else
        m_step = std::move(step);
    m_nextPiece = 0;
    return result;
}

void LocatorDrain::addRun(Unit* unit, u64 offsetBlocks, u64 lengthBlocks,
                          const SubRegionDescriptor* piece)
{
    const bool isZero = piece != nullptr && piece->isAllZeroes();
    if (unit->m_runs.empty() || unit->m_runs.back().m_isZero != isZero ||
        unit->m_runs.back().m_offsetBlocks + unit->m_runs.back().m_lengthBlocks != offsetBlocks)
        unit->m_runs.push_back({offsetBlocks, 0, isZero, {}});
    Run& run = unit->m_runs.back();
    run.m_lengthBlocks += lengthBlocks;
    if (piece != nullptr && !isZero)
        run.m_pieces.push_back(*piece);
    if (!isZero)
        unit->m_dataBlocks += lengthBlocks;
    m_position = offsetBlocks + lengthBlocks;
}

// Plans the target's data up to a block, as far as the unit has room.
Result LocatorDrain::planTarget(u64 untilBlocks, Unit* unit)
{
    while (m_position < untilBlocks && unit->m_dataBlocks < UNIT_BLOCKS) {
        u64 start = 0;
        u64 end = 0;
        const RcStatus rc = m_mirror.target().nextData(m_position, &start, &end);
        if (rc != RC_SUCCESS)
            return Result::fromStatus(rc, "cannot find the target volume's data");
        start = std::min(start, untilBlocks);
        end = std::min({end, untilBlocks, start + UNIT_BLOCKS - unit->m_dataBlocks});
        m_position = start;
        if (start < end)
            addRun(unit, start, end - start, nullptr);
    }
    return Result();
}

// Plans until the unit is full or there is nothing more: then it stays empty.
Result LocatorDrain::plan(Unit* unit)
{
    const bool whole = m_content == Content::Whole;
    while (unit->m_dataBlocks < UNIT_BLOCKS) {
        if (m_step != nullptr && m_nextPiece == m_step->m_pieces.size()) {
            m_step.reset();
            // A unit holds one step at most.
            if (unit->m_step != nullptr)
                break;
        }
        if (m_step == nullptr)
            if (Result result = lockStep(); !result.ok())
                return result;
        const SubRegionDescriptor* piece =
            m_step != nullptr ? &m_step->m_pieces[m_nextPiece] : nullptr;
        if (whole) {
            const u64 until = piece != nullptr ? piece->m_viewOffsetBlocks : m_sizeBlocks;
            if (Result result = planTarget(until, unit); !result.ok())
                return result;
            if (m_position < until)
                break;
        }
        if (piece == nullptr)
            break;
        addRun(unit, piece->m_viewOffsetBlocks, piece->m_lengthBlocks, piece);
        unit->m_step = m_step;
        ++m_nextPiece;
    }
    unit->m_end = m_position;
    return Result();
}

Result LocatorDrain::start(std::unique_ptr<Unit> unit)
{
    if (unit->m_dataBlocks > 0) {
        unit->m_buffer.reset(new u8[unit->m_dataBlocks << BLOCK_SHIFT]);
        u8* buffer = unit->m_buffer.get();
        for (Run& run : unit->m_runs) {
            if (run.m_isZero)
                continue;
            const u32 length = static_cast<u32>(run.m_lengthBlocks);
            ScatteredBuf destination(buffer, length << BLOCK_SHIFT);
            unit->m_requests.emplace_back(run.m_offsetBlocks, length, run.m_pieces, destination);
            buffer += run.m_lengthBlocks << BLOCK_SHIFT;
        }
        unit->m_task = std::make_unique<BlockingTask>([this, raw = unit.get()](AsyncTask* task) {
            return m_reader.performReadFromSegments(
                task, raw->m_requests, m_mirror.settings().m_id, AioPriority::Normal, m_memory,
                Clock::instance()->nowMs() + PATIENCE_MS, nullptr, nullptr, nullptr);
        });
        const RcStatus rc = unit->m_task->start(m_engine);
        if (rc != RC_SUCCESS) {
            m_failed = true;
            return Result::fromStatus(rc, "cannot start a read");
        }
    }
    m_inFlight.push_back(std::move(unit));
    return Result();
}

Result LocatorDrain::finishOldest(const Use& use)
{
    std::unique_ptr<Unit> unit = std::move(m_inFlight.front());
    m_inFlight.pop_front();
    const RcStatus rc = unit->m_task != nullptr ? unit->m_task->wait() : RC_SUCCESS;
    Result result;
    if (rc != RC_SUCCESS) {
        m_driver.quiet().get();
        result = Result::fromStatus(rc, "cannot read the blocks from " +
                                            std::to_string(unit->m_runs.front().m_offsetBlocks) +
                                            " to " + std::to_string(unit->m_end - 1));
    }
    const u8* data = unit->m_buffer.get();
    for (const Run& run : unit->m_runs) {
        if (!result.ok())
            break;
        result = use(run.m_offsetBlocks, run.m_lengthBlocks, run.m_isZero ? nullptr : data);
        if (!run.m_isZero)
            data += run.m_lengthBlocks << BLOCK_SHIFT;
    }
    m_failed = m_failed || !result.ok();
    m_finished = unit->m_end;
    return result;
}

Result LocatorDrain::next(const Use& use, bool* more)
{
    while (m_inFlight.size() < UNITS_IN_FLIGHT) {
        auto unit = std::make_unique<Unit>();
        if (Result result = plan(unit.get()); !result.ok()) {
            m_failed = true;
            return result;
        }
        if (unit->m_runs.empty())
            break;
        if (Result result = start(std::move(unit)); !result.ok())
            return result;
    }
    *more = !m_inFlight.empty();
    return *more ? finishOldest(use) : Result();
}
