// The memory of one locator's map nodes.
//
// A sub-pool of the process-wide memory pool: it obtains large blocks there and carves them into
// 64-byte tokens, and one token is one map node. A map operation never waits for memory: before it
// starts, its caller reserves the tokens that it may need in a voucher, and while it runs,
// RlAllocator takes nodes from that voucher and gives freed nodes back to it.
//
//   count   = RegionLocatorMemPool::getVoucherRequirement(INSERT, regions)
//   voucher = pool->createVoucher();
//   pool->fillVoucher(voucher, count, deadline, token)   ... wait for its future ...
//   locator.insert(region, voucher)
//   pool->destroyVoucher(voucher)
#pragma once

#include <atomic>
#include <cstddef>
#include <new>
#include <set>
#include <type_traits>

#include "RegionLocator/RegionLocatorVoucher.h"
#include "RegionLocator/SubRegionDescriptor.h"
#include "common/infra/MemoryPoolImpl.h"

// The kind of a locator: which accounting group of the process-wide pool pays for it.
enum RegionLocatorMmiType : u32
{
    RL_MMI_MD5 = 0,
    RL_MMI_View = 1,
    RL_MMI_Backup = 2, // on the views' account, as are apply locators
    RL_MMI_Apply = 3,
};

// Thread safety: createVoucher, fillVoucher, cancelVoucherFill, clearVoucher and destroyVoucher
// from any thread, each voucher by one thread at a time. setActiveVoucher, getActiveVoucher,
// getToken and freeToken under the owning locator's mutex.
//
// Invariants: 1. every token is in one place: free in the pool, in a voucher, or a node of a map;
//             2. no voucher is active between two operations;
//             3. no voucher is left when the pool is destroyed (soft check).
class RegionLocatorMemPool : public MemoryPoolImpl
{
public:
    // What a voucher is for.
    enum ActionType : u32
    {
        LOOKUP_LOCKED = 0,
        INSERT = 1,
        REMOVE = 2,
        LOCK_AND_REMOVE = 3,
    };

    // id: the locator's, for log lines.
    RegionLocatorMemPool(u64 id, RegionLocatorMmiType type);
    ~RegionLocatorMemPool() override;

    // Logs the number of fills that wait, if any do.
    void printMemoryUsage() override;

protected:
    FutureStatus allocate(u32 sizeBytes, u8** out) override;
    void freeAllocation(u8* ptr, u32 sizeBytes) override;
    bool cancelAllocation() override;
    u32 maxAllocationSize() override;

public:
    // The tokens that an action on `count` regions may need. Soft check: a known action; else 0.
    static int getVoucherRequirement(ActionType action, int count);

    // A new, empty voucher; given back with destroyVoucher().
    RegionLocatorVoucher* createVoucher();

    // Reserves `count` tokens. The future is set once the voucher holds them all, or to the pool's
    // failure (timed out, aborted, no memory), and then it holds none. Until then the voucher is
    // not to be used. timeout: absolute monotonic milliseconds; 0: at once or not at all, and the
    // future is set when the call returns. token: what cancelVoucherFill() will name.
    FutureStatus fillVoucher(RegionLocatorVoucher* voucher, int count, u64 timeout, void* token);

    // Ends the waiting fill that was started with this token.
    void cancelVoucherFill(void* token);

    // Gives the voucher's tokens back; it may be filled again.
    void clearVoucher(RegionLocatorVoucher* voucher);

    // Clears the voucher and frees it.
    void destroyVoucher(RegionLocatorVoucher* voucher);

    // Names the voucher of the operation that begins; null ends it.
    void setActiveVoucher(RegionLocatorVoucher* voucher)
    {
        if (__builtin_expect(m_activeVoucher != nullptr && voucher != nullptr, 0))
            reportActiveVoucher(voucher);
        m_activeVoucher = voucher;
    }
    RegionLocatorVoucher* getActiveVoucher() { return m_activeVoucher; }

    // One token from, or back to, the active voucher. Soft check: there is one; the heap is no
    // fallback.
    void* getToken()
    {
        if (__builtin_expect(m_activeVoucher == nullptr, 0))
            reportNoVoucher("void* RegionLocatorMemPool::getToken()");
        return m_activeVoucher->getObj();
    }
    void freeToken(void* token)
    {
        if (__builtin_expect(m_activeVoucher == nullptr, 0))
            reportNoVoucher("void RegionLocatorMemPool::freeToken(void*)");
        m_activeVoucher->addObj(static_cast<u8*>(token));
    }

    u32 getTokenSize() { return getChunkSize(); }

