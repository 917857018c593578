#include "bench/Works.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "bench/ExpectedContents.h"

// Tells callgrind what to count; outside of it, some instructions that do nothing.
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define RL_BENCH_TOGGLE_COLLECT CALLGRIND_TOGGLE_COLLECT
#else
#define RL_BENCH_TOGGLE_COLLECT static_cast<void>(0)
#endif

namespace {

// What a journal scan takes at a time.
constexpr u32 BATCH_ITEMS = 4096;

// Writes whose memory is reserved at once, outside the time.
constexpr u32 RESERVED_INSERTS = 4096;

// Lookups whose pieces are compared, of each length.
constexpr u32 COMPARED_LOOKUPS = 512;

// What is taken from the front at a time: longer than any region of the workloads.
constexpr u32 DRAIN_BLOCKS = 8192;

// Time that this thread had a processor: what other programs take away does not count. No work
// waits for anything but memory. What is timed is what callgrind counts, too.
class Stopwatch
{
public:
    void start()
    {
        m_start = now();
        RL_BENCH_TOGGLE_COLLECT;
    }
    void stop()
    {
        RL_BENCH_TOGGLE_COLLECT;
        m_total += now() - m_start;
    }
    double nanoseconds() const { return static_cast<double>(m_total); }

private:
    static u64 now()
    {
        timespec time;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<u64>(time.tv_sec) * 1'000'000'000 + static_cast<u64>(time.tv_nsec);
    }

    u64 m_start = 0;
    u64 m_total = 0;
};

class Measuring
{
public:
    Measuring(const ContenderKind& kind, const Workload& workload, const WorkOptions& options,
              std::vector<Measurement>* measurements)
        : m_workload(workload), m_options(options), m_measurements(measurements),
          m_index(kind.m_make()), m_next(workload.m_fillItems)
    {
        for (const SfsDiskMetaItem& item : workload.m_items)
            m_viewBlocks = std::max(m_viewBlocks, item.m_ioData.offsetBlocks +
                                                      item.getUncompressedLengthBlocks());
    }

    // For the same reason an index that one work was counted on is not torn down.
    ~Measuring()
    {
        if (!m_options.m_only.empty())
            static_cast<void>(m_index.release());
    }
    Measuring(const Measuring&) = delete;
    Measuring& operator=(const Measuring&) = delete;

    std::string run(bool lookupsOnly);

private:
    void grow(bool reported);
    void lookup(const char* work, u32 lengthBlocks, u64 operations);
    void lock(const char* work, u32 lengthBlocks, u64 operations);
    void overwrite(u64 operations);
    void insert(u64 operations);
    void remove(u64 operations);
    void drain(u64 regions);
    void teardown();

    bool wanted(const char* work) const
    {
        return m_options.m_only.empty() || m_options.m_only == work;
    }
    u64 operations(u64 usual) const
    {
        return m_options.m_operations == 0 ? usual : m_options.m_operations;
    }

    // Starts a line of the report: what the index takes at this moment.
    Measurement measured(const char* work, u64 operations, const Stopwatch& watch);
    void report(Measurement measurement, u64 digest)
    {
        measurement.m_digest = digest;
        m_measurements->push_back(std::move(measurement));
    }
    // Not where one work is counted alone: what is left to look at depends on how much was done.
    u64 contents()
    {
        if (!m_options.m_only.empty())
            return 0;
        ContentsDigest digest;
        digest.add(*m_index, m_viewBlocks);
        return digest.value();
    }

    // The next item of the list, round after round, and its place.
    const SfsDiskMetaItem& nextItem() { return m_workload.m_items[nextPlace()]; }
    size_t nextPlace()
    {
        if (m_next == m_workload.m_items.size())
            m_next = 0;
        return m_next++;
    }

