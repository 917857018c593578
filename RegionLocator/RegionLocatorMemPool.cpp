#include "RegionLocator/RegionLocatorMemPool.h"

#include <limits>
#include <new>
#include <string>

#include "common/infra/MemShield.h"

namespace {

MemoryPoolImpl* globalPool()
{
    return Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
}

// Moves the chunks of a finished fill into the voucher, and only then tells the caller.
class FillVoucherObserver : public FutureObserver<RcStatus>
{
public:
    explicit FillVoucherObserver(RegionLocatorVoucher* voucher) : m_voucher(voucher) {}

    void update(const RcStatus& rc) override
    {
        if (rc != RC_SUCCESS)
            m_buf.deleteContent();
        else
            m_voucher->addMemorySegments(m_buf);
        m_fs.set(rc);
        SHIELD_DELETE(this);
    }

    ScatteredBuf m_buf;
    FutureStatus m_fs;
    RegionLocatorVoucher* m_voucher;
};

} // namespace

// ---- the sub-pool: where its large blocks come from ----

// Waits for one block of the process-wide pool and notes its address.
class RegionLocatorMemPool::AllocationHelper : public FutureObserver<RcStatus>
{
public:
    explicit AllocationHelper(u8** arr) : m_arr(arr) {}

    void update(const RcStatus& rc) override
    {
        if (rc == RC_SUCCESS) {
            const u32 segsCount = m_buf.getSegmentsCount();
            SOFT_CHECK(m_buf.getSegmentsCount() == 1, << "segsCount=" << segsCount);
            *m_arr = m_buf.getSegment(0).getPtr();
        }
        SHIELD_DELETE(this);
    }

    u8** m_arr;
    ScatteredBuf m_buf;
};

RegionLocatorMemPool::RegionLocatorMemPool(u64 id, RegionLocatorMmiType type)
    : m_id(id), m_mmi(nullptr), m_dummyMmi(nullptr), m_activeVoucher(nullptr),
      m_activeVouchersCountForDebug(0)
{
    init(RegionLocatorVoucher::TOKEN_BYTES, 0, std::numeric_limits<u64>::max());
    std::string name;
    switch (type) {
    case RL_MMI_MD5: name = "Md5_RLs"; break;
    case RL_MMI_View:
    case RL_MMI_Backup:
    case RL_MMI_Apply: name = "View_RLs"; break;
    default: SOFT_CHECK(false, << " mmiType=" << static_cast<u32>(type) << " "); break;
    }
    m_mmi = globalPool()->getMmi(name);
    m_dummyMmi = createMmiInternal("dummy");
    globalPool()->registerSubMemPool(this);
}

RegionLocatorMemPool::~RegionLocatorMemPool()
{
    SOFT_CHECK(m_activeVouchersCountForDebug == 0,
               << "RLMemPool<" << m_id << "> "
               << "there are still " << m_activeVouchersCountForDebug << " active vouchers");
    globalPool()->unregisterSubMemPool(this);
    destroyMmi(m_dummyMmi);
    destroy();
}

void RegionLocatorMemPool::printMemoryUsage()
{
    if (globalPool()->getMmiPendingRequests(m_dummyMmi) == 0)
        return;
    LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 0)
        << "RLMemPool<" << m_id << "> "
        << "pendingRequest=" << globalPool()->getMmiPendingRequests(m_dummyMmi) << std::endl;
}

FutureStatus RegionLocatorMemPool::allocate(u32 sizeBytes, u8** out)
{
    auto* helper = SHIELD_NEW(AllocationHelper, out);
    try {
        FutureStatus filled =
            globalPool()->fillBufFuture(m_id, &helper->m_buf, sizeBytes, m_mmi, this);
        filled.attach(helper);
        return filled;
    } catch (const std::bad_alloc&) {
        SHIELD_DELETE(helper);
        throw;
    }
}

void RegionLocatorMemPool::freeAllocation(u8* ptr, u32 sizeBytes)
{
    MemorySegment(sizeBytes, ptr, m_mmi).deleteContent();
}

bool RegionLocatorMemPool::cancelAllocation()
{
    globalPool()->cancelBufferFill(this);
    return true;
}

u32 RegionLocatorMemPool::maxAllocationSize()
{
    return globalPool()->getChunkSize() / getChunkSize() * getChunkSize();
}

// ---- memory for accelerators ----

bool RegionLocatorMemPool::obtainAcceleratorMemory(ScatteredBuf* buf, u64 sizeBytes)
{
    return sizeBytes <= std::numeric_limits<u32>::max() &&
           globalPool()->fillBufNoWait(buf, static_cast<u32>(sizeBytes), m_mmi) == RC_SUCCESS;
}

