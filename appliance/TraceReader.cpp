#include "appliance/TraceReader.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>
#include <zstd.h>

namespace {

constexpr size_t READ_BYTES = 1 << 18;
constexpr size_t MAX_LINE_BYTES = 4096;
constexpr std::string_view HEADER = "time_us,op,offset_blocks,length_blocks";
constexpr u32 ZSTD_MAGIC = 0xFD2FB528;

// Takes the text up to the next comma, or all of it, off the front.
std::string_view takeField(std::string_view* rest)
{
    const size_t comma = rest->find(',');
    const std::string_view field = rest->substr(0, comma);
    rest->remove_prefix(comma == std::string_view::npos ? rest->size() : comma + 1);
    return field;
}

bool parseNumber(std::string_view text, u64* value)
{
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && stop == text.data() + text.size();
}

bool isOverflow(std::string_view text)
{
    u64 value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc::result_out_of_range && stop == text.data() + text.size();
}

} // namespace

// The file's text, decompressed where needed.
class TraceReader::Source
{
public:
    explicit Source(int fd) : m_fd(fd), m_input(READ_BYTES) {}
    ~Source()
    {
        ZSTD_freeDStream(m_zstd);
        if (m_fd > 0)
            close(m_fd);
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // Appends some text; *end when there is none left. Answers "" or what went wrong.
    std::string append(std::vector<char>* text, bool* end)
    {
        *end = false;
        if (m_inputUsed == m_inputSize) {
            if (std::string error = fill(); !error.empty())
                return error;
            if (m_inputSize == 0) {
                *end = true;
                return m_frameOpen ? "the compressed trace ends in the middle" : "";
            }
        }
        if (m_zstd != nullptr)
            return decompress(text);
        text->insert(text->end(), m_input.begin() + static_cast<std::ptrdiff_t>(m_inputUsed),
                     m_input.begin() + static_cast<std::ptrdiff_t>(m_inputSize));
        m_inputUsed = m_inputSize;
        return "";
    }

private:
    // Reads until the buffer is full or the file ends: the first bytes, which tell the format, then
    // come together also from a pipe.
    std::string fill()
    {
        m_inputUsed = 0;
        m_inputSize = 0;
        while (m_inputSize < m_input.size()) {
            const ssize_t got =
                read(m_fd, m_input.data() + m_inputSize, m_input.size() - m_inputSize);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                return std::strerror(errno);
            if (got == 0)
                break;
            m_inputSize += static_cast<size_t>(got);
        }
        if (!m_formatKnown) {
            m_formatKnown = true;
            u32 magic = 0;
            if (m_inputSize >= sizeof magic)
                std::memcpy(&magic, m_input.data(), sizeof magic);
            if (magic == ZSTD_MAGIC)
                m_zstd = ZSTD_createDStream();
        }
        return "";
    }

    std::string decompress(std::vector<char>* text)
    {
        const size_t before = text->size();
        text->resize(before + READ_BYTES);
        ZSTD_inBuffer in{m_input.data(), m_inputSize, m_inputUsed};
        ZSTD_outBuffer out{text->data() + before, READ_BYTES, 0};
        const size_t rest = ZSTD_decompressStream(m_zstd, &out, &in);
        text->resize(before + out.pos);
        m_inputUsed = in.pos;
        if (ZSTD_isError(rest) != 0)
            return std::string("the compressed trace is damaged: ") + ZSTD_getErrorName(rest);
        m_frameOpen = rest != 0;
        return "";
    }

    int m_fd;
    std::vector<char> m_input;
    size_t m_inputUsed = 0;
    size_t m_inputSize = 0;
    bool m_formatKnown = false;
    bool m_frameOpen = false;
    ZSTD_DStream* m_zstd = nullptr;
};

TraceReader::TraceReader(u64 volumeBlocks) : m_volumeBlocks(volumeBlocks) {}
TraceReader::~TraceReader() = default;

Result TraceReader::bad(const std::string& why) const
{
    return Result::failed(m_path + " line " + std::to_string(m_lineNumber) + ": " + why);
}

Result TraceReader::open(const std::string& path)
{
    m_path = path == "-" ? "standard input" : path;
    const int fd = path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return Result::failed("cannot open trace " + path + ": " + std::strerror(errno));
    m_source = std::make_unique<Source>(fd);
    std::string_view line;
    bool end = false;
    if (Result result = nextLine(&line, &end); !result.ok())
        return result;
    if (end || line != HEADER) {
        m_lineNumber = 1;
        return bad("a trace begins with the header " + std::string(HEADER));
    }
    return Result();
}

Result TraceReader::nextLine(std::string_view* line, bool* end)
{
    *end = false;
    size_t searched = m_textStart;
    for (;;) {
        const size_t size = m_text.size() - searched;
        const void* newline =
            size == 0 ? nullptr : std::memchr(m_text.data() + searched, '\n', size);
        if (newline != nullptr) {
            const size_t stop =
                static_cast<size_t>(static_cast<const char*>(newline) - m_text.data());
            *line = std::string_view(m_text.data() + m_textStart, stop - m_textStart);
            m_textStart = stop + 1;
            break;
        }
        if (m_text.size() - m_textStart > MAX_LINE_BYTES) {
            ++m_lineNumber;
            return bad("the line is too long");
        }
        m_text.erase(m_text.begin(), m_text.begin() + static_cast<std::ptrdiff_t>(m_textStart));
        m_textStart = 0;
        searched = m_text.size();
        bool sourceEnd = false;
        const std::string error = m_source->append(&m_text, &sourceEnd);
        if (!error.empty())
            return Result::failed(m_path + " after line " + std::to_string(m_lineNumber) + ": " +
                                  error);
        if (!sourceEnd)
            continue;
        if (m_text.empty()) {
            *end = true;
            return Result();
        }
        // The last line lacks its end.
        *line = std::string_view(m_text.data(), m_text.size());
        m_textStart = m_text.size();
        break;
    }
    ++m_lineNumber;
    if (!line->empty() && line->back() == '\r')
        line->remove_suffix(1);
    return Result();
}

Result TraceReader::parse(std::string_view line, TraceWrite* write, bool* taken)
{
    *taken = false;
    std::string_view rest = line;
    const std::string_view time = takeField(&rest);
    const std::string_view op = takeField(&rest);
    const std::string_view offset = takeField(&rest);
    const std::string_view length = takeField(&rest);
    if (isOverflow(time) || isOverflow(offset) || isOverflow(length))
        return bad("a number is too large");
    if (!rest.empty() || op.empty() || !parseNumber(time, &write->m_timeMicros) ||
        !parseNumber(offset, &write->m_offsetBlocks) ||
        !parseNumber(length, &write->m_lengthBlocks))
        return bad("malformed: '" + std::string(line.substr(0, 100)) + "'");
    if (op != "W" && op != "T" && op != "Z") {
        ++m_skippedLines;
        return Result();
    }
    if (write->m_lengthBlocks == 0)
        return bad("a request of length 0");
    if (write->m_offsetBlocks > m_volumeBlocks ||
        write->m_lengthBlocks > m_volumeBlocks - write->m_offsetBlocks)
        return bad("the request at block " + std::string(offset) + " of " + std::string(length) +
                   " blocks ends beyond the volume's " + std::to_string(m_volumeBlocks));
    write->m_zeroes = op != "W";
    write->m_lineNumber = m_lineNumber;
    write->m_number = ++m_taken;
    const u64 content[4] = {m_digest, write->m_offsetBlocks, write->m_lengthBlocks,
                            write->m_zeroes ? u64{1} : u64{0}};
    m_digest = XXH3_64bits(content, sizeof content);
    *taken = true;
    return Result();
}

Result TraceReader::next(TraceWrite* write, bool* end)
{
    for (;;) {
        std::string_view line;
        if (Result result = nextLine(&line, end); !result.ok() || *end)
            return result;
        bool taken = false;
        if (Result result = parse(line, write, &taken); !result.ok() || taken)
            return result;
    }
}

void fillTracePayload(u8* out, u64 k, u64 firstBlock, u64 blocks)
{
    constexpr size_t PAIRS = BLOCK_BYTES / (2 * sizeof(u64));
    u64 content[2 * PAIRS];
    for (size_t pair = 0; pair < PAIRS; ++pair)
        content[2 * pair] = k;
    for (u64 block = firstBlock; block < firstBlock + blocks; ++block) {
        for (size_t pair = 0; pair < PAIRS; ++pair)
            content[2 * pair + 1] = block;
        std::memcpy(out, content, BLOCK_BYTES);
        out += BLOCK_BYTES;
    }
}