    // Memory for what speeds the locator up, from the process-wide pool and on the same account as
    // the tokens' blocks: all of it at once and without waiting, or false and none. Its owner gives
    // it back with deleteContent(). It comes in pieces of the pool's chunk size.
    bool obtainAcceleratorMemory(ScatteredBuf* buf, u64 sizeBytes);
    u32 getAcceleratorChunkSize() const;

    // Whom fillVoucher() and clearVoucher() tell that memory comes and goes, once something is due:
    // the moments at which what speeds the locator up may take and give back memory of its own.
    class UpkeepListener
    {
    public:
        virtual ~UpkeepListener() = default;
        // Both without the locator's mutex. What upkeep() cannot do for want of memory, it leaves.
        virtual void upkeep() = 0;
        // There is no memory for tokens: gives back what can be done without. False: there was
        // nothing.
        virtual bool giveWay() = 0;
    };
    // Before the first fill. Not owned; null for none.
    void setUpkeepListener(UpkeepListener* listener) { m_upkeepListener = listener; }
    // Any thread.
    void setUpkeepDue() { m_upkeepDue.store(true, std::memory_order_relaxed); }

private:
    friend class RegionLocatorTestAccess;
    class AllocationHelper;

    // The checks of the operations above, where they fail.
    void reportActiveVoucher(RegionLocatorVoucher* voucher);
    void reportNoVoucher(const char* signature);

    void keepUp();
    RcStatus fillNow(ScatteredBuf* buf, u32 sizeBytes);
    FutureStatus fillInTime(ScatteredBuf* buf, u32 sizeBytes, u64 timeout, void* token);

    u64 m_id;
    ModuleMemoryInformation* m_mmi;      // the kind's group in the process-wide pool, shared
    ModuleMemoryInformation* m_dummyMmi; // this pool's own group, which all vouchers are charged to
    RegionLocatorVoucher* m_activeVoucher;
    UpkeepListener* m_upkeepListener = nullptr;
    std::atomic<bool> m_upkeepDue{false};
    std::atomic<s32> m_activeVouchersCountForDebug;
};

// Names the voucher of an operation for as long as it lives, also where the operation ends for want
// of heap.
class OperationVoucher
{
public:
    OperationVoucher(RegionLocatorMemPool& pool, RegionLocatorVoucher* voucher) : m_pool(pool)
    {
        m_pool.setActiveVoucher(voucher);
    }
    ~OperationVoucher() { m_pool.setActiveVoucher(nullptr); }
    OperationVoucher(const OperationVoucher&) = delete;
    OperationVoucher& operator=(const OperationVoucher&) = delete;

private:
    RegionLocatorMemPool& m_pool;
};

// Gives a set of regions its nodes from a locator's pool. For every type other than the set's node
// it is the ordinary heap.
template <class T> class RlAllocator
{
public:
    using value_type = T;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using const_pointer = const T*;
    using reference = T&;
    using const_reference = const T&;
    template <class U> struct rebind
    {
        using other = RlAllocator<U>;
    };

    explicit RlAllocator(RegionLocatorMemPool* mem) : m_mem(mem), b_useMemPool(IS_NODE) {}
    RlAllocator(const RlAllocator& other) : m_mem(other.m_mem), b_useMemPool(IS_NODE) {}
    template <class U> RlAllocator(const RlAllocator<U>& other)
        : m_mem(other.m_mem), b_useMemPool(IS_NODE)
    {}
    RlAllocator& operator=(const RlAllocator&) = default;

    // One node is one token, and the set asks for one node at a time, so `n` does not matter there.
    pointer allocate(size_type n, const void* /*hint*/ = nullptr)
    {
        if (b_useMemPool)
            return static_cast<pointer>(m_mem->getToken());
        return static_cast<pointer>(::operator new(n * sizeof(T)));
    }

    void deallocate(pointer p, size_type /*n*/)
    {
        if (b_useMemPool)
            m_mem->freeToken(p);
        else
            ::operator delete(p);
    }

    pointer address(reference value) const { return std::addressof(value); }
    const_pointer address(const_reference value) const { return std::addressof(value); }
    size_type max_size() const { return static_cast<size_type>(-1) / sizeof(T); }
    void construct(pointer p, const T& value) { new (static_cast<void*>(p)) T(value); }
    void destroy(pointer p) { p->~T(); }

    template <class U> bool operator==(const RlAllocator<U>& other) const
    {
        return m_mem == other.m_mem;
    }

private:
    template <class U> friend class RlAllocator;
    friend class RegionLocatorTestAccess;

    static constexpr bool IS_NODE = std::is_same_v<T, std::_Rb_tree_node<SubRegionDescriptor>>;

    RegionLocatorMemPool* m_mem;
    bool b_useMemPool; // decided by the type alone, never copied
};

// The pool's chunk size rests on this.
static_assert(sizeof(std::_Rb_tree_node<SubRegionDescriptor>) == 64, "one node is one token");