    const Workload& m_workload;
    const WorkOptions& m_options;
    std::vector<Measurement>* m_measurements;
    std::unique_ptr<Contender> m_index;
    u64 m_viewBlocks = 0;
    size_t m_next;
    double m_bytesPerRegion = 0;
};

Measurement Measuring::measured(const char* work, u64 operations, const Stopwatch& watch)
{
    Measurement measurement;
    measurement.m_work = work;
    measurement.m_operations = operations;
    measurement.m_nanoseconds =
        watch.nanoseconds() / static_cast<double>(std::max<u64>(1, operations));
    // An index that has been emptied still says what its regions took.
    if (m_index != nullptr && m_index->regions() > 0)
        m_bytesPerRegion =
            static_cast<double>(m_index->memoryBytes()) / static_cast<double>(m_index->regions());
    measurement.m_bytesPerRegion = m_bytesPerRegion;
    return measurement;
}

std::string Measuring::run(bool lookupsOnly)
{
    grow(!lookupsOnly && m_options.m_only.empty());
    const ExpectedContents expected(m_workload);
    if (std::string difference = expected.compare(*m_index); !difference.empty())
        return difference;

    // Before anything is joined: indexes that join more still do the same work.
    const u64 size = m_index->regions();
    lookup("lookup8", 8, 300'000);
    lookup("lookup128", 128, 100'000);
    lookup("lookup2048", 2048, 10'000);
    if (lookupsOnly)
        return "";
    lock("lock8", 8, 200'000);
    lock("lock128", 128, 20'000);
    overwrite(std::clamp<u64>(size, 200'000, 1'000'000));
    insert(std::clamp<u64>(size, 200'000, 500'000));
    remove(std::clamp<u64>(size / 4, 1, 250'000));
    drain(std::max<u64>(1, size / 3));
    teardown();
    return "";
}

void Measuring::grow(bool reported)
{
    Stopwatch watch;
    const size_t count = m_workload.m_fillItems;
    watch.start();
    for (size_t i = 0; i < count; i += BATCH_ITEMS)
        m_index->feed(&m_workload.m_items[i],
                      static_cast<u32>(std::min<size_t>(BATCH_ITEMS, count - i)));
    watch.stop();
    m_index->settle();
    if (reported)
        report(measured("grow", count, watch), contents());
}

void Measuring::lookup(const char* work, u32 lengthBlocks, u64 usual)
{
    if (!wanted(work))
        return;
    Contender::Pieces pieces;
    u64 digest = 0;
    size_t place = m_next;
    for (u32 i = 0; i < COMPARED_LOOKUPS; ++i) {
        place = (place + 1) % m_workload.m_items.size();
        m_index->lookup(m_workload.m_items[place].m_ioData.offsetBlocks, lengthBlocks, &pieces);
        ContentsDigest found;
        found.add(pieces);
        digest = digest * 31 + found.value();
    }
    const u64 count = operations(usual);
    Stopwatch watch;
    u64 ends = 0;
    watch.start();
    for (u64 i = 0; i < count; ++i) {
        m_index->lookup(nextItem().m_ioData.offsetBlocks, lengthBlocks, &pieces);
        if (!pieces.empty())
            ends += pieces.back().m_viewOffsetBlocks + pieces.back().m_lengthBlocks;
    }
    watch.stop();
    report(measured(work, count, watch), digest + ends);
}

void Measuring::lock(const char* work, u32 lengthBlocks, u64 usual)
{
    if (!wanted(work))
        return;
    const u64 count = operations(usual);
    Contender::Pieces pieces;
    m_index->reserveLocks(lengthBlocks);
    Stopwatch watch;
    watch.start();
    for (u64 i = 0; i < count; ++i) {
        m_index->lock(nextItem().m_ioData.offsetBlocks, lengthBlocks, &pieces);
        m_index->unlock(pieces);
    }
    watch.stop();
    m_index->reserveLocks(0);
    report(measured(work, count, watch), contents());
}

void Measuring::overwrite(u64 usual)
{
    if (!wanted("overwrite"))
        return;
    const u64 count = operations(usual);
    Stopwatch watch;
    watch.start();
    for (u64 done = 0; done < count;) {
        if (m_next == m_workload.m_items.size())
            m_next = 0;
        const u64 batch =
            std::min<u64>({BATCH_ITEMS, m_workload.m_items.size() - m_next, count - done});
        m_index->feed(&m_workload.m_items[m_next], static_cast<u32>(batch));
        m_next += batch;
        done += batch;
    }
    watch.stop();
    report(measured("overwrite", count, watch), contents());
}

void Measuring::insert(u64 usual)
{
    if (!wanted("insert"))
        return;
    const u64 count = operations(usual);
    Stopwatch watch;
    for (u64 done = 0; done < count;) {
        m_index->reserveInserts(RESERVED_INSERTS);
        const u64 end = std::min<u64>(count, done + RESERVED_INSERTS);
        watch.start();
        for (; done < end; ++done)
            m_index->insert(nextItem());
        watch.stop();
    }
    m_index->reserveInserts(0);
    report(measured("insert", count, watch), contents());
}

// The oldest of the last items first, as a journal is given back: later ones have overridden some
// of them in part or whole.
void Measuring::remove(u64 usual)
{
    if (!wanted("remove"))
        return;
    const u64 size = m_workload.m_items.size();
    const u64 count = std::min(operations(usual), size);
    std::vector<SubRegionDescriptor> ios;
    ios.reserve(count);
    for (u64 i = 0; i < count; ++i) {
        const SfsDiskMetaItem& item = m_workload.m_items[(m_next + size - count + i) % size];
        if (item.is_io_type_with_ud())
            ios.emplace_back(SfsItemDescriptor::genFromSfsDiskMetaItem(item));
    }
    m_index->reserveRemoves(static_cast<u32>(ios.size()));
    Stopwatch watch;
    watch.start();
    for (const SubRegionDescriptor& io : ios)
        m_index->remove(io);
    watch.stop();
    m_index->reserveRemoves(0);
    report(measured("remove", ios.size(), watch), contents());
}

void Measuring::drain(u64 regions)
{
    if (!wanted("drain"))
        return;
    Contender::Pieces pieces;
    m_index->reserveLocks(static_cast<u32>(std::min<u64>(m_index->regions(), DRAIN_BLOCKS)));
    Stopwatch watch;
    u64 drained = 0;
    ContentsDigest digest;
    while (drained < regions) {
        watch.start();
        m_index->lockFirst(DRAIN_BLOCKS, &pieces);
        m_index->unlockAndRemove(pieces);
        watch.stop();
        if (pieces.empty())
            break;
        drained += pieces.size();
        digest.add(pieces);
    }
    m_index->reserveLocks(0);
    Measurement measurement = measured("drain", drained, watch);
    // What came out and what is left: where the line between them lies depends on the regions.
    if (m_options.m_only.empty())
        digest.add(*m_index, m_viewBlocks);
    report(std::move(measurement), digest.value());
}

void Measuring::teardown()
{
    if (!wanted("teardown"))
        return;
    const u64 regions = m_index->regions();
    Stopwatch watch;
    watch.start();
    m_index.reset();
    watch.stop();
    report(measured("teardown", regions, watch), 0);
}

} // namespace

const std::vector<std::string>& workNames()
{
    static const auto* const NAMES = new std::vector<std::string>{
        "grow",  "overwrite", "insert", "lookup8", "lookup128", "lookup2048",
        "lock8", "lock128",   "remove", "drain",   "teardown"};
    return *NAMES;
}

std::string measureWorks(const ContenderKind& kind, const Workload& workload,
                         const WorkOptions& options, std::vector<Measurement>* measurements)
{
    return Measuring(kind, workload, options, measurements).run(kind.m_lookupsOnly);
}
