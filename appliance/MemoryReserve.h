// Memory that is kept back for apply and trim. They are what gives the memory of a live index back,
// so whoever makes that index grow leaves them enough to do something.
//
//   kept     nobody has it: what is in use beside it may grow
//   lent     an apply or trim runs: others may grow as long as there is as much beside them
//   missing  others have it: nothing may grow, until it can be taken again
//
// Thread safety: any thread.
#pragma once

#include "common/infra/MemoryPoolImpl.h"
#include "common/infra/Mutex.h"

class MemoryReserve
{
public:
    // Of the process-wide pool, as chunks: two for an index and the locks that draining it takes,
    // one for reads, and one for what others take and give back meanwhile.
    static constexpr u32 CHUNKS = 4;

    MemoryReserve();
    ~MemoryReserve();
    MemoryReserve(const MemoryReserve&) = delete;
    MemoryReserve& operator=(const MemoryReserve&) = delete;

    // Whether something may grow. Takes the reserve where it is missing and there is memory.
    bool isThere();

    // For the length of a scope, for whoever it is kept for; for several at a time.
    class Loan
    {
    public:
        // reserve: null for none.
        explicit Loan(MemoryReserve* reserve) : m_reserve(reserve)
        {
            if (m_reserve != nullptr)
                m_reserve->lend();
        }
        ~Loan()
        {
            if (m_reserve != nullptr)
                m_reserve->takeBack();
        }
        Loan(const Loan&) = delete;
        Loan& operator=(const Loan&) = delete;

    private:
        MemoryReserve* m_reserve;
    };

    // With which there is something beside the reserve.
    static u64 leastLimitBytes();

    u64 bytes() const { return m_bytes; }

private:
    void lend();
    void takeBack();
    bool take() RL_REQUIRES(m_mutex);

    MemoryPoolImpl* const m_pool;
    const u32 m_bytes;
    Mutex m_mutex;
    ScatteredBuf m_kept RL_GUARDED_BY(m_mutex);
    bool m_isKept RL_GUARDED_BY(m_mutex) = false;
    u32 m_loans RL_GUARDED_BY(m_mutex) = 0;
};
