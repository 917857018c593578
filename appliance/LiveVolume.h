// The live volume of a mirror: what its clients write and read while it is protected.
//
//   write -> prepared (compressed, checksummed) -> queue -> the one that leads appends the group to
//            the journal and inserts it into the index, in one order -> answered
//   read  -> DirectReader over the index
//
// Requests that come while a group is being appended queue; whoever led hands over to the first of
// them, which takes all that queue by then. So the index follows the journal's order, never that in
// which requests happened to complete, and a restart rebuilds the very same index; and thirty
// writers at once cost few hand-overs.
//
// A write is in the journal and in the index when it is answered, and durable after the next
// flush(). What is read while a write to the same blocks is under way is either content.
//
// Thread safety: any thread.
// Invariants: 1. nothing of the index is ever locked, so no operation on it waits, or stops the
//                process over what it meets;
//             2. the memory that a group's insertions take is reserved before it is appended, and
//                leaves apply and trim the memory that they need to give some back;
//             3. every request is answered, also where the heap gives nothing for the group.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "appliance/DirectReader.h"
#include "appliance/FlowControl.h"
#include "appliance/JournalIndex.h"
#include "appliance/MemoryReserve.h"
#include "appliance/Mirror.h"
#include "appliance/TokenReserve.h"
#include "host/journal/PreparedRequest.h"

class LiveVolume : public JournalIndex
{
public:
    // Builds the index from the journal. mirror: opened as writer, by which nobody else appends as
    // long as this is open; it outlives the volume. Interrupted when control says so; Failed when
    // the index does not fit the memory limit; Damaged.
    static Result open(Mirror& mirror, FlowControl& control, std::unique_ptr<LiveVolume>* volume);

    // REQUIRES: no request is under way. Flushes nothing: closing the mirror does.
    ~LiveVolume() override;
    LiveVolume(const LiveVolume&) = delete;
    LiveVolume& operator=(const LiveVolume&) = delete;

    // Asked by a writer when the process's memory has no room for what it inserts: frees what
    // nobody uses; false: there was nothing. Before the first request.
    void onNoMemory(std::function<bool()> makeRoom) { m_makeRoom = std::move(makeRoom); }

    u64 sizeBlocks() const { return m_mirror.settings().sizeBlocks(); }

    // One request each. RC_BAD_ARGUMENT: no length, or beyond the volume; RC_NO_SPACE: the
    // journal's limit is reached or the disk is full; RC_NO_MEMORY: no memory for the
    // request or the index; RC_IO_ERROR: the journal accepts nothing more. After a failure nothing
    // has changed. Zeroes take no data, whatever their length.
    RcStatus write(u64 offsetBlocks, const u8* data, u32 lengthBlocks);
    RcStatus writeZeroes(u64 offsetBlocks, u64 lengthBlocks);

    // Makes all that was answered before durable. As JournalStore::flush().
    RcStatus flush() { return m_mirror.journal().flush(); }

    // As DirectReader::read().
    RcStatus read(u64 offsetBlocks, u32 lengthBlocks, u8* data)
    {
        return m_reader.read(offsetBlocks, lengthBlocks, data);
    }

    const ReadSources& sources() const { return m_sources; }
    // That the index takes now, what speeds it up included.
    u64 memoryBytes() { return indexBytes(m_locator); }

    // Items that the index has taken in since it was built, those of the journal then too, and what
    // they cover.
    u64 insertedIos() const { return m_insertedIos.load(std::memory_order_relaxed); }
    u64 insertedBytes() const { return m_insertedBytes.load(std::memory_order_relaxed); }

    // What writers leave for apply and trim, which borrow it.
    MemoryReserve& memoryReserve() { return m_forApply; }

    // Requests that found no memory for the index.
    u64 refused() const { return m_refused.load(std::memory_order_relaxed); }

    // Groups appended so far: how many requests share one tells how well they combine.
    u64 groups() const { return m_groups.load(std::memory_order_relaxed); }

    RegionLocator& locator() override { return m_locator; }
    LocatorGate& gate() override { return m_gate; }
    const PointUse* use() const override { return nullptr; }
    bool isLive() const override { return true; }

private:
    // A request on its way through the queue; lives on its thread's stack.
    struct Waiting
    {
        enum State : int
        {
            Queued,
            Leads, // to append the queue
            Done,
        };
        PreparedRequest m_request;
        RcStatus m_rc = RC_NO_MEMORY; // until it is appended
        Waiting* m_next = nullptr;
        std::atomic<int> m_state{Queued};
    };

    explicit LiveVolume(Mirror& mirror);

    Result build(FlowControl& control);
    RcStatus append(Waiting& waiting);
    void lead(Waiting& leader);
    void appendGroup(Waiting* first);
    RcStatus reserve(u64 insertions);
    RcStatus prepare(u64 insertions);
    bool leavesReserve();
    void appendPrepared(Waiting* first, Waiting* end);

    Mirror& m_mirror;
    RegionLocator m_locator;
    LocatorGate m_gate;
    ReadSources m_sources;
    DirectReader m_reader;
    std::function<bool()> m_makeRoom;
    std::atomic<u64> m_groups{0};
    std::atomic<u64> m_refused{0};
    std::atomic<u64> m_insertedIos{0};
    std::atomic<u64> m_insertedBytes{0};

    Mutex m_queueMutex;
    bool m_isLed RL_GUARDED_BY(m_queueMutex) = false;
    Waiting* m_first RL_GUARDED_BY(m_queueMutex) = nullptr;
    Waiting* m_last RL_GUARDED_BY(m_queueMutex) = nullptr;

    MemoryReserve m_forApply;

    // Of the one that leads.
    TokenReserve m_reserve;
    std::vector<PreparedRequest*> m_requests;
};