u32 RegionLocatorMemPool::getAcceleratorChunkSize() const
{
    return globalPool()->getChunkSize();
}

void RegionLocatorMemPool::keepUp()
{
    if (!m_upkeepDue.load(std::memory_order_relaxed) || m_upkeepListener == nullptr ||
        !m_upkeepDue.exchange(false, std::memory_order_relaxed))
        return;
    try {
        m_upkeepListener->upkeep();
    } catch (const std::bad_alloc&) {
        // Nobody who reserves tokens or gives them back is to fail for what can be done without;
        // it falls due again as the map changes.
    }
}

// ---- vouchers ----

int RegionLocatorMemPool::getVoucherRequirement(ActionType action, int count)
{
    switch (action) {
    case LOOKUP_LOCKED:
    case INSERT: return 2 * count;
    case REMOVE:
    case LOCK_AND_REMOVE: return count;
    }
    SOFT_CHECK(false, << "unknown action type" << static_cast<u32>(action));
    return 0;
}

RegionLocatorVoucher* RegionLocatorMemPool::createVoucher()
{
    auto* voucher = SHIELD_NEW(RegionLocatorVoucher);
    ++m_activeVouchersCountForDebug;
    return voucher;
}

FutureStatus RegionLocatorMemPool::fillVoucher(RegionLocatorVoucher* voucher, int count,
                                               u64 timeout, void* token)
{
    SOFT_CHECK(voucher->empty(), << "RLMemPool<" << m_id << "> "
                                 << "voucher not empty");
    if (count == 0)
        return makeSetFuture(RC_SUCCESS);
    keepUp();
    auto* observer = SHIELD_NEW(FillVoucherObserver, voucher);
    const u32 sizeBytes = static_cast<u32>(count) * getChunkSize();
    FutureStatus filled;
    try {
        if (voucher->takeRuns(*this, sizeBytes / getChunkSize(), m_dummyMmi))
            filled.set(RC_SUCCESS);
        else if (timeout != 0)
            filled = fillInTime(&observer->m_buf, sizeBytes, timeout, token);
        else
            filled.set(fillNow(&observer->m_buf, sizeBytes));
    } catch (const std::bad_alloc&) {
        SHIELD_DELETE(observer);
        throw;
    }
    // Copied before the observer is attached: it may run at once, and deletes itself.
    FutureStatus result = observer->m_fs;
    filled.attach(observer);
    return result;
}

RcStatus RegionLocatorMemPool::fillNow(ScatteredBuf* buf, u32 sizeBytes)
{
    const RcStatus rc = fillBufNoWait(buf, sizeBytes, m_dummyMmi);
    if (rc == RC_SUCCESS || m_upkeepListener == nullptr || !m_upkeepListener->giveWay())
        return rc;
    return fillBufNoWait(buf, sizeBytes, m_dummyMmi);
}

FutureStatus RegionLocatorMemPool::fillInTime(ScatteredBuf* buf, u32 sizeBytes, u64 timeout,
                                              void* token)
{
    FutureStatus filled =
        fillBufFutureWithTimeout(m_id, buf, sizeBytes, m_dummyMmi, timeout, token);
    // Tokens may be all that is missing, and nobody else may ever give any back.
    if (!filled.isSet() && m_upkeepListener != nullptr)
        m_upkeepListener->giveWay();
    return filled;
}

void RegionLocatorMemPool::cancelVoucherFill(void* token)
{
    cancelBufferFill(token);
}

void RegionLocatorMemPool::clearVoucher(RegionLocatorVoucher* voucher)
{
    voucher->clear(this, m_dummyMmi);
    keepUp();
}

void RegionLocatorMemPool::destroyVoucher(RegionLocatorVoucher* voucher)
{
    clearVoucher(voucher);
    SOFT_CHECK(m_activeVouchersCountForDebug > 0, << "RLMemPool<" << m_id << "> ");
    --m_activeVouchersCountForDebug;
    SHIELD_DELETE(voucher);
}

// ---- checks ----

void RegionLocatorMemPool::reportActiveVoucher(RegionLocatorVoucher* voucher)
{
    SOFT_CHECK_IN("void RegionLocatorMemPool::setActiveVoucher(RegionLocatorVoucher*)",
                  voucher == NULL, << "RLMemPool<" << m_id << "> "
                                   << "a voucher is already set");
}

void RegionLocatorMemPool::reportNoVoucher(const char* signature)
{
    SOFT_CHECK_IN(signature, m_activeVoucher != NULL, << "RLMemPool<" << m_id << "> ");
}
