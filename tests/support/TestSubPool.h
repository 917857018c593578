// A sub-pool over a pool of the test's own, with hooks that can fail, and a future that is counted.
#pragma once

#include <functional>
#include <memory>

#include "common/infra/MemoryPoolImpl.h"

// Does what a locator's pool does, over any parent. Its chunks are 64 bytes.
class TestSubPool : public MemoryPoolImpl
{
public:
    TestSubPool(MemoryPoolImpl& parent, const std::string& group, u64 keepBytes = 0,
                u64 maxBytes = ~u64{0})
        : m_parent(parent), m_group(parent.getMmi(group))
    {
        init(64, keepBytes, maxBytes);
        m_own = createMmiInternal("own");
        m_parent.registerSubMemPool(this);
    }
    ~TestSubPool() override
    {
        m_parent.unregisterSubMemPool(this);
        destroyMmi(m_own);
        destroy();
    }

    ModuleMemoryInformation* own() const { return m_own; }

    // Called with the number of the allocation, from 1; a status other than RC_SUCCESS fails it.
    std::function<RcStatus(u32)> m_allocationFault;

    std::atomic<u32> m_allocations{0};
    std::atomic<u32> m_frees{0};
    std::atomic<u32> m_cancels{0};

protected:
    FutureStatus allocate(u32 sizeBytes, u8** out) override
    {
        const u32 number = ++m_allocations;
        const RcStatus fault = m_allocationFault ? m_allocationFault(number) : RC_SUCCESS;
        if (fault != RC_SUCCESS)
            return makeSetFuture(fault);
        auto* receiver = new Receiver(out);
        FutureStatus future = m_parent.fillBufFuture(7, &receiver->m_buf, sizeBytes, m_group, this);
        future.attach(receiver);
        return future;
    }
    void freeAllocation(u8* ptr, u32 sizeBytes) override
    {
        ++m_frees;
        MemorySegment(sizeBytes, ptr, m_group).deleteContent();
    }
    bool cancelAllocation() override
    {
        ++m_cancels;
        m_parent.cancelBufferFill(this);
        return true;
    }
    u32 maxAllocationSize() override { return m_parent.getChunkSize() / 64 * 64; }

private:
    struct Receiver : public FutureObserver<RcStatus>
    {
        explicit Receiver(u8** out) : m_out(out) {}
        void update(const RcStatus& rc) override
        {
            if (rc == RC_SUCCESS)
                *m_out = m_buf.getSegment(0).getPtr();
            delete this;
        }
        u8** m_out;
        ScatteredBuf m_buf;
    };

    MemoryPoolImpl& m_parent;
    ModuleMemoryInformation* m_group;
    ModuleMemoryInformation* m_own = nullptr;
};
