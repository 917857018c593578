#include "bench/Rounds.h"

#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <iostream>
#include <spawn.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "bench/TraceWorkload.h"

extern char** environ;

namespace {

constexpr const char* THIS_PROGRAM = "/proc/self/exe";

// What the contenders of one subject have said so far, by work: whoever says it first is believed,
// and the fill has been compared with what it must be in each of them.
using Digests = std::map<std::string, std::pair<u64, std::string>>;

std::vector<std::string> arguments(const Subject& subject, const std::string& contender,
                                   const WorkOptions& options)
{
    std::vector<std::string> words = {"rl-bench",         "--child",     "--workload",
                                      subject.m_workload, "--contender", contender};
    if (subject.m_size != 0) {
        words.emplace_back("--size");
        words.push_back(std::to_string(subject.m_size));
    }
    if (!subject.m_trace.empty()) {
        words.emplace_back("--trace");
        words.push_back(subject.m_trace);
    }
    if (!options.m_only.empty()) {
        words.emplace_back("--work");
        words.push_back(options.m_only);
    }
    if (options.m_operations != 0) {
        words.emplace_back("--operations");
        words.push_back(std::to_string(options.m_operations));
    }
    return words;
}

// Runs this program with these arguments; *output is all that it writes to standard output.
Result runSelf(std::vector<std::string> words, std::string* output)
{
    int ends[2];
    if (pipe(ends) != 0)
        return Result::failed(std::string("cannot make a pipe: ") + std::strerror(errno));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int failure = posix_spawn(&pid, THIS_PROGRAM, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (failure != 0) {
        close(ends[0]);
        return Result::failed(std::string("cannot start a process: ") + std::strerror(failure));
    }
    char buffer[4096];
    for (ssize_t got = 0; (got = read(ends[0], buffer, sizeof(buffer))) > 0;)
        output->append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return Result::failed("a measuring process failed");
    return Result();
}

// A virtual machine's memory is its host's until it is touched: the first touch then costs many
// times what it costs later, and which pages an index gets is chance. So as much as the largest
// index takes is fetched and given back first; huge pages, as ordinary ones are cut from what they
// leave.
void fetchMemory()
{
    constexpr size_t BYTES = size_t{512} << 20;
    constexpr size_t PAGE_BYTES = 4096;
    void* const memory =
        mmap(nullptr, BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return;
    madvise(memory, BYTES, MADV_HUGEPAGE);
    volatile char* const bytes = static_cast<char*>(memory);
    for (size_t i = 0; i < BYTES; i += PAGE_BYTES)
        bytes[i] = 1;
    munmap(memory, BYTES);
}

Result takeOutput(const std::string& output, const std::string& contender, Digests* digests,
                  SubjectSamples* samples)
{
    std::istringstream lines(output);
    std::string word;
    lines >> word >> samples->m_size;
    for (Measurement m; lines >> m.m_work >> m.m_operations >> m.m_nanoseconds >>
                        m.m_bytesPerRegion >> m.m_digest;) {
        WorkSamples& work = samples->m_contenders[contender][m.m_work];
        work.m_nanoseconds.push_back(m.m_nanoseconds);
        work.m_bytesPerRegion.push_back(m.m_bytesPerRegion);
        const auto& [digest, first] =
            digests->try_emplace(m.m_work, m.m_digest, contender).first->second;
        if (digest != m.m_digest)
            return Result::failed(fmt::format("{} and {} answer differently after {} on {}",
                                              contender, first, m.m_work,
                                              samples->m_subject.m_workload));
    }
    if (!lines.eof() || samples->m_contenders[contender].empty())
        return Result::failed("a measuring process wrote something else than measurements");
    return Result();
}

} // namespace

const std::vector<std::string>& workloadNames()
{
    static const auto* const NAMES = new std::vector<std::string>{
        "uniform", "unaligned", "skewed", "sequential", "trace", "trace40"};
    return *NAMES;
}

bool hasOwnSize(const std::string& workload)
{
    return workload == "trace" || workload == "trace40";
}

Result makeWorkload(const Subject& subject, Workload* workload)
{
    if (subject.m_workload == "uniform")
        *workload = makeUniform(subject.m_size);
    else if (subject.m_workload == "unaligned")
        *workload = makeUnaligned(subject.m_size);
    else if (subject.m_workload == "skewed")
        *workload = makeSkewed(subject.m_size);
    else if (subject.m_workload == "sequential")
        *workload = makeSequential(subject.m_size);
    else {
        const u32 volumes = subject.m_workload == "trace40" ? 40 : 1;
        return makeTraceWorkload(subject.m_trace, volumes, workload);
    }
    return Result();
}

int measureInThisProcess(const Subject& subject, const std::string& contender,
                         const WorkOptions& options)
{
    fetchMemory();
    Workload workload;
    if (const Result result = makeWorkload(subject, &workload); !result.ok()) {
        std::cerr << "rl-bench: " << result.message() << std::endl;
        return 1;
    }
    std::vector<Measurement> measurements;
    const std::string wrong =
        measureWorks(*findContenderKind(contender), workload, options, &measurements);
    if (!wrong.empty()) {
        std::cerr << "rl-bench: " << contender << " " << wrong << " (" << subject.m_workload << ")"
                  << std::endl;
        return 1;
    }
    std::cout << "size "
              << (hasOwnSize(subject.m_workload) ? workload.m_items.size() : subject.m_size)
              << "\n";
    for (const Measurement& m : measurements)
        std::cout << m.m_work << " " << m.m_operations << " " << m.m_nanoseconds << " "
                  << m.m_bytesPerRegion << " " << m.m_digest << "\n";
    return 0;
}

Result measureRounds(const Subject& subject, const std::vector<std::string>& contenders, u32 rounds,
                     const WorkOptions& options, bool quiet, SubjectSamples* samples)
{
    samples->m_subject = subject;
    Digests digests;
    for (u32 round = 0; round < rounds; ++round) {
        if (!quiet)
            std::cerr << "rl-bench: " << subject.m_workload << " "
                      << (subject.m_size == 0 ? "" : std::to_string(subject.m_size) + " ")
                      << "round " << round + 1 << " of " << rounds << std::endl;
        for (size_t i = 0; i < contenders.size(); ++i) {
            // Another one first each time.
            const std::string& contender = contenders[(i + round) % contenders.size()];
            std::string output;
            if (Result result = runSelf(arguments(subject, contender, options), &output);
                !result.ok())
                return result;
            if (Result result = takeOutput(output, contender, &digests, samples); !result.ok())
                return result;
        }
    }
    return Result();
}
