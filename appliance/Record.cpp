#include "appliance/Record.h"

#include <filesystem>
#include <memory>

#include "appliance/RecordState.h"
#include "appliance/TraceReader.h"
#include "host/infra/Clock.h"

namespace {

// Longest write that is taken: its payload is made in memory as a whole.
constexpr u64 MAX_WRITE_BLOCKS = u64{1} << 18;
// Lines between two looks at the outside.
constexpr u64 LOOK_EVERY = 64;

class Recorder
{
public:
    Recorder(Mirror& mirror, const RecordOptions& options, FlowControl& control,
             RecordStatistics* statistics)
        : m_mirror(mirror), m_options(options), m_control(control), m_statistics(*statistics)
    {}

    Result run();

private:
    Result checkTrace();
    Result prepareResume();
    Result readLine(TraceReader& reader, TraceWrite* write, bool* end) const;
    Result play(TraceReader& reader);
    Result recordLine(const TraceWrite& write);
    Result checkpointIfDue(u64 line, bool atEnd);
    Result interrupted(u64 line);

    Mirror& m_mirror;
    const RecordOptions& m_options;
    FlowControl& m_control;
    RecordStatistics& m_statistics;
    u64 m_allLines = 0; // 0: not known
    u64 m_digest = 0;
    u64 m_skipLines = 0; // recorded by earlier runs
    u64 m_lastCheckpointItems = ~u64{0};
    std::unique_ptr<u8[]> m_payload;
    u64 m_payloadBlocks = 0;
};

Result Recorder::readLine(TraceReader& reader, TraceWrite* write, bool* end) const
{
    if (Result result = reader.next(write, end); !result.ok() || *end)
        return result;
    if (!write->m_zeroes && write->m_lengthBlocks > MAX_WRITE_BLOCKS)
        return Result::failed(m_options.m_trace + " line " + std::to_string(write->m_lineNumber) +
                              ": a write of " + std::to_string(write->m_lengthBlocks) +
                              " blocks is longer than " + std::to_string(MAX_WRITE_BLOCKS));
    return Result();
}

Result Recorder::checkTrace()
{
    TraceReader reader(m_mirror.settings().sizeBlocks());
    if (Result result = reader.open(m_options.m_trace); !result.ok())
        return result;
    TraceWrite write;
    for (bool end = false; !end;) {
        if (Result result = readLine(reader, &write, &end); !result.ok())
            return result;
    }
    m_allLines = reader.takenLines();
    m_digest = reader.digest();
    return Result();
}

Result Recorder::prepareResume()
{
    RecordState state;
    if (Result result = loadRecordState(m_mirror.storage(), &state); !result.ok())
        return Result::usage("no interrupted recording to resume: there was none, it has ended, or "
                             "something else may have been written to the mirror since");
    if (state.m_digest != m_digest || state.m_lines != m_allLines)
        return Result::usage("the interrupted recording is of another trace");
    const RecoverableWindow window = m_mirror.window();
    if (window.m_items < state.m_itemsAtStart ||
        window.m_items - state.m_itemsAtStart > state.m_lines)
        return Result::usage("the interrupted recording does not fit the journal any more");
    m_skipLines = window.m_items - state.m_itemsAtStart;
    if (!window.m_checkpoints.empty())
        m_lastCheckpointItems = window.m_checkpoints.back().m_items;
    m_statistics.m_resumedAfter = m_skipLines;
    return Result();
}

Result Recorder::checkpointIfDue(u64 line, bool atEnd)
{
    if (m_options.m_checkpointEvery == 0)
        return Result();
    const bool due = line > 0 && line % m_options.m_checkpointEvery == 0;
    const u64 items = m_mirror.journal().itemCount();
    if ((!due && !atEnd) || m_lastCheckpointItems == items)
        return Result();
    CpId_t id = 0;
    if (Result result = m_mirror.checkpoint("", &id); !result.ok())
        return result;
    m_lastCheckpointItems = items;
    ++m_statistics.m_checkpoints;
    return Result();
}

Result Recorder::recordLine(const TraceWrite& write)
{
    m_statistics.m_bytes += write.m_lengthBlocks * BLOCK_BYTES;
    ++m_statistics.m_lines;
    if (write.m_zeroes)
        return m_mirror.writeZeroes(write.m_offsetBlocks, write.m_lengthBlocks);
    if (m_payloadBlocks < write.m_lengthBlocks) {
        m_payload.reset(new u8[write.m_lengthBlocks * BLOCK_BYTES]);
        m_payloadBlocks = write.m_lengthBlocks;
    }
    fillTracePayload(m_payload.get(), write.m_number, write.m_offsetBlocks, write.m_lengthBlocks);
    return m_mirror.write(write.m_offsetBlocks, m_payload.get(),
                          static_cast<u32>(write.m_lengthBlocks));
}

Result Recorder::interrupted(u64 line)
{
    if (Result result = m_mirror.flush(); !result.ok())
        return result;
    std::string how = "; go on with the same command and --resume";
    if (m_options.m_trace == "-")
        how = "";
    return Result(ResultCode::Interrupted,
                  "interrupted after recorded line " + std::to_string(line) + how);
}

Result Recorder::play(TraceReader& reader)
{
    TraceWrite write;
    u64 line = 0;
    for (;;) {
        bool end = false;
        if (Result result = readLine(reader, &write, &end); !result.ok()) {
            // From a pipe: the lines before this one stay.
            if (Result flushed = m_mirror.flush(); !flushed.ok())
                return flushed;
            return result;
        }
        if (end)
            return checkpointIfDue(line, true);
        line = write.m_number;
        if (line < m_skipLines)
            continue;
        if (line > m_skipLines) {
            if (Result result = recordLine(write); !result.ok())
                return Result(result.code(), "trace line " + std::to_string(write.m_lineNumber) +
                                                 ": " + result.message());
        }
        // Also for the last line of an earlier run, which may have ended between the two.
        if (Result result = checkpointIfDue(line, false); !result.ok())
            return result;
        if (line % LOOK_EVERY == 0) {
            m_control.progress(line, m_allLines);
            if (m_control.stopRequested())
                return interrupted(line);
        }
    }
}

Result Recorder::run()
{
    std::error_code ignored;
    const bool isFile = std::filesystem::is_regular_file(m_options.m_trace, ignored);
    if (m_options.m_resume && !isFile)
        return Result::usage("only a trace in a file can be resumed");
    if (isFile) {
        if (Result result = checkTrace(); !result.ok())
            return result;
    }
    if (m_options.m_resume) {
        if (Result result = prepareResume(); !result.ok())
            return result;
    } else if (isFile) {
        const RecordState state{m_digest, m_allLines, m_mirror.journal().itemCount()};
        if (Result result = storeRecordState(m_mirror.storage(), state); !result.ok())
            return result;
    } else if (Result result = removeRecordState(m_mirror.storage()); !result.ok()) {
        return result;
    }
    TraceReader reader(m_mirror.settings().sizeBlocks());
    if (Result result = reader.open(m_options.m_trace); !result.ok())
        return result;
    if (Result result = play(reader); !result.ok())
        return result;
    m_statistics.m_skippedLines = reader.skippedLines();
    if (Result result = m_mirror.flush(); !result.ok())
        return result;
    return removeRecordState(m_mirror.storage());
}

} // namespace

Result recordTrace(Mirror& mirror, const RecordOptions& options, FlowControl& control,
                   RecordStatistics* statistics)
{
    const u64 startedUs = Clock::instance()->nowUs();
    Result result = Recorder(mirror, options, control, statistics).run();
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return result;
}
