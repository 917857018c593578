#include "bench/TraceWorkload.h"

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

std::string fileName(const std::string& path)
{
    return path.substr(path.find_last_of('/') + 1);
}

} // namespace

Result readTrace(const std::string& path, Workload* workload)
{
    TraceReader reader(MAX_VOLUME_BLOCKS);
    if (Result result = reader.open(path); !result.ok())
        return result;
    Workload read;
    read.m_name = "trace";
    read.m_source = fileName(path);
    ItemWriter writer(&read.m_items);
    for (;;) {
        TraceWrite write;
        bool end = false;
        if (Result result = reader.next(&write, &end); !result.ok())
            return result;
        if (end)
            break;
        writer.write(write.m_offsetBlocks, write.m_lengthBlocks,
                     write.m_zeroes ? SfsMetaType::ZEROS : SfsMetaType::UNCOMPRESSED_IO);
    }
    if (read.m_items.empty())
        return Result::failed(path + " holds no write");
    read.m_fillItems = read.m_items.size();
    *workload = std::move(read);
    return Result();
}

Workload makeGeneratedTrace()
{
    Random random(GENERATED_SEED);
    Workload workload;
    workload.m_name = "trace";
    workload.m_source = "generated, no recorded trace given";
    ItemWriter writer(&workload.m_items);
    u64 runStart = FIRST_PARTITION_BLOCK;
    for (u32 done = 0; done < GENERATED_REQUESTS;) {
        // A run goes on where the last one ended, unless it moves; a burst hits near places.
        const bool run = random.percent(50);
        if (run && random.percent(30))
            runStart = FIRST_PARTITION_BLOCK + random.below(GENERATED_VOLUME_BLOCKS / 8) * 8;
        const u64 hotPlace = random.below(64) * (GENERATED_VOLUME_BLOCKS / 64);
        for (u64 left = 1 + random.below(32); left > 0 && done < GENERATED_REQUESTS;
             --left, ++done) {
            if (run) {
                const u64 length = 8 << random.below(5);
                writer.write(runStart, length, SfsMetaType::UNCOMPRESSED_IO);
                runStart += length;
            } else {
                writer.write(FIRST_PARTITION_BLOCK + hotPlace + random.below(16384) * 8,
                             random.percent(70) ? 8 : 32, SfsMetaType::UNCOMPRESSED_IO);
            }
        }
    }
    workload.m_fillItems = workload.m_items.size();
    return workload;
}
