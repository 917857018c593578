#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "bench/Contenders.h"
#include "common/infra/Assert.h"
#include "common/infra/Tweaks.h"

namespace {

// How many times as many inserts as asked for are reserved.
constexpr u32 INSERT_ROOM = 4;

constexpr u64 NO_DEADLINE = ~u64{0};

class LocatorContender : public Contender
{
public:
    LocatorContender()
        : m_locator(1, RL_MMI_View), m_pool(m_locator.getMemPool()),
          m_insertVoucher(m_pool->createVoucher()), m_lockVoucher(m_pool->createVoucher())
    {}
    ~LocatorContender() override
    {
        m_pool->destroyVoucher(m_insertVoucher);
        m_pool->destroyVoucher(m_lockVoucher);
    }

    void feed(const SfsDiskMetaItem* items, u32 count) override
    {
        SfsMetaDataContainer* feeder = m_locator.getInsertContainer();
        const RcStatus prepared = feeder->prepareToAdd(static_cast<int>(count), NO_DEADLINE).get();
        HARD_CHECK(prepared == RC_SUCCESS);
        for (u32 i = 0; i < count; ++i)
            feeder->addMetaData(items[i], JournalPtr::invalid);
        feeder->unPrepareToAdd();
    }

    // What an insert frees serves the next ones: so the same reservation is enough again, unless
    // the index has grown.
    void reserveInserts(u32 writes) override
    {
        if (writes != 0 && m_locator.getItemCount() + 2 * u64{writes} <= m_regionsAllowed)
            return;
        const u32 reserved = writes * INSERT_ROOM;
        reserve(m_insertVoucher, RegionLocatorMemPool::INSERT, reserved);
        m_regionsAllowed = m_locator.getItemCount() + 2 * u64{reserved};
    }

    void insert(const SfsDiskMetaItem& item) override
    {
        const bool inserted = m_locator.insert(
            SubRegionDescriptor(SfsItemDescriptor::genFromSfsDiskMetaItem(item)), m_insertVoucher);
        HARD_CHECK(inserted);
    }

    void lookup(u64 offsetBlocks, u32 lengthBlocks, Pieces* pieces) override
    {
        m_locator.lookup(nullptr, offsetBlocks, lengthBlocks, pieces, false, nullptr);
    }

    void reserveLocks(u32 pieces) override
    {
        reserve(m_lockVoucher, RegionLocatorMemPool::LOOKUP_LOCKED, pieces);
    }

    void lock(u64 offsetBlocks, u32 lengthBlocks, Pieces* pieces) override
    {
        const RcStatus locked =
            m_locator.lookup(nullptr, offsetBlocks, lengthBlocks, pieces, true, m_lockVoucher);
        HARD_CHECK(locked == RC_SUCCESS);
    }

    void unlock(Pieces& pieces) override { m_locator.unlockAndRestore(pieces, m_lockVoucher); }

    void reserveRemoves(u32 removes) override
    {
        reserve(m_insertVoucher, RegionLocatorMemPool::REMOVE, removes);
        m_regionsAllowed = 0;
    }

    void remove(const SubRegionDescriptor& io) override { m_locator.remove(io, m_insertVoucher); }

    void lockFirst(u32 maxBlocks, Pieces* pieces) override
    {
        const RcStatus locked =
            m_locator.getFirstBlocksAndLock(nullptr, maxBlocks, pieces, m_lockVoucher);
        HARD_CHECK(locked == RC_SUCCESS);
    }

    void unlockAndRemove(Pieces& pieces) override
    {
        m_locator.unlockAndRemove(pieces, m_lockVoucher);
    }

    u64 regions() override { return m_locator.getItemCount(); }
    u64 coveredBlocks() override { return m_locator.getTotalRegionBlocks(); }
    u64 memoryBytes() override
    {
        return m_pool->getMemoryStats().totalBytes + m_locator.getAcceleratorBytes();
    }

private:
    void reserve(RegionLocatorVoucher* voucher, RegionLocatorMemPool::ActionType action, u32 count)
    {
        m_pool->clearVoucher(voucher);
        const int tokens =
            RegionLocatorMemPool::getVoucherRequirement(action, static_cast<int>(count));
        const RcStatus filled = m_pool->fillVoucher(voucher, tokens, NO_DEADLINE, this).get();
        HARD_CHECK(filled == RC_SUCCESS);
    }

    RegionLocator m_locator;
    u64 m_regionsAllowed = 0; // that the insert voucher has memory for
    RegionLocatorMemPool* m_pool;
    RegionLocatorVoucher* m_insertVoucher;
    RegionLocatorVoucher* m_lockVoucher;
};

} // namespace

std::unique_ptr<Contender> makeLocatorContender(u64 accelerators)
{
    Tweaks::set("t_RlAccelerators", accelerators);
    return std::make_unique<LocatorContender>();
}
