// Reads ranges of a view: journal pieces and target volume together, in one asynchronous operation.
//
//   gate -> voucher -> locking lookup -> RlIoReader -> unlock and restore -> gate left, voucher
//   destroyed; the last three on every path, failures too
//
// Inside the gate only readers that put back what they locked can be at work beside this one, and
// a restore never makes more pieces; so a count of the range's pieces taken there is what the
// voucher has to cover.
//
// Thread safety: any thread; reads may overlap.
#pragma once

#include "RegionLocator/RlIoReader.h"
#include "appliance/TrackedDriver.h"
#include "appliance/View.h"
#include "host/infra/Clock.h"
#include "host/tasks/TaskEngine.h"

class ViewReader
{
public:
    // Largest range of one read(), in blocks.
    static constexpr u32 MAX_READ_BLOCKS = 1 << 15;

    // How long a plain thread's read waits for its place and for memory: without a limit a process
    // whose memory limit leaves no room would wait for itself.
    static constexpr u64 PATIENCE_MS = 30000;

    // view: outlives the reader.
    explicit ViewReader(View& view);

    // An operation of the task: reads the range into `buffer` (lengthBlocks * 512 bytes, which
    // lives until the outcome). RC_BAD_ARGUMENT: length 0, above MAX_READ_BLOCKS or beyond the
    // view's end; RC_TIMED_OUT: no place or no memory before the deadline (absolute monotonic
    // milliseconds; what is being read already is waited for); else the reader's failures, with
    // the buffer's content undefined.
    RcStatus read(AsyncTask* task, u64 offsetBlocks, u32 lengthBlocks, u8* buffer,
                  u64 deadlineMs = Clock::NEVER);

    // The same from a plain thread, for any length, in pieces, in order.
    RcStatus readNow(TaskEngine& engine, u64 offsetBlocks, u64 lengthBlocks, u8* buffer);

private:
    class Locals;

    RcStatus readFrame(AsyncTask* task, AsyncFrame* frame);

    View& m_view;
    TrackedDriver m_driver;
    RlIoReader m_reader;
    ModuleMemoryInformation* m_memory; // charged with compressed bytes being read
};
