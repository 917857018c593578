#include "bench/Benchmarks.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <functional>
#include <memory>
#include <utility>

#include "bench/Subject.h"

namespace {

// Writes whose memory is reserved at once where reserving is not what is measured, and after how
// many it is looked whether the next ones need more: overwriting frees as much as it takes.
constexpr u32 RESERVED_INSERTS = 16384;
constexpr u32 CHECKED_INSERTS = 4096;

u64 g_failed = 0;

void fail(benchmark::State& state, const std::string& why)
{
    ++g_failed;
    state.SkipWithError(why.c_str());
}

// Where a benchmark gets its subject from: made when it is first asked for, and kept until one for
// another workload or size is.
class Source
{
public:
    using Make = std::function<Workload()>;

    explicit Source(Make make) : m_make(std::move(make)) {}

    Subject& get()
    {
        if (s_owner != this) {
            s_subject.reset(); // before the next one: two would not fit where one does
            s_subject = std::make_unique<Subject>(m_make(), makeLocatorContender());
            s_owner = this;
        }
        return *s_subject;
    }

    static void drop()
    {
        s_subject.reset();
        s_owner = nullptr;
    }

private:
    Make m_make;
    static inline const Source* s_owner = nullptr;
    static inline std::unique_ptr<Subject> s_subject;
};

void report(benchmark::State& state, Contender& index)
{
    const double regions = static_cast<double>(index.regions());
    state.counters["regions"] = regions;
    state.counters["bytes_per_region"] = static_cast<double>(index.memoryBytes()) / regions;
}

void reportSubject(benchmark::State& state, Subject& subject)
{
    report(state, subject.index());
    state.SetLabel(subject.workload().m_source);
    if (const std::string difference = subject.check(); !difference.empty())
        fail(state, difference);
}

// The mean of what `sum` adds up over the iterations.
void reportMean(benchmark::State& state, const char* name, u64 sum)
{
    state.counters[name] =
        benchmark::Counter(static_cast<double>(sum), benchmark::Counter::kAvgIterations);
}

void lookup(benchmark::State& state, Subject& subject, u32 lengthBlocks)
{
    Contender& index = subject.index();
    Contender::Pieces pieces;
    u64 found = 0;
    for (auto _ : state) {
        index.lookup(subject.nextItem().m_ioData.offsetBlocks, lengthBlocks, &pieces);
        found += pieces.size();
    }
    if (found == 0)
        fail(state, "no lookup found anything");
    reportMean(state, "pieces", found);
    reportSubject(state, subject);
}

void lockUnlock(benchmark::State& state, Subject& subject, u32 lengthBlocks)
{
    Contender& index = subject.index();
    index.reserveLocks(lengthBlocks);
    Contender::Pieces pieces;
    u64 found = 0;
    for (auto _ : state) {
        index.lock(subject.nextItem().m_ioData.offsetBlocks, lengthBlocks, &pieces);
        found += pieces.size();
        index.unlock(pieces);
    }
    if (found == 0)
        fail(state, "no lock found anything");
    reportMean(state, "pieces", found);
    reportSubject(state, subject);
    index.reserveLocks(0);
}

void insert(benchmark::State& state, Subject& subject)
{
    Contender& index = subject.index();
    u64 regionsAllowed = 0; // that the reservation has memory for
    u32 left = 0;
    for (auto _ : state) {
        if (left == 0) {
            state.PauseTiming();
            left = CHECKED_INSERTS;
            if (index.regions() + 2 * CHECKED_INSERTS > regionsAllowed) {
                index.reserveInserts(RESERVED_INSERTS);
                regionsAllowed = index.regions() + 2 * RESERVED_INSERTS;
            }
            state.ResumeTiming();
        }
        --left;
        index.insert(subject.nextItem());
    }
    index.reserveInserts(0);
    reportSubject(state, subject);
}

void reserveAndInsert(benchmark::State& state, Subject& subject)
{
    Contender& index = subject.index();
    for (auto _ : state) {
        index.reserveInserts(1);
        index.insert(subject.nextItem());
    }
    index.reserveInserts(0);
    reportSubject(state, subject);
}

// One iteration is one item.
void feedOverwrite(benchmark::State& state, Subject& subject)
{
    Contender& index = subject.index();
    u32 count = 0;
    const SfsDiskMetaItem* items = subject.nextItems(BATCH_ITEMS, &count);
    while (state.KeepRunningBatch(count)) {
        index.feed(items, count);
        items = subject.nextItems(BATCH_ITEMS, &count);
    }
    state.SetItemsProcessed(static_cast<s64>(state.iterations()));
    reportSubject(state, subject);
}

// One iteration is a whole index, from nothing to its fill: items cost more the more there are.
void feedGrow(benchmark::State& state, Subject& subject)
{
    std::unique_ptr<Contender> index;
    for (auto _ : state) {
        state.PauseTiming();
        index.reset();
        index = makeLocatorContender();
        state.ResumeTiming();
        fill(*index, subject.workload());
    }
    const double items = static_cast<double>(subject.workload().m_fillItems);
    state.SetItemsProcessed(static_cast<s64>(state.iterations() * subject.workload().m_fillItems));
    state.counters["per_item"] = benchmark::Counter(
        items, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    reportSubject(state, subject);
    report(state, *index);
    if (index->coveredBlocks() != subject.index().coveredBlocks())
        fail(state, "two indexes of one workload cover different numbers of blocks");
}

struct Work
{
    const char* m_name;
    std::function<void(benchmark::State&, Subject&)> m_run;
    bool m_wholeIndex = false; // an iteration is a whole index
};

const std::vector<Work>& works()
{
    using benchmark::State;
    static const std::vector<Work>* const WORKS = new std::vector<Work>{
        {"BM_Lookup8", [](State& state, Subject& subject) { lookup(state, subject, 8); }},
        {"BM_Lookup128", [](State& state, Subject& subject) { lookup(state, subject, 128); }},
        {"BM_Lookup2048", [](State& state, Subject& subject) { lookup(state, subject, 2048); }},
        {"BM_LockUnlock8", [](State& state, Subject& subject) { lockUnlock(state, subject, 8); }},
        {"BM_LockUnlock128",
         [](State& state, Subject& subject) { lockUnlock(state, subject, 128); }},
        {"BM_Insert", insert},
        {"BM_ReserveAndInsert", reserveAndInsert},
        {"BM_FeedOverwrite", feedOverwrite},
        {"BM_FeedGrow", feedGrow, true},
    };
    return *WORKS;
}

void registerWorks(const BenchOptions& options, const std::string& workload, size_t size,
                   Source::Make make)
{
    const auto source = std::make_shared<Source>(std::move(make));
    for (const Work& work : works()) {
        const std::string name =
            std::string(work.m_name) + "/" + workload + "/" + std::to_string(size);
        auto* registered =
            benchmark::RegisterBenchmark(name.c_str(), [source, &work](benchmark::State& state) {
                work.m_run(state, source->get());
            });
        if (work.m_wholeIndex)
            registered->Unit(benchmark::kMillisecond);
        if (options.m_iterations != 0)
            registered->Iterations(static_cast<s64>(work.m_wholeIndex ? 1 : options.m_iterations));
    }
}

} // namespace

void registerBenchmarks(const BenchOptions& options, const Workload& trace)
{
    const std::pair<const char*, Workload (*)(u32)> MADE[] = {
        {"uniform", makeUniform}, {"skewed", makeSkewed}, {"sequential", makeSequential}};
    const auto wanted = [&options](const char* name) {
        return std::find(options.m_workloads.begin(), options.m_workloads.end(), name) !=
               options.m_workloads.end();
    };
    for (const auto& [name, make] : MADE) {
        if (!wanted(name))
            continue;
        for (const u32 size : options.m_sizes)
            registerWorks(options, name, size, [make = make, size] { return make(size); });
    }
    if (wanted("trace"))
        registerWorks(options, "trace", trace.m_items.size(), [&trace] { return trace; });
}

u64 failedBenchmarks()
{
    return g_failed;
}
