// rl-bench: measures the region locator beside other indexes. See README.md.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "bench/Report.h"
#include "bench/Rounds.h"
#include "common/infra/LogItem.h"

namespace {

constexpr int EXIT_WRONG_USAGE = 2;
constexpr u32 MAX_SIZE = 1 << 24;
constexpr u32 USUAL_ROUNDS = 3;

struct Options
{
    std::vector<std::string> m_workloads;
    std::vector<u32> m_sizes;
    std::vector<std::string> m_contenders;
    std::vector<std::string> m_traces;
    WorkOptions m_work;
    u32 m_rounds = USUAL_ROUNDS;
    bool m_json = false;
    bool m_quiet = false;
    bool m_child = false;
};

std::atomic<u64> g_failedChecks{0};

// Statistics lines are nothing to look at here; a failed check is.
void onRecord(LogModule, LogLevel level, const std::string& origin, int, const std::string& text)
{
    if (level >= InfoLevel)
        return;
    if (level == AssertLevel)
        ++g_failedChecks;
    std::cerr << "rl-bench: " << origin << ": " << text << std::endl;
}

std::vector<std::string> contenderNames(bool all)
{
    std::vector<std::string> names;
    for (const ContenderKind& kind : contenderKinds())
        if (all || !kind.m_onRequest)
            names.emplace_back(kind.m_name);
    return names;
}

void addOptions(CLI::App& app, Options* options)
{
    app.description("Measures the region locator beside other indexes, by workload and work.");
    app.footer("Examples:\n"
               "  rl-bench --workload uniform --size 1000000 --rounds 5\n"
               "  rl-bench --workload trace --trace FILE.csv.zst --json");
    const auto many = [&app](const char* name, auto& values, const char* text) {
        return app.add_option(name, values, text)->allow_extra_args(false);
    };
    many("--workload", options->m_workloads, "Only this workload; may be repeated")
        ->check(CLI::IsMember(workloadNames()));
    many("--size", options->m_sizes, "Regions aimed at; may be repeated")
        ->check(CLI::Range(u32{1}, MAX_SIZE));
    many("--contender", options->m_contenders, "Only this index; may be repeated")
        ->check(CLI::IsMember(contenderNames(true)));
    many("--trace", options->m_traces,
         "Block trace, CSV or .zst, for the workloads trace and trace40; may be repeated. Default: "
         "those in the folder RL_TRACES");
    app.add_option("--rounds", options->m_rounds, "Processes for each index and workload")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app.add_option("--work", options->m_work.m_only, "Only this work, on an index just filled")
        ->check(CLI::IsMember(workNames()));
    app.add_option("--operations", options->m_work.m_operations,
                   "Exactly so many operations of each work");
    app.add_flag("--json", options->m_json, "One JSON document instead of tables");
    app.add_flag("-q,--quiet", options->m_quiet, "No line for each round");
    // What the program starts itself with, for one round of one index.
    app.add_flag("--child", options->m_child)->group("");
}

// The traces of the folder that the environment names, in the order of their names.
std::vector<std::string> tracesOfEnvironment()
{
    std::vector<std::string> traces;
    const char* folder = std::getenv("RL_TRACES");
    if (folder == nullptr || !std::filesystem::is_directory(folder))
        return traces;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().string().ends_with(".csv.zst") || entry.path().extension() == ".csv")
            traces.push_back(entry.path().string());
    std::sort(traces.begin(), traces.end());
    return traces;
}

void addSubjects(const Options& options, const std::string& workload,
                 std::vector<Subject>* subjects)
{
    if (hasOwnSize(workload)) {
        for (const std::string& trace : options.m_traces)
            subjects->push_back({workload, 0, trace});
        if (options.m_traces.empty())
            subjects->push_back({workload, 0, ""});
        return;
    }
    std::vector<u32> sizes = options.m_sizes;
    if (sizes.empty())
        sizes = workload == "uniform" ? std::vector<u32>{10'000, 100'000, 1'000'000, 4'000'000}
                                      : std::vector<u32>{10'000, 1'000'000};
    for (const u32 size : sizes)
        subjects->push_back({workload, size, ""});
}

Result measureAll(const Options& options, std::vector<SubjectSamples>* all)
{
    std::vector<Subject> subjects;
    for (const std::string& workload : options.m_workloads)
        addSubjects(options, workload, &subjects);
    for (const Subject& subject : subjects) {
        SubjectSamples samples;
        if (hasOwnSize(subject.m_workload)) {
            samples.m_source = subject.m_trace.empty()
                                   ? "a generated stream, no recorded trace given"
                                   : std::filesystem::path(subject.m_trace).filename().string();
            if (subject.m_trace.empty())
                std::cerr << "rl-bench: no trace given (--trace FILE or the folder RL_TRACES): the "
                             "workload '"
                          << subject.m_workload << "' is a generated stream" << std::endl;
        }
        if (Result result = measureRounds(subject, options.m_contenders, options.m_rounds,
                                          options.m_work, options.m_quiet, &samples);
            !result.ok())
            return result;
        all->push_back(std::move(samples));
    }
    return Result();
}

} // namespace

int main(int argc, char** argv)
{
    LogItem::setSink(onRecord);
    Options options;
    CLI::App app;
    addOptions(app, &options);
    app.name("rl-bench");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return EXIT_WRONG_USAGE;
    }
    if (options.m_workloads.empty())
        options.m_workloads = workloadNames();
    if (options.m_contenders.empty())
        options.m_contenders = contenderNames(false);

    if (options.m_child) {
        const Subject subject{options.m_workloads.front(),
                              options.m_sizes.empty() ? 0 : options.m_sizes.front(),
                              options.m_traces.empty() ? "" : options.m_traces.front()};
        const int code =
            measureInThisProcess(subject, options.m_contenders.front(), options.m_work);
        return g_failedChecks == 0 ? code : 1;
    }
    if (options.m_traces.empty())
        options.m_traces = tracesOfEnvironment();
    std::vector<SubjectSamples> samples;
    if (const Result result = measureAll(options, &samples); !result.ok()) {
        std::cerr << "rl-bench: " << result.message() << std::endl;
        return 1;
    }
    std::cout << (options.m_json ? reportAsJson(samples)
                                 : reportAsTables(samples, options.m_contenders));
    return 0;
}
