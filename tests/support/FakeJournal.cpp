#include "tests/support/FakeJournal.h"

#include <cstring>

#include "common/infra/MemShield.h"

namespace {

std::atomic<u64> g_sequence{0};

} // namespace

FutureStatus FakeReads::read(std::vector<IODescriptor> ios, AioPriority priority, u64 volumeId,
                             u64 flags)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(Call{ios, priority, volumeId, flags, ++g_sequence});
    m_called.notify_all();
    if (m_hold) {
        m_waiting.push_back(Waiting{std::move(ios), FutureStatus()});
        return m_waiting.back().m_future;
    }
    if (m_answer == RC_SUCCESS)
        fill(ios);
    return makeSetFuture(m_answer);
}

void FakeReads::answerWith(RcStatus rc)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_answer = rc;
}

void FakeReads::hold()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hold = true;
}

void FakeReads::waitForCalls(size_t count)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_called.wait(lock, [&] { return m_calls.size() >= count; });
}

void FakeReads::complete(RcStatus rc)
{
    FutureStatus future;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        HARD_CHECK(!m_waiting.empty());
        if (rc == RC_SUCCESS)
            fill(m_waiting.front().m_ios);
        future = m_waiting.front().m_future;
        m_waiting.erase(m_waiting.begin());
    }
    // Without the mutex: who waits may read again at once.
    future.set(rc);
}

std::vector<FakeReads::Call> FakeReads::calls()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

void FakeReads::fill(const std::vector<IODescriptor>& ios) const
{
    for (const IODescriptor& io : ios) {
        u64 byte = io.m_offsetBlocks * BLOCK_BYTES;
        for (u32 s = 0; s < io.m_data.getSegmentsCount(); ++s) {
            const MemorySegment& segment = io.m_data.getSegment(s);
            for (u32 i = 0; i < segment.getSize(); ++i, ++byte)
                segment.getPtr()[i] = valueOf(byte / BLOCK_BYTES);
        }
    }
}

RcStatus FakeJournal::setPersistentStreamStatus(AsyncTask* pAsyncTask, u64 mirrorId,
                                                RcStatus status, u64 flags)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_markings.push_back(Marking{pAsyncTask, mirrorId, status, flags});
    m_marked.notify_all();
    return m_markingAnswer;
}

FutureStatus FakeJournal::readStored(const std::vector<IODescriptorEx>& ios, AioPriority priority)
{
    return m_reads.read(std::vector<IODescriptor>(ios.begin(), ios.end()), priority, 0, 0);
}

std::vector<FakeJournal::Marking> FakeJournal::markings()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_markings;
}

void FakeJournal::waitForMarkings(size_t count)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_marked.wait(lock, [&] { return m_markings.size() >= count; });
}

FutureStatus FakeVolume::readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                                    AioPriority priority, u64 flags)
{
    return m_reads.read(ios, priority, volumeId, flags);
}

FakeMonitor::~FakeMonitor()
{
    if (m_parent != nullptr)
        --m_parent->m_liveDiverged;
}

ISingleMonitor* FakeMonitor::Diverge()
{
    ++m_diverged;
    ++m_liveDiverged;
    return SHIELD_NEW(FakeMonitor, this);
}

void FakeMonitor::addBytesPerformed(u64 bytes)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bytes.push_back(bytes);
}

void FakeMonitor::start(FutureStatus future)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_started.push_back(future);
}

std::vector<u64> FakeMonitor::bytes()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytes;
}

std::vector<FutureStatus> FakeMonitor::started()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_started;
}
