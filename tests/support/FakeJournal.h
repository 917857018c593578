// A journal, a target volume and a rate monitor whose every answer a test decides.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "Sfs/IDriverProxy.h"
#include "Sfs/ISingleMonitor.h"
#include "Sfs/SfsInterface.h"

// What was asked for, in which order, and the reads that a test lets wait.
//
// Block b is filled with bytes of the value first + b (modulo 256), so that a test can tell where
// a destination's bytes came from. Thread safety: any thread.
class FakeReads
{
public:
    struct Call
    {
        std::vector<IODescriptor> m_ios;
        AioPriority m_priority;
        u64 m_volumeId;
        u64 m_flags;
        u64 m_sequence; // its place among the calls of all fakes of the process
    };

    explicit FakeReads(u8 first) : m_first(first) {}

    FutureStatus read(std::vector<IODescriptor> ios, AioPriority priority, u64 volumeId, u64 flags);

    // From now on reads are answered with this status; those that fail leave their buffers alone.
    void answerWith(RcStatus rc);
    // From now on reads wait until complete().
    void hold();
    // Sleeps until so many calls have come.
    void waitForCalls(size_t count);
    // Answers the oldest read that waits.
    void complete(RcStatus rc);

    std::vector<Call> calls();
    u8 valueOf(u64 block) const { return static_cast<u8>(m_first + block); }

private:
    struct Waiting
    {
        std::vector<IODescriptor> m_ios;
        FutureStatus m_future;
    };

    void fill(const std::vector<IODescriptor>& ios) const;

    const u8 m_first;
    std::mutex m_mutex;
    std::condition_variable m_called;
    bool m_hold = false;
    RcStatus m_answer = RC_SUCCESS;
    std::vector<Call> m_calls;
    std::vector<Waiting> m_waiting;
};

class FakeJournal : public SfsInterface
{
public:
    struct Marking
    {
        AsyncTask* m_task;
        u64 m_mirrorId;
        RcStatus m_status;
        u64 m_flags;
    };

    RcStatus setPersistentStreamStatus(AsyncTask* pAsyncTask, u64 mirrorId, RcStatus status,
                                       u64 flags) override;
    FutureStatus readStored(const std::vector<IODescriptorEx>& ios, AioPriority priority) override;

    // What setPersistentStreamStatus() answers; RC_WAIT leaves the resuming to the test.
    void answerMarkingWith(RcStatus rc) { m_markingAnswer = rc; }
    std::vector<Marking> markings();
    void waitForMarkings(size_t count);

    FakeReads m_reads{100};

private:
    std::mutex m_mutex;
    std::condition_variable m_marked;
    std::atomic<RcStatus> m_markingAnswer{RC_SUCCESS};
    std::vector<Marking> m_markings;
};

class FakeVolume : public IDriverProxy
{
public:
    FutureStatus readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                            AioPriority priority, u64 flags) override;

    FakeReads m_reads{0};
};

// Counts what it is told; the monitors that split off from it are counted while they live.
class FakeMonitor : public ISingleMonitor
{
public:
    FakeMonitor() = default;
    ~FakeMonitor() override;

    ISingleMonitor* Diverge() override;
    void addBytesPerformed(u64 bytes) override;
    void start(FutureStatus future) override;

    u64 diverged() const { return m_diverged; }
    s64 liveDiverged() const { return m_liveDiverged; }
    // What was added and started, one entry a call.
    std::vector<u64> bytes();
    std::vector<FutureStatus> started();

private:
    explicit FakeMonitor(FakeMonitor* parent) : m_parent(parent) {}

    FakeMonitor* m_parent = nullptr;
    std::atomic<u64> m_diverged{0};
    std::atomic<s64> m_liveDiverged{0};
    std::mutex m_mutex;
    std::vector<u64> m_bytes;
    std::vector<FutureStatus> m_started;
};
