// A request of a memory pool for one block.
#pragma once

#include <atomic>
#include <memory>

#include "host/infra/PoolCore.h"

// Lives until it has been answered. When the answer comes while the request is still being made,
// the maker takes it from here and goes on in its own loop: a pool that is served block after block
// would otherwise nest a call for each.
class PoolCore::BlockRequest : public FutureObserver<RcStatus>
{
public:
    BlockRequest(std::shared_ptr<PoolCore> core, bool noWait, u64 cancels, bool mayBeCancelled)
        : m_noWait(noWait), m_cancels(cancels), m_mayBeCancelled(mayBeCancelled),
          m_core(std::move(core))
    {}

    void update(const RcStatus& rc) override
    {
        m_rc = rc;
        if (m_stage.exchange(ANSWERED, std::memory_order_acq_rel) == MADE)
            m_core->requestCompleted(this);
    }

    // The maker has handed the request over. True: the answer has come already and is the maker's.
    bool made() { return m_stage.exchange(MADE, std::memory_order_acq_rel) == ANSWERED; }

    const bool m_noWait;         // of a fill that does not wait: its failure is nobody else's
    const u64 m_cancels;         // the pool's cancellations decided before the request
    const bool m_mayBeCancelled; // one of them was still running
    u8* m_block = nullptr;
    RcStatus m_rc = RC_WAIT;

private:
    enum Stage : u32
    {
        MAKING,
        MADE,
        ANSWERED
    };

    std::shared_ptr<PoolCore> m_core;
    std::atomic<u32> m_stage{MAKING};
};
