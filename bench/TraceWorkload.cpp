#include "bench/TraceWorkload.h"

#include <algorithm>
#include <utility>

#include "appliance/TraceReader.h"
#include "bench/Random.h"

namespace {

// The largest volume that a trace may be from: what a region's view offset is ever used for.
constexpr u64 MAX_VOLUME_BLOCKS = u64{1} << 40;

constexpr u64 GENERATED_SEED = 3;
constexpr u32 GENERATED_REQUESTS = 60000;
constexpr u64 GENERATED_VOLUME_BLOCKS = u64{1} << 25;
constexpr u64 FIRST_PARTITION_BLOCK = 63;
constexpr u64 GENERATED_MICROS_BETWEEN = 100;
constexpr u64 GENERATED_PAUSE_MICROS = 50000;

Result readTrace(const std::string& path, std::vector<TraceWrite>* writes)
{
    TraceReader reader(MAX_VOLUME_BLOCKS);
    if (Result result = reader.open(path); !result.ok())
        return result;
    for (;;) {
        TraceWrite write;
        bool end = false;
        if (Result result = reader.next(&write, &end); !result.ok())
            return result;
        if (end)
            break;
        writes->push_back(write);
    }
    return writes->empty() ? Result::failed(path + " holds no write") : Result();
}

std::vector<TraceWrite> generatedTrace()
{
    Random random(GENERATED_SEED);
    std::vector<TraceWrite> writes;
    u64 now = 0;
    const auto add = [&writes, &now](u64 offsetBlocks, u64 lengthBlocks) {
        TraceWrite write;
        write.m_offsetBlocks = offsetBlocks;
        write.m_lengthBlocks = lengthBlocks;
        write.m_timeMicros = now += GENERATED_MICROS_BETWEEN;
        writes.push_back(write);
    };
    u64 runStart = FIRST_PARTITION_BLOCK;
    while (writes.size() < GENERATED_REQUESTS) {
        now += GENERATED_PAUSE_MICROS;
        // A run goes on where the last one ended, unless it moves; a burst hits near places.
        const bool run = random.percent(50);
        if (run && random.percent(30))
            runStart = FIRST_PARTITION_BLOCK + random.below(GENERATED_VOLUME_BLOCKS / 8) * 8;
        const u64 hotPlace = random.below(64) * (GENERATED_VOLUME_BLOCKS / 64);
        for (u64 left = 1 + random.below(32); left > 0 && writes.size() < GENERATED_REQUESTS;
             --left) {
            if (run) {
                const u64 length = 8 << random.below(5);
                add(runStart, length);
                runStart += length;
            } else {
                add(FIRST_PARTITION_BLOCK + hotPlace + random.below(16384) * 8,
                    random.percent(70) ? 8 : 32);
            }
        }
    }
    return writes;
}

// Every volume's writes, in the order of time.
std::vector<TraceWrite> sideBySide(const std::vector<TraceWrite>& writes, u32 volumes)
{
    u64 volumeBlocks = 0;
    for (const TraceWrite& write : writes)
        volumeBlocks = std::max(volumeBlocks, write.m_offsetBlocks + write.m_lengthBlocks);
    const u64 duration = writes.back().m_timeMicros + 1;
    std::vector<TraceWrite> all;
    all.reserve(writes.size() * volumes);
    for (u32 volume = 0; volume < volumes; ++volume)
        for (TraceWrite write : writes) {
            write.m_offsetBlocks += volume * volumeBlocks;
            write.m_timeMicros = (write.m_timeMicros + duration * volume / volumes) % duration;
            all.push_back(write);
        }
    std::stable_sort(all.begin(), all.end(), [](const TraceWrite& a, const TraceWrite& b) {
        return a.m_timeMicros < b.m_timeMicros;
    });
    return all;
}

} // namespace

Result makeTraceWorkload(const std::string& path, u32 volumes, Workload* workload)
{
    std::vector<TraceWrite> writes;
    if (path.empty())
        writes = generatedTrace();
    else if (Result result = readTrace(path, &writes); !result.ok())
        return result;
    if (volumes > 1)
        writes = sideBySide(writes, volumes);
    ItemWriter writer(&workload->m_items);
    for (const TraceWrite& write : writes)
        writer.write(write.m_offsetBlocks, write.m_lengthBlocks,
                     write.m_zeroes ? SfsMetaType::ZEROS : SfsMetaType::UNCOMPRESSED_IO);
    workload->m_fillItems = workload->m_items.size();
    return Result();
}
