#include "host/infra/BinaryEventLog.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <unistd.h>
#include <vector>

#include "common/infra/BinaryLogger.h"
#include "common/infra/Mutex.h"
#include "host/infra/BinaryEventFormat.h"
#include "host/infra/Clock.h"

namespace {

// Records are gathered so that a trace of every region costs one system call for many.
constexpr size_t BUFFER_BYTES = 64 * 1024;

class EventFile
{
public:
    EventFile(int file, std::string path) : m_file(file), m_path(std::move(path))
    {
        m_buffer.reserve(BUFFER_BYTES);
        add(BinaryEventFormat::encodeHeader(Clock::instance()->wallTimeUs()));
    }
    ~EventFile() { ::close(m_file); }
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    void log(u32 code, u64 viewOffsetBlocks, u8 kind, u64 lengthBlocks, u64 journalAddressBlocks)
    {
        Clock* clock = Clock::instance();
        MutexGuard lock(m_mutex);
        add(BinaryEventFormat::encodeRecord({m_nextNumber++, clock->nowUs(), clock->wallTimeUs(),
                                             code, kind, viewOffsetBlocks, lengthBlocks,
                                             journalAddressBlocks}));
    }

    Outcome flush()
    {
        MutexGuard lock(m_mutex);
        writeBuffer();
        if (m_error == 0)
            return {};
        return {RC_IO_ERROR, "cannot write the event log " + m_path + ": " + strerror(m_error)};
    }

private:
    void add(const BinaryEventFormat::Bytes& bytes) RL_REQUIRES(m_mutex)
    {
        m_buffer.insert(m_buffer.end(), bytes.begin(), bytes.end());
        if (m_buffer.size() >= BUFFER_BYTES)
            writeBuffer();
    }

    void writeBuffer() RL_REQUIRES(m_mutex)
    {
        size_t written = 0;
        // After an error nothing more is written: a hole would shift every later record.
        while (m_error == 0 && written < m_buffer.size()) {
            const ssize_t count =
                ::write(m_file, m_buffer.data() + written, m_buffer.size() - written);
            if (count >= 0)
                written += static_cast<size_t>(count);
            else if (errno != EINTR)
                m_error = errno;
        }
        m_buffer.clear();
    }

    const int m_file;
    const std::string m_path;
    Mutex m_mutex;
    std::vector<u8> m_buffer RL_GUARDED_BY(m_mutex);
    u64 m_nextNumber RL_GUARDED_BY(m_mutex) = 0;
    int m_error RL_GUARDED_BY(m_mutex) = 0;
};

Mutex s_mutex;
std::shared_ptr<EventFile> s_open RL_GUARDED_BY(s_mutex);
BinaryLogger::Sink s_sinkBefore RL_GUARDED_BY(s_mutex);

} // namespace

Outcome BinaryEventLog::open(const std::string& path)
{
    MutexGuard lock(s_mutex);
    if (s_open != nullptr)
        return {RC_IN_USE, "an event log is open already"};
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file < 0)
        return {RC_IO_ERROR, "cannot write the event log " + path + ": " + strerror(errno)};
    s_open = std::make_shared<EventFile>(file, path);
    s_sinkBefore = BinaryLogger::setSink([events = s_open](u32 code, u64 viewOffsetBlocks, u8 kind,
                                                           u64 lengthBlocks, u64 journalAddress) {
        events->log(code, viewOffsetBlocks, kind, lengthBlocks, journalAddress);
    });
    return {};
}

Outcome BinaryEventLog::flush()
{
    MutexGuard lock(s_mutex);
    return s_open == nullptr ? Outcome() : s_open->flush();
}

Outcome BinaryEventLog::close()
{
    MutexGuard lock(s_mutex);
    if (s_open == nullptr)
        return {};
    BinaryLogger::setSink(std::move(s_sinkBefore));
    s_sinkBefore = nullptr;
    Outcome outcome = s_open->flush();
    s_open.reset();
    return outcome;
}

Outcome readBinaryEvents(const std::string& path, BinaryEventFile* result)
{
    *result = BinaryEventFile();
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return {RC_IO_ERROR, "cannot read the event log " + path + ": " + strerror(errno)};
    BinaryEventFormat::Bytes bytes{};
    const auto readBlock = [&] {
        file.read(reinterpret_cast<char*>(bytes.data()), BinaryEventFormat::BLOCK);
        return static_cast<u64>(file.gcount());
    };

    if (readBlock() < BinaryEventFormat::BLOCK)
        return {RC_DAMAGED, path + " is no event log, or its header is cut off"};
    switch (BinaryEventFormat::checkHeader(bytes)) {
    case RC_SUCCESS: break;
    case RC_BAD_ARGUMENT:
        return {RC_BAD_ARGUMENT, path + " is an event log of a version that is not known here"};
    default: return {RC_DAMAGED, path + " is no event log, or its header is damaged"};
    }

    u64 offsetBytes = BinaryEventFormat::BLOCK;
    for (;;) {
        const u64 count = readBlock();
        if (count < BinaryEventFormat::BLOCK) {
            result->m_cutBytes = count;
            break;
        }
        BinaryEvent event{};
        if (BinaryEventFormat::decodeRecord(bytes, &event))
            result->m_events.push_back(event);
        else
            result->m_damagedAtBytes.push_back(offsetBytes);
        offsetBytes += BinaryEventFormat::BLOCK;
    }
    if (file.bad())
        return {RC_IO_ERROR, "cannot read the event log " + path};
    return {};
}
