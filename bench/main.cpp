// rl-bench: measures the region locator. See README.md.
#include <CLI/CLI.hpp>
#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/Benchmarks.h"
#include "bench/TraceWorkload.h"
#include "common/infra/LogItem.h"

namespace {

constexpr int EXIT_WRONG_USAGE = 2;

std::atomic<u64> g_failedChecks{0};

// Statistics lines are nothing to look at here; a failed check is.
void onRecord(LogModule, LogLevel level, const std::string& origin, int, const std::string& text)
{
    if (level >= InfoLevel)
        return;
    if (level == AssertLevel)
        ++g_failedChecks;
    std::fprintf(stderr, "rl-bench: %s: %s\n", origin.c_str(), text.c_str());
}

void addOptions(CLI::App& app, BenchOptions* options)
{
    app.description("Measures the region locator by work and workload.\n"
                    "Options that begin with --benchmark_ go to google-benchmark.");
    app.footer("Examples:\n"
               "  rl-bench --size 100000\n"
               "  rl-bench --workload trace --trace FILE.csv.zst "
               "--benchmark_filter=BM_Lookup --benchmark_format=json");
    app.add_option("--workload", options->m_workloads, "Only this workload; may be repeated")
        ->check(CLI::IsMember({"uniform", "skewed", "sequential", "trace"}))
        ->allow_extra_args(false);
    app.add_option("--size", options->m_sizes, "Regions aimed at; may be repeated")
        ->check(CLI::Range(1, 1 << 24))
        ->allow_extra_args(false);
    app.add_option("--trace", options->m_traceFile, "Block trace, CSV or .zst")
        ->envname("RL_BENCH_TRACE");
    app.add_option("--iterations", options->m_iterations,
                   "Run each work exactly so often, as instruction counts need it");
}

// Reads the trace, or makes one and says so.
bool prepareTrace(const BenchOptions& options, Workload* trace)
{
    if (options.m_traceFile.empty()) {
        *trace = makeGeneratedTrace();
        std::fprintf(stderr, "rl-bench: no trace given (--trace FILE or RL_BENCH_TRACE): the "
                             "workload 'trace' is a generated stream\n");
    } else if (const Result result = readTrace(options.m_traceFile, trace); !result.ok()) {
        std::fprintf(stderr, "rl-bench: %s\n", result.message().c_str());
        return false;
    }
    benchmark::AddCustomContext("trace", trace->m_source);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    LogItem::setSink(onRecord);
    BenchOptions options;
    CLI::App app;
    addOptions(app, &options);
    app.name("rl-bench");
    for (int i = 1; i < argc; ++i) {
        // Before google-benchmark answers with its own, which knows nothing of these options.
        if (std::string(argv[i]) == "--help") {
            std::fputs(app.help().c_str(), stdout);
            return 0;
        }
    }
    benchmark::Initialize(&argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return EXIT_WRONG_USAGE;
    }
    if (options.m_workloads.empty())
        options.m_workloads = {"uniform", "skewed", "sequential", "trace"};
    if (options.m_sizes.empty())
        options.m_sizes = {10'000, 100'000, 1'000'000};

    Workload trace;
    if (!prepareTrace(options, &trace))
        return 1;
    registerBenchmarks(options, trace);
    if (benchmark::RunSpecifiedBenchmarks() == 0) {
        std::fputs("rl-bench: nothing was measured\n", stderr);
        return 1;
    }
    return failedBenchmarks() == 0 && g_failedChecks == 0 ? 0 : 1;
}
