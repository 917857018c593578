// Block traces: which requests went to a volume, where and how much, without their data.
//
// A trace is CSV, plain or compressed by zstd (known by its first bytes, not by its name), with the
// header "time_us,op,offset_blocks,length_blocks"; a block is 512 bytes. "W" writes, "T" and "Z"
// make zeroes; lines of every other kind are skipped and counted.
//
// The k-th line that is taken (k from 1, all three kinds counted together) stands for data that
// tells which write it came from: see fillTracePayload().
//
// Thread safety: one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "appliance/Result.h"
#include "common/infra/Types.h"

// One line that is taken.
struct TraceWrite
{
    u64 m_lineNumber = 0; // in the file, from 1, the header counted
    u64 m_number = 0;     // k
    u64 m_offsetBlocks = 0;
    u64 m_lengthBlocks = 0; // above 0
    u64 m_timeMicros = 0;   // as the trace counts
    bool m_zeroes = false;
};

class TraceReader
{
public:
    // volumeBlocks: where a line that is taken has to end at the latest.
    explicit TraceReader(u64 volumeBlocks);
    ~TraceReader();
    TraceReader(const TraceReader&) = delete;
    TraceReader& operator=(const TraceReader&) = delete;

    // Opens a file, or standard input for "-", and reads the header.
    Result open(const std::string& path);

    // The next line that is taken, or *end. Failed with the line's number for a line that is
    // malformed, reaches beyond the volume, or has numbers that overflow; the lines before it have
    // been delivered. After a failure the reader is of no more use.
    Result next(TraceWrite* write, bool* end);

    // Lines of other kinds seen so far.
    u64 skippedLines() const { return m_skippedLines; }
    // Lines taken so far.
    u64 takenLines() const { return m_taken; }
    // A digest of the lines taken so far (their content, not the file's form).
    u64 digest() const { return m_digest; }

private:
    class Source;

    // The next line without its end; *end after the last one.
    Result nextLine(std::string_view* line, bool* end);
    Result parse(std::string_view line, TraceWrite* write, bool* taken);
    Result bad(const std::string& why) const;

    u64 m_volumeBlocks;
    std::string m_path;
    std::unique_ptr<Source> m_source;
    std::vector<char> m_text; // decoded and not yet used: [m_textStart, m_text.size())
    size_t m_textStart = 0;
    u64 m_lineNumber = 0;
    u64 m_taken = 0;
    u64 m_skippedLines = 0;
    u64 m_digest = 0;
};

// Fills `blocks` blocks with the payload of the k-th line at view block `firstBlock` and on: each
// block is 32 repetitions of the little-endian 64-bit numbers k and its own view block.
void fillTracePayload(u8* out, u64 k, u64 firstBlock, u64 blocks);
