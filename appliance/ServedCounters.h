// What a served mirror's clients asked for. The data path adds, whoever reports reads.
#pragma once

#include <array>
#include <atomic>

#include "common/infra/Types.h"

enum class ServedOp : u32
{
    Read,
    Write,
    Zero,
    Trim,
    Flush,
    Extents,
};
constexpr u32 SERVED_OPS = 6;

// "read", "write", "zero", "trim", "flush", "extents".
const char* servedOpName(ServedOp op);

// Thread safety: any thread.
struct ServedCounters
{
    struct Op
    {
        std::atomic<u64> m_requests{0}; // answered, well or not
        std::atomic<u64> m_bytes{0};    // of those answered well
        std::atomic<u64> m_errors{0};
        std::atomic<u64> m_noSpace{0}; // of the errors: ENOSPC, for want of disk or of memory
    };

    Op& of(ServedOp op) { return m_ops[static_cast<u32>(op)]; }
    const Op& of(ServedOp op) const { return m_ops[static_cast<u32>(op)]; }

    std::array<Op, SERVED_OPS> m_ops;
    std::atomic<u64> m_connections{0}; // open now
    std::atomic<u64> m_opened{0};      // exports opened since the start
    std::atomic<u64> m_refused{0};     // that could not be opened
};
