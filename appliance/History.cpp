#include "appliance/History.h"

#include <algorithm>
#include <map>

namespace {

// Keeps the items that touch a range. Joins the pieces into which the journal has split one write.
class Collector : public SfsMetaDataContainer
{
public:
    Collector(u64 offsetBlocks, u64 lengthBlocks, std::vector<HistoryEntry>* entries)
        : m_start(offsetBlocks), m_end(offsetBlocks + lengthBlocks), m_entries(*entries)
    {}

    FutureStatus prepareToAdd(int, u64) override { return makeSetFuture(RC_SUCCESS); }
    void unPrepareToAdd() override {}
    RcStatus metaGrainStarted(SfsDevAddr) override { return RC_SUCCESS; }
    bool isAddMetaDataDesireOffload() override { return false; }

    RcStatus addMetaData(const SfsDiskMetaItem& meta, const JournalPtr&) override
    {
        if (!meta.is_io_type_with_ud() && meta.getType() != SfsMetaType::ZEROS)
            return RC_SUCCESS;
        HistoryEntry entry;
        entry.m_item = m_item;
        entry.m_offsetBlocks = meta.m_ioData.offsetBlocks;
        entry.m_lengthBlocks = meta.getUncompressedLengthBlocks();
        entry.m_type = meta.getType() == SfsMetaType::ZEROS ? HistoryEntry::Type::Zeroes
                       : meta.getType() == SfsMetaType::COMPRESSED_IO
                           ? HistoryEntry::Type::Compressed
                           : HistoryEntry::Type::Data;
        if (m_run.m_item == entry.m_item && m_run.m_type == entry.m_type &&
            m_run.m_offsetBlocks + m_run.m_lengthBlocks == entry.m_offsetBlocks) {
            m_run.m_lengthBlocks += entry.m_lengthBlocks;
            return RC_SUCCESS;
        }
        keepRun();
        m_run = entry;
        return RC_SUCCESS;
    }

    void done() override { keepRun(); }

    u64* itemNumber() { return &m_item; }

private:
    void keepRun()
    {
        if (m_run.m_lengthBlocks > 0 && m_run.m_offsetBlocks < m_end &&
            m_run.m_offsetBlocks + m_run.m_lengthBlocks > m_start)
            m_entries.push_back(m_run);
        m_run = HistoryEntry();
    }

    const u64 m_start;
    const u64 m_end;
    std::vector<HistoryEntry>& m_entries;
    u64 m_item = 0;
    HistoryEntry m_run;
};

// The parts of the range that no later write has taken yet, by their first block.
class Uncovered
{
public:
    Uncovered(u64 offsetBlocks, u64 lengthBlocks)
    {
        if (lengthBlocks > 0)
            m_runs[offsetBlocks] = offsetBlocks + lengthBlocks;
    }

    // Takes a range out; returns how many of its blocks were still there.
    u64 take(u64 start, u64 end)
    {
        u64 taken = 0;
        auto run = m_runs.upper_bound(start);
        if (run != m_runs.begin())
            --run;
        while (run != m_runs.end() && run->first < end) {
            const auto [runStart, runEnd] = *run;
            if (runEnd <= start) {
                ++run;
                continue;
            }
            taken += std::min(runEnd, end) - std::max(runStart, start);
            run = m_runs.erase(run);
            if (runStart < start)
                m_runs[runStart] = start;
            if (runEnd > end)
                run = m_runs.emplace(end, runEnd).first;
        }
        return taken;
    }

    u64 blocks() const
    {
        u64 sum = 0;
        for (const auto& [start, end] : m_runs)
            sum += end - start;
        return sum;
    }

private:
    std::map<u64, u64> m_runs;
};

void setWindow(const std::vector<CheckpointInfo>& checkpoints, HistoryEntry* entry)
{
    const auto next =
        std::lower_bound(checkpoints.begin(), checkpoints.end(), entry->m_item,
                         [](const CheckpointInfo& cp, u64 item) { return cp.m_items < item; });
    if (next != checkpoints.end())
        entry->m_before = *next;
    if (next != checkpoints.begin())
        entry->m_after = *(next - 1);
}

} // namespace

const char* HistoryEntry::typeName() const
{
    switch (m_type) {
    case Type::Data: return "data";
    case Type::Compressed: return "compressed";
    case Type::Zeroes: return "zeroes";
    }
    return "";
}

Result historyOf(Mirror& mirror, u64 offsetBlocks, u64 lengthBlocks, const ChosenPoint& at,
                 FlowControl& control, History* history)
{
    *history = History();
    std::unique_ptr<PointUse> inUse;
    if (Result result = mirror.usePoint(NO_ITEMS, "a history", &inUse); !result.ok())
        return result;
    Collector collector(offsetBlocks, lengthBlocks, &history->m_entries);
    ScanOptions options;
    options.itemNumber = collector.itemNumber();
    ScanResult scanned;
    const u64 items = mirror.journal().itemCount();
    if (Result result = scanJournal(mirror, collector, options, items, "read the journal's items",
                                    control, &scanned);
        !result.ok())
        return result;

    Uncovered uncovered(offsetBlocks, lengthBlocks);
    const std::vector<CheckpointInfo> checkpoints = mirror.window().m_checkpoints;
    for (auto entry = history->m_entries.rbegin(); entry != history->m_entries.rend(); ++entry) {
        setWindow(checkpoints, &*entry);
        if (entry->m_item <= at.m_items)
            entry->m_liveBlocks = uncovered.take(entry->m_offsetBlocks,
                                                 entry->m_offsetBlocks + entry->m_lengthBlocks);
    }
    history->m_targetBlocks = uncovered.blocks();
    return Result();
}
